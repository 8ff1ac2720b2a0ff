#include "valtor-bus/ConnectionPointTable.h"

#include <algorithm>
#include <array>
#include <utility>

#include "app/util/OwnedJSON.h"
#include "support/PrintableText.h"
#include "valtor-bus/BusRequest.h"
#include "valtor-bus/JSONText.h"

namespace valtor {
namespace {

constexpr std::array<const char*, 2> kListNames = {"connectionPoint", "serverConnectionPoint"};
constexpr std::size_t kConnectedColumn = 5;
constexpr std::size_t kColumns = 7;
using Cells = std::array<std::string, kColumns>;

std::string textMember(const cJSON* object, const char* name) {
  const char* text = stringMember(object, name);
  return text != nullptr ? printable(text) : "";
}

// "address:port" of an IP phy, the port of a line, or the type of anything else.
std::string addressOf(const cJSON* point) {
  const cJSON* list = arrayMember(point, "phy");
  const cJSON* phy = list != nullptr ? list->child : nullptr;
  const std::string address = textMember(phy, "ipAddress");
  const cJSON* port = cJSON_GetObjectItem(phy, "port");
  if (cJSON_IsNumber(port)) {
    return address + ":" + std::to_string(port->valueint);
  }
  const std::string line = textMember(phy, "port");
  return !line.empty() ? line : textMember(phy, "type");
}

// In characters, as far as UTF-8 tells.
std::size_t width(const std::string& text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xC0) != 0x80; }));
}

// "12:34:56", behind the date when that was not today.
std::string sinceText(WallTime time) {
  const std::string full = fullTime(time);
  const std::string date = full.substr(0, full.find('T'));
  const std::string clock = timeOfDay(time);
  const bool today = fullTime(std::chrono::system_clock::now()).find(date) == 0;
  return (today ? "" : date + " ") + clock.substr(0, clock.find('.'));
}

Cells cellsOf(const std::string& uniqueID, const ConnectionPointTable::Row& row) {
  return {row.name,
          printable(uniqueID),
          row.type,
          row.address,
          row.enabled ? "yes" : "no",
          row.connected ? "yes" : "no",
          row.since ? sinceText(*row.since) : "-"};
}

}  // namespace

void ConnectionPointTable::beginListing() {
  for (auto& [uniqueID, row] : rows_) {
    row.listed = false;
  }
}

void ConnectionPointTable::endListing() {
  std::erase_if(rows_, [](const auto& entry) { return !entry.second.listed; });
}

void ConnectionPointTable::takeAnswer(const PellInternalMessage& answer) {
  const OwnedJSON param = parseJSON(paramOf(answer));
  for (const char* name : kListNames) {
    takeList(arrayMember(param.get(), name), std::nullopt);
  }
}

bool ConnectionPointTable::takeNotification(const PellInternalMessage& notification,
                                            WallTime time) {
  const cJSON* body = notification.viewBody();
  bool concerned = false;
  for (const char* name : kListNames) {
    const cJSON* changed = arrayMember(cJSON_GetObjectItem(body, "param"), name);
    concerned = takeList(changed, time) || concerned;
    const cJSON* point = nullptr;
    cJSON_ArrayForEach(point, arrayMember(cJSON_GetObjectItem(body, "paramDelete"), name)) {
      const char* uniqueID = stringMember(point, "uniqueID");
      concerned = (uniqueID != nullptr && rows_.erase(uniqueID) > 0) || concerned;
    }
  }
  return concerned;
}

bool ConnectionPointTable::takeList(const cJSON* list, std::optional<WallTime> time) {
  bool any = false;
  const cJSON* point = nullptr;
  cJSON_ArrayForEach(point, list) {
    const char* uniqueID = stringMember(point, "uniqueID");
    if (uniqueID == nullptr) {
      continue;
    }
    const bool connected = cJSON_IsTrue(cJSON_GetObjectItem(point, "connected")) != 0;
    const auto [entry, isNew] = rows_.try_emplace(uniqueID);
    Row& row = entry->second;
    if (isNew || row.connected != connected) {
      row.since = time;
    }
    row.name = textMember(point, "name");
    row.type = textMember(point, "type");
    row.address = addressOf(point);
    row.enabled = cJSON_IsTrue(cJSON_GetObjectItem(point, "enabled")) != 0;
    row.connected = connected;
    row.listed = true;
    any = true;
  }
  return any;
}

std::string ConnectionPointTable::text(bool colour) const {
  std::vector<Cells> lines = {
      {"NAME", "UNIQUE ID", "TYPE", "ADDRESS", "ENABLED", "CONNECTED", "SINCE"}};
  for (const auto& [uniqueID, row] : rows_) {
    lines.push_back(cellsOf(uniqueID, row));
  }
  std::array<std::size_t, kColumns> widths{};
  for (const Cells& cells : lines) {
    for (std::size_t column = 0; column < kColumns; ++column) {
      widths[column] = std::max(widths[column], width(cells[column]));
    }
  }
  std::string result;
  for (std::size_t number = 0; number < lines.size(); ++number) {
    for (std::size_t column = 0; column < kColumns; ++column) {
      const std::string& cell = lines[number][column];
      const bool tinted = colour && number > 0 && column == kConnectedColumn;
      result += tinted ? (cell == "yes" ? "\x1b[32m" : "\x1b[31m") + cell + "\x1b[0m" : cell;
      result += column + 1 < kColumns ? std::string(widths[column] - width(cell) + 2, ' ') : "\n";
    }
  }
  return result;
}

std::vector<std::string> ConnectionPointTable::down() const {
  std::vector<std::string> names;
  for (const auto& [uniqueID, row] : rows_) {
    if (row.enabled && !row.connected) {
      names.push_back((row.name.empty() ? printable(uniqueID) : row.name) + " (" + row.address +
                      ")");
    }
  }
  return names;
}

bool ConnectionPointTable::allConnected() const { return down().empty(); }

std::string ConnectionPointTable::summary() const {
  const std::vector<std::string> missing = down();
  const auto enabled = static_cast<std::size_t>(std::count_if(
      rows_.begin(), rows_.end(), [](const auto& entry) { return entry.second.enabled; }));
  std::string line = (missing.empty() ? "OK: " : "CRITICAL: ") +
                     std::to_string(enabled - missing.size()) + " of " + std::to_string(enabled) +
                     " enabled connection points connected";
  for (std::size_t i = 0; i < missing.size(); ++i) {
    line += (i == 0 ? "; down: " : ", ") + missing[i];
  }
  return line;
}

}  // namespace valtor
