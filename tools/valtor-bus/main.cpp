#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <syslog.h>
#include <unistd.h>
#include <vector>

#include <CLI/CLI.hpp>

#include "app/util/ErrnoText.h"
#include "support/LogSink.h"
#include "valtor-bus/CommandFailure.h"
#include "valtor-bus/Commands.h"
#include "valtor-bus/JSONText.h"
#include "valtor-bus/NumberRanges.h"

namespace {

using valtor::BusConnection;
using valtor::CommandFailure;
using valtor::ExitCode;
using valtor::MessageKind;
using valtor::Output;

// The checks of numbers rewrite what they let through: the library would read 010 as 8, and take
// -1 for a size and "nan" for a time.
template <class Number>
CLI::Validator numberCheck(const std::string& name, Number first, Number last) {
  const auto check = [=](std::string& text) -> std::string {
    Number number{};
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size() ||
        !(number >= first && number <= last)) {
      return "\"" + valtor::excerpt(text) + "\" is no " + name;
    }
    if constexpr (std::is_integral_v<Number>) {
      text = std::to_string(number);
    }
    return "";
  };
  return {check, ""};
}

CLI::Validator whole(int first, int last = INT_MAX) {
  return numberCheck("whole number from " + std::to_string(first) +
                         (last == INT_MAX ? "" : " to " + std::to_string(last)),
                     first, last);
}
CLI::Validator seconds() { return numberCheck("number of seconds", 0.0, 1e9); }

// What was asked for: a command, run once the whole command line has been understood.
struct Request {
  valtor::BusSettings bus;
  std::function<void(BusConnection&, Output&)> command;
};

// The texts of options that several subcommands have and that are checked after parsing.
struct FilterTexts {
  std::vector<std::string> paths;
  std::vector<std::string> kinds;
  std::string sources;
  std::string destinations;

  void addTo(CLI::App& app) {
    app.add_option("--path", paths, "only this path, or paths that begin so when it ends in *")
        ->allow_extra_args(false);
    app.add_option("--kind", kinds, "only this kind: GET, SET, DEL, UPDATE, CMD, NOT, RSP, ...")
        ->allow_extra_args(false);
    app.add_option("--from", sources, "only from these connection ids, such as 101 or 200-299");
    app.add_option("--to", destinations, "only to these connection ids");
  }
  valtor::MessageFilter filter() const;
};

// What --count and --timeout say to a command that ends by itself only then.
struct Limits {
  std::size_t count = 0;
  double timeout = -1;

  void addTo(CLI::App& app) {
    app.add_option("--count", count, "end after so many messages")
        ->type_name("NUMBER")
        ->transform(whole(1));
    app.add_option("--timeout", timeout, "end after so many seconds")
        ->type_name("SECONDS")
        ->transform(::seconds());
  }
  std::optional<double> seconds() const {
    return timeout < 0 ? std::nullopt : std::optional<double>(timeout);
  }
};

int32_t ownConnID() {
  constexpr int kFirst = 20000;
  constexpr int kCount = 10000;
  return kFirst + static_cast<int32_t>(getpid() % kCount);
}

MessageKind kindOf(const std::string& text) {
  std::string name = text;
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char byte) { return static_cast<char>(std::toupper(byte)); });
  const MessageKind kind = valtor::kindFromName(name);
  if (kind == MessageKind::Unknown) {
    throw CommandFailure(
        ExitCode::Usage, "\"" + text + "\" is no kind of message",
        "Kinds are CMD, CMDRSP, CMDNOT, RSP, NOT, ACK, NAK, GET, SET, DEL, UPDATE.");
  }
  return kind;
}

valtor::MessageFilter FilterTexts::filter() const {
  valtor::MessageFilter filter;
  filter.paths = paths;
  for (const std::string& kind : kinds) {
    filter.kinds.push_back(kindOf(kind));
  }
  if (!sources.empty()) {
    filter.sources = valtor::parseNumbers("--from", sources);
  }
  if (!destinations.empty()) {
    filter.destinations = valtor::parseNumbers("--to", destinations);
  }
  return filter;
}

// The content of a file, or of standard input for "-".
std::string contentOf(const std::string& file) {
  struct Closer {
    void operator()(std::FILE* stream) const { std::fclose(stream); }  // NOLINT(*-owning-memory)
  };
  const bool fromInput = file == "-";
  const std::unique_ptr<std::FILE, Closer> stream(
      fromInput ? fdopen(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1), "r")
                : std::fopen(file.c_str(), "re"));
  std::string content;
  std::array<char, 65536> part{};
  std::size_t count = 1;
  while (stream && count > 0) {
    count = std::fread(part.data(), 1, part.size(), stream.get());
    content.append(part.data(), count);
  }
  if (!stream || std::ferror(stream.get()) != 0) {
    throw CommandFailure(ExitCode::Refused, "cannot read " + (fromInput ? "standard input" : file) +
                                                ": " + valtor::errnoText(errno));
  }
  return content;
}

CLI::App* addCommand(CLI::App& app, const char* name, const char* text,
                     const std::string& examples) {
  CLI::App* command = app.add_subcommand(name, text);
  command->footer(
      "\nShared options (--host, --port, --name, --conn-id): valtor-bus --help\n\n"
      "Examples:\n" +
      examples);
  return command;
}

void addTimeout(CLI::App& app, double& timeout) {
  app.add_option("--timeout", timeout, "seconds to wait for the answer")
      ->type_name("SECONDS")
      ->transform(seconds())
      ->capture_default_str();
}

void addWatch(CLI::App& app, Request& request) {
  CLI::App* command = addCommand(app, "watch", "Show messages as they pass, one line each.",
                                 "  valtor-bus watch --path 'device*' --kind NOT\n"
                                 "  valtor-bus watch --json --count 10 --timeout 60 | jq .body\n"
                                 "  valtor-bus watch --from 101 --raw\n");
  struct Texts {
    FilterTexts filter;
    Limits limits;
    bool json = false;
    bool raw = false;
  };
  const auto texts = std::make_shared<Texts>();
  texts->filter.addTo(*command);
  texts->limits.addTo(*command);
  auto* json = command->add_flag("--json", texts->json, "one JSON object a line");
  command->add_flag("--raw", texts->raw, "the payload bytes, each followed by a line feed")
      ->excludes(json);
  command->callback([texts, &request] {
    request.command = [texts](BusConnection& connection, Output& output) {
      valtor::WatchSettings settings;
      settings.filter = texts->filter.filter();
      settings.form = texts->json  ? valtor::WatchSettings::Form::JSON
                      : texts->raw ? valtor::WatchSettings::Form::Raw
                                   : valtor::WatchSettings::Form::Text;
      settings.count = texts->limits.count;
      settings.timeout = texts->limits.seconds();
      valtor::watch(connection, settings, output);
    };
  });
}

void addGet(CLI::App& app, Request& request) {
  CLI::App* command = addCommand(app, "get", "Ask for objects and print their values.",
                                 "  valtor-bus get connectionPoint\n"
                                 "  valtor-bus get logicalSources logicalDests --path db\n"
                                 "  valtor-bus get mdxMasterState --path system\n");
  const auto settings = std::make_shared<valtor::GetSettings>();
  command->add_option("NAME", settings->names, "names of objects")->required();
  command->add_option("--path", settings->path, "where they are")->capture_default_str();
  addTimeout(*command, settings->timeout);
  command->callback([settings, &request] {
    request.command = [settings](BusConnection& connection, Output& output) {
      valtor::get(connection, *settings, output);
    };
  });
}

struct SendTexts {
  valtor::SendSettings settings;
  std::string kind;
  std::string base;
  std::string file;
  std::vector<std::string> values;
  bool noWait = false;
};

void addSendOptions(CLI::App& command, SendTexts& texts) {
  command.add_option("--dest", texts.settings.destination, "connection id of the addressee")
      ->type_name("ID")
      ->transform(whole(0));
  command.add_flag("--no-wait", texts.noWait, "send and wait for no answer");
  addTimeout(command, texts.settings.timeout);
}

// Runs a send whose body the function makes, before there is a connection: a body that somebody
// types takes its time.
void runSend(CLI::App& command, const std::shared_ptr<SendTexts>& texts, Request& request,
             const std::function<void(SendTexts&)>& complete) {
  command.callback([texts, &request, complete] {
    complete(*texts);
    texts->settings.answers = texts->noWait ? 0 : texts->settings.answers;
    request.command = [texts](BusConnection& connection, Output& output) {
      valtor::sendMessage(connection, texts->settings, output);
    };
  });
}

void addChange(CLI::App& app, Request& request, MessageKind kind) {
  const bool sets = kind == MessageKind::SET;
  CLI::App* command =
      sets ? addCommand(app, "set", "Set objects to new values.",
                        "  valtor-bus set --file points.json\n"
                        "  valtor-bus set '{\"connectionPoint\":[...]}'\n"
                        "  valtor-bus set --path system time=1\n")
           : addCommand(app, "update", "Add or change objects.",
                        "  valtor-bus update --no-wait --file points.json\n"
                        "  valtor-bus update --no-wait '{\"connectionPoint\":[...]}'\n");
  const auto texts = std::make_shared<SendTexts>();
  auto* values =
      command->add_option("VALUE", texts->values,
                          "the value: a JSON object, - for standard input, or NAME=VALUE "
                          "for each of its members");
  command->add_option("--file", texts->file, "read the JSON object from a file")->excludes(values);
  command->add_option("--path", texts->settings.path, "where it is")->capture_default_str();
  addSendOptions(*command, *texts);
  runSend(*command, texts, request, [kind](SendTexts& all) {
    if (all.file.empty() && all.values.empty()) {
      throw CommandFailure(ExitCode::Usage, "a VALUE or --file is needed");
    }
    const bool fromInput = all.values.size() == 1 && all.values.front() == "-";
    all.settings.kind = kind;
    all.settings.summary = true;
    if (kind == MessageKind::UPDATE) {
      all.settings.hint =
          "The daemon does not answer an UPDATE of connection points: use --no-wait, then status.";
    }
    all.settings.body = fromInput          ? valtor::paramBody(contentOf("-"), "standard input")
                        : all.file.empty() ? valtor::paramBody(all.values)
                                           : valtor::paramBody(contentOf(all.file), all.file);
  });
}

void addDelete(CLI::App& app, Request& request) {
  CLI::App* command = addCommand(app, "del", "Delete objects.",
                                 "  valtor-bus del connectionPoint.router-7\n"
                                 "  valtor-bus del --base connectionPoint router-7 router-8\n");
  const auto texts = std::make_shared<SendTexts>();
  command->add_option("NAME", texts->values, "names of objects")->required();
  command->add_option("--base", texts->base, "what they are, such as connectionPoint");
  command->add_option("--path", texts->settings.path, "where they are")->capture_default_str();
  addSendOptions(*command, *texts);
  runSend(*command, texts, request, [](SendTexts& all) {
    all.settings.kind = MessageKind::DEL;
    all.settings.summary = true;
    all.settings.hint = "Nothing has that name, or it may not be deleted: see status.";
    all.settings.body = valtor::deletionBody(all.base, all.values);
  });
}

void addSend(CLI::App& app, Request& request) {
  CLI::App* command =
      addCommand(app, "send", "Send one message of any kind.",
                 "  valtor-bus send GET device '{\"objectName\":[\"connectionPoint\"]}'\n"
                 "  valtor-bus send NOT device --file change.json\n"
                 "  generate | valtor-bus send CMD route - --answers 2\n");
  const auto texts = std::make_shared<SendTexts>();
  std::string& body = texts->settings.body;
  command->add_option("KIND", texts->kind, "CMD, GET, SET, NOT, ...")->required();
  command->add_option("PATH", texts->settings.path, "such as route or system.connection")
      ->required();
  auto* given = command->add_option("BODY", body,
                                    "a JSON object, or - for standard input; an \"id\" is added");
  command->add_option("--file", texts->file, "read the body from a file")->excludes(given);
  command->add_option("--answers", texts->settings.answers, "how many answers to wait for")
      ->type_name("NUMBER")
      ->transform(whole(1))
      ->capture_default_str();
  addSendOptions(*command, *texts);
  runSend(*command, texts, request, [](SendTexts& all) {
    all.settings.kind = kindOf(all.kind);
    if (!all.file.empty() || all.settings.body == "-") {
      all.settings.body = contentOf(all.file.empty() ? "-" : all.file);
    }
    switch (all.settings.kind) {
      case MessageKind::CMD:
      case MessageKind::GET:
      case MessageKind::SET:
      case MessageKind::DEL:
      case MessageKind::UPDATE:
        break;
      default:
        all.noWait = true;  // nobody answers these
    }
  });
}

void addStatus(CLI::App& app, Request& request) {
  CLI::App* command = addCommand(app, "status", "Show the connection points and their state.",
                                 "  valtor-bus status\n"
                                 "  valtor-bus status --watch\n"
                                 "  valtor-bus status --check || alarm\n");
  const auto settings = std::make_shared<valtor::StatusSettings>();
  auto* watch = command->add_flag("--watch", settings->watch, "stay, and show every change");
  command
      ->add_flag("--check", settings->check,
                 "one line; exit 0 only if every enabled connection point is connected")
      ->excludes(watch);
  addTimeout(*command, settings->timeout);
  command->callback([settings, &request] {
    request.command = [settings](BusConnection& connection, Output& output) {
      valtor::status(connection, *settings, output);
    };
  });
}

void addRoute(CLI::App& app, Request& request) {
  CLI::App* route = addCommand(app, "route", "Take and query routes.",
                               "  valtor-bus route take --dest 1-16 --level 0,2-5 --source 7\n"
                               "  valtor-bus route query --dest 1-128 --level 0\n");
  route->require_subcommand(1);
  const auto settings = std::make_shared<valtor::RouteSettings>();
  CLI::App* take = addCommand(*route, "take", "Switch destinations to a source.",
                              "  valtor-bus route take --dest 1-16 --level 0,2-5 --source 7\n"
                              "  valtor-bus route take --dest 4 --level 0-2 --source 7,8,9\n");
  CLI::App* query = addCommand(*route, "query", "Ask what feeds destinations.",
                               "  valtor-bus route query --dest 1-128 --level 0\n"
                               "  valtor-bus route query --dest 1,5 --level 0-63 --json\n");
  for (CLI::App* command : {take, query}) {
    command->add_option("--dest", settings->destinations, "destinations, such as 1-16")->required();
    command->add_option("--level", settings->levels, "levels, such as 0,2-5")
        ->capture_default_str();
    addTimeout(*command, settings->timeout);
  }
  take->add_option("--source", settings->sources,
                   "the source, or one for each level as they are written")
      ->required();
  take->add_option("--user-id", settings->userID, "the user in whose name it is done")
      ->type_name("ID")
      ->transform(whole(INT_MIN));
  take->add_flag("--machine-control", settings->machineControl, "take machine control along");
  take->add_flag("--no-wait", settings->noWait, "send and wait for no answer");
  query->add_flag("--json", settings->json, "the answer's value as it is");
  take->callback([settings, &request] {
    request.command = [settings](BusConnection& connection, Output& output) {
      valtor::takeRoute(connection, *settings, output);
    };
  });
  query->callback([settings, &request] {
    request.command = [settings](BusConnection& connection, Output& output) {
      valtor::queryRoute(connection, *settings, output);
    };
  });
}

void addRecord(CLI::App& app, Request& request) {
  CLI::App* command = addCommand(app, "record", "Write messages to a file until interrupted.",
                                 "  valtor-bus record evening.rec\n"
                                 "  valtor-bus record --path route --timeout 600 routes.rec\n");
  struct Texts {
    valtor::RecordSettings settings;
    FilterTexts filter;
    Limits limits;
  };
  const auto texts = std::make_shared<Texts>();
  command->add_option("FILE", texts->settings.file, "a new file, or - for standard output")
      ->required();
  command->add_flag("--overwrite", texts->settings.overwrite, "replace the file if it exists");
  texts->filter.addTo(*command);
  texts->limits.addTo(*command);
  command->callback([texts, &request] {
    request.command = [texts](BusConnection& connection, Output& output) {
      texts->settings.filter = texts->filter.filter();
      texts->settings.count = texts->limits.count;
      texts->settings.timeout = texts->limits.seconds();
      valtor::record(connection, texts->settings, output);
    };
  });
}

void addReplay(CLI::App& app, Request& request) {
  CLI::App* command = addCommand(app, "replay", "Send the messages of a recording again.",
                                 "  valtor-bus replay evening.rec\n"
                                 "  valtor-bus replay --speed 10 evening.rec\n"
                                 "  valtor-bus replay --no-timing evening.rec\n");
  const auto settings = std::make_shared<valtor::ReplaySettings>();
  command->add_option("FILE", settings->file, "a recording, or - for standard input")->required();
  auto* speed = command->add_option("--speed", settings->speed, "2 is twice as fast as recorded")
                    ->type_name("FACTOR")
                    ->transform(numberCheck("factor above 0", 1e-9, 1e9))
                    ->capture_default_str();
  command->add_flag("--no-timing", settings->noTiming, "as fast as it goes")->excludes(speed);
  command->callback([settings, &request] {
    request.command = [settings](BusConnection& connection, Output& /*output*/) {
      valtor::replay(connection, *settings);
    };
  });
}

void addAll(CLI::App& app, Request& request) {
  app.set_version_flag("--version", "valtor-bus " VALTOR_VERSION);
  app.add_option("--host", request.bus.host, "the message node's host")
      ->check(CLI::Validator(
          [](const std::string& text) {
            return std::string(text.empty() ? "a name is needed" : "");
          },
          ""))
      ->capture_default_str();
  app.add_option("--port", request.bus.port, "its TCP port")
      ->type_name("PORT")
      ->transform(whole(1, 65535))
      ->capture_default_str();
  app.add_option("--name", request.bus.name, "name to log in with")->capture_default_str();
  app.add_option("--conn-id", request.bus.connID,
                 "connection id to log in with; by default 20000 to 29999, from the process id")
      ->type_name("ID")
      ->transform(whole(1));
  app.require_subcommand(1);
  app.fallthrough();
  addWatch(app, request);
  addGet(app, request);
  addChange(app, request, MessageKind::SET);
  addChange(app, request, MessageKind::UPDATE);
  addDelete(app, request);
  addSend(app, request);
  addStatus(app, request);
  addRoute(app, request);
  addRecord(app, request);
  addReplay(app, request);
  app.footer(
      "\nExit codes: 0 done, 1 refused or no answer, 2 wrong usage.\n\n"
      "Examples:\n"
      "  valtor-bus status\n"
      "  valtor-bus --host 10.0.0.7 watch --path 'device*'\n"
      "  valtor-bus get --help\n");
}

int fail(ExitCode code, const std::string& text, const std::string& hint) {
  if (!text.empty()) {
    valtor::say(text);
  }
  if (!hint.empty()) {
    std::fprintf(stderr, "  %s\n", hint.c_str());
  }
  return static_cast<int>(code);
}

// Started without the standard streams, a socket would get their numbers. Read-only, so that
// writing to one still fails.
void occupyStandardDescriptors() {
  int descriptor = 0;
  do {
    descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  close(descriptor);
}

// What the stream parser says about broken frames is for the person.
void takeLogLine(int priority, const std::string& text) {
  if (LOG_PRI(priority) <= LOG_WARNING) {
    valtor::say(valtor::printable(text.substr(0, text.find_last_not_of('\n') + 1)));
  }
}

// Prints what was asked for, such as help, or what is wrong with the command line; the exit code.
int answer(const CLI::App& app, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0) {
    app.exit(error);
    std::cout.flush();
    return std::cout ? 0
                     : fail(ExitCode::Refused,
                            "cannot write to standard output: " + valtor::errnoText(errno), "");
  }
  const CLI::App* at = &app;  // the command that was understood last
  while (!at->get_subcommands().empty()) {
    at = at->get_subcommands().front();
  }
  std::string commands;
  for (const CLI::App* command : at->get_subcommands([](const CLI::App*) { return true; })) {
    commands += (commands.empty() ? "Commands: " : ", ") + command->get_name();
  }
  const std::vector<std::string> words = app.remaining(true);
  if (error.get_name() != "RequiredError" || commands.empty()) {
    return fail(ExitCode::Usage, valtor::printable(error.what()),
                "Run with --help for more information.");
  }
  if (words.empty()) {
    std::fputs(app.help().c_str(), stderr);
    return static_cast<int>(ExitCode::Usage);
  }
  const bool isOption = words.front().rfind('-', 0) == 0;
  return fail(
      ExitCode::Usage,
      "\"" + valtor::printable(words.front()) + "\" is no " + (isOption ? "option" : "command"),
      commands);
}

}  // namespace

int main(int argc, char** argv) {
  occupyStandardDescriptors();
  valtor::setLogSink(takeLogLine);
  try {
    Request request;
    request.bus.connID = ownConnID();
    CLI::App app("Watch, ask and change what passes over a message bus.", "valtor-bus");
    addAll(app, request);
    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      return answer(app, error);
    }
    Output output;
    // Never destroyed: a name server that does not answer would hold up the end.
    static BusConnection& connection = *new BusConnection(request.bus);  // NOLINT(*-owning-memory)
    request.command(connection, output);
    return 0;
  } catch (const CommandFailure& failure) {
    return fail(failure.exitCode, failure.what(), failure.hint);
  } catch (const std::exception& error) {
    return fail(ExitCode::Refused, error.what(), "");
  }
}
