#pragma once

#include <cstddef>

#include "bus/message/PellInternalMessage.h"

namespace valtor {

// How much the answers to one request may be together: a frame can repeat a name a million times,
// and what is stored can be large.
class AnswerRoom {
 public:
  static constexpr std::size_t kMaxAnswers = 1000;
  // Connection points that all answers hold together.
  static constexpr std::size_t kMaxPoints = 100000;
  // As text, roughly; one message is never longer. The answer that reaches it is still given.
  static constexpr std::size_t kMaxBytes = 20000000;

  // Whether the request may get one more answer; one warning says when it may not.
  bool isLeft(const PellInternalMessage& request);
  // An answer with this value is given, for which so many objects were looked at.
  void take(const cJSON* value, std::size_t lookedAt);

 private:
  std::size_t answers_ = 0;
  std::size_t points_ = 0;
  std::size_t bytes_ = 0;
  bool said_ = false;
};

}  // namespace valtor
