#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace valtor::bench {

// Nanoseconds of the steady clock, which all times of one run are taken from.
inline int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Every value of a run, kept whole: a run has at most some millions, and exact ranks need no bins.
class Samples {
 public:
  void add(double value) {
    values_.push_back(value);
    sorted_ = false;
  }
  void add(const Samples& other) {
    values_.insert(values_.end(), other.values_.begin(), other.values_.end());
    sorted_ = false;
  }
  std::size_t count() const { return values_.size(); }
  // The value that this share of all values does not exceed; 0 to 1. 0 without any values.
  double quantile(double share) {
    if (values_.empty()) {
      return 0;
    }
    if (!sorted_) {
      std::sort(values_.begin(), values_.end());
      sorted_ = true;
    }
    const auto rank = static_cast<std::size_t>(share * static_cast<double>(values_.size()));
    return values_[std::min(rank, values_.size() - 1)];
  }

 private:
  std::vector<double> values_;
  bool sorted_ = true;
};

}  // namespace valtor::bench
