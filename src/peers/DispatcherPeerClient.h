#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "app/util/Mutex.h"
#include "app/util/TrafficCount.h"
#include "bus/IPellaMessageForwarder.h"
#include "bus/PellInternalClient.h"
#include "connections/phy/ConnectionPointPhy.h"
#include "data/AbstractJSONBackedData.h"
#include "peers/BridgeWatch.h"
#include "peers/FilterResult.h"
#include "peers/RuleCounts.h"

namespace valtor {

// A bus client that is logged in on the bus of a peer and bridges it to the master bus: what it
// receives passes its filter and is handed to the forwarder as it was received. It is also a
// description (type, name, identifier, phys) that a manager builds, updates and renders.
//
// A manager holds it in a shared_ptr and copies that for the length of a call; the client's own
// threads hold no reference, so the last one never falls there. The forwarder is not owned and must
// outlive the client's connection. Any thread may use the operations of this class.
class DispatcherPeerClient : public PellInternalClient, public AbstractJSONBackedData {
 public:
  // The connection id that every peer client announces.
  static constexpr int kConnID = 10000;
  static constexpr int32_t kSendRetryBudget = 1000;

  // For a description: loadFromJSON sets the endpoint.
  DispatcherPeerClient();
  // Host and port of the peer's bus node, and the client's own name on that bus.
  DispatcherPeerClient(std::string host, int32_t port, std::string busName);
  ~DispatcherPeerClient() override;

  // What a peer client is timed by: an owner's attempt waits at most 50 ms, since the attempts at
  // switched-off peers add up in one request. The host constructor adds a receive time-out of 1 s.
  static Timing descriptionTiming();
  static Timing hostTiming();

  int getConnID() override;
  bool isLocalBusClient() override;
  // The way to the master bus. 0 when the message was handed on, -1 when it was dropped.
  int onMessage(const PellInternalMessage& message) override;

  // Whether a message of the peer bus may go to the master bus.
  virtual FilterResult filterToMaster(const PellInternalMessage& message) const;

  // Takes over name, phys, type and identifier of a newer description and leaves it without phys.
  // The connection stays as it is.
  virtual void updateFrom(DispatcherPeerClient& other);

  // Takes over "type", "phy", "name" and "uniqueID", all required; of the phys the "tcp" ones, of
  // which the last is the endpoint. 0, or -1 with a warning; what was stored before a failure
  // stays.
  int loadFromJSON(const cJSON* item) override;
  // {"type", "name", "uniqueID", "phy", "enabled", "connected"}
  JSONPtr toJSON() const override;

  std::string type() const;
  std::string uniqueID() const;
  void setUniqueID(const std::string& uniqueID);

  bool isEnabled() const { return enabled_; }

  bool isMarkedForErase() const { return markedForErase_; }
  void setMarkedForErase(bool marked) { markedForErase_ = marked; }

  // How the bridge to this peer does.
  struct BridgeFigures {
    RuleCounts::Figures blockedToPeer;
    RuleCounts::Figures blockedToMaster;
    TrafficCount::Figures toMaster;  // what passed
  };
  BridgeFigures bridgeFigures() const;
  // The filter's answer about a message of the master bus.
  void noteToPeer(const PellInternalMessage& message, const FilterResult& result);
  // Where this peer's messages are seen by those who watch the bridge. Set before connect().
  void setWatch(std::shared_ptr<BridgeWatch> watch) { watch_ = std::move(watch); }

  // Null: what arrives is dropped.
  void setForwarder(IPellaMessageForwarder* forwarder) { forwarder_ = forwarder; }

  // The host whose database request was forwarded last, "" when there was none.
  std::string dbRequestHost() const;
  // For whoever leads the client to another place, where nobody has asked yet.
  void forgetDatabaseRequest();

 private:
  using PhyList = std::vector<std::unique_ptr<ConnectionPointPhy>>;

  bool loadPhys(const cJSON* array);
  void noteToMaster(const PellInternalMessage& message, const FilterResult& result);
  void show(Direction direction, const PellInternalMessage& message, const FilterResult& result);
  void noteDatabaseRequest(const PellInternalMessage& message);

  mutable Mutex descriptionLock_;
  std::string type_ VALTOR_GUARDED_BY(descriptionLock_);
  std::string uniqueID_ VALTOR_GUARDED_BY(descriptionLock_);
  PhyList phys_ VALTOR_GUARDED_BY(descriptionLock_);
  // Not the client's name on the bus.
  std::string descriptionName_ VALTOR_GUARDED_BY(descriptionLock_);
  const bool enabled_ = true;  // what "enabled" renders; nothing disables a peer
  std::atomic<bool> markedForErase_{false};
  std::atomic<IPellaMessageForwarder*> forwarder_{nullptr};
  std::shared_ptr<BridgeWatch> watch_;
  RuleCounts blockedToPeer_;
  RuleCounts blockedToMaster_;
  TrafficCount toMaster_;

  mutable Mutex dbRequestHostLock_;
  std::string dbRequestHost_ VALTOR_GUARDED_BY(dbRequestHostLock_);
};

}  // namespace valtor
