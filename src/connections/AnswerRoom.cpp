#include "connections/AnswerRoom.h"

#include <cstring>
#include <syslog.h>
#include <utility>

namespace valtor {

namespace {

constexpr std::size_t kPunctuation = 8;  // quotes, commas, or a number

std::size_t lengthOf(const char* text) { return text != nullptr ? std::strlen(text) : 0; }

// Roughly, as compact text. The trees are our own renderings, a few levels deep.
std::size_t textSize(const cJSON* item) {
  if (item == nullptr) {
    return 0;
  }
  std::size_t size = lengthOf(item->string) + lengthOf(item->valuestring) + kPunctuation;
  const cJSON* child = nullptr;
  cJSON_ArrayForEach(child, item) { size += textSize(child); }
  return size;
}

}  // namespace

bool AnswerRoom::isLeft(const PellInternalMessage& request) {
  if (answers_ < kMaxAnswers && points_ < kMaxPoints && bytes_ < kMaxBytes) {
    return true;
  }
  if (std::exchange(said_, true)) {
    return false;
  }
  syslog(LOG_WARNING,
         "A request of connection %d asks for too much, what follows its answer %zu is ignored.\n",
         request.header.sourceConnID, answers_);
  return false;
}

void AnswerRoom::take(const cJSON* value, std::size_t lookedAt) {
  ++answers_;
  points_ += lookedAt;
  bytes_ += textSize(value) + lookedAt * kPunctuation;
}

}  // namespace valtor
