#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "app/util/OwnedJSON.h"

namespace valtor {

// Checks of JSON that a person wrote for a node: scenarios and answers. What is not as it should be
// throws std::runtime_error with a text for that person, which names the member at fault. Names are
// looked up as cJSON does, in upper or lower case.

[[noreturn]] void refuse(const std::string& text);
// The name in quotation marks.
std::string quoted(const char* name);

// The whole text as one value; names the line from which on it is none.
JSONPtr parsedJSON(const std::string& text);

// An object in which no name comes twice.
void expectObject(const cJSON* item);
// The same, with no other names than these.
void expectObject(const cJSON* item, std::initializer_list<std::string_view> names);
// A member that has to be there.
const cJSON* memberOf(const cJSON* object, const char* name);

// What a member holds.
std::string textOf(const cJSON* member);
std::string filledTextOf(const cJSON* member);  // not empty
bool truthOf(const cJSON* member);
std::chrono::milliseconds secondsOf(const cJSON* member);  // up to 1,000,000 s
int32_t integerOf(const cJSON* member, int32_t first, int32_t last);

}  // namespace valtor
