#include "message-node/NodeTrace.h"

#include <string_view>

#include "support/PrintableText.h"

namespace valtor {

namespace {

std::string printableName(std::string_view name) {
  std::string result(name);
  for (char& byte : result) {
    byte =
        isControl(static_cast<unsigned char>(byte), 0) || byte == ' ' || byte == ',' ? '_' : byte;
  }
  return result;
}

}  // namespace

std::string traceText(const PassedMessage& message, std::size_t bodyLimit) {
  std::string to;
  for (const std::string& name : message.to) {
    to += (to.empty() ? "" : ",") + printableName(name);
  }
  const std::string_view body = message.body();
  return std::string("MSG kind=") + kindName(message.kind) + " path=\"" + printable(message.path) +
         "\" src=" + std::to_string(message.source) +
         " dst=" + std::to_string(message.destination) + " from=" + printableName(message.from) +
         " to=" + (to.empty() ? "-" : to) + " bytes=" + std::to_string(message.payload->size()) +
         " body=" + printable(body.substr(0, bodyLimit)) + (body.size() > bodyLimit ? "..." : "");
}

std::string traceText(const NodeParticipant& participant) {
  std::string paths;
  for (const NodeSubscription& entry : participant.subscriptions) {
    paths += (paths.empty() ? "" : ",") + printableName(entry.path) + (entry.receiveAll ? "+" : "");
  }
  return "#" + std::to_string(participant.number) +
         " name=" + (participant.name.empty() ? "-" : printableName(participant.name)) +
         " id=" + std::to_string(participant.connID) + " address=" + participant.address +
         " unsent=" + std::to_string(participant.unsentBytes) +
         " received=" + std::to_string(participant.messagesReceived) +
         " subscriptions=" + (paths.empty() ? "-" : paths) +
         (participant.interfaceText.empty() ? ""
                                            : " interface=" + printable(participant.interfaceText));
}

}  // namespace valtor
