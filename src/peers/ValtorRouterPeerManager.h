#pragma once

#include <chrono>
#include <memory>

#include "peers/ValtorNodeConnectionPointManager.h"

namespace valtor {

// The manager of the remote routers' peers, of which the process has one: it applies the rules for
// routers. Remote router connection points create, find and remove its peers.
class ValtorRouterPeerManager : public ValtorNodeConnectionPointManager {
 public:
  ValtorRouterPeerManager(const std::string& name, IPellaMessageForwarder* forwarder);
  ~ValtorRouterPeerManager() override;

  FilterResult filterToPeer(const DispatcherPeerClient& peer,
                            const PellInternalMessage& message) const override;

  // What new router connections are timed by; for tests to shorten, before any is made.
  const PellInternalClient::Timing& peerTiming() const { return peerTiming_; }
  // What an attempt of an owner that begins now may take, and what it took. Switched-off routers
  // add up, so together attempts get kOwnerAttempts a second; beyond it the receive threads
  // connect.
  PellInternalClient::Timing ownerTiming();
  void noteOwnerAttempt(std::chrono::steady_clock::duration took);
  static constexpr std::chrono::milliseconds kOwnerAttempts{500};
  void setPeerTiming(const PellInternalClient::Timing& timing) { peerTiming_ = timing; }

 private:
  // Owners connect on one thread at a time.
  std::chrono::steady_clock::time_point attemptsBegin_{};
  std::chrono::steady_clock::duration attemptsTook_{0};
  PellInternalClient::Timing peerTiming_ = DispatcherPeerClient::hostTiming();
};

// The process-wide manager, or none. Any thread may call both operations; a caller's copy keeps the
// manager alive.
std::shared_ptr<ValtorRouterPeerManager> routerPeerManager();
// Puts another manager, or none, in its place. The one before is destroyed with its last copy, and
// with it its peers: whoever clears the slot does so while the interface client still lives.
void setRouterPeerManager(std::shared_ptr<ValtorRouterPeerManager> manager);

}  // namespace valtor
