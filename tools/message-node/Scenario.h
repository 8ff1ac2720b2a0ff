#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "app/util/OwnedJSON.h"
#include "message-node/MessageNode.h"

namespace valtor {

// What a node does by itself, in steps read from one JSON list:
//
//   [{"at": 2, "role": "standby"},
//    {"after": "LOGIN #1", "delay": 0.5, "send": {"from": 490, "kind": "CMD", "path": "route"}},
//    {"after": "STEP 2 ", "reset": "*", "note": "the first login does not last"}]
//
// A step has one action (role, answers, send, reply, close, reset, listen, pauseReading,
// resumeReading, pauseWriting, resumeWriting, raw) and one time: "at" so many seconds after the
// start, or "after" the first line of the trace that holds the text, or all of a list of texts
// ("each": true: after every such line) and then "delay" seconds. "every" seconds it is done again,
// "repeat" times in all or else without end.
//
// After start() it is used on the node's loop only, by the timers that it sets there and by
// observe(). It must outlive the node.
class Scenario {
 public:
  // Does nothing.
  Scenario() = default;
  // Throws std::runtime_error when the text is no scenario; it names the line, or the step, and
  // what is wrong there.
  explicit Scenario(const std::string& jsonText);
  // Timers keep its address.
  Scenario(const Scenario&) = delete;
  Scenario& operator=(const Scenario&) = delete;

  // Does the steps "at" 0 and begins to count the seconds, before the node runs and listens. False
  // when these steps say that it is not to listen yet. The report gets "STEP" and its number (from
  // 1), action and note before each step, and the same with "failed: " and why after one that
  // failed.
  bool start(MessageNode& node, std::function<void(const std::string&)> report);

  // Takes notice of a line of the trace. Steps that wait for it happen later on, never in the call.
  void observe(const std::string& line);
  // The same of the line about a message, with its whole body.
  void observe(const PassedMessage& message);

  bool empty() const { return steps_.empty(); }

 private:
  struct Step {
    std::string label;               // number, action and note
    std::vector<std::string> after;  // texts of one line; empty: "at" is given
    bool each = false;
    bool seen = false;                  // the first line with the text has come
    std::chrono::milliseconds wait{0};  // "at" or "delay"
    std::chrono::milliseconds every{0};
    int repeat = 1;              // 0: without end
    std::optional<bool> listen;  // what the action makes of it, when that is the action
    // Returns why it failed, or "". The message is what set the step off, or an empty one.
    std::function<std::string(MessageNode&, const PassedMessage&)> action;
  };

  static Step loadStep(const cJSON* json);
  static void loadMember(Step& step, const cJSON* member);
  void observe(const std::string& line, const PassedMessage& message);
  // The cause is the message that set the step off, or an empty one.
  void schedule(const Step& step, const PassedMessage& cause);
  // Does the step so many times; 0: without end.
  void run(const Step& step, int times, const PassedMessage& cause);

  std::vector<Step> steps_;
  MessageNode* node_ = nullptr;  // null before the start
  std::function<void(const std::string&)> report_;
};

}  // namespace valtor
