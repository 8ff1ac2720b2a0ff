#include "valtor-bus/MessageText.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

#include "app/util/OwnedJSON.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"

namespace valtor {
namespace {

constexpr int kKindWidth = 6;  // of the longest kind name
constexpr const char* kPlain = "\x1b[0m";
constexpr const char* kFaint = "\x1b[2m";

std::string localTime(WallTime time, const char* format) {
  const std::time_t seconds =
      std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(time));
  std::tm parts{};
  localtime_r(&seconds, &parts);
  std::array<char, 64> text{};
  return {text.data(), std::strftime(text.data(), text.size(), format, &parts)};
}

std::string milliseconds(WallTime time) {
  const auto rest = time - std::chrono::floor<std::chrono::seconds>(time);
  const auto count = std::chrono::duration_cast<std::chrono::milliseconds>(rest).count();
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), ".%03d", static_cast<int>(count));
  return text.data();
}

const char* colourOf(MessageKind kind) {
  switch (kind) {
    case MessageKind::GET:
      return "\x1b[36m";
    case MessageKind::SET:
    case MessageKind::DEL:
    case MessageKind::UPDATE:
      return "\x1b[33m";
    case MessageKind::NOT:
    case MessageKind::CMDNOT:
      return "\x1b[35m";
    case MessageKind::RSP:
    case MessageKind::CMDRSP:
    case MessageKind::ACK:
      return "\x1b[32m";
    case MessageKind::NAK:
      return "\x1b[31m";
    default:
      return "\x1b[34m";
  }
}

std::string participant(int32_t connID, const std::string& name) {
  return std::to_string(connID) + (name.empty() ? "" : "@" + printable(name));
}

std::string bodyJSON(const PellInternalMessage& message) {
  const std::string body = bodyTextOf(message);
  return body.empty() ? "null" : compactJSON(body).value_or(quotedJSON(body));
}

// The beginning of a long text, and how much is missing. A character is not cut in two.
std::string cut(const std::string& text, std::size_t width) {
  std::size_t count = 0;
  for (std::size_t at = 0; width != 0 && at < text.size(); ++at) {
    count += (static_cast<unsigned char>(text[at]) & 0xC0U) != 0x80U ? 1 : 0;
    if (count > width) {
      return text.substr(0, at) + "... (" + std::to_string(text.size() - at) + " bytes more)";
    }
  }
  return text;
}

template <class Value>
bool lists(const std::vector<Value>& list, const Value& value) {
  return list.empty() || std::find(list.begin(), list.end(), value) != list.end();
}

}  // namespace

std::string timeOfDay(WallTime time) { return localTime(time, "%T") + milliseconds(time); }

std::string fullTime(WallTime time) {
  return localTime(time, "%FT%T") + milliseconds(time) + localTime(time, "%z");
}

std::string scheduleOf(const PellInternalMessage& message) {
  const char* line = message.receivedLine();
  const HeaderElements elements(line != nullptr ? line : "");
  const cJSON* element = elements.schedule;
  if (element == nullptr || (cJSON_IsNumber(element) != 0 && element->valuedouble == 0)) {
    return "";
  }
  return withoutBrokenUtf8(printJSON(element, false));
}

std::string sinceText(WallTime time) {
  const std::string full = fullTime(time);
  const std::string date = full.substr(0, full.find('T'));
  const std::string clock = timeOfDay(time);
  const bool today = fullTime(std::chrono::system_clock::now()).find(date) == 0;
  return (today ? "" : date + " ") + clock.substr(0, clock.find('.'));
}

WallTime wallTime(double seconds) {
  constexpr double kFarthest = 9e9;  // what the clock of any machine can show
  const double limited = seconds >= 0 && seconds < kFarthest ? seconds : 0;
  return WallTime(
      std::chrono::duration_cast<WallTime::duration>(std::chrono::duration<double>(limited)));
}

std::string bodyTextOf(const PellInternalMessage& message) {
  return message.bodyText() != nullptr ? message.bodyText() : "";
}

std::string messageLine(const PellInternalMessage& message, WallTime time, bool colour,
                        std::size_t width) {
  const PellInternalHeader& header = message.header;
  const std::string schedule = scheduleOf(message);
  std::string kind = kindName(header.kind);
  kind.resize(kKindWidth, ' ');
  const auto tinted = [colour](const char* tint, const std::string& text) {
    return colour ? tint + text + kPlain : text;
  };
  return tinted(kFaint, timeOfDay(time)) + " " + tinted(colourOf(header.kind), kind) + " " +
         (header.path.empty() ? "-" : printable(header.path)) + " " +
         participant(header.sourceConnID, header.sourceName) + "->" +
         participant(header.destConnID, header.destName) + " " +
         (schedule.empty() ? "" : "at " + printable(schedule) + " ") +
         cut(printable(bodyTextOf(message)), width);
}

std::string messageJSON(const PellInternalMessage& message, WallTime time) {
  const PellInternalHeader& header = message.header;
  const std::string schedule = scheduleOf(message);
  const auto named = [](const char* key, const std::string& name) {
    return name.empty() ? "" : ",\"" + std::string(key) + "\":" + quotedJSON(name);
  };
  return escapedControls("{\"time\":\"" + fullTime(time) + "\",\"kind\":\"" +
                         kindName(header.kind) + "\",\"path\":" + quotedJSON(header.path) +
                         ",\"source\":" + std::to_string(header.sourceConnID) +
                         named("sourceName", header.sourceName) +
                         ",\"destination\":" + std::to_string(header.destConnID) +
                         named("destinationName", header.destName) +
                         (schedule.empty() ? "" : ",\"schedule\":" + schedule) +
                         ",\"body\":" + bodyJSON(message) + "}");
}

bool MessageFilter::accepts(const PellInternalHeader& header) const {
  return (paths.empty() || std::any_of(paths.begin(), paths.end(),
                                       [&](const std::string& pattern) {
                                         return coversPath(pattern, header.path);
                                       })) &&
         lists(kinds, header.kind) && lists(sources, header.sourceConnID) &&
         lists(destinations, header.destConnID);
}

}  // namespace valtor
