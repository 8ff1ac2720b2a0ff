#include "peers/DatabaseIdHandler.h"

#include <string_view>

namespace valtor {

std::string DatabaseIdHandler::findId(const char* text) {
  rapidjson::Reader reader;
  rapidjson::StringStream stream(text);
  DatabaseIdHandler handler;
  // The iterative parser keeps its state on the heap: the default one recurses without a limit.
  // An error result is no failure here, since the handler ends the reading on purpose.
  reader.Parse<rapidjson::kParseIterativeFlag>(stream, handler);
  return handler.capturedId();
}

bool DatabaseIdHandler::StartObject() {
  ++objectDepth_;
  return withinNesting();
}

bool DatabaseIdHandler::EndObject(rapidjson::SizeType /*memberCount*/) {
  --objectDepth_;
  return true;
}

bool DatabaseIdHandler::StartArray() {
  ++arrayDepth_;
  return withinNesting();
}

bool DatabaseIdHandler::EndArray(rapidjson::SizeType /*elementCount*/) {
  --arrayDepth_;
  return true;
}

bool DatabaseIdHandler::Key(const char* text, rapidjson::SizeType length, bool /*copy*/) {
  capture_ = arrayDepth_ == 0 && objectDepth_ == 1 && std::string_view(text, length) == "id";
  return true;
}

bool DatabaseIdHandler::String(const char* text, rapidjson::SizeType length, bool /*copy*/) {
  if (!capture_) {
    return true;
  }
  capturedId_.assign(text, length);
  return false;
}

}  // namespace valtor
