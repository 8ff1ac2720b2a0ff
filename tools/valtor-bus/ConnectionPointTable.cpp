#include "valtor-bus/ConnectionPointTable.h"

#include <algorithm>
#include <array>
#include <utility>

#include "app/util/OwnedJSON.h"
#include "support/BusRequest.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"
#include "valtor-bus/TextTable.h"

namespace valtor {
namespace {

constexpr std::array<const char*, 2> kListNames = {"connectionPoint", "serverConnectionPoint"};
constexpr std::size_t kConnectedColumn = 5;

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

std::vector<std::string> cellsOf(const std::string& uniqueID,
                                 const ConnectionPointTable::Row& row) {
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
    // An announcement always is of a change, also when the one before it was missed.
    if (isNew || time || row.connected != connected) {
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

void ConnectionPointTable::takeTimes(const DaemonStatus& status) {
  for (const DaemonStatus::Router& router : status.routers) {
    const auto entry = rows_.find(router.uniqueID);
    if (entry != rows_.end() && router.since && entry->second.connected == router.up) {
      entry->second.since = wallTime(*router.since);
    }
  }
}

std::string ConnectionPointTable::text(bool colour) const {
  std::vector<std::vector<std::string>> lines = {
      {"NAME", "UNIQUE ID", "TYPE", "ADDRESS", "ENABLED", "CONNECTED", "SINCE"}};
  for (const auto& [uniqueID, row] : rows_) {
    lines.push_back(cellsOf(uniqueID, row));
  }
  return textTable(lines, [colour](const std::string& cell, std::size_t column) {
    return !colour || column != kConnectedColumn ? "" : cell == "yes" ? "\x1b[32m" : "\x1b[31m";
  });
}

std::string ConnectionPointTable::json() const {
  std::string list;
  for (const auto& [uniqueID, row] : rows_) {
    const std::size_t colon = std::min(row.address.find_last_of(':'), row.address.size());
    const std::string port = row.address.substr(std::min(colon + 1, row.address.size()));
    list += (list.empty() ? "" : ",") + ("{\"name\":" + quotedJSON(row.name)) +
            ",\"uniqueID\":" + quotedJSON(uniqueID) +
            ",\"address\":" + quotedJSON(row.address.substr(0, colon)) +
            (port.empty() ? "" : ",\"port\":" + compactJSON(port).value_or(quotedJSON(port))) +
            ",\"enabled\":" + (row.enabled ? "true" : "false") + ",\"state\":\"" +
            (row.connected ? "up"
             : row.enabled ? "down"
                           : "disabled") +
            "\"}";
  }
  return "{\"routers\":[" + list + "]}";
}

}  // namespace valtor
