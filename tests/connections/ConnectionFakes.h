#pragma once

#include <cstdio>

#include "connections/ConnectionPointManager.h"
#include "support/MasterBus.h"
#include "support/Vocabulary.h"

namespace valtor::test {

inline constexpr int kRaceRounds = repetitions(400);

// A client is reached through a server phy, a server connection point came in.
inline std::string clientDescription(const std::string& uniqueID, int port = 5000,
                                     const std::string& more = {}) {
  return R"({"type":"valtor","name":"name of )" + uniqueID + R"(","uniqueID":")" + uniqueID +
         R"(","phy":[{"type":"tcp","ipAddress":"10.1.2.3","port":)" + std::to_string(port) +
         R"(,"server":true}])" + more + "}";
}
inline std::string serverDescription(const std::string& uniqueID, int port = 700) {
  return R"({"type":"valtor","name":"in","uniqueID":")" + uniqueID +
         R"(","phy":[{"type":"tcp","ipAddress":"10.1.2.9","port":)" + std::to_string(port) +
         R"(,"server":false}]})";
}

class FakeDevice : public AbstractDeviceConnection {
 public:
  using AbstractDeviceConnection::AbstractDeviceConnection;
  JSONPtr toJSON() const override {
    JSONPtr object(cJSON_CreateObject());
    cJSON_AddStringToObject(object.get(), "uniqueID", getUniqueID().c_str());
    cJSON_AddBoolToObject(object.get(), "online", isOnline());
    return object;
  }
  JSONPtr toStatusJSON(bool gone) const override {
    EXPECT_NE(connectionPoint(), nullptr) << "a device may render through its place";
    JSONPtr object = toJSON();
    cJSON_AddBoolToObject(object.get(), "gone", gone);
    return object;
  }
  void setParams(const DeviceParamList&) override { ++paramLists; }
  void update(const DeviceConnectionDetails& details) override {
    AbstractDeviceConnection::update(details);
    onUpdate();
  }
  bool isAttached() const { return connectionPoint() != nullptr && sender() != nullptr; }

  int paramLists = 0;
  std::function<void()> onUpdate = [] {};
};

// A connection point that has devices and counts what its manager does with it.
class FakeConnectionPoint : public ConnectionPoint {
 public:
  FakeConnectionPoint(IPellInternalClient& sender, AbstractConnectionPointManager& manager)
      : ConnectionPoint("fake", sender, manager) {
    setDeletable(true);
  }
  using ConnectionPoint::setDeletable;
  int connect() override {
    if (lacksThreads) {
      manager().noteBehind();
    }
    return ++connects;
  }
  void disconnect() override {
    ++disconnects;
    onDisconnect();
    ConnectionPoint::disconnect();
  }
  std::unique_ptr<AbstractDeviceConnection> createDeviceConnection(
      const DeviceConnectionDetails& details) override {
    return std::make_unique<FakeDevice>(details);
  }
  bool removeDeviceConnection(const std::string& uniqueID) override {
    ++deviceSearches;
    return ConnectionPoint::removeDeviceConnection(uniqueID);
  }
  bool showInUI() const override {
    onRender();
    return true;
  }
  std::shared_ptr<FakeDevice> addDevice(const std::string& uniqueID, bool notify = false) {
    auto device = std::make_shared<FakeDevice>(DeviceConnectionDetails(
        getUniqueID(), uniqueID, "family", "valtor", "name of " + uniqueID));
    addDeviceConnection(device, notify);
    return device;
  }

  bool lacksThreads = false;
  int connects = 0;
  int deviceSearches = 0;
  std::atomic<int> disconnects{0};
  // Runs in disconnect(), before the state is set.
  std::function<void()> onDisconnect = [] {};
  // Runs while the object is rendered, after its state was read.
  std::function<void()> onRender = [] {};
};

// A manager of FakeConnectionPoints, which purges when it is told.
class FakeManager : public ConnectionPointManager {
 public:
  explicit FakeManager(IPellInternalClient& client)
      : ConnectionPointManager("valtor", "valtor", client) {
    setCleanupInterval(std::chrono::hours(1));
  }
  ~FakeManager() override { stopCleanupThread(); }
  using ConnectionPointManager::connectionPoints;
  std::unique_ptr<ConnectionPoint> createConnectionPoint(const cJSON* item) override {
    ++created;
    auto made = std::make_unique<FakeConnectionPoint>(busClient(), *this);
    return made->loadFromJSON(item) == 0 ? std::move(made) : nullptr;
  }

  std::shared_ptr<FakeConnectionPoint> add(const std::string& description) {
    auto made = createConnectionPoint(parseJSON(description).get());
    const std::string uniqueID = made->getUniqueID();
    addConnectionPoint(std::move(made));
    return get(uniqueID);
  }
  std::shared_ptr<ConnectionPoint> merge(const std::string& description) {
    return addOrUpdateConnectionPoint(createConnectionPoint(parseJSON(description).get()));
  }
  std::shared_ptr<FakeConnectionPoint> get(const std::string& uniqueID) const {
    return std::dynamic_pointer_cast<FakeConnectionPoint>(findConnectionPoint(uniqueID));
  }
  // The unique IDs in order, each followed by those of its devices: "A:d1:d2 B".
  std::string ids() const {
    std::string ids;
    connectionPoints().forEach([&ids](const ConnectionPoint& connectionPoint) {
      ids += (ids.empty() ? "" : " ") + connectionPoint.getUniqueID();
      for (const std::string& device : connectionPoint.deviceConnectionIDs()) {
        ids += ":" + device;
      }
    });
    return ids;
  }
  // Whether the request was taken; the payloads of its answers are in answers.
  bool handle(const std::string& kind, const std::string& body,
              const std::string& path = "device") {
    ResponseList responses;
    const bool taken = handleMessage(request(kind, body, path), responses);
    answers.clear();
    for (const auto& response : responses) {
      answers.push_back(withoutId(response->encode()));
    }
    return taken;
  }
  // Whether the container file was written since the last call.
  bool wasSaved() { return std::remove(filePath().c_str()) == 0; }

  Payloads answers;
  int created = 0;
};

inline std::string incomingClientFile() {
  return paths().incomingClientDirectory + "valtorIncomingClientConnections.json";
}

// A folder for every fixed path, made before any manager.
struct Scene {
  Scene() {
    folder.becomePathPrefix();
    // A manager makes this one only when it is the first of the process.
    std::filesystem::create_directories(paths().incomingClientDirectory);
  }
  TemporaryFolder folder;
};

class ConnectionsTest : public testing::Test {
 protected:
  LogCapture log;
  ConsoleCapture console;
  Scene scene;
  MasterBus bus;
  FakeManager manager{bus};
};

}  // namespace valtor::test
