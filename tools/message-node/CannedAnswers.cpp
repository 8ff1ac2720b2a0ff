#include "message-node/CannedAnswers.h"

#include <cstring>
#include <utility>

#include "bus/message/RSPMessage.h"
#include "message-node/JSONChecks.h"

namespace valtor {

namespace {

const cJSON* requestedNames(const PellInternalMessage& request) {
  const cJSON* body = request.viewBody();
  const cJSON* names = arrayMember(cJSON_GetObjectItem(body, "param"), "objectName");
  return names != nullptr ? names : arrayMember(body, "objectName");
}

}  // namespace

bool requestNamesObject(const PellInternalMessage& request, const char* name) {
  const cJSON* entry = nullptr;
  cJSON_ArrayForEach(entry, requestedNames(request)) {
    if (cJSON_IsString(entry) && std::strcmp(entry->valuestring, name) == 0) {
      return true;
    }
  }
  return false;
}

CannedAnswers::CannedAnswers(const std::string& jsonText) : answers_(parsedJSON(jsonText)) {
  check(answers_.get());
}

void CannedAnswers::check(const cJSON* answers) {
  expectObject(answers, {"db", "route"});
  const cJSON* part = nullptr;
  cJSON_ArrayForEach(part, answers) { expectObject(part); }
}

std::unique_ptr<PellInternalMessage> CannedAnswers::answerTo(
    const PellInternalMessage& request) const {
  JSONPtr value;
  if (request.getKind() == MessageKind::GET && request.header.path == "db") {
    value = databaseValues(request);
  } else if (request.getKind() == MessageKind::CMD && request.header.path == "route") {
    value = routeValue(request);
  }
  if (value == nullptr) {
    return nullptr;
  }
  return std::make_unique<RSPMessage>(request, nullptr, std::move(value));
}

JSONPtr CannedAnswers::databaseValues(const PellInternalMessage& request) const {
  const cJSON* known = cJSON_GetObjectItem(answers_.get(), "db");
  JSONPtr found(cJSON_CreateObject());
  const cJSON* entry = nullptr;
  cJSON_ArrayForEach(entry, requestedNames(request)) {
    if (cJSON_IsString(entry)) {
      const cJSON* value = cJSON_GetObjectItem(known, entry->valuestring);
      addMember(found.get(), entry->valuestring, JSONPtr(cJSON_Duplicate(value, 1)));
    }
  }
  return found->child != nullptr ? std::move(found) : nullptr;
}

JSONPtr CannedAnswers::routeValue(const PellInternalMessage& request) const {
  const cJSON* body = request.viewBody();
  const cJSON* known = nullptr;
  cJSON_ArrayForEach(known, cJSON_GetObjectItem(answers_.get(), "route")) {
    if (cJSON_GetObjectItem(body, known->string) != nullptr) {
      JSONPtr found(cJSON_CreateObject());
      addMember(found.get(), known->string, JSONPtr(cJSON_Duplicate(known, 1)));
      return found;
    }
  }
  return nullptr;
}

}  // namespace valtor
