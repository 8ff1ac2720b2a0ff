#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "app/util/Mutex.h"
#include "bus/IPellaInternalProtocolHandler.h"
#include "bus/IPellaMessageForwarder.h"
#include "data/AbstractJSONTopLevelContainer.h"
#include "peers/DispatcherPeerClient.h"
#include "peers/FilterResult.h"

namespace valtor {

class FrameSender;

// The peers that the master bus is bridged to: it builds them from a description, connects them,
// answers requests about them, and sends every master message to each peer whose filter passes it.
//
// The list of peers has a leaf lock under which nothing is called: every operation copies the list
// or a pointer, so a peer lives at least as long as the call that uses it. Finding, adding,
// removing and forwarding may happen on any thread; descriptions and requests are the business of
// one thread at a time. The forwarder is not owned and outlives the manager.
class ValtorNodeConnectionPointManager : public AbstractJSONTopLevelContainer,
                                         public IPellaInternalProtocolHandler {
 public:
  using PeerPtr = std::shared_ptr<DispatcherPeerClient>;
  using PeerList = std::vector<PeerPtr>;

  // The container's file is the name with ".json". The forwarder is handed to peers that this
  // manager connects; it may be null.
  ValtorNodeConnectionPointManager(const std::string& name, IPellaMessageForwarder* forwarder);
  // Destroys the peers, which ends their connections and waits for their threads.
  ~ValtorNodeConnectionPointManager() override;
  ValtorNodeConnectionPointManager(const ValtorNodeConnectionPointManager&) = delete;
  ValtorNodeConnectionPointManager& operator=(const ValtorNodeConnectionPointManager&) = delete;

  // Makes the peers those of the array "connectionPoint": adds new ones, updates listed ones, which
  // keep their connection, and erases the others. Without that array, or with an empty one, all
  // peers stay. 0; -1 for a null item.
  int loadFromJSON(const cJSON* item) override;
  // {"type", "phy", "connectionPoint"}
  JSONPtr toJSON() const override;
  // "DispatcherPeerManager"
  const char* getObjectName() const override;

  // Takes SET (replace), DEL (delete) and GET (read) requests about the peers; false for any other
  // message. A replacement and a deletion are saved and not answered.
  bool handleMessage(const PellInternalMessage& message, ResponseList& responses) override;
  // A JSON null: the manager announces no interface.
  JSONPtr getInterfaceJSON() override;

  // Sends what waits to leave for the peers, and for whoever else is given it, while this manager
  // lives.
  std::weak_ptr<FrameSender> frameSender() const { return sender_; }

  // Gives every peer that is not connected the forwarder and has it connect. Always true.
  virtual bool connectPeers();
  // Whether a master message may go to the peer.
  virtual FilterResult filterToPeer(const DispatcherPeerClient& peer,
                                    const PellInternalMessage& message) const;
  virtual bool isSupportedType(const std::string& type) const;
  // A new peer from its description, or none when that does not load.
  virtual std::unique_ptr<DispatcherPeerClient> createPeer(const cJSON* item);
  // Adds the peer, or updates the one with its identifier. False when its type is not supported;
  // the peer is then discarded.
  virtual bool addOrUpdatePeer(std::unique_ptr<DispatcherPeerClient> peer);

  // Hands the message, as it is, to every peer whose filter passes it: framed once, and without
  // waiting for a peer that takes nothing. One line of console trace a peer.
  void forwardToPeers(const PellInternalMessage& message);
  // For whoever ends links next: what was forwarded before still reaches the peers that take what
  // they are sent. Waits for all of them at once, kFlush at most; when that was not enough, not
  // again for kFlushPause, so that ending many links takes no longer.
  void letFramesOut();
  static constexpr std::chrono::milliseconds kFlush{200};
  static constexpr std::chrono::milliseconds kFlushPause{1000};

  // For a client that becomes one of this manager's peers, before it connects: it shares the thread
  // behind the queues, and is seen by those who watch.
  void join(DispatcherPeerClient& peer) const;
  // What is seen of the bridge.
  BridgeWatch& watch() const { return *watch_; }

  // The first peer with that identifier, or none.
  PeerPtr findPeer(const std::string& uniqueID) const;
  // Appends a peer.
  void addPeer(PeerPtr peer);
  // Disconnects that peer, waits for its threads and gives it up. False when there is none. The
  // caller holds no lock that the peer's threads may wait for.
  bool removePeer(const std::string& uniqueID);
  bool removePeer(const PeerPtr& peer);
  // The peers of this moment, in the order in which they were added.
  PeerList peers() const;

 private:
  void noteCrossing(const PellInternalMessage& message) const;
  std::string receiversOf(const PellInternalMessage& message) const;
  bool replacePeers(const PellInternalMessage& message);
  bool deletePeers(const PellInternalMessage& message);
  bool answerRead(const PellInternalMessage& message, ResponseList& responses) const;
  void loadPeers(const cJSON* array);
  void erasePeer(const PeerPtr& peer);
  // Takes the peer out of the list; false when it is not in there.
  bool takeOut(const PeerPtr& peer);
  JSONPtr peersToJSON() const;

  const std::string type_;
  IPellaMessageForwarder* const forwarder_;
  const std::shared_ptr<FrameSender> sender_;
  const std::shared_ptr<BridgeWatch> watch_;
  std::atomic<std::chrono::steady_clock::duration> noFlushBefore_{};  // since the clock's epoch
  mutable Mutex peersLock_;
  PeerList peers_ VALTOR_GUARDED_BY(peersLock_);
};

}  // namespace valtor
