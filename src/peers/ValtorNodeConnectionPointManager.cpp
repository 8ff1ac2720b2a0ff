#include "peers/ValtorNodeConnectionPointManager.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <new>
#include <string_view>
#include <syslog.h>
#include <thread>
#include <utility>

#include "app/util/LineBudget.h"
#include "app/util/OwnedJSON.h"
#include "bus/FrameSender.h"
#include "bus/message/Frame.h"
#include "bus/message/PellInternalMessage.h"
#include "bus/message/RSPMessage.h"
#include "connections/AnswerRoom.h"
#include "peers/ForwardingFilters.h"

namespace valtor {

namespace {

constexpr const char* kConnectionPoint = "connectionPoint";
constexpr const char* kConnectionPointManager = "connectionPointManager";
constexpr std::size_t kMaxPeers = 250;  // each has two threads and a socket

// What one element of "objectName" names in a delete request. An element "connectionPoint.<id>"
// says itself that it names a connection point, and from then on so do plain elements; until then
// those name nothing.
const char* nameToDelete(const char* element, bool& connectionPointMode) {
  const std::string_view text(element);
  const std::size_t point = text.find('.');
  if (point != std::string_view::npos && text.substr(0, point) == kConnectionPoint) {
    connectionPointMode = true;
    return element + point + 1;
  }
  return connectionPointMode ? element : nullptr;
}

}  // namespace

ValtorNodeConnectionPointManager::ValtorNodeConnectionPointManager(
    const std::string& name, IPellaMessageForwarder* forwarder)
    : AbstractJSONTopLevelContainer(name),
      type_("Valtor Peer"),
      forwarder_(forwarder),
      sender_(std::make_shared<FrameSender>()),
      watch_(std::make_shared<BridgeWatch>()) {}

ValtorNodeConnectionPointManager::~ValtorNodeConnectionPointManager() = default;

int ValtorNodeConnectionPointManager::loadFromJSON(const cJSON* item) {
  if (item == nullptr) {
    return -1;
  }
  reset();
  const cJSON* const array = arrayMember(item, kConnectionPoint);
  if (cJSON_GetArraySize(array) > 0) {
    loadPeers(array);
  }
  return 0;
}

void ValtorNodeConnectionPointManager::loadPeers(const cJSON* array) {
  for (const PeerPtr& peer : peers()) {
    peer->setMarkedForErase(true);
  }
  bool anyTaken = false;
  std::size_t heeded = 0;
  std::size_t ignored = 0;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, array) {
    const char* const type = stringMember(element, "type");
    if (type == nullptr || !isSupportedType(type)) {
      continue;
    }
    if (++heeded > kMaxPeers) {
      ++ignored;
      continue;
    }
    auto peer = createPeer(element);
    if (peer != nullptr && addOrUpdatePeer(std::move(peer))) {
      anyTaken = true;
    }
  }
  if (ignored > 0) {
    syslog(LOG_WARNING, "%zu peers at the end of a list are ignored, %zu may be stored.\n", ignored,
           kMaxPeers);
  }
  if (anyTaken) {
    connectPeers();
  }
  for (const PeerPtr& peer : peers()) {
    if (peer->isMarkedForErase()) {
      erasePeer(peer);
    }
  }
}

void ValtorNodeConnectionPointManager::erasePeer(const PeerPtr& peer) {
  if (LineBudget::spendTrace()) {
    std::printf("%s erasing connectionPoint: %s\n",
                "virtual int ValtorNodeConnectionPointManager::loadFromJSON(cJSON*)",
                peer->uniqueID().c_str());
  }
  letFramesOut();
  takeOut(peer);
}

JSONPtr ValtorNodeConnectionPointManager::toJSON() const {
  JSONPtr object(cJSON_CreateObject());
  cJSON_AddStringToObject(object.get(), "type", type_.c_str());
  // The phys are those of the peers; the manager has none of its own.
  addMember(object.get(), "phy", JSONPtr(cJSON_CreateArray()));
  addMember(object.get(), kConnectionPoint, peersToJSON());
  return object;
}

JSONPtr ValtorNodeConnectionPointManager::peersToJSON() const {
  JSONPtr array(cJSON_CreateArray());
  for (const PeerPtr& peer : peers()) {
    addElement(array.get(), peer->toJSON());
  }
  return array;
}

const char* ValtorNodeConnectionPointManager::getObjectName() const {
  return "DispatcherPeerManager";
}

bool ValtorNodeConnectionPointManager::handleMessage(const PellInternalMessage& message,
                                                     ResponseList& responses) {
  const LineBudget budget;
  switch (message.getKind()) {
    case MessageKind::SET:
      return replacePeers(message);
    case MessageKind::DEL:
      return deletePeers(message);
    case MessageKind::GET:
      return answerRead(message, responses);
    default:
      return false;
  }
}

bool ValtorNodeConnectionPointManager::replacePeers(const PellInternalMessage& message) {
  const cJSON* const param = cJSON_GetObjectItem(message.viewBody(), "param");
  if (param == nullptr || (cJSON_GetObjectItem(param, getObjectName()) == nullptr &&
                           cJSON_GetObjectItem(param, kConnectionPoint) == nullptr)) {
    return false;
  }
  if (loadFromJSON(param) != 0) {
    return false;
  }
  connectPeers();
  save(false);
  return true;
}

bool ValtorNodeConnectionPointManager::deletePeers(const PellInternalMessage& message) {
  const char* const base = stringMember(message.viewBody(), "objectBase");
  if (base != nullptr && std::string_view(base) != kConnectionPoint) {
    return false;
  }
  bool connectionPointMode = base != nullptr;
  bool anyRemoved = false;
  // A request may name millions: none is searched in the list.
  std::multimap<std::string, PeerPtr, std::less<>> byID;
  for (PeerPtr& peer : peers()) {
    byID.emplace(peer->uniqueID(), std::move(peer));
  }
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, arrayMember(message.viewBody(), "objectName")) {
    if (cJSON_IsString(element) == 0) {
      continue;
    }
    const char* const uniqueID = nameToDelete(element->valuestring, connectionPointMode);
    if (uniqueID == nullptr) {
      continue;
    }
    // The first of those that share an identifier.
    const auto found = byID.find(std::string_view(uniqueID));
    if (found != byID.end()) {
      anyRemoved = removePeer(found->second) || anyRemoved;
      byID.erase(found);
    }
  }
  if (anyRemoved) {
    save(false);
  }
  return anyRemoved;
}

bool ValtorNodeConnectionPointManager::answerRead(const PellInternalMessage& message,
                                                  ResponseList& responses) const {
  bool anyAnswered = false;
  AnswerRoom room;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, arrayMember(message.viewBody(), "objectName")) {
    if (cJSON_IsString(element) == 0) {
      continue;
    }
    const std::string_view name(element->valuestring);
    if (name != kConnectionPoint && name != kConnectionPointManager) {
      continue;
    }
    if (!room.isLeft(message)) {
      break;
    }
    JSONPtr array;
    if (name == kConnectionPoint) {
      array = peersToJSON();
    } else {
      array.reset(cJSON_CreateArray());
      addElement(array.get(), toJSON());
    }
    room.take(array.get(), peers().size());
    JSONPtr param(cJSON_CreateObject());
    addMember(param.get(), element->valuestring, std::move(array));
    responses.push_back(std::make_unique<RSPMessage>(message, nullptr, std::move(param)));
    anyAnswered = true;
  }
  return anyAnswered;
}

JSONPtr ValtorNodeConnectionPointManager::getInterfaceJSON() { return JSONPtr(cJSON_CreateNull()); }

bool ValtorNodeConnectionPointManager::connectPeers() {
  for (const PeerPtr& peer : peers()) {
    if (!peer->isConnected()) {
      peer->setForwarder(forwarder_);
      peer->connect();
    }
  }
  return true;
}

FilterResult ValtorNodeConnectionPointManager::filterToPeer(
    const DispatcherPeerClient& /*peer*/, const PellInternalMessage& message) const {
  return nodeMasterToPeer(message);
}

bool ValtorNodeConnectionPointManager::isSupportedType(const std::string& type) const {
  return type == type_;
}

std::unique_ptr<DispatcherPeerClient> ValtorNodeConnectionPointManager::createPeer(
    const cJSON* item) {
  auto peer = std::make_unique<DispatcherPeerClient>();
  if (peer->loadFromJSON(item) != 0) {
    return nullptr;
  }
  return peer;
}

bool ValtorNodeConnectionPointManager::addOrUpdatePeer(std::unique_ptr<DispatcherPeerClient> peer) {
  if (!isSupportedType(peer->type())) {
    return false;
  }
  const PeerPtr existing = findPeer(peer->uniqueID());
  if (existing == nullptr) {
    join(*peer);
    addPeer(std::move(peer));
    return true;
  }
  existing->updateFrom(*peer);
  existing->setMarkedForErase(false);
  return true;
}

void ValtorNodeConnectionPointManager::forwardToPeers(const PellInternalMessage& message) {
  SharedFrame frame;
  char shown[129] = "";  // the payload's beginning, for the trace
  for (const PeerPtr& peer : peers()) {
    const FilterResult result = filterToPeer(*peer, message);
    peer->noteToPeer(message, result);
    if (!result.pass) {
      traceBlocked("master->peer", message, result.rule);
      continue;
    }
    if (frame == nullptr) {
      frame = sender_->budget().count(frameOf(message, message.header.sourceConnID));
      shown[frame->payload().copy(shown, sizeof shown - 1)] = '\0';
      noteCrossing(message);
    }
    std::printf("master->peer send %.128s \n", shown);
    try {
      peer->forwardFrame(frame);
    } catch (const std::bad_alloc&) {
      // Without an allocation: there may be no memory still.
      syslog(LOG_ERR, "A message for a peer is lost: no memory to let it wait.\n");
    }
  }
}

void ValtorNodeConnectionPointManager::noteCrossing(const PellInternalMessage& message) const {
  justWatch([&] {
    watch_->crossings.add(Direction::ToRouters, message.getKind(), message.header.path,
                          message.receivedBytes());
    watch_->loops.note(message, nullptr, [&] { return receiversOf(message); });
  });
}

// The first few by name.
std::string ValtorNodeConnectionPointManager::receiversOf(
    const PellInternalMessage& message) const {
  constexpr std::size_t kNamed = 3;
  std::string names;
  std::size_t count = 0;
  for (const PeerPtr& peer : peers()) {
    if (filterToPeer(*peer, message).pass && ++count <= kNamed) {
      names += (names.empty() ? "" : ", ") + peer->linkName();
    }
  }
  return count > kNamed ? names + " and " + std::to_string(count - kNamed) + " more" : names;
}

void ValtorNodeConnectionPointManager::join(DispatcherPeerClient& peer) const {
  peer.setFrameSender(sender_);
  peer.setWatch(watch_);
}

void ValtorNodeConnectionPointManager::letFramesOut() {
  using Clock = std::chrono::steady_clock;
  if (Clock::now().time_since_epoch() < noFlushBefore_.load()) {
    return;
  }
  const PeerList all = peers();
  const auto end = Clock::now() + kFlush;
  const auto underWay = [](const PeerPtr& peer) { return peer->hasUnderWay(); };
  while (std::any_of(all.begin(), all.end(), underWay)) {
    if (Clock::now() >= end) {
      noFlushBefore_ = (Clock::now() + kFlushPause).time_since_epoch();
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

ValtorNodeConnectionPointManager::PeerPtr ValtorNodeConnectionPointManager::findPeer(
    const std::string& uniqueID) const {
  for (const PeerPtr& peer : peers()) {
    if (peer->uniqueID() == uniqueID) {
      return peer;
    }
  }
  return nullptr;
}

void ValtorNodeConnectionPointManager::addPeer(PeerPtr peer) {
  const Locked lock(peersLock_);
  peers_.push_back(std::move(peer));
}

bool ValtorNodeConnectionPointManager::removePeer(const std::string& uniqueID) {
  return removePeer(findPeer(uniqueID));
}

bool ValtorNodeConnectionPointManager::removePeer(const PeerPtr& peer) {
  if (peer == nullptr) {
    return false;
  }
  letFramesOut();
  // Without the list's lock: the peer's threads take as long as they take.
  peer->disconnect();
  peer->waitTillComplete();
  return takeOut(peer);
}

bool ValtorNodeConnectionPointManager::takeOut(const PeerPtr& peer) {
  const Locked lock(peersLock_);
  const auto found = std::find(peers_.begin(), peers_.end(), peer);
  if (found == peers_.end()) {
    return false;
  }
  peers_.erase(found);
  return true;
}

ValtorNodeConnectionPointManager::PeerList ValtorNodeConnectionPointManager::peers() const {
  const Locked lock(peersLock_);
  return peers_;
}

}  // namespace valtor
