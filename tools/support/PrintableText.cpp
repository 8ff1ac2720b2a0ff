#include "support/PrintableText.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/stringbuffer.h>

namespace valtor {

bool isControl(unsigned char byte, unsigned char before) {
  return byte < 0x20 || byte == 0x7f || (before == 0xc2 && byte < 0xa0);
}

std::size_t directionControlAt(std::string_view text, std::size_t at) {
  const std::string_view two = text.substr(at, 2);
  const unsigned char third = at + 2 < text.size() ? static_cast<unsigned char>(text[at + 2]) : 0;
  const bool isMark = third == 0x8e || third == 0x8f;
  const bool isEmbedding = third >= 0xaa && third <= 0xae;
  const bool isIsolate = third >= 0xa6 && third <= 0xa9;
  if ((two == "\xe2\x80" && (isMark || isEmbedding)) || (two == "\xe2\x81" && isIsolate)) {
    return 3;
  }
  return two == "\xd8\x9c" ? 2 : 0;
}

std::string withoutBrokenUtf8(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  rapidjson::StringBuffer character;
  for (std::size_t at = 0; at < text.size();) {
    // Afresh at each byte: a broken character takes bytes along that belong to what follows.
    rapidjson::MemoryStream input(text.data() + at, text.size() - at);
    character.Clear();
    if (rapidjson::UTF8<>::Validate(input, character)) {
      result.append(character.GetString(), character.GetSize());
      at += character.GetSize();
    } else {
      result += "\xEF\xBF\xBD";
      ++at;
    }
  }
  return result;
}

std::string printable(std::string_view text) {
  std::string result = withoutBrokenUtf8(text);
  unsigned char before = 0;
  for (std::size_t at = 0; at < result.size(); ++at) {
    const auto value = static_cast<unsigned char>(result[at]);
    if (isControl(value, before)) {
      result[at] = value < 0x80 ? ' ' : '\xa0';  // the latter a blank that does not break
    } else if (const std::size_t count = directionControlAt(result, at); count > 0) {
      result.replace(at, count, count, ' ');
    }
    before = value;
  }
  return result;
}

}  // namespace valtor
