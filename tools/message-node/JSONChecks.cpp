#include "message-node/JSONChecks.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <stdexcept>
#include <strings.h>

namespace valtor {

namespace {

constexpr double kLongestTime = 1'000'000;  // seconds

// How a text about an item begins; the outermost item and those of a list have no name.
std::string subject(const cJSON* item, const char* verb) {
  return item->string != nullptr ? quoted(item->string) + " " + verb + " " : "";
}

// As names of members are looked up.
struct LessInEitherCase {
  bool operator()(const char* one, const char* other) const { return strcasecmp(one, other) < 0; }
};

}  // namespace

void refuse(const std::string& text) { throw std::runtime_error(text); }

std::string quoted(const char* name) { return std::string("\"") + name + "\""; }

JSONPtr parsedJSON(const std::string& text) {
  const char* end = nullptr;
  JSONPtr value(cJSON_ParseWithOpts(text.c_str(), &end, 1));
  if (value == nullptr) {
    refuse("no JSON from line " + std::to_string(1 + std::count(text.c_str(), end, '\n')) + " on");
  }
  return value;
}

void expectObject(const cJSON* item) {
  if (!cJSON_IsObject(item)) {
    refuse(subject(item, "is") + "not an object");
  }
  std::set<const char*, LessInEitherCase> names;
  const cJSON* inner = nullptr;
  cJSON_ArrayForEach(inner, item) {
    if (!names.insert(inner->string).second) {
      refuse(subject(item, "has") + quoted(inner->string) + " twice");
    }
  }
}

void expectObject(const cJSON* item, std::initializer_list<std::string_view> names) {
  expectObject(item);
  const cJSON* inner = nullptr;
  cJSON_ArrayForEach(inner, item) {
    if (std::find(names.begin(), names.end(), inner->string) == names.end()) {
      refuse(subject(item, "has") + "an unknown member " + quoted(inner->string));
    }
  }
}

const cJSON* memberOf(const cJSON* object, const char* name) {
  const cJSON* member = cJSON_GetObjectItem(object, name);
  if (member == nullptr) {
    refuse(subject(object, "has") + "no " + quoted(name));
  }
  return member;
}

std::string textOf(const cJSON* member) {
  if (!cJSON_IsString(member)) {
    refuse(subject(member, "is") + "not a text");
  }
  return member->valuestring;
}

std::string filledTextOf(const cJSON* member) {
  std::string text = textOf(member);
  if (text.empty()) {
    refuse(subject(member, "is") + "empty");
  }
  return text;
}

bool truthOf(const cJSON* member) {
  if (cJSON_IsBool(member) == 0) {
    refuse(subject(member, "is") + "neither true nor false");
  }
  return cJSON_IsTrue(member) != 0;
}

std::chrono::milliseconds secondsOf(const cJSON* member) {
  if (!cJSON_IsNumber(member) || !(member->valuedouble >= 0) ||
      member->valuedouble > kLongestTime) {
    refuse(subject(member, "is") + "not a number of seconds from 0 to 1000000");
  }
  return std::chrono::milliseconds(std::llround(member->valuedouble * 1000));
}

int32_t integerOf(const cJSON* member, int32_t first, int32_t last) {
  if (!cJSON_IsNumber(member) || member->valuedouble != member->valueint ||
      member->valueint < first || member->valueint > last) {
    refuse(subject(member, "is") + "not a whole number from " + std::to_string(first) + " to " +
           std::to_string(last));
  }
  return member->valueint;
}

}  // namespace valtor
