#pragma once

#include <cstdint>
#include <rapidjson/reader.h>
#include <string>

namespace valtor {

// Finds the top-level "id" of a JSON text while RapidJSON reads it, and ends the reading as soon as
// it has it: a database response may be megabytes long and its identifier stands near the front.
// The captured id is the first string that follows the key "id" of the outermost object before the
// next key; an "id" of a nested object does not count. One object per text, one thread.
class DatabaseIdHandler
    : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, DatabaseIdHandler> {
 public:
  // The deepest nesting that is followed; as deep as cJSON goes. Each level costs the reader stack
  // memory, and a text of brackets alone would otherwise take many times its own size.
  static constexpr int32_t kDeepestNesting = 1000;

  // Reads the text up to its "id", or to its end when there is none. The captured id, "" when
  // nothing was captured. A malformed text gives what was captured before the fault. Throws
  // std::bad_alloc.
  static std::string findId(const char* text);

  // Events of the reader. False ends the reading.
  bool StartObject();
  bool EndObject(rapidjson::SizeType memberCount);
  bool StartArray();
  bool EndArray(rapidjson::SizeType elementCount);
  bool Key(const char* text, rapidjson::SizeType length, bool copy);
  bool String(const char* text, rapidjson::SizeType length, bool copy);

  const std::string& capturedId() const { return capturedId_; }

 private:
  bool withinNesting() const { return arrayDepth_ + objectDepth_ <= kDeepestNesting; }

  int32_t arrayDepth_ = 0;
  int32_t objectDepth_ = 0;
  bool capture_ = false;
  std::string capturedId_;
};

}  // namespace valtor
