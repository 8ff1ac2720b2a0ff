#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app/util/Warnings.h"
#include "bus/message/PellInternalMessage.h"

namespace valtor::test {

// The message that a payload decodes to.
inline PellInternalMessage received(const std::string& payload) {
  auto buffer = std::make_unique<char[]>(payload.size() + 1);
  payload.copy(buffer.get(), payload.size());
  return PellInternalMessage(std::move(buffer));
}

// How often that was warned of in this process.
inline uint64_t countOf(Warning kind) {
  return warningCounts()[static_cast<std::size_t>(kind)].count;
}

// What happened, in order. Any thread may add.
class Record {
 public:
  void add(const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(line);
  }
  std::vector<std::string> lines() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace valtor::test
