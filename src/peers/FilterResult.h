#pragma once

namespace valtor {

// What a forwarding filter says about a message: it passes, or it is blocked by a rule. The rule is
// a constant string that lives as long as the process; it is null when the message passes.
struct FilterResult {
  bool pass = true;
  const char* rule = nullptr;

  static FilterResult passed() { return FilterResult{}; }
  static FilterResult blocked(const char* rule) { return FilterResult{false, rule}; }
};

}  // namespace valtor
