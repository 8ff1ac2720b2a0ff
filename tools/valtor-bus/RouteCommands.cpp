#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>
#include <utility>

#include "app/util/OwnedJSON.h"
#include "router/RouteOperation.h"
#include "support/CommandFailure.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"
#include "valtor-bus/Commands.h"
#include "valtor-bus/Exchange.h"
#include "valtor-bus/NumberRanges.h"

namespace valtor {
namespace {

constexpr const char* kTakeKey = "take";
constexpr const char* kQueryKey = "stat";

// In the order they are written.
std::vector<unsigned> levelsOf(const std::string& text) {
  std::vector<unsigned> levels;
  for (const int32_t level : parseNumbers("--level", text)) {
    if (level > LevelMask::kHighestJSONLevel) {
      throw CommandFailure(ExitCode::Usage, "--level: " + std::to_string(level) + " is above " +
                                                std::to_string(LevelMask::kHighestJSONLevel));
    }
    levels.push_back(static_cast<unsigned>(level));
  }
  return levels;
}

BusRequest routeRequest(const char* key, const std::vector<RouteOperation>& operations,
                        const RouteSettings& settings) {
  const JSONPtr body(cJSON_CreateObject());
  JSONPtr list(cJSON_CreateArray());
  for (const RouteOperation& operation : operations) {
    addElement(list.get(), operation.toJSON());
  }
  addMember(body.get(), key, std::move(list));
  cJSON_AddNumberToObject(body.get(), "userID", settings.userID.value_or(0));
  return makeRequest(MessageKind::CMD, "route", printJSON(body.get(), false));
}

// One source, or one for each level in ascending order of the levels.
std::vector<int32_t> sourcesOf(const RouteSettings& settings) {
  const std::vector<unsigned> levels = levelsOf(settings.levels);
  std::vector<int32_t> sources = parseNumbers("--source", settings.sources);
  if (sources.size() == 1) {
    return sources;
  }
  if (sources.size() != levels.size()) {
    throw CommandFailure(ExitCode::Usage,
                         "--source: " + std::to_string(sources.size()) + " sources for " +
                             std::to_string(levels.size()) + " levels",
                         "Give one source for all levels, or one for each level.");
  }
  std::map<unsigned, int32_t> ascending;
  for (std::size_t at = 0; at < levels.size(); ++at) {
    if (!ascending.emplace(levels[at], sources[at]).second) {
      throw CommandFailure(ExitCode::Usage,
                           "--level: " + std::to_string(levels[at]) + " stands there twice");
    }
  }
  std::transform(ascending.begin(), ascending.end(), sources.begin(),
                 [](const auto& pair) { return pair.second; });
  return sources;
}

RouteOperation takeOperation(const RouteSettings& settings) {
  RouteOperation operation;
  operation.level = LevelMask(levelsOf(settings.levels));
  operation.machineControl = settings.machineControl;
  const std::vector<int32_t> sources = sourcesOf(settings);
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
    operation.level = LevelMask(levelsOf(settings.levels));
    operation.hasDestRange = true;
    operation.destRangeFirst = static_cast<uint32_t>(first);
    operation.destRangeLast = static_cast<uint32_t>(last);
  }
  return operations;
}

// The routes in an answer's value, or none when they are in a form that this does not know.
std::vector<RouteOperation> routesIn(const std::string& param) {
  const OwnedJSON tree = parseJSON(param);
  try {
    return RouteOperation::loadList(cJSON_IsArray(tree.get()) ? tree.get()
                                                              : arrayMember(tree.get(), kQueryKey));
  } catch (const std::runtime_error&) {
    return {};
  }
}

// What feeds the destinations that were asked for, as far as answers have told.
class Routes {
 public:
  explicit Routes(const RouteSettings& settings) {
    const std::vector<int32_t> destinations = parseNumberSet("--dest", settings.destinations);
    for (const unsigned level : levelsOf(settings.levels)) {
      for (const int32_t destination : destinations) {
        missing_.emplace(level, destination);
      }
    }
  }

  // A line for each destination and level that is new or told differently.
  std::string add(const std::vector<RouteOperation>& operations) {
    std::string lines;
    for (const RouteOperation& operation : operations) {
      const std::vector<unsigned> levels = operation.level.levels();
      for (const RouteOperationStatus::Entry& entry : operation.status.entries) {
        for (std::size_t at = 0; at < levels.size(); ++at) {
          lines += add({levels[at], static_cast<int32_t>(entry.destination)},
                       entry.sources[std::min(at, entry.sources.size() - 1)]);
        }
      }
    }
    return lines;
  }

  bool isComplete() const { return missing_.empty(); }

  // What is not known, such as "destination 3-5 level 0"; "" when all is.
  std::string missing() const {
    std::map<unsigned, std::vector<int32_t>> byLevel;
    for (const auto& [level, destination] : missing_) {
      byLevel[level].push_back(destination);
    }
    std::map<std::string, std::vector<int32_t>> byDestinations;
    for (const auto& [level, destinations] : byLevel) {
      byDestinations[formatNumbers(destinations)].push_back(static_cast<int32_t>(level));
    }
    std::string text;
    for (const auto& [destinations, levels] : byDestinations) {
      text += (text.empty() ? "destination " : "; destination ") + excerpt(destinations) +
              " level " + excerpt(formatNumbers(levels));
    }
    return text;
  }

 private:
  using Place = std::pair<unsigned, int32_t>;  // level and destination

  std::string add(const Place& place, int32_t source) {
    const auto [known, isNew] = sources_.try_emplace(place, source);
    missing_.erase(place);
    if (!isNew && std::exchange(known->second, source) == source) {
      return "";
    }
    return "destination " + std::to_string(place.second) + " level " + std::to_string(place.first) +
           " source " + std::to_string(source) + "\n";
  }

  std::map<Place, int32_t> sources_;
  std::set<Place> missing_;
};

}  // namespace

void takeRoute(BusConnection& connection, const RouteSettings& settings, Output& output) {
  const BusRequest request = routeRequest(kTakeKey, {takeOperation(settings)}, settings);
  if (settings.noWait) {
    sendOnce(connection, request, settings.timeout);
    return;
  }
  Exchange exchange(connection, request, settings.timeout);
  while (const auto answer = exchange.next()) {
    if (!isRefusal(*answer)) {
      const std::string state = statusOf(*answer);
      output.line(state.empty() ? kindName(answer->getKind()) : state);
      exchange.hasEnough();
    }
  }
  exchange.requireNoRefusal();
  exchange.requireAnswer(
      "The route may have been taken all the same: check with route query. A router that answers "
      "nothing needs --no-wait.");
}

void queryRoute(BusConnection& connection, const RouteSettings& settings, Output& output) {
  const BusRequest request = routeRequest(kQueryKey, queryOperations(settings), settings);
  Exchange exchange(connection, request, settings.timeout);
  Routes routes(settings);
  bool unknownForm = false;
  while (const auto answer = exchange.next()) {
    const std::string param = isRefusal(*answer) ? "" : paramOf(*answer);
    if (param.empty()) {
      continue;
    }
    const std::vector<RouteOperation> told = routesIn(param);
    const std::string lines = routes.add(told);
    unknownForm = unknownForm || told.empty();
    output.write(settings.json ? formattedJSON(param) + "\n" : lines);
    if (routes.isComplete() || (settings.json && unknownForm)) {
      exchange.hasEnough();
    }
  }
  exchange.requireAnswer("Is a router control system on this bus? Wait longer with --timeout.");
  if (!routes.isComplete() && !(settings.json && unknownForm)) {
    throw CommandFailure(ExitCode::Refused, "no answer tells what feeds " + routes.missing(),
                         !exchange.refusals().empty() ? "Refused by " + exchange.refusals()
                         : unknownForm
                             ? "An answer has a form that is not known: see it with --json."
                             : "");
  }
}

}  // namespace valtor
