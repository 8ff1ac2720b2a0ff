#include "valtor-bus/JSONText.h"

#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace valtor {
namespace {

using Utf8 = rapidjson::UTF8<>;

// The library's own writer puts numbers that it gets as text between quotes.
class NumberKeepingWriter : public rapidjson::Writer<rapidjson::StringBuffer> {
 public:
  using Writer::Writer;
  bool RawNumber(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    return RawValue(text, length, rapidjson::kNumberType);
  }
};

}  // namespace

std::optional<std::string> compactJSON(const std::string& text) {
  // The iterative parser has no depth that overflows the stack.
  constexpr unsigned kFlags = rapidjson::kParseIterativeFlag |
                              rapidjson::kParseValidateEncodingFlag |
                              rapidjson::kParseNumbersAsStringsFlag;
  if (text.find('\0') != std::string::npos) {
    return std::nullopt;
  }
  rapidjson::StringBuffer buffer;
  NumberKeepingWriter writer(buffer);
  rapidjson::StringStream input(text.c_str());
  rapidjson::Reader reader;
  if (reader.Parse<kFlags>(input, writer).IsError()) {
    return std::nullopt;
  }
  return std::string(buffer.GetString(), buffer.GetSize());
}

std::string withoutBrokenUtf8(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  rapidjson::MemoryStream input(text.data(), text.size());
  rapidjson::StringBuffer character;
  while (input.Tell() < text.size()) {
    character.Clear();
    if (Utf8::Validate(input, character)) {
      result.append(character.GetString(), character.GetSize());
    } else {
      result += "\xEF\xBF\xBD";
    }
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

std::string printable(std::string_view text) {
  std::string result = withoutBrokenUtf8(text);
  bool afterC2 = false;  // U+0080 to U+009F are control characters too
  for (char& byte : result) {
    const auto value = static_cast<unsigned char>(byte);
    if (value < 0x20 || value == 0x7f) {
      byte = ' ';
    } else if (afterC2 && value < 0xa0) {
      byte = '\xa0';  // a blank that does not break
    }
    afterC2 = value == 0xc2;
  }
  return result;
}

}  // namespace valtor
