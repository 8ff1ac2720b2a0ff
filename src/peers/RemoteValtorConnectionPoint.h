#pragma once

#include <memory>
#include <string>
#include <vector>

#include "connections/ConnectionPoint.h"

namespace valtor {

class IPellaMessageForwarder;
class ValtorRouterPeerConnection;
class ValtorRouterPeerManager;

// A remote router: connecting it makes, or finds again, the peer connection to the bus node at its
// first phy, a "tcp" one, in the process's router peer manager. The peer connection's link is this
// connection point's connected state; when it comes up, the master bus is asked for what the router
// needs to know.
//
// The peer connection is found by this connection point's unique ID, and is touched only when this
// connection point is its owner: a description that is built and discarded again leaves the link of
// the router that it resembles alone. connect(), disconnect() and destruction wait for the peer's
// threads; their caller holds none of the connection point's locks and nothing that those threads
// wait for. A class derived from this one must end the connection in its own destructor.
class RemoteValtorConnectionPoint : public ConnectionPoint {
 public:
  // With rejectLoopback, a router at 127.0.0.1, the controller itself, is never connected.
  RemoteValtorConnectionPoint(IPellInternalClient& sender, AbstractConnectionPointManager& manager,
                              bool rejectLoopback);
  // Gives the peer connection up first: nothing reports to this object any more after that.
  ~RemoteValtorConnectionPoint() override;

  // 1 when there is a peer connection, whose threads keep trying; 0 when the description names no
  // place to connect to. A router that moved is connected at its new endpoint.
  int connect() override;
  // Takes the link down. The peer connection stays for the next connect().
  void disconnect() override;

  // None: a router's devices are its own.
  std::unique_ptr<AbstractDeviceConnection> createDeviceConnection(
      const DeviceConnectionDetails& details) override;
  // The announcement, followed by the two requests when the link came up.
  void notifyParam(bool connected) override;
  // Gives up the device connections and the peer connection.
  virtual void releasePeer();

  // Ask the master bus; the answers reach the router over the bridge.
  void requestLogicalSourcesAndDests();
  void requestRouteStatus();

 private:
  // Highest level and destination that the route status is asked for.
  static constexpr unsigned kHighestLevel = 63;
  static constexpr uint32_t kHighestDestination = 4095;

  using RouterPeers = std::vector<std::shared_ptr<ValtorRouterPeerConnection>>;

  // The router connections with this connection point's unique ID. One, except for the moment in
  // which a former one is being given up.
  RouterPeers peersOfThisID(const ValtorRouterPeerManager& peers) const;
  std::shared_ptr<ValtorRouterPeerConnection> ownPeer(const ValtorRouterPeerManager& peers) const;
  // False when the peer is being given up by the connection point that had it.
  bool reconnect(ValtorRouterPeerManager& peers, ValtorRouterPeerConnection& peer,
                 const IPPhy& phy);
  void giveUpPeer();
  int connectPeer();
  void connect(ValtorRouterPeerManager& peers, ValtorRouterPeerConnection& peer) const;
  void warnOfPlace(const IPPhy& phy);
  void createPeer(ValtorRouterPeerManager& peers, const std::string& uniqueID, const IPPhy& phy);
  // The sender, if it puts messages on the master bus as they are.
  IPellaMessageForwarder* forwarder() const;

  const bool rejectLoopback_;
  std::string warnedPlace_;  // touched by connect() only, which one thread at a time calls
};

// Whether the phy leads to the controller itself.
bool isLoopback(const IPPhy& phy);

}  // namespace valtor
