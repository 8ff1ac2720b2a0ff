#include "peers/DatabaseIdHandler.h"

#include <cstddef>
#include <new>
#include <string_view>

namespace valtor {

namespace {

// RapidJSON writes to what its own allocator gives it, also when that is nothing.
class ThrowingAllocator {
 public:
  void* Malloc(std::size_t size) { return checked(rapidjson::CrtAllocator().Malloc(size), size); }
  void* Realloc(void* block, std::size_t oldSize, std::size_t size) {
    return checked(rapidjson::CrtAllocator().Realloc(block, oldSize, size), size);
  }
  static void Free(void* block) { rapidjson::CrtAllocator::Free(block); }

 private:
  static void* checked(void* block, std::size_t size) {
    if (block == nullptr && size > 0) {
      throw std::bad_alloc();
    }
    return block;
  }
};

}  // namespace

std::string DatabaseIdHandler::findId(const char* text) {
  rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, ThrowingAllocator> reader;
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
