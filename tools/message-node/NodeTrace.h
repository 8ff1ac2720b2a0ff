#pragma once

#include <cstddef>
#include <string>

#include "message-node/MessageNode.h"

namespace valtor {

// The trace of a node, made for eyes and for grep: one line a message,
//
//   MSG kind=CMD path="route" src=490 dst=0 from=panel to=alpha,beta bytes=61 body={"id":...
//
// "to=-" when nobody got it. Names lose blanks, commas and control bytes, bodies their control
// bytes; a body longer than the limit ends in "...".
std::string traceText(const PassedMessage& message, std::size_t bodyLimit);

// One participant: number, name, connection id, address, unsent bytes, messages received,
// subscriptions ("+" marks receiveAll) and interface.
std::string traceText(const NodeParticipant& participant);

}  // namespace valtor
