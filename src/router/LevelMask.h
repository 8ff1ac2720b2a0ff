#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "data/AbstractJSONBackedData.h"

namespace valtor {

// The set of signal levels that a router operation applies to: a bit set without a fixed upper
// bound, whose JSON form is the array of its levels in ascending order. A plain value without a
// lock. Levels that come from JSON are limited to 0 to 65535; setLevel itself takes any level below
// 2^32 - 1 and spends level / 8 bytes on it, so whoever passes foreign numbers goes through
// addLevels.
class LevelMask : public AbstractJSONBackedData {
 public:
  static constexpr int kHighestJSONLevel = 65535;

  LevelMask() = default;
  // The listed levels. Mind that a braced single number would be taken for the bits below.
  explicit LevelMask(const std::vector<unsigned>& levels);
  // Bit n stands for level n.
  explicit LevelMask(std::uint64_t bits);
  // What both masks hold; the rest is copied from the first.
  LevelMask(const LevelMask& mask, const LevelMask& other);

  // Adds the levels of a JSON array, as addLevels does. -1 when the item is no array or an empty
  // one.
  int loadFromJSON(const cJSON* item) override;
  JSONPtr toJSON() const override;
  // Back to no levels at all. The tag stays.
  void reset() override;

  virtual void setLevel(unsigned level);
  // Clearing the highest level leaves extent() as it is until a level at or above it is set or
  // cleared.
  virtual void clearLevel(unsigned level);
  virtual bool hasLevel(unsigned level) const;
  // In ascending order.
  virtual std::vector<unsigned> levels() const;
  // Levels 0 to 63, bit n for level n.
  virtual std::uint64_t lowBits() const;
  // One more than the highest level known to be set, 0 for none.
  virtual std::uint32_t extent() const { return extent_; }

  // Adds the number of each element of a JSON array to the mask; an item that is no array adds
  // nothing. Numbers outside 0 to 65535 are skipped, with one warning that counts them: a single
  // huge number would otherwise ask for half a gigabyte.
  void addLevels(const cJSON* array);

  // Decided by the extent, so a mask whose levels were all cleared one by one may not be empty.
  bool isEmpty() const { return words_.empty() || extent_ == 0; }

  LevelMask& operator&=(const LevelMask& other);
  LevelMask& operator|=(const LevelMask& other);
  // Equal words and extent. Masks with the same levels differ while one has a stale extent.
  bool operator==(const LevelMask& other) const;
  bool operator!=(const LevelMask& other) const { return !(*this == other); }

  // Carried with the mask and copied with it; no operation reads it.
  std::int32_t tag = 0;

 private:
  void change(unsigned level, bool set);
  void normalise();

  // Bit n % 32 of word n / 32 stands for level n.
  std::vector<std::uint32_t> words_;
  std::uint32_t extent_ = 0;
};

}  // namespace valtor
