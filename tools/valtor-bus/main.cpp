#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <iostream>
#include <optional>
#include <string>
#include <syslog.h>
#include <unistd.h>
#include <vector>

#include <CLI/CLI.hpp>

#include "app/util/ErrnoText.h"
#include "app/util/Immortal.h"
#include "app/util/StandardDescriptors.h"
#include "support/CommandFailure.h"
#include "support/JSONText.h"
#include "support/LogSink.h"
#include "support/PrintableText.h"
#include "valtor-bus/CommandOptions.h"

namespace {

using valtor::BusConnection;
using valtor::CommandFailure;
using valtor::ExitCode;

int32_t ownConnID() {
  constexpr int kFirst = 20000;
  constexpr int kCount = 10000;
  return kFirst + static_cast<int32_t>(getpid() % kCount);
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

// What the stream parser says about broken frames is for the person.
void takeLogLine(int priority, const std::string& text) {
  if (LOG_PRI(priority) <= LOG_WARNING) {
    valtor::say(valtor::printable(valtor::withoutLineFeeds(text)));
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

// Whether a monitoring system has called: every failure has to be a line of its own kind then, and
// the code that goes with it.
bool isCheck(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + std::max(argc, 1));
  const auto has = [&](const char* word) {
    return std::find(words.begin(), words.end(), word) != words.end();
  };
  return has("status") && has("--check");
}

// The exit code when there is nothing to do.
std::optional<int> parse(CLI::App& app, int argc, char** argv) {
  int code = static_cast<int>(ExitCode::Usage);
  std::string reason = "the command line is wrong, see standard error";
  try {
    app.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    code = answer(app, error);
  } catch (const CommandFailure& failure) {
    code = fail(failure.exitCode, failure.what(), failure.hint);
    reason = valtor::printable(failure.what());
  }
  if (code != 0 && isCheck(argc, argv)) {
    std::puts(("UNKNOWN: " + reason).c_str());
    code = static_cast<int>(ExitCode::Unknown);
  }
  return code;
}

// What nobody has foreseen, such as a lack of descriptors or memory; the exit code.
int failUnexpectedly(const char* reason, bool isCheck, std::optional<valtor::Output>& output) {
  if (!isCheck) {
    return fail(ExitCode::Refused, reason, "");
  }
  const std::string line = "UNKNOWN: " + valtor::printable(reason);
  try {
    if (output) {
      output->line(line);
    } else {
      std::puts(line.c_str());
    }
  } catch (const CommandFailure& failure) {
    fail(ExitCode::Unknown, failure.what(), "");
  }
  return static_cast<int>(ExitCode::Unknown);
}

}  // namespace

int main(int argc, char** argv) {
  // Read-only, so that writing to one still fails.
  valtor::occupyStandardDescriptors(O_RDONLY | O_CLOEXEC);
  valtor::setLogSink(takeLogLine);
  std::optional<valtor::Output> output;
  try {
    valtor::Request request;
    request.bus.connID = ownConnID();
    CLI::App app("Watch, ask and change what passes over a message bus.", "valtor-bus");
    valtor::addOptions(app, request);
    if (const auto end = parse(app, argc, argv)) {
      return *end;
    }
    output.emplace();
    // A name server that does not answer would hold up its end.
    static valtor::Immortal<BusConnection> connection(request.bus);
    request.command(*connection, *output);
    return 0;
  } catch (const CommandFailure& failure) {
    return fail(failure.exitCode, failure.what(), failure.hint);
  } catch (const std::exception& error) {
    return failUnexpectedly(error.what(), isCheck(argc, argv), output);
  }
}
