#pragma once

#include "app/util/Mutex.h"
#include "peers/DispatcherPeerClient.h"

namespace valtor {

class RemoteValtorConnectionPoint;

// The peer client of a remote router. It listens to more paths than its base, applies the rules for
// routers, and tells the connection point that uses it whether its link is up.
//
// The connection point is not owned. It is read, told and forgotten under the owner lock alone, so
// clearOwner() returns only when no report is on its way any more; after that the connection point
// may go. A report may take the connection point's own locks and send on the master bus, never
// anything above the owner lock.
class ValtorRouterPeerConnection : public DispatcherPeerClient {
 public:
  ValtorRouterPeerConnection(std::string host, int32_t port, std::string busName);
  ~ValtorRouterPeerConnection() override;

  void onConnectionStateChanged(int state, const std::string& reason) override;
  // With the name that its connection point has now; on the bus it keeps the one it came with.
  std::string linkName() const override;
  FilterResult filterToMaster(const PellInternalMessage& message) const override;

  // The connection point that uses this connection from now on, and is told whether the link is up;
  // it must call clearOwner before it goes. One that used it before is told that it is no longer
  // connected.
  // False, and nothing changes, once an owner has let go of the connection.
  bool setOwner(RemoteValtorConnectionPoint& owner);
  // Forgets the connection point if it is the owner, and takes no other from then on: whoever lets
  // go removes the connection next, and another connection point must not settle on it meanwhile.
  // Does nothing for anybody else. Whether it was the owner.
  bool clearOwner(const RemoteValtorConnectionPoint& owner);
  bool isOwnedBy(const RemoteValtorConnectionPoint& owner) const;

 private:
  void reportState() VALTOR_REQUIRES(ownerLock_);
  std::string shownName() const;

  mutable Mutex ownerLock_;
  RemoteValtorConnectionPoint* owner_ VALTOR_GUARDED_BY(ownerLock_) = nullptr;
  std::string lastName_ VALTOR_GUARDED_BY(ownerLock_) = busName();  // of an owner that let go
  bool abandoned_ VALTOR_GUARDED_BY(ownerLock_) = false;
};

}  // namespace valtor
