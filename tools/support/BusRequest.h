#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bus/message/PellInternalMessage.h"

namespace valtor {

// A message of this tool on its way to the bus. The body stays text, so that it travels with every
// digit it was written with.
struct BusRequest {
  MessageKind kind = MessageKind::Unknown;
  std::string path;
  int32_t destination = 0;  // a connection id; 0 for whoever listens
  std::string identifier;   // what answers carry too
  std::string body;
  bool keepsIdentifier = false;  // it came with one
};

// The body is the text of a JSON object; it gets a new identifier as its first member unless it has
// a text as "id" of its own. Throws CommandFailure (usage) for a body that is no object and for a
// path that a header line cannot hold.
BusRequest makeRequest(MessageKind kind, const std::string& path, const std::string& body,
                       int32_t destination = 0);

// The same with a new identifier.
BusRequest repeated(const BusRequest& request);

// The connection ids of the daemon on the controller's bus, and on the bus of a router.
constexpr int32_t kDaemonConnID = 101;
constexpr int32_t kDaemonOnRouterConnID = 10000;

// The first message of every connection.
BusRequest loginRequest(const std::string& name, int32_t connID);
// Subscribes paths, literal or ending in "*", with "receiveAll".
BusRequest subscriptionRequest(const std::vector<std::string>& paths);
// Asks whether the participant with that connection id is ready, which the daemon answers whatever
// its role.
BusRequest readinessQuestion(int32_t connID);

// What travels in the frame.
std::string payloadOf(const BusRequest& request, int32_t source);

// Whether the message answers the request: it has its identifier and is of a kind that answers.
bool isAnswerTo(const BusRequest& request, const PellInternalMessage& message);

// The body of an answer as compactJSON() makes it, with every number as it was spelt.
std::string bodyOf(const PellInternalMessage& answer);
// The answer's value: its "param" or "paramDescriptor"; "" when it has neither.
std::string paramOf(const PellInternalMessage& answer);

// The code and text of an answer, such as "404 Not Found" or "NAK"; "" when it carries no status.
std::string statusOf(const PellInternalMessage& answer);
// True for a NAK and for every status from 400 on.
bool isRefusal(const PellInternalMessage& answer);

}  // namespace valtor
