#pragma once

#include <cstddef>

namespace valtor {

// Bounds what one request makes its thread write to the log and the trace. While a budget stands,
// lines that a single element of a request can bring about are written only as long as spend()
// says so; a frame holds hundreds of thousands of elements. The end of the scope says how many
// lines were left out. A thread has at most one budget; where none stands every line is written.
class LineBudget {
 public:
  static constexpr std::size_t kLines = 900;

  LineBudget();
  ~LineBudget();
  LineBudget(const LineBudget&) = delete;
  LineBudget& operator=(const LineBudget&) = delete;

  // Whether the calling thread may write one more such line to the log.
  static bool spend();
  // The same for the trace. What is left out there is not told.
  static bool spendTrace();

 private:
  std::size_t asked_ = 0;
  std::size_t leftOut_ = 0;  // of the log
};

}  // namespace valtor
