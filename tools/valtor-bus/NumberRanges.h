#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace valtor {

// Numbers as people write them: "7", "1-16", "0,2-5". Pure functions, any thread.

// How many numbers one text may stand for.
constexpr std::size_t kMostNumbers = 65536;

// The numbers in the order they are written, repetitions included. Throws CommandFailure (usage)
// with the label, the text and what is wrong with it.
std::vector<int32_t> parseNumbers(const std::string& label, const std::string& text);

// The same in ascending order, each once.
std::vector<int32_t> parseNumberSet(const std::string& label, const std::string& text);

// The runs (first and last) that ascending numbers consist of.
std::vector<std::pair<int32_t, int32_t>> runsOf(const std::vector<int32_t>& ascending);

// The numbers as people write them; "" for none.
std::string formatNumbers(const std::vector<int32_t>& ascending);

}  // namespace valtor
