#include "message-node/Scenario.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <stdexcept>
#include <utility>

namespace valtor {

namespace {

// Returns why it failed, or "".
using Action = std::function<std::string(MessageNode&)>;

constexpr double kLongestTime = 1'000'000;  // seconds
constexpr int kMostRepeats = 1'000'000;

[[noreturn]] void refuse(const std::string& text) { throw std::runtime_error(text); }

std::string quoted(const char* name) { return std::string("\"") + name + "\""; }

std::string textOf(const cJSON* member) {
  if (!cJSON_IsString(member)) {
    refuse(quoted(member->string) + " is not a text");
  }
  return member->valuestring;
}

std::string filledTextOf(const cJSON* member) {
  std::string text = textOf(member);
  if (text.empty()) {
    refuse(quoted(member->string) + " is empty");
  }
  return text;
}

bool truthOf(const cJSON* member) {
  if (cJSON_IsBool(member) == 0) {
    refuse(quoted(member->string) + " is neither true nor false");
  }
  return cJSON_IsTrue(member) != 0;
}

std::chrono::milliseconds secondsOf(const cJSON* member) {
  if (!cJSON_IsNumber(member) || !(member->valuedouble >= 0) ||
      member->valuedouble > kLongestTime) {
    refuse(quoted(member->string) + " is not a number of seconds from 0 to 1000000");
  }
  return std::chrono::milliseconds(std::llround(member->valuedouble * 1000));
}

int32_t integerOf(const cJSON* member, int32_t first, int32_t last) {
  if (!cJSON_IsNumber(member) || member->valuedouble != member->valueint ||
      member->valueint < first || member->valueint > last) {
    refuse(quoted(member->string) + " is not a whole number from " + std::to_string(first) +
           " to " + std::to_string(last));
  }
  return member->valueint;
}

// A member that has to be there.
const cJSON* memberOf(const cJSON* object, const char* name) {
  const cJSON* member = cJSON_GetObjectItem(object, name);
  if (member == nullptr) {
    refuse(quoted(object->string) + " has no " + quoted(name));
  }
  return member;
}

void expectObjectOf(const cJSON* member, std::initializer_list<std::string_view> names) {
  if (!cJSON_IsObject(member)) {
    refuse(quoted(member->string) + " is not an object");
  }
  const cJSON* inner = nullptr;
  cJSON_ArrayForEach(inner, member) {
    if (std::find(names.begin(), names.end(), inner->string) == names.end()) {
      refuse(quoted(member->string) + " has an unknown member " + quoted(inner->string));
    }
  }
}

std::string nobodyUnless(std::size_t count, const std::string& name) {
  return count > 0 ? "" : "no connection has the name " + name;
}

// --- One function for each action ---------------------------------------------------------------

Action roleAction(const cJSON* member) {
  return [role = filledTextOf(member)](MessageNode& node) {
    node.setRole(role);
    return std::string();
  };
}

Action answersAction(const cJSON* member) {
  expectObjectOf(member, {"db", "route"});
  return [json = printJSON(member, false)](MessageNode& node) {
    node.setAnswers(json);
    return std::string();
  };
}

// The body is a text, which is sent as it is, or any other JSON value.
Action sendAction(const cJSON* member) {
  expectObjectOf(member, {"from", "kind", "path", "to", "body"});
  constexpr int32_t kHighestID = std::numeric_limits<int32_t>::max();
  const int32_t from = integerOf(memberOf(member, "from"), 0, kHighestID);
  const std::string kind = textOf(memberOf(member, "kind"));
  if (kindFromName(kind) == MessageKind::Unknown) {
    refuse("\"" + kind + "\" is no kind of message");
  }
  const std::string path = textOf(memberOf(member, "path"));
  const cJSON* addressee = cJSON_GetObjectItem(member, "to");
  const int32_t to = addressee != nullptr ? integerOf(addressee, 0, kHighestID) : 0;
  const cJSON* given = cJSON_GetObjectItem(member, "body");
  std::string body = cJSON_IsString(given) ? given->valuestring : printJSON(given, false);
  body = given != nullptr ? body : "{}";
  return [=](MessageNode& node) {
    return std::string(node.inject(from, kind, path, to, body) ? ""
                                                               : "no reader accepts this header");
  };
}

template <std::size_t (MessageNode::*kEnd)(const std::string&)>
Action endAction(const cJSON* member) {
  return [name = filledTextOf(member)](MessageNode& node) {
    return nobodyUnless((node.*kEnd)(name), name);
  };
}

template <void (MessageNode::*kPause)(const std::string&, bool), bool kPaused>
Action pauseAction(const cJSON* member) {
  return [name = filledTextOf(member)](MessageNode& node) {
    (node.*kPause)(name, kPaused);
    return std::string();
  };
}

Action listenAction(const cJSON* member) {
  if (!truthOf(member)) {
    return [](MessageNode& node) {
      node.stopListening();
      return std::string();
    };
  }
  return [](MessageNode& node) {
    const std::error_code error = node.startListening();
    return error ? error.message() : std::string();
  };
}

std::string bytesOfHex(const cJSON* member) {
  const std::string digits = textOf(member);
  if (digits.size() % 2 != 0 ||
      digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
    refuse(quoted(member->string) + " is not pairs of hexadecimal digits");
  }
  std::string bytes;
  for (std::size_t at = 0; at < digits.size(); at += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
  }
  return bytes;
}

Action rawAction(const cJSON* member) {
  expectObjectOf(member, {"to", "bytes", "hex"});
  const std::string name = filledTextOf(memberOf(member, "to"));
  const cJSON* hex = cJSON_GetObjectItem(member, "hex");
  const std::string bytes = hex != nullptr ? bytesOfHex(hex) : textOf(memberOf(member, "bytes"));
  return [=](MessageNode& node) { return nobodyUnless(node.writeRaw(name, bytes), name); };
}

constexpr std::pair<std::string_view, Action (*)(const cJSON*)> kActions[] = {
    {"role", roleAction},
    {"answers", answersAction},
    {"send", sendAction},
    {"close", endAction<&MessageNode::closeConnections>},
    {"reset", endAction<&MessageNode::resetConnections>},
    {"listen", listenAction},
    {"pauseReading", pauseAction<&MessageNode::setReadingPaused, true>},
    {"resumeReading", pauseAction<&MessageNode::setReadingPaused, false>},
    {"pauseWriting", pauseAction<&MessageNode::setWritingPaused, true>},
    {"resumeWriting", pauseAction<&MessageNode::setWritingPaused, false>},
    {"raw", rawAction},
};

JSONPtr parsedList(const std::string& text) {
  const char* end = nullptr;
  JSONPtr list(cJSON_ParseWithOpts(text.c_str(), &end, 1));
  if (list == nullptr) {
    refuse("no JSON from line " + std::to_string(1 + std::count(text.c_str(), end, '\n')) + " on");
  }
  if (!cJSON_IsArray(list.get())) {
    refuse("not a list of steps");
  }
  return list;
}

}  // namespace

Scenario::Scenario(const std::string& jsonText) {
  const JSONPtr list = parsedList(jsonText);
  const cJSON* json = nullptr;
  cJSON_ArrayForEach(json, list.get()) {
    const std::string number = std::to_string(steps_.size() + 1);
    try {
      steps_.push_back(loadStep(json));
    } catch (const std::runtime_error& error) {
      refuse("step " + number + ": " + error.what());
    }
    steps_.back().label.insert(0, number);
  }
}

Scenario::Step Scenario::loadStep(const cJSON* json) {
  if (!cJSON_IsObject(json)) {
    refuse("not an object");
  }
  Step step;
  const cJSON* member = nullptr;
  cJSON_ArrayForEach(member, json) { loadMember(step, member); }
  const auto has = [json](const char* name) { return cJSON_GetObjectItem(json, name) != nullptr; };
  if (!step.action) {
    refuse("no action");
  }
  if (has("at") == has("after")) {
    refuse("needs either \"at\" or \"after\"");
  }
  if (has("at") && (has("delay") || has("each"))) {
    refuse("\"delay\" and \"each\" need \"after\"");
  }
  if (has("repeat") && !has("every")) {
    refuse("\"repeat\" needs \"every\"");
  }
  if (has("every") && !has("repeat")) {
    if (step.each) {
      refuse("\"every\" with \"each\" needs \"repeat\"");
    }
    step.repeat = 0;
  }
  const cJSON* note = cJSON_GetObjectItem(json, "note");
  step.label += note != nullptr ? " (" + textOf(note) + ")" : "";
  return step;
}

void Scenario::loadMember(Step& step, const cJSON* member) {
  const std::string_view name = member->string;
  const auto* action = std::find_if(std::begin(kActions), std::end(kActions),
                                    [name](const auto& one) { return one.first == name; });
  if (action != std::end(kActions)) {
    if (step.action) {
      refuse("more than one action:" + step.label + " and " + member->string);
    }
    step.action = action->second(member);
    step.label = " " + std::string(name);
  } else if (name == "at" || name == "delay") {
    step.wait = secondsOf(member);
  } else if (name == "after") {
    step.after = filledTextOf(member);
  } else if (name == "each") {
    step.each = truthOf(member);
  } else if (name == "every") {
    step.every = secondsOf(member);
    if (step.every.count() == 0) {
      refuse("\"every\" is 0");
    }
  } else if (name == "repeat") {
    step.repeat = integerOf(member, 1, kMostRepeats);
  } else if (name != "note") {
    refuse("unknown member " + quoted(member->string));
  }
}

void Scenario::start(MessageNode& node, std::function<void(const std::string&)> report) {
  node_ = &node;
  report_ = std::move(report);
  for (const Step& step : steps_) {
    if (step.after.empty() && step.wait.count() == 0) {
      run(step, step.repeat);
    } else if (step.after.empty()) {
      schedule(step);
    }
  }
}

void Scenario::observe(const std::string& line) {
  if (node_ == nullptr) {
    return;
  }
  for (Step& step : steps_) {
    if (!step.after.empty() && (step.each || !step.seen) &&
        line.find(step.after) != std::string::npos) {
      step.seen = true;
      schedule(step);
    }
  }
}

void Scenario::schedule(const Step& step) {
  // Never at once: a step whose own line sets it off again must leave the loop a moment to stop.
  node_->runAfter(std::max(step.wait, std::chrono::milliseconds(1)),
                  [this, &step] { run(step, step.repeat); });
}

void Scenario::run(const Step& step, int times) {
  report_("STEP " + step.label);
  const std::string failure = step.action(*node_);
  if (!failure.empty()) {
    report_("STEP " + step.label + " failed: " + failure);
  }
  if (times != 1) {
    node_->runAfter(step.every, [this, &step, times] { run(step, times == 0 ? 0 : times - 1); });
  }
}

}  // namespace valtor
