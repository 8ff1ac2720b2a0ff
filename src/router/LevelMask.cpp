#include "router/LevelMask.h"

#include <algorithm>
#include <bit>
#include <syslog.h>

#include "router/ArrayElements.h"

namespace valtor {
namespace {

constexpr unsigned kBitsPerWord = 32;

}  // namespace

LevelMask::LevelMask(const std::vector<unsigned>& levels) {
  for (const unsigned level : levels) {
    change(level, true);
  }
  normalise();
}

LevelMask::LevelMask(std::uint64_t bits)
    : words_{static_cast<std::uint32_t>(bits), static_cast<std::uint32_t>(bits >> kBitsPerWord)} {
  normalise();
}

LevelMask::LevelMask(const LevelMask& mask, const LevelMask& other) : LevelMask(mask) {
  *this &= other;
}

int LevelMask::loadFromJSON(const cJSON* item) {
  if (firstElement(item) == nullptr) {
    return -1;
  }
  addLevels(item);
  return 0;
}

JSONPtr LevelMask::toJSON() const {
  JSONPtr array(cJSON_CreateArray());
  for (const unsigned level : levels()) {
    addElement(array.get(), makeNumber(level));
  }
  return array;
}

void LevelMask::reset() {
  words_.clear();
  extent_ = 0;
}

void LevelMask::setLevel(unsigned level) { change(level, true); }

void LevelMask::clearLevel(unsigned level) { change(level, false); }

bool LevelMask::hasLevel(unsigned level) const {
  const std::size_t index = level / kBitsPerWord;
  return index < words_.size() && ((words_[index] >> (level % kBitsPerWord)) & 1U) != 0;
}

std::vector<unsigned> LevelMask::levels() const {
  std::vector<unsigned> found;
  unsigned base = 0;
  for (const std::uint32_t word : words_) {
    for (std::uint32_t rest = word; rest != 0; rest &= rest - 1) {
      found.push_back(base + static_cast<unsigned>(std::countr_zero(rest)));
    }
    base += kBitsPerWord;
  }
  return found;
}

std::uint64_t LevelMask::lowBits() const {
  const std::uint64_t low = words_.empty() ? 0 : words_[0];
  const std::uint64_t high = words_.size() < 2 ? 0 : words_[1];
  return low | (high << kBitsPerWord);
}

void LevelMask::addLevels(const cJSON* array) {
  std::size_t skipped = 0;
  for (const cJSON* element = firstElement(array); element != nullptr; element = element->next) {
    if (element->valueint < 0 || element->valueint > kHighestJSONLevel) {
      ++skipped;
    } else {
      setLevel(static_cast<unsigned>(element->valueint));
    }
  }
  if (skipped > 0) {
    syslog(LOG_WARNING, "LevelMask::loadFromJSON - %zu levels outside 0 to %d skipped.\n", skipped,
           kHighestJSONLevel);
  }
}

LevelMask& LevelMask::operator&=(const LevelMask& other) {
  words_.resize(std::min(words_.size(), other.words_.size()));
  for (std::size_t index = 0; index < words_.size(); ++index) {
    words_[index] &= other.words_[index];
  }
  normalise();
  return *this;
}

LevelMask& LevelMask::operator|=(const LevelMask& other) {
  words_.resize(std::max(words_.size(), other.words_.size()));
  for (std::size_t index = 0; index < other.words_.size(); ++index) {
    words_[index] |= other.words_[index];
  }
  normalise();
  return *this;
}

bool LevelMask::operator==(const LevelMask& other) const {
  return extent_ == other.extent_ && words_ == other.words_;
}

void LevelMask::change(unsigned level, bool set) {
  const std::size_t index = level / kBitsPerWord;
  const std::uint32_t bit = 1U << (level % kBitsPerWord);
  // To clear a level beyond the last word takes no new words: normalising would drop them again,
  // down to the one that a mask keeps once it has any.
  words_.resize(std::max<std::size_t>(words_.size(), set ? index + 1 : 1));
  if (set) {
    words_[index] |= bit;
  } else if (index < words_.size()) {
    words_[index] &= ~bit;
  }
  if (level >= extent_) {
    normalise();
  }
}

// Drops the zero words at the end, but not the first word, and counts the extent anew.
void LevelMask::normalise() {
  while (words_.size() > 1 && words_.back() == 0) {
    words_.pop_back();
  }
  extent_ = 0;
  if (!words_.empty()) {
    const auto full = static_cast<std::uint32_t>(words_.size() - 1) * kBitsPerWord;
    extent_ = full + static_cast<std::uint32_t>(std::bit_width(words_.back()));
  }
}

}  // namespace valtor
