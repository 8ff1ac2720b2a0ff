// Loads arbitrary JSON into every object that the system describes itself with, and the files of
// the controller into what reads them: what was rendered loads as what it was rendered from. The
// first letter of an input chooses the object; the rest is its text, or several between NULs.

#include <algorithm>
#include <array>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/util/Files.h"
#include "app/util/Paths.h"
#include "bus/IPellInternalClient.h"
#include "connections/ConnectionPointTCPServer.h"
#include "connections/DeviceConnectionDetails.h"
#include "connections/phy/IPPhy.h"
#include "connections/phy/SerialPhy.h"
#include "fuzz/Fuzzing.h"
#include "peers/RemoteValtorConnectionPoint.h"
#include "peers/RemoteValtorConnectionPointManager.h"
#include "peers/ValtorNodeConnectionPointManager.h"
#include "router/DeviceParamList.h"
#include "router/RouteOperation.h"
#include "router/SupportedInterface.h"

namespace valtor::fuzz {

namespace {

using Parts = std::vector<std::string>;

// The bus on which nobody listens.
class Nowhere : public IPellInternalClient {
 public:
  int sendMessage(const PellInternalMessage& message) override {
    message.encode();
    return 0;
  }
  int onMessage(const PellInternalMessage& /*message*/) override { return 0; }
  void subscribe(const std::string& /*path*/) override {}
};

Nowhere nowhere;

std::string rendered(const AbstractJSONBackedData& object) {
  const std::string text = printJSON(object.toJSON().get(), false);
  require(!text.empty(), "whatever was taken over renders");
  return text;
}

// Two things render as what does not load as the same: a phy without an address or a port, which no
// description may say, and a negative number that is kept as an unsigned one, which is too large.
bool isLoadable(const std::string& text) {
  constexpr std::string_view kDigits = "0123456789";
  constexpr std::string_view kLargest = "2147483647";
  for (std::size_t at = 0; (at = text.find_first_of(kDigits, at)) != std::string::npos;) {
    const std::size_t end = std::min(text.find_first_not_of(kDigits, at), text.size());
    const std::string_view number = std::string_view(text).substr(at, end - at);
    if (number.size() == kLargest.size() && number > kLargest) {
      return false;
    }
    at = end;
  }
  return text.find("\"ipAddress\":\"\"") == std::string::npos &&
         text.find("\"port\":0,\"server\"") == std::string::npos;
}

// --- Values --------------------------------------------------------------------------------------

// Also what a load that failed took over.
template <class T>
void load(const Parts& parts) {
  T object;
  object.loadFromJSON(parseJSON(parts[0]).get());
  const std::string text = rendered(object);
  if (std::is_same_v<T, RouteOperation> && text.find("\"level\":") == std::string::npos) {
    return;  // none of its levels exists, and one without any does not load
  }
  T again;
  again.loadFromJSON(parseJSON(text).get());
  require(!isLoadable(text) || rendered(again) == text, "what was rendered loads as what it was");
}

void loadPhy(const Parts& parts) {
  const auto phy = ConnectionPointPhy::createFromJSON(parseJSON(parts[0]).get());
  if (phy != nullptr && isLoadable(rendered(*phy))) {
    const auto again = ConnectionPointPhy::createFromJSON(parseJSON(rendered(*phy)).get());
    require(again != nullptr && rendered(*again) == rendered(*phy) && again->isEqual(phy.get()) &&
                phy->isEqual(again.get()),
            "a phy that was rendered is equal to the one it was");
  }
}

void combineLevels(const Parts& parts) {
  LevelMask first;
  LevelMask second;
  first.loadFromJSON(parseJSON(parts[0]).get());
  second.loadFromJSON(parseJSON(parts.back()).get());
  LevelMask both = first;
  both |= second;
  const LevelMask common(first, second);
  for (const unsigned level : both.levels()) {
    require(first.hasLevel(level) || second.hasLevel(level), "a union holds nothing else");
    require(common.hasLevel(level) == (first.hasLevel(level) && second.hasLevel(level)),
            "what is common is in both");
    both.clearLevel(level);
  }
  require(both.levels().empty() && common.levels().size() <= first.levels().size(),
          "levels that are cleared are gone");
}

void listOperations(const Parts& parts) {
  std::vector<RouteOperation> operations;
  accepts([&] { operations = RouteOperation::loadList(parseJSON(parts[0]).get()); });
  JSONPtr array(cJSON_CreateArray());
  for (const RouteOperation& operation : operations) {
    addElement(array.get(), operation.toJSON());
  }
  const std::string text = printJSON(array.get(), false);
  require(!text.empty(), "a list of operations renders");
}

void compareParams(const Parts& parts) {
  DeviceParamList asked("device", parseJSON(parts[0]).get(), true);
  const DeviceParamList answered("device", parseJSON(parts.back()).get());
  const std::size_t count = asked.size();
  const std::size_t left = asked.markCompleteFrom(answered);
  require(left <= count && left == asked.countIncomplete(), "an answer completes what it names");
  for (const DeviceParam& param : answered.params("device")) {
    require(!asked.markComplete("device", param), "and all of it");
  }
  asked.merge(answered);
  require(asked.size() == count + answered.size(), "a merge keeps everything");
  require(printJSON(asked.toJSON("").get(), false).size() > 1, "parameters render");
  const std::string& name = parts[0];
  if (name.find('.') != std::string::npos) {
    require(ParamOID(name).toString() == name, "an identifier is the text that it was made from");
  }
}

// --- Connection points ---------------------------------------------------------------------------

using Manager = RemoteValtorConnectionPointManager;

std::string withoutSides(std::string text) {
  // Which side is the server makes no difference to a phy that stays.
  for (std::size_t at = text.find("\"server\":true"); at != std::string::npos;
       at = text.find("\"server\":true", at)) {
    text.replace(at, 13, "\"server\":false");
  }
  return text;
}

void loadConnectionPoint(const Parts& parts) {
  Manager manager("valtor", "valtor", nowhere);
  const auto make = [&](const std::string& text) {
    return manager.createConnectionPoint(parseJSON(text).get());
  };
  const auto point = make(parts[0]);
  if (point == nullptr) {
    return;
  }
  const std::string text = rendered(*point);
  const auto again = make(text);
  require(!isLoadable(text) || (again != nullptr && rendered(*again) == text),
          "a connection point loads as what it was");
  if (const auto newer = make(parts.back())) {
    const std::string wanted = rendered(*newer);
    point->update(*newer);
    require(withoutSides(rendered(*point)) == withoutSides(wanted), "an update takes all over");
  }
}

void loadPeer(const Parts& parts) {
  load<DispatcherPeerClient>(parts);
  DispatcherPeerClient peer;
  DispatcherPeerClient newer;
  peer.loadFromJSON(parseJSON(parts[0]).get());
  newer.loadFromJSON(parseJSON(parts.back()).get());
  const std::string wanted = rendered(newer);
  peer.updateFrom(newer);
  require(rendered(peer) == wanted, "an update takes all over");
}

// --- Files ---------------------------------------------------------------------------------------

std::string listed(const Manager& manager) {
  const JSONPtr servers = manager.getServerConnectionPointsJSON();
  return printJSON(manager.getClientConnectionPointsJSON().get(), false) +
         printJSON(servers.get(), false);
}

void readDatabase(const Parts& parts) {
  const std::string path = scratchFolder() + "/database.json";
  const auto load = [&](const std::string& text) {
    writeFile(path, text);
    Manager manager("valtor", "valtor", nowhere);
    manager.setCleanupInterval(std::chrono::hours(1));
    std::vector<std::string> points;
    for (const auto& point : loadConnectionPointsFromFile(manager, path)) {
      points.push_back(rendered(*point));
    }
    return points;
  };
  const auto document = [](const std::vector<std::string>& points) {
    std::string list;
    for (const std::string& point : points) {
      list += (list.empty() ? "" : ",\n") + point;
    }
    return "{\"connectionPoint\":[" + list + "]}";
  };
  const std::vector<std::string> points = load(parts[0]);
  const std::string written = document(points);
  require(!isLoadable(written) || load(written) == points,
          "a database that was written is read again");
}

void reloadListing(const Parts& parts) {
  Manager manager("valtor", "valtor", nowhere);
  Manager other("valtor", "valtor", nowhere);
  for (const std::string& part : parts) {
    manager.loadFromJSON(parseJSON(part).get());
  }
  const JSONPtr param(cJSON_CreateObject());
  JSONPtr points = manager.getClientConnectionPointsJSON();
  if (JSONPtr servers = manager.getServerConnectionPointsJSON()) {
    cJSON* server = nullptr;
    while ((server = cJSON_DetachItemFromArray(servers.get(), 0)) != nullptr) {
      addElement(points.get(), JSONPtr(server));
    }
  }
  addMember(param.get(), "connectionPoint", std::move(points));
  other.loadFromJSON(param.get());
  const std::string list = listed(manager);
  require(!isLoadable(list) || listed(other) == list, "a listing that is set again is the same");
}

// A container saves what it was loaded from, whatever its file said.
template <class Container>
void reloadFile(Container& container, Container& again, const std::string& content) {
  const std::string old = container.filePath() + ".old";
  std::filesystem::create_directories(paths().containerDirectory);
  std::filesystem::remove(old);
  writeFile(container.filePath(), content);
  if (container.load() != 0) {
    return;
  }
  container.save(true);
  require(std::filesystem::exists(old), "the previous copy stays");
  require(again.load() == 0, "what was saved loads");
  const std::string text = rendered(container);
  require(!isLoadable(text) || rendered(again) == text, "and is what was saved");
}

void readState(const Parts& parts) {
  Manager manager("valtor", "valtor", nowhere);
  Manager again("valtor", "valtor", nowhere);
  reloadFile(manager, again, parts[0]);
}

void readPeers(const Parts& parts) {
  ValtorNodeConnectionPointManager manager(scratchFolder() + "/peers", nullptr);
  ValtorNodeConnectionPointManager again(scratchFolder() + "/peers", nullptr);
  reloadFile(manager, again, parts[0]);
}

void readActiveDatabase(const Parts& parts) {
  writeFile(paths().databaseDirectory + "activeDatabase.json", parts[0]);
  const std::string name = readActiveDatabaseName(paths().databaseDirectory);
  require(name.find('\n') == std::string::npos && (name.empty() || name.back() != ' '),
          "a database's name is one line without blanks at its end");
  const std::string path = paths().databaseDirectory + name + "/connectionPoints.json";
  Manager manager("valtor", "valtor", nowhere);
  manager.addConnectionPoints(loadConnectionPointsFromFile(manager, path));
}

constexpr std::array<void (*)(const Parts&), 22> kKinds = {
    load<LevelMask>,
    combineLevels,
    load<ProtectStatusItem>,
    load<ProtectStatusArray>,
    load<RouteOperationStatus>,
    load<RouteOperation>,
    listOperations,
    load<DeviceID>,
    load<ParamOID>,
    load<ParamStringValue>,
    compareParams,
    load<SupportedInterface>,
    loadPhy,
    load<SerialPhy>,
    load<ConnectionPointTCPServer>,
    load<DeviceConnectionDetails>,
    loadConnectionPoint,
    loadPeer,
    readDatabase,
    reloadListing,
    readState,
    readPeers,
};

}  // namespace

const MemoryLimit kMemoryLimit{150, 400'000};

void examine(Input input) {
  const unsigned kind = input.choose(kKinds.size() + 1);
  if (kind == kKinds.size()) {
    readActiveDatabase(input.parts());
  } else {
    kKinds[kind](input.parts());
  }
}

}  // namespace valtor::fuzz
