// Hands whole payloads of the bus, between NULs, to the interface client's onMessage, one after the
// other, over a database that is loaded: what the daemon's message-queue thread does all its life.
// What it sends is taken instead of a link, and read again. Beside the manager of routers stand the
// other two kinds, so that requests about devices and peers meet somebody.

#include <array>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <syslog.h>
#include <utility>

#include "app/ActiveDatabase.h"
#include "app/StatusDocument.h"
#include "app/util/LineBudget.h"
#include "app/util/Paths.h"
#include "bus/ValtorInterfaceClient.h"
#include "bus/message/PellInternalStreamParser.h"
#include "connections/ConnectionPointManager.h"
#include "fuzz/Fuzzing.h"
#include "peers/ValtorNodeConnectionPointManager.h"
#include "peers/ValtorRouterPeerManager.h"
#include "router/DeviceParamList.h"
#include "support/LogSink.h"

namespace valtor::fuzz {

namespace {

constexpr const char* kDatabase = R"({"connectionPoint":[
{"type":"valtor","name":"Router 1","uniqueID":"r1","phy":[{"type":"tcp","ipAddress":"10.0.0.1","port":15000,"server":true}]},
{"type":"valtor","name":"Router 2","uniqueID":"r2","phy":[{"type":"tcp","ipAddress":"10.0.0.2","port":15000,"server":true}]},
{"type":"valtor","name":"Client","uniqueID":"c","enabled":false,"phy":[{"type":"udp","ipAddress":"10.0.0.3","port":7}]}]})";

// --- A manager of devices ------------------------------------------------------------------------

class Device : public AbstractDeviceConnection {
 public:
  using AbstractDeviceConnection::AbstractDeviceConnection;

  JSONPtr toJSON() const override { return getDetails().toJSON(); }
  JSONPtr toStatusJSON(bool gone) const override {
    JSONPtr object = toJSON();
    cJSON_AddBoolToObject(object.get(), "gone", gone ? 1 : 0);
    return object;
  }
  void setParams(const DeviceParamList& params) override {
    require(!printJSON(params.toJSON(getUniqueID()).get(), false).empty(), "parameters render");
  }
};

class Place : public ConnectionPoint {
 public:
  Place(IPellInternalClient& client, AbstractConnectionPointManager& manager)
      : ConnectionPoint("panel", client, manager) {
    setDeletable(true);
  }

  int connect() override {
    setConnected(true);
    return 1;
  }
  std::unique_ptr<AbstractDeviceConnection> createDeviceConnection(
      const DeviceConnectionDetails& details) override {
    return std::make_unique<Device>(details);
  }
};

class Places : public ConnectionPointManager {
 public:
  explicit Places(IPellInternalClient& client) : ConnectionPointManager("panel", "panel", client) {}
  ~Places() override { stopCleanupThread(); }

  std::unique_ptr<ConnectionPoint> createConnectionPoint(const cJSON* item) override {
    auto place = std::make_unique<Place>(busClient(), *this);
    return place->loadFromJSON(item) == 0 ? std::move(place) : nullptr;
  }
};

// --- The client ----------------------------------------------------------------------------------

std::size_t lines = 0;

// Of the log as it is kept without -v. That no thread was started is this program's doing.
void countLine(int priority, const std::string& text) {
  lines += priority <= LOG_INFO && text.find("could not be started") == std::string::npos ? 1 : 0;
}

class Client : public ValtorInterfaceClient {
 public:
  Client()
      : ValtorInterfaceClient("localhost", 15000, "valtorRemote", false,
                              paths().databaseDirectory) {
    setDatabaseLoader([](ValtorInterfaceClient& client) {
      valtor::loadActiveDatabase(client);
      client.addHandler(std::make_unique<Places>(client));
      client.addHandler(
          std::make_unique<ValtorNodeConnectionPointManager>(scratchFolder() + "/peers", &client));
    });
  }
  ~Client() override { stopForDestruction(); }

  int sendMessage(const PellInternalMessage& message) override {
    const std::string payload = message.encodeFrom(getConnID());
    if (HeaderLine(message.header, getConnID()).isCut()) {
      return 0;  // said in the log, and understood by nobody
    }
    const PellInternalMessage again = received(payload);
    require(again.isDecoded() && again.getKind() == message.getKind() &&
                again.getPath() == message.getPath() &&
                again.getDestConnID() == message.getDestConnID() &&
                again.getUniqueId() == message.getUniqueId(),
            "what is sent is understood");
    require(printJSON(again.viewBody(), false) == again.bodyText(), "with all that it holds");
    if (message.getKind() == MessageKind::RSP) {
      require(request_ != nullptr && message.getPath() == request_->getPath() &&
                  message.getDestConnID() == request_->header.sourceConnID &&
                  message.getUniqueId() == request_->getUniqueId(),
              "an answer is about its request");
    }
    return 0;
  }

  void take(const PellInternalMessage& message) {
    request_ = &message;
    lines = 0;
    onMessage(message);
    require(lines <= LineBudget::kLines + 200, "no message fills the log");
    request_ = nullptr;
  }

 private:
  const PellInternalMessage* request_ = nullptr;
};

bool isWhole(const std::string& text) {
  const JSONPtr document(cJSON_ParseWithOpts(text.c_str(), nullptr, 1));
  return cJSON_IsObject(document.get()) != 0;
}

void checkStateFiles() {
  for (const char* name : {"valtor", "panel"}) {
    const std::string path = paths().containerDirectory + "/" + name + "ConnectionPointMgr.json";
    if (!std::filesystem::exists(path)) {
      continue;
    }
    const std::string text = contentOf(path);
    require(isWhole(text), "a state file is a whole document");
    std::filesystem::remove(path);
  }
}

}  // namespace

// A name of a few bytes asks for an answer with everything that is stored; how many of them, and
// how much in all, is limited as such (AnswerRoom).
const MemoryLimit kMemoryLimit{4000, 2'000'000};

void examine(Input input) {
  writeFile(paths().databaseDirectory + "activeDatabase.json", "plant");
  std::filesystem::create_directories(paths().databaseDirectory + "plant");
  writeFile(paths().databaseDirectory + "plant/connectionPoints.json", kDatabase);
  setLogSink(countLine);
  {
    Client client;
    setRouterPeerManager(std::make_shared<ValtorRouterPeerManager>("peers", &client));
    client.loadActiveDatabase();
    PellInternalStreamParser parser;
    parser.setMessageCallback([&client](const std::vector<PellInternalMessage>& messages) {
      for (const PellInternalMessage& message : messages) {
        client.take(message);
      }
    });
    for (const std::string& payload : input.parts()) {
      const std::string framed = frame(payload);
      parser.parse(framed.data(), framed.size());
    }
    client.forEachHandler([](IPellaInternalProtocolHandler& handler) {
      if (auto* const manager = dynamic_cast<AbstractConnectionPointManager*>(&handler)) {
        manager->purgeMarkedClients();
      }
    });
    require(isWhole(statusDocument(client)), "the status is a whole document");
    require(client.buildLoginParameters() != nullptr, "a login describes what there is");
    client.removeAllHandlers();
    setRouterPeerManager(nullptr);
  }
  checkStateFiles();
}

}  // namespace valtor::fuzz
