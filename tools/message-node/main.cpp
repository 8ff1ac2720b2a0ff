#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <iostream>
#include <memory>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <syslog.h>
#include <thread>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "app/util/Console.h"
#include "app/util/Files.h"
#include "app/util/StandardDescriptors.h"
#include "message-node/CannedAnswers.h"
#include "message-node/MessageNode.h"
#include "message-node/NodeCommands.h"
#include "message-node/NodeTrace.h"
#include "message-node/Scenario.h"
#include "support/LogSink.h"
#include "support/PrintableText.h"

namespace {

constexpr std::size_t kDefaultBodyLimit = 160;  // bytes of a body in a trace line

struct Settings {
  valtor::MessageNode::Options node;
  std::string answersFile;
  std::string scenarioFile;
  bool trace = true;
  std::size_t bodyLimit = kDefaultBodyLimit;
};

std::string footer() {
  return std::string("\n") + valtor::kNodeCommandHelp +
         "\n"
         "The answers file: {\"db\": {OBJECT: VALUE, ...}, \"route\": {COMMAND: VALUE, ...}}\n"
         "  answers a GET on \"db\" that lists OBJECT in \"objectName\", and a CMD on \"route\"\n"
         "  with a member COMMAND.\n"
         "\n"
         "The scenario file: a list of steps, each with a time and an action\n"
         "  time:    \"at\": SECONDS after the start, or\n"
         "           \"after\": TEXT in a line of the trace, or [TEXT, ...] for several in one,\n"
         "           with \"delay\": SECONDS, \"each\": true\n"
         "           \"every\": SECONDS it is done again, \"repeat\": N times in all\n"
         "  action:  \"role\": ROLE, \"answers\": {as in the answers file}, \"listen\": true or "
         "false,\n"
         "           \"send\": {\"from\": ID, \"kind\": KIND, \"path\": PATH, \"to\": ID, "
         "\"body\": BODY},\n"
         "           \"reply\": {\"from\": ID, \"kind\": KIND, \"body\": BODY} to the message "
         "of the line,\n"
         "           \"close\", \"reset\", \"pauseReading\", \"resumeReading\", \"pauseWriting\",\n"
         "           \"resumeWriting\": NAME of connections, \"*\" for all,\n"
         "           \"raw\": {\"to\": NAME, \"bytes\": TEXT or \"hex\": DIGITS}\n"
         "  \"note\": TEXT, shown when the step is done\n"
         "\n"
         "Examples:\n"
         "  valtor-node --answers answers.json            a controller on 127.0.0.1:15000\n"
         "  valtor-node --listen 127.0.0.2                a router beside it\n"
         "  valtor-node --port 0 --role standby           a free port, which is printed\n"
         "  valtor-node --scenario failing-router.json    faults at their times\n"
         "  valtor-node --no-trace                        only connections and roles\n"
         "What answers.json may hold:\n"
         "  {\"db\": {\"logicalDests\": [{\"id\": 4, \"name\": \"Monitor 4\"}]}}\n"
         "A message typed in:\n"
         "  send 490 CMD route 0 {\"id\":\"1@panel\",\"take\":[{\"destination\":[4]}]}\n"
         "A scenario: a panel takes a route every 5 seconds, the first login is cut after 20\n"
         "  [{\"at\": 5, \"every\": 5, \"send\": {\"from\": 490, \"kind\": \"CMD\", \"path\": "
         "\"route\",\n"
         "    \"body\": {\"id\": \"1@panel\", \"take\": []}}},\n"
         "   {\"after\": \"LOGIN #1 \", \"delay\": 20, \"reset\": \"*\"}]\n";
}

void addOptions(CLI::App& app, Settings& settings) {
  app.add_option("-l,--listen", settings.node.address, "IPv4 address to listen on")
      ->check(CLI::ValidIPV4)
      ->capture_default_str();
  app.add_option("-p,--port", settings.node.port, "TCP port to listen on; 0 takes any free one")
      ->capture_default_str();
  app.add_option("-r,--role", settings.node.role, "what \"mdxMasterState\" is at the start")
      ->check([](const std::string& role) { return role.empty() ? "empty" : ""; })
      ->capture_default_str();
  app.add_option("-a,--answers", settings.answersFile, "JSON file with canned answers")
      ->check(CLI::ExistingFile);
  app.add_option("-s,--scenario", settings.scenarioFile, "JSON file with steps that are done")
      ->check(CLI::ExistingFile);
  app.add_flag("--trace,!--no-trace", settings.trace, "print a line for each message (default)");
  app.add_option("--trace-body", settings.bodyLimit, "bytes of a body that a trace line shows")
      ->capture_default_str();
  app.set_version_flag("--version", "valtor-node " VALTOR_VERSION);
  app.footer(footer());
}

// A scenario whose steps wait for texts in the trace sees each line whole, printed or not.
void setCallbacks(Settings& settings, valtor::Scenario& scenario) {
  settings.node.onEvent = [&scenario](const std::string& line) {
    valtor::traceLine("%s\n", line.c_str());
    scenario.observe(line);
  };
  if (settings.trace || !scenario.empty()) {
    settings.node.onMessage = [&scenario, trace = settings.trace,
                               limit = settings.bodyLimit](const valtor::PassedMessage& message) {
      if (trace) {
        valtor::traceLine("%s\n", valtor::traceText(message, limit).c_str());
      }
      scenario.observe(message);
    };
  }
}

// What a JSON file describes; without a file nothing. What is wrong with it is told with its name.
template <class Described>
std::unique_ptr<Described> load(const std::string& file, std::string& text) {
  if (file.empty()) {
    return std::make_unique<Described>();
  }
  text = valtor::readTextFile(file, true);
  try {
    return std::make_unique<Described>(text);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(file + ": " + error.what());
  }
}

// Ends the process once standard output has no reader any more, which would leave a node that
// nobody sees on its port. A file always counts as read.
void watchOutput() {
  pollfd output{STDOUT_FILENO, 0, 0};
  while (poll(&output, 1, -1) < 0 && errno == EINTR) {
  }
  if (output.revents != 0) {
    std::fputs("valtor-node: nobody reads standard output any more\n", stderr);
    std::_Exit(1);
  }
}

// Carries out what standard input says until it ends or says quit; whether it said so.
bool readCommands(valtor::MessageNode& node) {
  std::string line;
  while (std::getline(std::cin, line)) {
    const valtor::CommandResult result = valtor::executeCommand(node, line);
    std::fputs(result.reply.c_str(), stdout);
    if (result.quit) {
      return true;
    }
  }
  return false;
}

int serve(Settings settings) {
  load<valtor::CannedAnswers>(settings.answersFile, settings.node.answers);
  std::string steps;
  const auto scenario = load<valtor::Scenario>(settings.scenarioFile, steps);
  setCallbacks(settings, *scenario);
  const std::string address = settings.node.address + ":" + std::to_string(settings.node.port);
  const auto report = settings.node.onEvent;
  valtor::MessageNode node(std::move(settings.node));
  const bool listens = scenario->start(node, report);
  if (const std::error_code error = listens ? node.startListening() : std::error_code()) {
    std::fprintf(stderr, "valtor-node: cannot listen on %s: %s\n", address.c_str(),
                 error.message().c_str());
    return 1;
  }
  std::thread(watchOutput).detach();
  std::thread loop = node.runOnThread();
  if (readCommands(node)) {
    node.stop();
  }
  loop.join();
  return 0;
}

// What the stream parser has to say about broken frames is seen where the trace is.
void takeLogLine(int priority, const std::string& text) {
  if (LOG_PRI(priority) <= LOG_INFO) {
    std::fprintf(stderr, "valtor-node: %s\n",
                 valtor::printable(valtor::withoutLineFeeds(text)).c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  valtor::occupyStandardDescriptors(O_RDONLY | O_CLOEXEC);
  valtor::initConsole();
  std::signal(SIGPIPE, SIG_IGN);
  // In the background of a terminal it goes without commands, instead of being stopped.
  std::signal(SIGTTIN, SIG_IGN);
  valtor::setLogSink(takeLogLine);
  try {
    Settings settings;
    settings.node.port = 15000;
    CLI::App app("A stand-in for the message node of a controller or a remote router.",
                 "valtor-node");
    addOptions(app, settings);
    CLI11_PARSE(app, argc, argv);
    return serve(std::move(settings));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "valtor-node: %s\n", error.what());
    return 1;
  }
}
