#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "app/util/Paths.h"
#include "bus/IPellInternalClient.h"
#include "connections/ConnectionPointManager.h"
#include "router/DeviceParamList.h"
#include "support/Repeat.h"
#include "support/TemporaryFolder.h"

namespace valtor::test {

inline constexpr int kRaceRounds = repetitions(400);

// A message as the bus would see it; the body without its identifier.
struct SentMessage {
  MessageKind kind;
  std::string path;
  std::string body;
};

std::string bodyWithoutId(const PellInternalMessage& message);

// The bus as connection points see it: it keeps what they send.
class RecordingClient : public IPellInternalClient {
 public:
  int sendMessage(const PellInternalMessage& message) override;
  int onMessage(const PellInternalMessage& /*message*/) override { return 0; }
  void subscribe(const std::string& path) override;

  std::vector<SentMessage> sent() const;
  std::vector<std::string> bodies() const;
  std::vector<std::string> subscriptions() const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<SentMessage> sent_;
  std::vector<std::string> subscriptions_;
};

// A device that remembers the parameters it was given.
class FakeDevice : public AbstractDeviceConnection {
 public:
  using AbstractDeviceConnection::AbstractDeviceConnection;
  JSONPtr toJSON() const override;
  JSONPtr toStatusJSON(bool gone) const override;
  void setParams(const DeviceParamList& params) override;
  bool isAttached() const { return connectionPoint() != nullptr && sender() != nullptr; }

  std::string params;
};

// A connection point that has devices and counts what its manager does with it. One whose
// description names a device "none" makes no device of it.
class FakeConnectionPoint : public ConnectionPoint {
 public:
  FakeConnectionPoint(IPellInternalClient& sender, AbstractConnectionPointManager& manager,
                      bool deletable = true);
  int connect() override;
  void disconnect() override;
  std::unique_ptr<AbstractDeviceConnection> createDeviceConnection(
      const DeviceConnectionDetails& details) override;
  bool showInUI() const override;

  std::atomic<int> connects{0};
  std::atomic<int> disconnects{0};
  // Runs in disconnect(), before the state is set.
  std::function<void()> onDisconnect;
  // Runs while the object is rendered, after its state was read.
  std::function<void()> onRender;
};

// Holds up the first rendering of a connection point for long enough that another thread gets in,
// unless a lock keeps it out.
class SlowRendering {
 public:
  explicit SlowRendering(FakeConnectionPoint& connectionPoint);
  // Until the rendering has begun.
  void waitForStart() const;

 private:
  struct State {
    std::atomic<bool> armed{true};
    std::atomic<bool> started{false};
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

// A manager of FakeConnectionPoints. One whose unique ID begins with "keep" is not deletable.
class FakeManager : public ConnectionPointManager {
 public:
  explicit FakeManager(IPellInternalClient& client, const std::string& type = "valtor",
                       const std::string& subtype = {});
  ~FakeManager() override { stopCleanupThread(); }
  std::unique_ptr<ConnectionPoint> createConnectionPoint(const cJSON* item) override;

  // Adds what the description says.
  std::shared_ptr<FakeConnectionPoint> add(const std::string& description);
  std::shared_ptr<FakeConnectionPoint> get(const std::string& uniqueID) const;
  // The unique IDs, in order, separated by blanks.
  std::string ids() const;
  // Runs the function while the manager lock is held.
  void whileLocked(const std::function<void()>& function);
  // Handles a request; the answers' bodies, one a line, are in answers.
  bool handle(MessageKind kind, const std::string& path, const std::string& body);
  std::string answers;

  std::string containerFile() const { return filePath(); }
  // Whether the container file was written since the last call.
  bool wasSaved();
};

// Descriptions. A client is reached through a server phy, a server connection point came in.
std::string clientDescription(const std::string& uniqueID, int port = 5000,
                              const std::string& extra = {});
std::string serverDescription(const std::string& uniqueID);
std::string deviceDescription(const std::string& uniqueID, const std::string& connectionPoint);

inline std::string incomingClientFile() {
  return paths().incomingClientDirectory + "valtorIncomingClientConnections.json";
}

// A folder of its own for every fixed path, made before any manager.
struct Scene {
  Scene() {
    folder.becomePathPrefix();
    // A manager makes this one only when it is the first of the process.
    std::filesystem::create_directories(paths().incomingClientDirectory);
  }
  TemporaryFolder folder;
  RecordingClient client;
};

}  // namespace valtor::test
