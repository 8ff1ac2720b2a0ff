#include "valtor-bus/MessageFormat.h"

#include <algorithm>

#include "support/CommandFailure.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"

namespace valtor {

const std::vector<std::pair<std::string, MessageFormat::Value>>& MessageFormat::values() {
  using Message = const PellInternalMessage&;
  static const std::vector<std::pair<std::string, Value>> kValues = {
      {"date", [](Message, WallTime time) { return fullTime(time); }},
      {"time", [](Message, WallTime time) { return timeOfDay(time); }},
      {"kind", [](Message one, WallTime) { return std::string(kindName(one.header.kind)); }},
      {"path", [](Message one, WallTime) { return one.header.path; }},
      {"source", [](Message one, WallTime) { return std::to_string(one.header.sourceConnID); }},
      {"sourceName", [](Message one, WallTime) { return one.header.sourceName; }},
      {"destination", [](Message one, WallTime) { return std::to_string(one.header.destConnID); }},
      {"destinationName", [](Message one, WallTime) { return one.header.destName; }},
      {"schedule", [](Message one, WallTime) { return scheduleOf(one); }},
      {"id", [](Message one, WallTime) { return one.getUniqueId(); }},
      {"size", [](Message one, WallTime) { return std::to_string(one.receivedText().size()); }},
      {"body", [](Message one, WallTime) { return bodyTextOf(one); }}};
  return kValues;
}

std::string MessageFormat::placeholders() {
  std::string list;
  for (const auto& [name, value] : values()) {
    list += (list.empty() ? "%{" : ", %{") + name + "}";
  }
  return list;
}

MessageFormat::MessageFormat(const std::string& text) : parts_(1) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char next = at + 1 < text.size() ? text[at + 1] : '\0';
    if (text[at] == '\\' && (next == 'n' || next == 't' || next == '\\')) {
      parts_.back().text += next == 'n' ? '\n' : next == 't' ? '\t' : '\\';
      ++at;
    } else if (text[at] == '%' && next == '%') {
      parts_.back().text += '%';
      ++at;
    } else if (text[at] == '%') {
      at = takePlaceholder(text, at);
    } else {
      parts_.back().text += text[at];
    }
  }
}

std::size_t MessageFormat::takePlaceholder(const std::string& text, std::size_t at) {
  const std::size_t end = std::min(text.find('}', at), text.size() - 1);
  const std::string written = text.substr(at, end - at + 1);
  const auto known = std::find_if(values().begin(), values().end(), [&](const auto& one) {
    return "%{" + one.first + "}" == written;
  });
  if (known == values().end()) {
    throw CommandFailure(ExitCode::Usage,
                         "--format: \"" + excerpt(written) + "\" stands for nothing",
                         "There are " + placeholders() + " and %%.");
  }
  parts_.back().value = known->second;
  parts_.emplace_back();
  return end;
}

std::string MessageFormat::apply(const PellInternalMessage& message, WallTime time) const {
  std::string line;
  for (const Part& part : parts_) {
    line += part.text + (part.value != nullptr ? printable(part.value(message, time)) : "");
  }
  return line;
}

}  // namespace valtor
