#pragma once

#include <functional>
#include <string>

#include "bus/PellInternalMessage.h"
#include "valtor-bus/BusConnection.h"
#include "valtor-bus/BusRequest.h"

namespace valtor {

// Sends the request and hands over each answer until the function has enough and returns true.
// False when the time was over first. Throws CommandFailure when an answer refuses the request,
// when the link is lost, and when interrupted.
bool exchange(BusConnection& connection, const BusRequest& request, double seconds,
              const std::function<bool(const PellInternalMessage&)>& hasEnough);

// The failure of a request that nobody answered in time.
[[noreturn]] void throwNoAnswer(const BusConnection& connection, const BusRequest& request,
                                double seconds, const std::string& hint);

// The answer's value, or null when it has none.
const cJSON* answerParam(const PellInternalMessage& answer);

}  // namespace valtor
