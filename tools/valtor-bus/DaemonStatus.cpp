#include "valtor-bus/DaemonStatus.h"

#include <utility>

#include "app/util/OwnedJSON.h"
#include "app/util/StatusLimits.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"
#include "support/StatusSocket.h"

namespace valtor {
namespace {

std::string textOf(const cJSON* object, const char* name) {
  const char* text = stringMember(object, name);
  return text != nullptr ? printable(text) : "";
}

std::optional<double> numberOf(const cJSON* object, const char* name) {
  const cJSON* member = cJSON_GetObjectItem(object, name);
  return cJSON_IsNumber(member) != 0 ? std::optional(member->valuedouble) : std::nullopt;
}

int portOf(const cJSON* object) {
  const cJSON* member = cJSON_GetObjectItem(object, "port");
  return cJSON_IsNumber(member) != 0 ? member->valueint : 0;
}

void readLink(const cJSON* item, DaemonStatus::Link& link) {
  link.since = numberOf(item, "since");
  link.lost = numberOf(item, "lost").value_or(0);
  const cJSON* time = nullptr;
  cJSON_ArrayForEach(time, arrayMember(item, "losses")) {
    if (cJSON_IsNumber(time) != 0) {
      link.losses.push_back(time->valuedouble);
    }
  }
  const cJSON* const last = cJSON_GetObjectItem(item, "lastLoss");
  link.lossReason = textOf(last, "reason");
  link.lossTime = numberOf(last, "time").value_or(0);
}

DaemonStatus::Router routerOf(const cJSON* item) {
  const auto part = [&](const char* name) { return cJSON_GetObjectItem(item, name); };
  DaemonStatus::Router router;
  router.name = textOf(item, "name");
  router.uniqueID = textOf(item, "uniqueID");
  router.address = textOf(item, "address");
  router.port = portOf(item);
  const std::string state = textOf(item, "state");
  router.up = state == "up";
  router.enabled = state != "disabled" && cJSON_IsFalse(part("enabled")) == 0;
  router.stalled = cJSON_IsTrue(part("stalled")) != 0;
  readLink(item, router);
  router.toRouter = numberOf(part("toRouter"), "messages").value_or(0);
  router.fromRouter = numberOf(part("fromRouter"), "messages").value_or(0);
  router.waitingFrames = numberOf(part("waiting"), "frames").value_or(0);
  router.waitingBytes = numberOf(part("waiting"), "bytes").value_or(0);
  router.dropped = numberOf(item, "dropped").value_or(0);
  return router;
}

}  // namespace

DaemonStatus DaemonStatus::ask(const std::string& path, std::chrono::milliseconds time) {
  StatusAnswer answer = askForStatus(path, time, kLongestStatus);
  DaemonStatus status(answer.text);
  if (!answer.text.empty() && !status.isThere()) {
    answer.problem = "what " + path + " says is no JSON object";
  }
  status.problem_ = std::move(answer.problem);
  return status;
}

DaemonStatus::DaemonStatus(const std::string& text) {
  const std::string whole = compactJSON(withoutBrokenUtf8(text)).value_or("");
  if (whole.empty() || whole.front() != '{') {
    return;
  }
  text_ = whole;
  const OwnedJSON document = parseJSON(text_);
  const auto part = [&](const char* member) { return cJSON_GetObjectItem(document.get(), member); };
  const double clock =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  now = numberOf(document.get(), "now").value_or(clock);
  startTime = numberOf(document.get(), "startTime");
  version = textOf(document.get(), "version");
  role = textOf(part("role"), "state");
  roleSince = numberOf(part("role"), "since");
  controllerDown = textOf(part("controller"), "state") == "down";
  readLink(part("controller"), controllerLink);
  controllerAddress = textOf(part("controller"), "address");
  controllerPort = portOf(part("controller"));
  const cJSON* router = nullptr;
  cJSON_ArrayForEach(router, arrayMember(document.get(), "routers")) {
    routers.push_back(routerOf(router));
  }
  queueDelay = numberOf(part("localQueue"), "delayMs").value_or(0) / 1000;
  unsavedFiles = numberOf(document.get(), "unsavedFiles").value_or(0);
  if (const cJSON* loop = cJSON_GetObjectItem(part("loops"), "last"); cJSON_IsObject(loop) != 0) {
    lastLoop = textOf(loop, "kind") + " on \"" + textOf(loop, "path") + "\" from " +
               textOf(loop, "from") + " to " + textOf(loop, "to");
    lastLoopTime = numberOf(loop, "time").value_or(0);
  }
}

}  // namespace valtor
