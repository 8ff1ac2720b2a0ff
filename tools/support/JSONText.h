#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace valtor {

// JSON and text for people and scripts. Unlike the trees of the message classes these keep the
// spelling of numbers, so that what is shown or sent has every digit. Pure functions, any thread.

// The text without white space between its parts; none when it is not valid JSON in valid UTF-8.
std::optional<std::string> compactJSON(const std::string& text);

// Where and why the text is no JSON, such as "line 2, column 5: Missing a name for object member.".
std::string faultInJSON(const std::string& text);

// The members of an object that compactJSON() made: the name, still a JSON string, and the value,
// both as they are spelt. None for JSON that is no object.
using JSONMembers = std::vector<std::pair<std::string, std::string>>;
JSONMembers membersOfJSON(const std::string& object);
// The object with these members.
std::string objectOfJSON(const JSONMembers& members);
// The value of the first member with the name, upper and lower case being the same; or "".
std::string memberOfJSON(const std::string& object, const std::string& name);

// The text that a JSON string stands for, NULs included; "" for other JSON.
std::string textOfJSON(const std::string& json);

// What compactJSON() made, with line feeds and tabs for people.
std::string formattedJSON(const std::string& compact);

// JSON in which what JSON allows in strings and a terminal would act on is escaped: control
// characters and those that override the direction of writing.
std::string escapedControls(const std::string& json);

// A JSON string, with its quotes.
std::string quotedJSON(std::string_view text);

// The beginning of a text in an error: printable, cut where it is long.
std::string excerpt(const std::string& text);

}  // namespace valtor
