#pragma once

#include <string>
#include <utility>
#include <vector>

#include "valtor-bus/MessageText.h"

namespace valtor {

// A line for each message in a form of one's own: "%{time}" and the like stand for what the message
// has, "%%" for a percent sign, "\n", "\t" and "\\" for a line feed, a tab and a backslash.
class MessageFormat {
 public:
  // Throws CommandFailure (usage) for a placeholder that there is none of.
  explicit MessageFormat(const std::string& text);

  std::string apply(const PellInternalMessage& message, WallTime time) const;

  // All there are, comma between them.
  static std::string placeholders();

 private:
  using Value = std::string (*)(const PellInternalMessage&, WallTime);
  struct Part {
    std::string text;
    Value value = nullptr;  // stands behind the text
  };
  static const std::vector<std::pair<std::string, Value>>& values();
  // The place of its last character.
  std::size_t takePlaceholder(const std::string& text, std::size_t at);

  std::vector<Part> parts_;
};

}  // namespace valtor
