#include "support/PrintableText.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/stringbuffer.h>

namespace valtor {

bool isControl(unsigned char byte, unsigned char before) {
  return byte < 0x20 || byte == 0x7f || (before == 0xc2 && byte < 0xa0);
}

std::string withoutBrokenUtf8(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  rapidjson::MemoryStream input(text.data(), text.size());
  rapidjson::StringBuffer character;
  while (input.Tell() < text.size()) {
    character.Clear();
    if (rapidjson::UTF8<>::Validate(input, character)) {
      result.append(character.GetString(), character.GetSize());
    } else {
      result += "\xEF\xBF\xBD";
    }
  }
  return result;
}

std::string printable(std::string_view text) {
  std::string result = withoutBrokenUtf8(text);
  unsigned char before = 0;
  for (char& byte : result) {
    const auto value = static_cast<unsigned char>(byte);
    if (isControl(value, before)) {
      byte = value < 0x80 ? ' ' : '\xa0';  // the latter a blank that does not break
    }
    before = value;
  }
  return result;
}

}  // namespace valtor
