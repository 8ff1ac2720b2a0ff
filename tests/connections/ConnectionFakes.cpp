#include "ConnectionFakes.h"

#include <cstdio>
#include <utility>

namespace valtor::test {

std::string bodyWithoutId(const PellInternalMessage& message) {
  const JSONPtr body(cJSON_Duplicate(message.viewBody(), 1));
  cJSON_DeleteItemFromObject(body.get(), "id");
  return printJSON(body.get(), false);
}

int RecordingClient::sendMessage(const PellInternalMessage& message) {
  const std::lock_guard<std::mutex> lock(mutex_);
  sent_.push_back({message.getKind(), message.getPath(), bodyWithoutId(message)});
  return 0;
}

void RecordingClient::subscribe(const std::string& path) {
  const std::lock_guard<std::mutex> lock(mutex_);
  subscriptions_.push_back(path);
}

std::vector<SentMessage> RecordingClient::sent() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return sent_;
}

std::vector<std::string> RecordingClient::bodies() const {
  std::vector<std::string> bodies;
  for (const SentMessage& message : sent()) {
    bodies.push_back(message.body);
  }
  return bodies;
}

std::vector<std::string> RecordingClient::subscriptions() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return subscriptions_;
}

void RecordingClient::clear() {
  const std::lock_guard<std::mutex> lock(mutex_);
  sent_.clear();
}

JSONPtr FakeDevice::toJSON() const {
  JSONPtr object(cJSON_CreateObject());
  cJSON_AddStringToObject(object.get(), "uniqueID", getUniqueID().c_str());
  cJSON_AddBoolToObject(object.get(), "online", isOnline());
  return object;
}

JSONPtr FakeDevice::toStatusJSON(bool gone) const {
  JSONPtr object = toJSON();
  cJSON_AddBoolToObject(object.get(), "gone", gone);
  return object;
}

void FakeDevice::setParams(const DeviceParamList& list) {
  params = printJSON(list.toJSON(getUniqueID()).get(), false);
}

FakeConnectionPoint::FakeConnectionPoint(IPellInternalClient& sender,
                                         AbstractConnectionPointManager& manager, bool deletable)
    : ConnectionPoint("fake", sender, manager) {
  setDeletable(deletable);
}

int FakeConnectionPoint::connect() {
  ++connects;
  return 1;
}

void FakeConnectionPoint::disconnect() {
  ++disconnects;
  if (onDisconnect) {
    onDisconnect();
  }
  ConnectionPoint::disconnect();
}

std::unique_ptr<AbstractDeviceConnection> FakeConnectionPoint::createDeviceConnection(
    const DeviceConnectionDetails& details) {
  return details.getName() == "none" ? nullptr : std::make_unique<FakeDevice>(details);
}

bool FakeConnectionPoint::showInUI() const {
  if (onRender) {
    onRender();
  }
  return true;
}

SlowRendering::SlowRendering(FakeConnectionPoint& connectionPoint) {
  connectionPoint.onRender = [state = state_] {
    if (!state->armed.exchange(false)) {
      return;
    }
    state->started = true;
    for (int i = 0; i < 5000; ++i) {
      std::this_thread::yield();
    }
  };
}

void SlowRendering::waitForStart() const {
  while (!state_->started) {
    std::this_thread::yield();
  }
}

FakeManager::FakeManager(IPellInternalClient& client, const std::string& type,
                         const std::string& subtype)
    : ConnectionPointManager("valtor", type, client) {
  if (!subtype.empty()) {
    addSubtype(subtype);
  }
}

std::unique_ptr<ConnectionPoint> FakeManager::createConnectionPoint(const cJSON* item) {
  const char* uniqueID = stringMember(item, "uniqueID");
  const bool deletable = uniqueID == nullptr || std::string(uniqueID).rfind("keep", 0) != 0;
  auto made = std::make_unique<FakeConnectionPoint>(busClient(), *this, deletable);
  if (made->loadFromJSON(item) != 0) {
    return nullptr;
  }
  return made;
}

std::shared_ptr<FakeConnectionPoint> FakeManager::add(const std::string& description) {
  const OwnedJSON item = parseJSON(description);
  auto made = createConnectionPoint(item.get());
  const std::string uniqueID = made->getUniqueID();
  addConnectionPoint(std::move(made));
  return get(uniqueID);
}

std::shared_ptr<FakeConnectionPoint> FakeManager::get(const std::string& uniqueID) const {
  return std::dynamic_pointer_cast<FakeConnectionPoint>(findConnectionPoint(uniqueID));
}

std::string FakeManager::ids() const {
  std::string ids;
  const Locked lock(lock_);
  for (const auto& entry : connectionPoints_) {
    ids += (ids.empty() ? "" : " ") + entry.first;
  }
  return ids;
}

void FakeManager::whileLocked(const std::function<void()>& function) {
  const Locked lock(lock_);
  function();
}

bool FakeManager::handle(MessageKind kind, const std::string& path, const std::string& body) {
  const PellInternalMessage message(kind, path, JSONPtr(cJSON_Parse(body.c_str())));
  ResponseList responses;
  const bool taken = handleMessage(message, responses);
  answers.clear();
  for (const auto& response : responses) {
    answers += bodyWithoutId(*response) + "\n";
  }
  return taken;
}

bool FakeManager::wasSaved() { return std::remove(filePath().c_str()) == 0; }

std::string clientDescription(const std::string& uniqueID, int port, const std::string& extra) {
  return R"({"type":"valtor","name":"name of )" + uniqueID + R"(","uniqueID":")" + uniqueID +
         R"(","phy":[{"type":"tcp","ipAddress":"10.1.2.3","port":)" + std::to_string(port) +
         R"(,"server":true}])" + extra + "}";
}

std::string serverDescription(const std::string& uniqueID) {
  return R"({"type":"valtor","name":"in","uniqueID":")" + uniqueID +
         R"(","phy":[{"type":"tcp","ipAddress":"10.1.2.9","port":700,"server":false}]})";
}

std::string deviceDescription(const std::string& uniqueID, const std::string& connectionPoint) {
  return R"({"type":"valtor","name":"camera","uniqueID":")" + uniqueID +
         R"(","connectionPoint":")" + connectionPoint + R"("})";
}

}  // namespace valtor::test
