#include "valtor-bus/CommandOptions.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include <CLI/CLI.hpp>

#include "app/util/ErrnoText.h"
#include "support/CommandFailure.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"
#include "support/WholeNumber.h"
#include "valtor-bus/BusDefaults.h"
#include "valtor-bus/CheckCommand.h"
#include "valtor-bus/Commands.h"
#include "valtor-bus/NumberRanges.h"

namespace valtor {
namespace {

// The checks of numbers rewrite what they let through: the library would read 010 as 8, and take
// -1 for a size and "nan" for a time.
template <class Number>
CLI::Validator numberCheck(const std::string& name, Number first, Number last) {
  const auto check = [=](std::string& text) -> std::string {
    const auto number = wholeNumber<Number>(text);
    if (!number || !(*number >= first && *number <= last)) {
      return "\"" + excerpt(text) + "\" is no " + name;
    }
    if constexpr (std::is_integral_v<Number>) {
      text = std::to_string(*number);
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
CLI::Validator portCheck() { return whole(1, 65535); }
CLI::Validator secondsCheck() { return numberCheck("number of seconds", 0.0, 1e9); }

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
  MessageFilter filter() const;
};

// What --count and --timeout say to a command that ends by itself only then.
struct Limits {
  std::size_t count = 0;
  double timeout = -1;

  void addTo(CLI::App& app) {
    app.add_option("-c,--count", count, "end after so many messages")
        ->type_name("NUMBER")
        ->transform(whole(1));
    app.add_option("-t,--timeout", timeout, "end after so many seconds")
        ->type_name("SECONDS")
        ->transform(secondsCheck());
  }
  std::optional<double> seconds() const {
    return timeout < 0 ? std::nullopt : std::optional<double>(timeout);
  }
};

MessageKind kindOf(const std::string& text) {
  std::string name = text;
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char byte) { return static_cast<char>(std::toupper(byte)); });
  const MessageKind kind = kindFromName(name);
  if (kind == MessageKind::Unknown) {
    throw CommandFailure(
        ExitCode::Usage, "\"" + text + "\" is no kind of message",
        "Kinds are CMD, CMDRSP, CMDNOT, RSP, NOT, ACK, NAK, GET, SET, DEL, UPDATE.");
  }
  return kind;
}

MessageFilter FilterTexts::filter() const {
  MessageFilter filter;
  filter.paths = paths;
  for (const std::string& kind : kinds) {
    filter.kinds.push_back(kindOf(kind));
  }
  if (!sources.empty()) {
    filter.sources = parseNumbers("--from", sources);
  }
  if (!destinations.empty()) {
    filter.destinations = parseNumbers("--to", destinations);
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
                                                ": " + errnoText(errno));
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
  app.add_option("-t,--timeout", timeout, "seconds to wait for the answer")
      ->type_name("SECONDS")
      ->transform(secondsCheck())
      ->capture_default_str();
}

void addSocket(CLI::App& app, std::string& socket) {
  app.add_option("--socket", socket, "where the daemon of this machine tells")
      ->type_name("PATH")
      ->capture_default_str();
}

// What the subcommand asks for is the function with these settings, as parsing leaves them.
template <class Settings>
void asksFor(CLI::App& command, Request& request, const std::shared_ptr<Settings>& settings,
             void (*function)(BusConnection&, const Settings&, Output&)) {
  command.callback([settings, &request, function] {
    request.command = [settings, function](BusConnection& connection, Output& output) {
      function(connection, *settings, output);
    };
  });
}

void addWatch(CLI::App& app, Request& request) {
  CLI::App* command = addCommand(app, "watch", "Show messages as they pass, one line each.",
                                 "  valtor-bus watch --path 'device*' --kind NOT\n"
                                 "  valtor-bus watch --json --count 10 --timeout 60 | jq .body\n"
                                 "  valtor-bus watch --format '%{time} %{path} %{body}'\n"
                                 "  valtor-bus watch --from 101 --raw\n");
  struct Texts {
    FilterTexts filter;
    Limits limits;
    std::string format;
    std::size_t width = WatchSettings().width;
    bool full = false;
    bool json = false;
    bool raw = false;
  };
  const auto texts = std::make_shared<Texts>();
  texts->filter.addTo(*command);
  texts->limits.addTo(*command);
  command->add_option("--width", texts->width, "how much of a body is shown")
      ->type_name("CHARACTERS")
      ->transform(whole(1))
      ->capture_default_str();
  command->add_flag("--full", texts->full, "show all of every body");
  auto* json = command->add_flag("--json", texts->json, "one JSON object a line");
  auto* raw =
      command->add_flag("--raw", texts->raw, "the payload bytes, each followed by a line feed")
          ->excludes(json);
  command
      ->add_option("--format", texts->format,
                   "a line of one's own; " + MessageFormat::placeholders() + ", %%, \\n, \\t")
      ->type_name("TEXT")
      ->excludes(json)
      ->excludes(raw);
  command->callback([texts, &request] {
    request.command = [texts](BusConnection& connection, Output& output) {
      WatchSettings settings;
      settings.filter = texts->filter.filter();
      settings.form = texts->json  ? WatchSettings::Form::JSON
                      : texts->raw ? WatchSettings::Form::Raw
                                   : WatchSettings::Form::Text;
      if (!texts->format.empty()) {
        settings.format.emplace(texts->format);
      }
      settings.width = texts->full ? 0 : texts->width;
      settings.count = texts->limits.count;
      settings.timeout = texts->limits.seconds();
      watch(connection, settings, output);
    };
  });
}

void addGet(CLI::App& app, Request& request) {
  CLI::App* command = addCommand(app, "get", "Ask for objects and print their values.",
                                 "  valtor-bus get connectionPoint\n"
                                 "  valtor-bus get logicalSources logicalDests --path db\n"
                                 "  valtor-bus get mdxMasterState --path system\n");
  const auto settings = std::make_shared<GetSettings>();
  command->add_option("NAME", settings->names, "names of objects")->required();
  command->add_option("--path", settings->path, "where they are")->capture_default_str();
  addTimeout(*command, settings->timeout);
  asksFor(*command, request, settings, get);
}

struct SendTexts {
  SendSettings settings;
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
      sendMessage(connection, texts->settings, output);
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
    all.settings.body = fromInput          ? paramBody(contentOf("-"), "standard input")
                        : all.file.empty() ? paramBody(all.values)
                                           : paramBody(contentOf(all.file), all.file);
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
    all.settings.body = deletionBody(all.base, all.values);
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
  const auto settings = std::make_shared<StatusSettings>();
  auto* watch = command->add_flag("--watch", settings->watch, "stay, and show every change");
  auto* check = command
                    ->add_flag("--check", settings->check,
                               "one line for monitoring systems; exit codes 0 OK, 1 WARNING, "
                               "2 CRITICAL, 3 UNKNOWN")
                    ->excludes(watch);
  command->add_flag("--probe", settings->probe, "ask every enabled router's node too")
      ->needs(check);
  command->add_flag("--json", settings->json, "as JSON")->excludes(watch)->excludes(check);
  addSocket(*command, settings->socket);
  addTimeout(*command, settings->timeout);
  command->callback([settings, &request] {
    request.command = [settings](BusConnection& connection, Output& output) {
      (settings->check ? checkStatus : status)(connection, *settings, output);
    };
  });
}

void addFollow(CLI::App& app, Request& request) {
  CLI::App* command =
      addCommand(app, "follow", "Show each message of one router, and what blocked it.",
                 "  valtor-bus follow router-north\n"
                 "  valtor-bus follow --json router-north | jq 'select(.passed == false).rule'\n");
  const auto settings = std::make_shared<FollowSettings>();
  command->add_option("UNIQUE-ID", settings->uniqueID, "of a router that status lists")->required();
  command->add_flag("--json", settings->json, "the daemon's lines as they are");
  addSocket(*command, settings->socket);
  addTimeout(*command, settings->timeout);
  asksFor(*command, request, settings, follow);
}

void addWait(CLI::App& app, Request& request) {
  CLI::App* command = addCommand(app, "wait", "Wait until routers are connected.",
                                 "  valtor-bus wait && start-the-show\n"
                                 "  valtor-bus wait --down router-north --timeout 60\n");
  const auto settings = std::make_shared<WaitSettings>();
  command->add_option("ROUTER", settings->routers,
                      "names or unique IDs; without any, all that are enabled");
  command->add_flag("--down", settings->down, "until they are not connected");
  addSocket(*command, settings->socket);
  addTimeout(*command, settings->timeout);
  asksFor(*command, request, settings, wait);
}

void addPing(CLI::App& app, Request& request) {
  CLI::App* command =
      addCommand(app, "ping", "Measure the way to the daemon or a router, and back.",
                 "  valtor-bus ping\n"
                 "  valtor-bus ping router-north\n"
                 "  valtor-bus ping --count 100 --interval 0.1 127.0.0.2:15000\n");
  const auto settings = std::make_shared<PingSettings>();
  command->add_option("ROUTER", settings->router,
                      "name or unique ID of a router that the daemon lists, or ADDRESS:PORT; "
                      "without it the daemon");
  command->add_option("-c,--count", settings->count, "how often")
      ->type_name("NUMBER")
      ->transform(whole(1))
      ->capture_default_str();
  command->add_option("--interval", settings->interval, "from one question to the next")
      ->type_name("SECONDS")
      ->transform(secondsCheck())
      ->capture_default_str();
  addTimeout(*command, settings->timeout);
  asksFor(*command, request, settings, ping);
}

void addCheck(CLI::App& app, Request& request) {
  CLI::App* command =
      addCommand(app, "check", "Read a file of connection points as the daemon would.",
                 "  valtor-bus check connectionPoints.json\n"
                 "  valtor-bus check new.json && mv new.json connectionPoints.json\n");
  const auto file = std::make_shared<std::string>();
  command->add_option("FILE", *file, "such as a database's connectionPoints.json")->required();
  command->callback([file, &request] {
    request.command = [file](BusConnection& /*connection*/, Output& output) {
      check(*file, output);
    };
  });
}

void addRoute(CLI::App& app, Request& request) {
  CLI::App* route = addCommand(app, "route", "Take and query routes.",
                               "  valtor-bus route take --dest 1-16 --level 0,2-5 --source 7\n"
                               "  valtor-bus route query --dest 1-128 --level 0\n");
  route->require_subcommand(1);
  const auto settings = std::make_shared<RouteSettings>();
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
  asksFor(*take, request, settings, takeRoute);
  asksFor(*query, request, settings, queryRoute);
}

void addRecord(CLI::App& app, Request& request) {
  CLI::App* command = addCommand(app, "record", "Write messages to a file until interrupted.",
                                 "  valtor-bus record evening.rec\n"
                                 "  valtor-bus record --path route --timeout 600 routes.rec\n");
  struct Texts {
    RecordSettings settings;
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
      record(connection, texts->settings, output);
    };
  });
}

void addReplay(CLI::App& app, Request& request) {
  CLI::App* command = addCommand(app, "replay", "Send the messages of a recording again.",
                                 "  valtor-bus replay evening.rec\n"
                                 "  valtor-bus replay --speed 10 evening.rec\n"
                                 "  valtor-bus replay --no-timing evening.rec\n"
                                 "  valtor-bus replay --loop --path route evening.rec\n");
  struct Texts {
    ReplaySettings settings;
    FilterTexts filter;
  };
  const auto texts = std::make_shared<Texts>();
  ReplaySettings& settings = texts->settings;
  command->add_option("FILE", settings.file, "a recording, or - for standard input")->required();
  texts->filter.addTo(*command);
  auto* speed = command->add_option("--speed", settings.speed, "2 is twice as fast as recorded")
                    ->type_name("FACTOR")
                    ->transform(numberCheck("factor above 0", 1e-9, 1e9))
                    ->capture_default_str();
  command->add_flag("--no-timing", settings.noTiming, "as fast as it goes")->excludes(speed);
  command->add_flag("--loop", settings.loop, "begin again at the end, until interrupted");
  command->callback([texts, &request] {
    request.command = [texts](BusConnection& connection, Output& /*output*/) {
      texts->settings.filter = texts->filter.filter();
      replay(connection, texts->settings);
    };
  });
}

}  // namespace

void addOptions(CLI::App& app, Request& request) {
  app.set_version_flag("--version", "valtor-bus " VALTOR_VERSION);
  CLI::Option* host = app.add_option("-H,--host", request.bus.host, "the message node's host")
                          ->check(CLI::Validator(
                              [](const std::string& text) {
                                return std::string(text.empty() ? "a name is needed" : "");
                              },
                              ""))
                          ->capture_default_str();
  CLI::Option* port = app.add_option("-p,--port", request.bus.port, "its TCP port")
                          ->type_name("PORT")
                          ->transform(portCheck())
                          ->capture_default_str();
  app.final_callback([&app, host, port, &request] {
    if (app.got_subcommand("check") || app.got_subcommand("follow")) {
      return;  // these ask no bus
    }
    if (const auto given = host->count() == 0 ? busDefault("host") : std::nullopt) {
      request.bus.host = given->text;
    }
    if (const auto given = port->count() == 0 ? busDefault("port") : std::nullopt) {
      std::string text = given->text;
      if (const std::string fault = portCheck()(text); !fault.empty()) {
        throw CommandFailure(ExitCode::Usage, given->origin + ": " + fault);
      }
      request.bus.port = static_cast<uint16_t>(std::stoi(text));
    }
  });
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
  addFollow(app, request);
  addWait(app, request);
  addPing(app, request);
  addCheck(app, request);
  addRoute(app, request);
  addRecord(app, request);
  addReplay(app, request);
  app.footer(
      "\nExit codes: 0 done, 1 refused or no answer, 2 wrong usage; status --check has its own.\n\n"
      "Examples:\n"
      "  valtor-bus status\n"
      "  valtor-bus --host 10.0.0.7 watch --path 'device*'\n"
      "  valtor-bus get --help\n");
}

}  // namespace valtor
