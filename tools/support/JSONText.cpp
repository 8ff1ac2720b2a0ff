#include "support/JSONText.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <strings.h>

#include "support/PrintableText.h"

namespace valtor {
namespace {

using Utf8 = rapidjson::UTF8<>;

// The library's own writer puts numbers that it gets as text between quotes, and its reader takes
// the second half of a surrogate pair without the first, for which there is no valid UTF-8.
class NumberKeepingWriter : public rapidjson::Writer<rapidjson::StringBuffer> {
 public:
  using Writer::Writer;
  bool RawNumber(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    return RawValue(text, length, rapidjson::kNumberType);
  }
  bool String(const char* bytes, rapidjson::SizeType length, bool copy) {
    return !holdsSurrogate({bytes, length}) && Writer::String(bytes, length, copy);
  }
  bool Key(const char* bytes, rapidjson::SizeType length, bool copy) {
    return !holdsSurrogate({bytes, length}) && Writer::Key(bytes, length, copy);
  }

 private:
  static bool holdsSurrogate(std::string_view text) {
    for (std::size_t at = 0; (at = text.find('\xed', at)) != std::string_view::npos; ++at) {
      if (at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) >= 0xa0) {
        return true;
      }
    }
    return false;
  }
};

struct StringReader : rapidjson::BaseReaderHandler<Utf8, StringReader> {
  bool Default() { return false; }
  bool String(const char* bytes, rapidjson::SizeType length, bool /*copy*/) {
    text.assign(bytes, length);
    return true;
  }
  std::string text;
};

// Writes the text without white space into the buffer.
rapidjson::ParseResult parse(const std::string& text, rapidjson::StringBuffer& buffer) {
  // The iterative parser has no depth that overflows the stack.
  constexpr unsigned kFlags = rapidjson::kParseIterativeFlag |
                              rapidjson::kParseValidateEncodingFlag |
                              rapidjson::kParseNumbersAsStringsFlag;
  const std::size_t nul = text.find('\0');
  if (nul != std::string::npos) {
    return {rapidjson::kParseErrorTermination, nul};
  }
  NumberKeepingWriter writer(buffer);
  // Knows its end: a stream of the other kind is read beyond its NUL where a character is cut
  // short.
  rapidjson::MemoryStream input(text.data(), text.size());
  rapidjson::Reader reader;
  return reader.Parse<kFlags>(input, writer);
}

// Behind the string that begins there.
std::size_t endOfString(const std::string& json, std::size_t at) {
  for (++at; json[at] != '"'; ++at) {
    at += json[at] == '\\' ? 1 : 0;
  }
  return at + 1;
}

// Behind the value that begins there.
std::size_t endOfValue(const std::string& json, std::size_t at) {
  std::size_t open = 0;
  while (at < json.size()) {
    const char byte = json[at];
    const bool closes = byte == '}' || byte == ']';
    if (open == 0 && (closes || byte == ',')) {
      break;
    }
    open += byte == '{' || byte == '[' ? 1 : 0;
    open -= closes ? 1 : 0;
    at = byte == '"' ? endOfString(json, at) : at + 1;
  }
  return at;
}

// How many bytes the control character takes that begins there and may stand in JSON as it is; 0
// for any other.
std::size_t sizeOfControl(const std::string& json, std::size_t at) {
  if (json[at] == '\x7f') {
    return 1;
  }
  if (json[at] == '\xc2' && at + 1 < json.size() &&
      isControl(static_cast<unsigned char>(json[at + 1]), 0xc2)) {
    return 2;
  }
  return directionControlAt(json, at);
}

}  // namespace

std::optional<std::string> compactJSON(const std::string& text) {
  rapidjson::StringBuffer buffer;
  if (parse(text, buffer).IsError()) {
    return std::nullopt;
  }
  return std::string(buffer.GetString(), buffer.GetSize());
}

std::string faultInJSON(const std::string& text) {
  rapidjson::StringBuffer buffer;
  const rapidjson::ParseResult result = parse(text, buffer);
  const auto place =
      text.begin() + static_cast<std::ptrdiff_t>(std::min(result.Offset(), text.size()));
  const auto line = std::count(text.begin(), place, '\n');
  const auto column = std::find(std::make_reverse_iterator(place), text.rend(), '\n') -
                      std::make_reverse_iterator(place);
  return "line " + std::to_string(line + 1) + ", column " + std::to_string(column + 1) + ": " +
         (result.Code() == rapidjson::kParseErrorTermination
              ? (text.find('\0') != std::string::npos ? "A NUL byte." : "Half of a character.")
              : rapidjson::GetParseError_En(result.Code()));
}

JSONMembers membersOfJSON(const std::string& object) {
  JSONMembers members;
  std::size_t at = 1;
  while (object[0] == '{' && at < object.size() && object[at] == '"') {
    const std::size_t colon = endOfString(object, at);
    const std::size_t end = endOfValue(object, colon + 1);
    members.emplace_back(object.substr(at, colon - at), object.substr(colon + 1, end - colon - 1));
    at = end + 1;
  }
  return members;
}

std::string objectOfJSON(const JSONMembers& members) {
  std::string text = "{";
  for (const auto& [name, value] : members) {
    text.append(text.size() == 1 ? "" : ",").append(name).append(":").append(value);
  }
  return text + "}";
}

std::string memberOfJSON(const std::string& object, const std::string& name) {
  const std::string quoted = quotedJSON(name);
  for (const auto& [key, value] : membersOfJSON(object)) {
    if (strcasecmp(key.c_str(), quoted.c_str()) == 0) {
      return value;
    }
  }
  return "";
}

std::string textOfJSON(const std::string& json) {
  StringReader handler;
  rapidjson::StringStream input(json.c_str());
  rapidjson::Reader().Parse<rapidjson::kParseIterativeFlag>(input, handler);
  return handler.text;
}

std::string formattedJSON(const std::string& compact) {
  std::string text;
  std::string open;  // the brackets around this place
  const auto newLine = [&] { return "\n" + std::string(open.size(), '\t'); };
  for (std::size_t at = 0; at < compact.size();) {
    const char byte = compact[at];
    const std::size_t end = byte == '"' ? endOfString(compact, at) : at + 1;
    if (byte == '{' || byte == '[') {
      open += byte;
      text += byte;
      text += byte == '{' && compact[end] != '}' ? newLine() : "";
    } else if (byte == '}' || byte == ']') {
      open.pop_back();
      text += byte == '}' && compact[at - 1] != '{' ? newLine() : "";
      text += byte;
    } else if (byte == ',') {
      text += open.back() == '{' ? "," + newLine() : ", ";
    } else {
      text.append(compact, at, end - at);
      text += byte == ':' ? "\t" : "";
    }
    at = end;
  }
  return escapedControls(text);
}

std::string escapedControls(const std::string& json) {
  std::string result;
  result.reserve(json.size());
  for (std::size_t at = 0; at < json.size();) {
    const std::size_t count = sizeOfControl(json, at);
    if (count == 0) {
      result += json[at++];
      continue;
    }
    const auto bits = [&](std::size_t place, unsigned mask) {
      return static_cast<unsigned char>(json[at + place]) & mask;
    };
    const unsigned code = count == 1   ? bits(0, 0x7f)
                          : count == 2 ? bits(0, 0x1f) << 6U | bits(1, 0x3f)
                                       : bits(0, 0xf) << 12U | bits(1, 0x3f) << 6U | bits(2, 0x3f);
    std::array<char, 12> text{};
    std::snprintf(text.data(), text.size(), "\\u%04x", code);
    result += text.data();
    at += count;
  }
  return result;
}

std::string quotedJSON(std::string_view text) {
  const std::string clean = withoutBrokenUtf8(text);
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.String(clean.data(), static_cast<rapidjson::SizeType>(clean.size()));
  return {buffer.GetString(), buffer.GetSize()};
}

std::string excerpt(const std::string& text) {
  constexpr std::size_t kMost = 60;  // bytes
  return printable(text.substr(0, kMost)) + (text.size() > kMost ? "..." : "");
}

}  // namespace valtor
