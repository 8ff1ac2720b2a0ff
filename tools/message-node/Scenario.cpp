#include "message-node/Scenario.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <stdexcept>
#include <utility>

#include "message-node/CannedAnswers.h"
#include "message-node/JSONChecks.h"
#include "message-node/NodeTrace.h"
#include "support/HexText.h"

namespace valtor {

namespace {

// Returns why it failed, or "".
using Action = std::function<std::string(MessageNode&, const PassedMessage&)>;

constexpr int kMostRepeats = 1'000'000;
constexpr int32_t kHighestID = std::numeric_limits<int32_t>::max();
constexpr const char* kBadHeader = "no reader accepts this header";

std::string nobodyUnless(std::size_t count, const std::string& name) {
  return count > 0 ? "" : "no connection has the name " + name;
}

// --- One function for each action ---------------------------------------------------------------

Action roleAction(const cJSON* member) {
  return [role = filledTextOf(member)](MessageNode& node, const PassedMessage&) {
    node.setRole(role);
    return std::string();
  };
}

Action answersAction(const cJSON* member) {
  CannedAnswers::check(member);
  return [json = printJSON(member, false)](MessageNode& node, const PassedMessage&) {
    node.setAnswers(json);
    return std::string();
  };
}

std::string kindNameOf(const cJSON* member) {
  std::string kind = textOf(member);
  if (kindFromName(kind) == MessageKind::Unknown) {
    refuse("\"" + kind + "\" is no kind of message");
  }
  return kind;
}

// The body is a text, which is sent as it is, or any other JSON value.
Action sendAction(const cJSON* member) {
  expectObject(member, {"from", "kind", "path", "to", "body"});
  const int32_t from = integerOf(memberOf(member, "from"), 0, kHighestID);
  const std::string kind = kindNameOf(memberOf(member, "kind"));
  const std::string path = textOf(memberOf(member, "path"));
  const cJSON* addressee = cJSON_GetObjectItem(member, "to");
  const int32_t to = addressee != nullptr ? integerOf(addressee, 0, kHighestID) : 0;
  const cJSON* given = cJSON_GetObjectItem(member, "body");
  std::string body = cJSON_IsString(given) ? given->valuestring : printJSON(given, false);
  body = given != nullptr ? body : "{}";
  return [=](MessageNode& node, const PassedMessage&) {
    return std::string(node.inject(from, kind, path, to, body) ? "" : kBadHeader);
  };
}

// Answers the message that set the step off: to its source, on its path, with its identifier.
Action replyAction(const cJSON* member) {
  expectObject(member, {"from", "kind", "body"});
  const int32_t from = integerOf(memberOf(member, "from"), 0, kHighestID);
  const cJSON* given = cJSON_GetObjectItem(member, "kind");
  const std::string kind = given != nullptr ? kindNameOf(given) : "RSP";
  const cJSON* body = memberOf(member, "body");
  expectObject(body);
  if (cJSON_GetObjectItem(body, "id") != nullptr) {
    refuse("\"body\" has an \"id\" of its own");
  }
  const std::string rest = (body->child != nullptr ? "," : "") + printJSON(body, false).substr(1);
  return [=](MessageNode& node, const PassedMessage& request) -> std::string {
    if (request.payload == nullptr) {
      return "the line is no message";
    }
    const JSONPtr asked(cJSON_Parse(std::string(request.body()).c_str()));
    const cJSON* identifier = cJSON_GetObjectItem(asked.get(), "id");
    if (identifier == nullptr || request.source == 0) {
      return "the message has no \"id\", or its sender none";
    }
    const std::string answer = "{\"id\":" + printJSON(identifier, false) + rest;
    return node.inject(from, kind, request.path, request.source, answer) ? "" : kBadHeader;
  };
}

template <std::size_t (MessageNode::*kEnd)(const std::string&)>
Action endAction(const cJSON* member) {
  return [name = filledTextOf(member)](MessageNode& node, const PassedMessage&) {
    return nobodyUnless((node.*kEnd)(name), name);
  };
}

template <void (MessageNode::*kPause)(const std::string&, bool), bool kPaused>
Action pauseAction(const cJSON* member) {
  return [name = filledTextOf(member)](MessageNode& node, const PassedMessage&) {
    (node.*kPause)(name, kPaused);
    return std::string();
  };
}

Action listenAction(const cJSON* member) {
  if (!truthOf(member)) {
    return [](MessageNode& node, const PassedMessage&) {
      node.stopListening();
      return std::string();
    };
  }
  return [](MessageNode& node, const PassedMessage&) {
    const std::error_code error = node.startListening();
    return error ? error.message() : std::string();
  };
}

Action rawAction(const cJSON* member) {
  expectObject(member, {"to", "bytes", "hex"});
  const std::string name = filledTextOf(memberOf(member, "to"));
  const cJSON* hex = cJSON_GetObjectItem(member, "hex");
  if (hex != nullptr && cJSON_GetObjectItem(member, "bytes") != nullptr) {
    refuse("\"raw\" has both \"bytes\" and \"hex\"");
  }
  const std::optional<std::string> bytes =
      hex != nullptr ? bytesOfHex(textOf(hex)) : textOf(memberOf(member, "bytes"));
  if (!bytes) {
    refuse("\"hex\" is not pairs of hexadecimal digits");
  }
  return [=](MessageNode& node, const PassedMessage&) {
    return nobodyUnless(node.writeRaw(name, *bytes), name);
  };
}

// The texts of one line.
std::vector<std::string> textsOf(const cJSON* member) {
  if (!cJSON_IsArray(member)) {
    return {filledTextOf(member)};
  }
  std::vector<std::string> texts;
  const cJSON* entry = nullptr;
  cJSON_ArrayForEach(entry, member) {
    if (!cJSON_IsString(entry) || *entry->valuestring == '\0') {
      refuse(quoted(member->string) + " holds something else than texts");
    }
    texts.emplace_back(entry->valuestring);
  }
  if (texts.empty()) {
    refuse(quoted(member->string) + " is empty");
  }
  return texts;
}

constexpr std::pair<std::string_view, Action (*)(const cJSON*)> kActions[] = {
    {"role", roleAction},
    {"answers", answersAction},
    {"send", sendAction},
    {"reply", replyAction},
    {"close", endAction<&MessageNode::closeConnections>},
    {"reset", endAction<&MessageNode::resetConnections>},
    {"listen", listenAction},
    {"pauseReading", pauseAction<&MessageNode::setReadingPaused, true>},
    {"resumeReading", pauseAction<&MessageNode::setReadingPaused, false>},
    {"pauseWriting", pauseAction<&MessageNode::setWritingPaused, true>},
    {"resumeWriting", pauseAction<&MessageNode::setWritingPaused, false>},
    {"raw", rawAction},
};

}  // namespace

Scenario::Scenario(const std::string& jsonText) {
  const JSONPtr list = parsedJSON(jsonText);
  if (!cJSON_IsArray(list.get())) {
    refuse("not a list of steps");
  }
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
  expectObject(json);
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
  if (has("at") && has("reply")) {
    refuse("\"reply\" needs \"after\"");
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
    step.listen = name == "listen" ? std::optional(truthOf(member)) : std::nullopt;
  } else if (name == "at" || name == "delay") {
    step.wait = secondsOf(member);
  } else if (name == "after") {
    step.after = textsOf(member);
  } else if (name == "each") {
    step.each = truthOf(member);
  } else if (name == "every") {
    step.every = secondsOf(member);
    if (step.every.count() == 0) {
      refuse("\"every\" is below 0.001");
    }
  } else if (name == "repeat") {
    step.repeat = integerOf(member, 1, kMostRepeats);
  } else if (name != "note") {
    refuse("unknown member " + quoted(member->string));
  }
}

bool Scenario::start(MessageNode& node, std::function<void(const std::string&)> report) {
  node_ = &node;
  report_ = std::move(report);
  bool listens = true;
  for (const Step& step : steps_) {
    if (step.after.empty() && step.wait.count() == 0) {
      run(step, step.repeat, {});
      listens = step.listen.value_or(listens);
    } else if (step.after.empty()) {
      schedule(step, {});
    }
  }
  return listens;
}

void Scenario::observe(const std::string& line) { observe(line, {}); }

void Scenario::observe(const PassedMessage& message) {
  if (!empty()) {
    observe(traceText(message, std::string::npos), message);
  }
}

void Scenario::observe(const std::string& line, const PassedMessage& message) {
  if (node_ == nullptr) {
    return;
  }
  for (Step& step : steps_) {
    const bool waits = !step.after.empty() && (step.each || !step.seen);
    if (waits && std::all_of(step.after.begin(), step.after.end(), [&](const std::string& text) {
          return line.find(text) != std::string::npos;
        })) {
      step.seen = true;
      schedule(step, message);
    }
  }
}

void Scenario::schedule(const Step& step, const PassedMessage& cause) {
  // Never at once: a step whose own line sets it off again must leave the loop a moment to stop.
  node_->runAfter(std::max(step.wait, std::chrono::milliseconds(1)),
                  [this, &step, cause] { run(step, step.repeat, cause); });
}

void Scenario::run(const Step& step, int times, const PassedMessage& cause) {
  report_("STEP " + step.label);
  const std::string failure = step.action(*node_, cause);
  if (!failure.empty()) {
    report_("STEP " + step.label + " failed: " + failure);
  }
  if (times != 1) {
    node_->runAfter(step.every,
                    [this, &step, times, cause] { run(step, times == 0 ? 0 : times - 1, cause); });
  }
}

}  // namespace valtor
