#pragma once

#include <cstdint>
#include <vector>

#include "app/util/OwnedJSON.h"

namespace valtor {

// Reading and writing of the small fixed-shape arrays that route operations are made of. Items to
// read may be null or of any type: only an array has elements, an object has none. An element's
// number is cJSON's integer field, whatever the element's type (0 for a string, the limits of int
// for a number beyond them).

// The first element of an array, or null.
const cJSON* firstElement(const cJSON* item);

// The second element of an array, or null.
const cJSON* secondElement(const cJSON* item);

// True for an array of exactly two elements.
bool isPair(const cJSON* item);

// Appends the number of each element of an array.
void appendIntegers(const cJSON* item, std::vector<std::int32_t>& numbers);

// A number item.
JSONPtr makeNumber(double number);

// An array of numbers.
JSONPtr makeIntegers(const std::vector<std::int32_t>& numbers);

// An array of two items, whose ownership it takes.
JSONPtr makePair(JSONPtr first, JSONPtr second);

}  // namespace valtor
