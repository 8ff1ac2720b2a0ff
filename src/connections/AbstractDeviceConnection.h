#pragma once

#include <string>

#include "app/util/Mutex.h"
#include "app/util/OwnedJSON.h"
#include "connections/DeviceConnectionDetails.h"

namespace valtor {

class ConnectionPoint;
class DeviceParamList;
class IPellInternalClient;

// One device that is reached through a connection point: the base of what a connection point's
// createDeviceConnection() makes. Its connection point owns it and hands out copies of the pointer
// for the length of a call. It keeps its description, its online flag and its missed-poll count
// under its own lock, the lowest of the connection point's locks; any thread may call it.
//
// The renderers and update() run while the connection point holds its locks: they may ask it for
// its description and its state, and for nothing else. A subclass with threads of its own ends them
// in its own destructor.
class AbstractDeviceConnection {
 public:
  // Offline, with no missed poll, until its connection point takes it.
  explicit AbstractDeviceConnection(DeviceConnectionDetails details);
  virtual ~AbstractDeviceConnection();
  AbstractDeviceConnection(const AbstractDeviceConnection&) = delete;
  AbstractDeviceConnection& operator=(const AbstractDeviceConnection&) = delete;

  // The object that "param" notifications carry. A new tree, never none.
  virtual JSONPtr toJSON() const = 0;
  // The object for listings and for removals; gone is true when the device is reported as gone.
  virtual JSONPtr toStatusJSON(bool gone) const = 0;
  // Applies device parameters. The list lives only for the call. Called with the manager's lock
  // held, so it must not wait for the manager.
  virtual void setParams(const DeviceParamList& params) = 0;
  // Takes over a new description of the same device.
  virtual void update(const DeviceConnectionDetails& details);

  DeviceConnectionDetails getDetails() const;
  std::string getUniqueID() const;
  std::string getName() const;

  bool isOnline() const;
  void setOnline(bool online);
  // Online, with no missed poll.
  void markSeen();
  // Counts a poll without an answer; the number since the device was last seen.
  unsigned noteMissedPoll();
  unsigned getMissedPolls() const;

  // The place it belongs to and the client it sends with. Both outlive the device or are replaced
  // by null when its connection point gives the device up.
  void attach(ConnectionPoint* connectionPoint, IPellInternalClient* sender);

 protected:
  ConnectionPoint* connectionPoint() const;
  IPellInternalClient* sender() const;

 private:
  mutable Mutex mutex_;
  DeviceConnectionDetails details_ VALTOR_GUARDED_BY(mutex_);
  bool online_ VALTOR_GUARDED_BY(mutex_) = false;
  unsigned missedPolls_ VALTOR_GUARDED_BY(mutex_) = 0;
  ConnectionPoint* connectionPoint_ VALTOR_GUARDED_BY(mutex_) = nullptr;
  IPellInternalClient* sender_ VALTOR_GUARDED_BY(mutex_) = nullptr;
};

}  // namespace valtor
