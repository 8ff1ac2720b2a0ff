#include "app/util/OwnedJSON.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace valtor {

namespace {

thread_local bool jsonFailed = false;

void* allocate(std::size_t size) {
  void* const block = std::malloc(size);  // NOLINT(*-no-malloc,*-owning-memory): cJSON's memory
  jsonFailed = jsonFailed || block == nullptr;
  return block;
}

[[maybe_unused]] const bool hooked = [] {
  cJSON_Hooks hooks{allocate, std::free};
  cJSON_InitHooks(&hooks);
  return true;
}();

}  // namespace

bool takeJSONFailure() { return std::exchange(jsonFailed, false); }

void requireWholeJSON() {
  if (takeJSONFailure()) {
    throw std::bad_alloc();
  }
}

JSONFailureScope::JSONFailureScope() : outer_(takeJSONFailure()) {}

JSONFailureScope::~JSONFailureScope() { jsonFailed = outer_; }

OwnedJSON::OwnedJSON(cJSON* item) : OwnedJSON(JSONPtr(item)) {}

OwnedJSON::OwnedJSON(JSONPtr item)
    : item_(item ? std::move(item) : JSONPtr(cJSON_CreateObject())) {}

OwnedJSON parseJSON(const std::string& text) { return OwnedJSON(cJSON_Parse(text.c_str())); }

JSONText renderJSON(const cJSON* item, bool formatted) {
  if (item == nullptr) {
    return nullptr;
  }
  return JSONText(formatted ? cJSON_Print(item) : cJSON_PrintUnformatted(item));
}

std::string printJSON(const cJSON* item, bool formatted) {
  const JSONText text = renderJSON(item, formatted);
  return text ? std::string(text.get()) : std::string();
}

const char* stringMember(const cJSON* object, const char* name) {
  return cJSON_GetStringValue(cJSON_GetObjectItem(object, name));
}

const cJSON* arrayMember(const cJSON* object, const char* name) {
  const cJSON* member = cJSON_GetObjectItem(object, name);
  return cJSON_IsArray(member) ? member : nullptr;
}

void addMember(cJSON* object, const char* name, JSONPtr item) {
  if (item && cJSON_AddItemToObject(object, name, item.get())) {
    static_cast<void>(item.release());
  }
}

void addElement(cJSON* array, JSONPtr item) {
  if (item && cJSON_AddItemToArray(array, item.get())) {
    static_cast<void>(item.release());
  }
}

}  // namespace valtor
