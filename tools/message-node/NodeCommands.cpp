#include "message-node/NodeCommands.h"

#include <sstream>

#include "message-node/NodeTrace.h"
#include "support/WholeNumber.h"

namespace valtor {

const char* const kNodeCommandHelp =
    "Commands on standard input, one a line:\n"
    "  role ROLE                       take a role (standby, active) and announce it\n"
    "  send SRC KIND PATH DEST BODY    pass on a message as if participant SRC had sent it;\n"
    "                                  BODY is the rest of the line, as it is; \"\" is an empty "
    "path\n"
    "  list                            the connections\n"
    "  drop NAME                       end the connections of that name as if cut; * ends all\n"
    "  help                            these lines\n"
    "  quit                            end the node\n";

namespace {

std::string restOf(std::istringstream& input) {
  std::string rest;
  input >> std::ws;
  std::getline(input, rest);
  return rest;
}

std::string sendMessage(MessageNode& node, std::istringstream& input) {
  std::string source;
  std::string kind;
  std::string path;
  std::string destination;
  input >> source >> kind >> path >> destination;
  const auto sourceID = wholeNumber<int32_t>(source);
  const auto destinationID = wholeNumber<int32_t>(destination);
  if (!sourceID || !destinationID) {
    return "ERROR send needs SRC KIND PATH DEST BODY, SRC and DEST numbers\n";
  }
  const bool sent =
      node.inject(*sourceID, kind, path == "\"\"" ? "" : path, *destinationID, restOf(input));
  return sent ? "" : "ERROR send: no such kind, or a header that no reader accepts\n";
}

std::string listParticipants(MessageNode& node) {
  const auto participants = node.participants();
  std::string reply =
      "LIST " + std::to_string(participants.size()) + " connections, role " + node.role() + "\n";
  for (const NodeParticipant& participant : participants) {
    reply += "  " + traceText(participant) + "\n";
  }
  return reply;
}

}  // namespace

CommandResult executeCommand(MessageNode& node, const std::string& line) {
  std::istringstream input(line);
  std::string command;
  input >> command;
  if (command.empty()) {
    return {};
  }
  if (command == "quit") {
    return {"", true};
  }
  if (command == "help") {
    return {kNodeCommandHelp, false};
  }
  if (command == "list") {
    return {listParticipants(node), false};
  }
  if (command == "send") {
    return {sendMessage(node, input), false};
  }
  const std::string argument = restOf(input);
  if ((command == "role" || command == "drop") && argument.empty()) {
    return {"ERROR " + command + " needs an argument\n", false};
  }
  if (command == "role") {
    node.setRole(argument);
    return {};
  }
  if (command == "drop") {
    const std::size_t count = node.closeConnections(argument);
    return {"DROP " + std::to_string(count) + " connections\n", false};
  }
  return {"ERROR no command: " + command + " (help lists them)\n", false};
}

}  // namespace valtor
