#include <algorithm>
#include <stdexcept>

#include "router/RouteOperation.h"
#include "valtor-bus/CommandFailure.h"
#include "valtor-bus/Commands.h"
#include "valtor-bus/Exchange.h"
#include "valtor-bus/NumberRanges.h"

namespace valtor {
namespace {

constexpr const char* kTakeKey = "take";
constexpr const char* kQueryKey = "stat";

LevelMask levelMask(const std::string& text) {
  LevelMask mask;
  for (const int32_t level : parseNumberSet("--level", text)) {
    if (level > LevelMask::kHighestJSONLevel) {
      throw CommandFailure(ExitCode::Usage, "--level: " + std::to_string(level) + " is above " +
                                                std::to_string(LevelMask::kHighestJSONLevel));
    }
    mask.setLevel(static_cast<unsigned>(level));
  }
  return mask;
}

BusRequest routeRequest(const char* key, const std::vector<RouteOperation>& operations,
                        const RouteSettings& settings) {
  const JSONPtr body(cJSON_CreateObject());
  JSONPtr list(cJSON_CreateArray());
  for (const RouteOperation& operation : operations) {
    addElement(list.get(), operation.toJSON());
  }
  addMember(body.get(), key, std::move(list));
  addMember(body.get(), "userID", JSONPtr(cJSON_CreateNumber(settings.userID.value_or(0))));
  return makeRequest(MessageKind::CMD, "route", printJSON(body.get(), false));
}

RouteOperation takeOperation(const RouteSettings& settings) {
  RouteOperation operation;
  operation.level = levelMask(settings.levels);
  operation.machineControl = settings.machineControl;
  const std::vector<int32_t> sources = parseNumbers("--source", settings.sources);
  const std::size_t levels = operation.level.levels().size();
  if (sources.size() != 1 && sources.size() != levels) {
    throw CommandFailure(ExitCode::Usage,
                         "--source: " + std::to_string(sources.size()) + " sources for " +
                             std::to_string(levels) + " levels",
                         "Give one source for all levels, or one for each level.");
  }
  for (const int32_t destination : parseNumberSet("--dest", settings.destinations)) {
    operation.status.entries.push_back({static_cast<uint32_t>(destination), sources});
  }
  if (settings.userID) {
    operation.userID = *settings.userID;
    operation.hasUserID = true;
  }
  return operation;
}

std::vector<RouteOperation> queryOperations(const RouteSettings& settings) {
  std::vector<RouteOperation> operations;
  for (const auto& [first, last] : runsOf(parseNumberSet("--dest", settings.destinations))) {
    RouteOperation& operation = operations.emplace_back();
    operation.level = levelMask(settings.levels);
    operation.hasDestRange = true;
    operation.destRangeFirst = static_cast<uint32_t>(first);
    operation.destRangeLast = static_cast<uint32_t>(last);
  }
  return operations;
}

// The routes in an answer, or none when they are in a form that this does not know.
std::vector<RouteOperation> routesIn(const cJSON* param) {
  const cJSON* list = cJSON_IsArray(param) ? param : arrayMember(param, kQueryKey);
  try {
    return RouteOperation::loadList(list);
  } catch (const std::runtime_error&) {
    return {};
  }
}

std::string routeLines(const std::vector<RouteOperation>& operations) {
  std::string lines;
  for (const RouteOperation& operation : operations) {
    const std::vector<unsigned> levels = operation.level.levels();
    for (const RouteOperationStatus::Entry& entry : operation.status.entries) {
      for (std::size_t at = 0; at < levels.size(); ++at) {
        const int32_t source = entry.sources[std::min(at, entry.sources.size() - 1)];
        lines += "destination " + std::to_string(entry.destination) + " level " +
                 std::to_string(levels[at]) + " source " + std::to_string(source) + "\n";
      }
    }
  }
  return lines;
}

}  // namespace

void takeRoute(BusConnection& connection, const RouteSettings& settings, Output& output) {
  const BusRequest request = routeRequest(kTakeKey, {takeOperation(settings)}, settings);
  connection.open();
  if (settings.noWait) {
    connection.send(request);
  } else if (!exchange(connection, request, settings.timeout,
                       [&](const PellInternalMessage& answer) {
                         const std::string state = statusOf(answer);
                         output.line(state.empty() ? kindName(answer.getKind()) : state);
                         return true;
                       })) {
    throwNoAnswer(connection, request, settings.timeout,
                  "The route may have been taken all the same: check with route query. A router "
                  "that answers nothing needs --no-wait.");
  }
  connection.finish();
}

void queryRoute(BusConnection& connection, const RouteSettings& settings, Output& output) {
  const BusRequest request = routeRequest(kQueryKey, queryOperations(settings), settings);
  connection.open();
  const auto print = [&](const PellInternalMessage& answer) {
    const cJSON* param = answerParam(answer);
    if (param == nullptr) {
      return false;
    }
    const std::string lines = settings.json ? "" : routeLines(routesIn(param));
    output.write(lines.empty() ? printJSON(param, true) + "\n" : lines);
    return true;
  };
  if (!exchange(connection, request, settings.timeout, print)) {
    throwNoAnswer(connection, request, settings.timeout,
                  "Is a router control system on this bus? Wait longer with --timeout.");
  }
  connection.finish();
}

}  // namespace valtor
