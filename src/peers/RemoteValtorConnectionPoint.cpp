#include "peers/RemoteValtorConnectionPoint.h"

#include <chrono>
#include <new>
#include <string>
#include <syslog.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/Insist.h"
#include "app/util/LineBudget.h"
#include "app/util/OwnedJSON.h"
#include "bus/IPellaMessageForwarder.h"
#include "bus/message/RequestMessages.h"
#include "connections/AbstractConnectionPointManager.h"
#include "peers/ValtorRouterPeerConnection.h"
#include "peers/ValtorRouterPeerManager.h"
#include "router/RouteOperation.h"

namespace valtor {

bool isLoopback(const IPPhy& phy) { return phy.getIPAddress() == "127.0.0.1"; }

RemoteValtorConnectionPoint::RemoteValtorConnectionPoint(IPellInternalClient& sender,
                                                         AbstractConnectionPointManager& manager,
                                                         bool rejectLoopback)
    : ConnectionPoint("remoteValtor", sender, manager), rejectLoopback_(rejectLoopback) {
  setDeletable(true);
}

RemoteValtorConnectionPoint::~RemoteValtorConnectionPoint() { giveUpPeer(); }

int RemoteValtorConnectionPoint::connect() {
  try {
    return connectPeer();
  } catch (...) {
    manager().noteBehind();
    throw;
  }
}

int RemoteValtorConnectionPoint::connectPeer() {
  const auto phy = firstTCPPhy();
  if (!phy || (rejectLoopback_ && isLoopback(*phy))) {
    return 0;
  }
  const std::string uniqueID = getUniqueID();
  if (!phy->isConnectable()) {
    warnOfPlace(*phy);
    return 0;
  }
  warnedPlace_.clear();
  const auto peers = routerPeerManager();
  if (peers == nullptr) {
    return 0;
  }
  for (const auto& peer : peersOfThisID(*peers)) {
    if (reconnect(*peers, *peer, *phy)) {
      return 1;
    }
  }
  createPeer(*peers, uniqueID, *phy);
  return 1;
}

// Once until it has another place: start-up and every reload connect again.
void RemoteValtorConnectionPoint::warnOfPlace(const IPPhy& phy) {
  const std::string place = phy.getIPAddress() + ":" + std::to_string(phy.getPort());
  if (warnedPlace_ == place || !LineBudget::spend()) {
    return;
  }
  warnedPlace_ = place;
  syslog(LOG_WARNING,
         "RemoteValtorConnectionPoint %s (%s) stays down: its tcp phy names no place to connect to "
         "(address \"%s\", port %d).\n",
         nameForLog(getName()).c_str(), nameForLog(getUniqueID()).c_str(),
         phy.getIPAddress().c_str(), phy.getPort());
}

void RemoteValtorConnectionPoint::createPeer(ValtorRouterPeerManager& peers,
                                             const std::string& uniqueID, const IPPhy& phy) {
  const auto peer =
      std::make_shared<ValtorRouterPeerConnection>(phy.getIPAddress(), phy.getPort(), getName());
  peers.join(*peer);
  peer->setUniqueID(uniqueID);
  peer->setForwarder(forwarder());
  peer->setOwner(*this);
  connect(peers, *peer);
  peers.addPeer(peer);
}

bool RemoteValtorConnectionPoint::reconnect(ValtorRouterPeerManager& peers,
                                            ValtorRouterPeerConnection& peer, const IPPhy& phy) {
  if (!peer.setOwner(*this)) {
    return false;
  }
  const bool moved = peer.host() != phy.getIPAddress() || peer.port() != phy.getPort();
  if (!moved && peer.isConnected()) {
    return true;
  }
  if (moved) {
    peers.letFramesOut();
    peer.setEndReason("moved");
    // Its threads may still be trying the old place.
    peer.disconnect();
    peer.setEndpoint(phy.getIPAddress(), phy.getPort());
    peer.forgetDatabaseRequest();
  }
  peer.setForwarder(forwarder());
  connect(peers, peer);
  return true;
}

void RemoteValtorConnectionPoint::connect(ValtorRouterPeerManager& peers,
                                          ValtorRouterPeerConnection& peer) const {
  if (!peer.isRunning()) {
    peer.setTiming(peers.ownerTiming());  // which no thread reads now
  }
  const auto begin = std::chrono::steady_clock::now();
  peer.connect();
  peers.noteOwnerAttempt(std::chrono::steady_clock::now() - begin);
  if (!peer.isRunning()) {
    manager().noteBehind();
  }
}

void RemoteValtorConnectionPoint::disconnect() {
  // Whoever asks for the end hears of it even when no link stands; the peer's own report, which
  // comes last, then finds nothing changed.
  try {
    setConnected(false);
  } catch (const std::bad_alloc&) {
    // The link has to end all the same, which announces its end again, or is noted as behind.
  }
  if (const auto peers = routerPeerManager()) {
    if (const auto peer = ownPeer(*peers)) {
      peers->letFramesOut();
      peer->setEndReason(endReason());
      peer->disconnect();
    }
  }
}

void RemoteValtorConnectionPoint::releasePeer() {
  removeAllDeviceConnections();
  giveUpPeer();
}

// Lets go first, so that the peer's threads report nothing any more and no other connection point
// takes the peer over while it is being removed; what they would have reported follows here.
void RemoteValtorConnectionPoint::giveUpPeer() {
  constexpr const char* kWhat = "the link of a router";
  if (const auto peers = routerPeerManager()) {
    std::shared_ptr<ValtorRouterPeerConnection> peer;
    insist(kWhat, [&] { peer = ownPeer(*peers); });
    if (peer != nullptr && peer->clearOwner(*this)) {
      peer->setEndReason("standby");
      insist(kWhat, [&] { peers->removePeer(peer); });
    }
  }
  insist(kWhat, [this] {
    if (isConnected() || isUnannounced()) {
      setConnected(false);
    }
  });
}

RemoteValtorConnectionPoint::RouterPeers RemoteValtorConnectionPoint::peersOfThisID(
    const ValtorRouterPeerManager& peers) const {
  const std::string uniqueID = getUniqueID();
  RouterPeers found;
  for (const auto& peer : peers.peers()) {
    auto router = std::dynamic_pointer_cast<ValtorRouterPeerConnection>(peer);
    if (router != nullptr && router->uniqueID() == uniqueID) {
      found.push_back(std::move(router));
    }
  }
  return found;
}

std::shared_ptr<ValtorRouterPeerConnection> RemoteValtorConnectionPoint::ownPeer(
    const ValtorRouterPeerManager& peers) const {
  for (auto& peer : peersOfThisID(peers)) {
    if (peer->isOwnedBy(*this)) {
      return std::move(peer);
    }
  }
  return nullptr;
}

IPellaMessageForwarder* RemoteValtorConnectionPoint::forwarder() const {
  return dynamic_cast<IPellaMessageForwarder*>(&sender());
}

std::unique_ptr<AbstractDeviceConnection> RemoteValtorConnectionPoint::createDeviceConnection(
    const DeviceConnectionDetails& /*details*/) {
  return nullptr;
}

void RemoteValtorConnectionPoint::notifyParam(bool connected) {
  ConnectionPoint::notifyParam(connected);
  if (connected) {
    requestLogicalSourcesAndDests();
    requestRouteStatus();
  }
}

void RemoteValtorConnectionPoint::requestLogicalSourcesAndDests() {
  sender().sendMessage(
      GETMessage("db", std::vector<std::string>{"logicalSources", "logicalDests"}));
}

void RemoteValtorConnectionPoint::requestRouteStatus() {
  RouteOperation operation;
  for (unsigned level = 0; level <= kHighestLevel; ++level) {
    operation.level.setLevel(level);
  }
  operation.hasDestRange = true;
  operation.destRangeFirst = 0;
  operation.destRangeLast = kHighestDestination;
  sender().sendMessage(CMDMessage(operation, "stat"));
}

}  // namespace valtor
