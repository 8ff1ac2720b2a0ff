#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/util/Mutex.h"
#include "bus/IPellInternalClient.h"
#include "bus/message/PellInternalMessage.h"
#include "connections/AbstractDeviceConnection.h"
#include "connections/phy/ConnectionPointPhy.h"
#include "connections/phy/IPPhy.h"
#include "data/AbstractJSONBackedData.h"

namespace valtor {

class AbstractConnectionPointManager;

// One place through which the system reaches an outside party: a device or a router on a line or an
// endpoint, or a client that connected to one of the system's TCP servers (a server connection
// point). It owns its phys and its device connections. A "NOT" on "device" announces that its
// connection came up or went down and that it was removed, and the same of its devices; a changed
// description by itself is not announced. Its manager owns it; callers copy the pointer for the
// length of a call. Sender and manager outlive it.
//
// Any thread may call it, except that loading, update() and setEnabled() are the business of one
// thread at a time. Its locks, outermost first: notification lock, device lock, description lock.
// It never takes its manager's lock. Failures of a load are logged as warnings.
class ConnectionPoint : public AbstractJSONBackedData {
 public:
  ConnectionPoint(std::string type, IPellInternalClient& sender,
                  AbstractConnectionPointManager& manager);
  // Leaves a line in the console trace. Announces nothing and disconnects nothing.
  ~ConnectionPoint() override;
  ConnectionPoint(const ConnectionPoint&) = delete;
  ConnectionPoint& operator=(const ConnectionPoint&) = delete;

  // Takes over "type", "phy" (at least one valid element), "name", "uniqueID" and, where present,
  // "enabled". 0, or -1 with a warning; what was taken over before stays, so the caller discards
  // the object. Called once, on a fresh object.
  int loadFromJSON(const cJSON* item) override;
  // {"type", "name", "uniqueID", "phy", "enabled", "connected", "showInUI"}
  JSONPtr toJSON() const override;

  virtual std::string getName() const;
  virtual void setName(const std::string& name);
  virtual std::string getType() const;

  // Takes over a freshly loaded description of the same connection point, "enabled" included, which
  // loses its phys and its unique ID; whatever a description gains must be taken over here. When
  // the phys differ, disconnects first; blocks as long as disconnect() does. Announces nothing
  // itself. The caller holds none of this object's locks.
  virtual void update(ConnectionPoint& from);

  // Takes the new state. On a change, every device connection follows and both are announced, with
  // the state that holds when the announcement is made, so that the last word on the bus is true
  // even when two threads report at once. When that fails and throws, the next call announces
  // again, also without a change.
  virtual void setConnected(bool connected);
  virtual bool isConnected() const;

  // Starts connecting. 0 when there is nothing to connect, else 1. Must tolerate being called
  // again. The base has nothing to connect.
  virtual int connect();
  // Ends the connection; the base only sets the state. Never called with one of this object's locks
  // held, for a subclass waits here for threads that report to it.
  virtual void disconnect();
  // The same, with the reason for logs and figures: a constant text. When it fails, or its
  // announcement did, the manager that catches up calls it again while this is not enabled.
  void disconnectBecause(const char* reason);
  // Whether that has still to be done.
  bool isEnding() const { return ending_; }

  // A new array of every device connection's toJSON(), in the order of their unique IDs.
  virtual JSONPtr deviceConnectionsToJSON() const;
  // Appends every device connection's toStatusJSON(gone); the number appended.
  virtual int addDeviceConnectionsTo(cJSON* array, bool gone) const;

  // A new device connection for a description, or none. Not yet part of this connection point.
  virtual std::unique_ptr<AbstractDeviceConnection> createDeviceConnection(
      const DeviceConnectionDetails& details) = 0;
  // Takes the device connection in, in place of one with the same unique ID, subscribes the sender
  // to its path and marks it seen; announces it when asked. Null is ignored.
  virtual void addDeviceConnection(
      const std::shared_ptr<AbstractDeviceConnection>& deviceConnection, bool notify);
  // Gives the device connection up and announces that; whether there was one.
  virtual bool removeDeviceConnection(const std::string& uniqueID);
  // Hands the "param" of a "SET" to the device connection; whether there was one to take it.
  virtual bool handleDeviceParam(const std::string& uniqueID, const PellInternalMessage& message);

  // Announces that this connection point is gone.
  virtual void notifyDeleted();
  // Announces this connection point as it is now, unless it has no unique ID. The base does not
  // look at the argument; setConnected() passes true when the connection came up and still stands.
  virtual void notifyParam(bool connected);

  virtual bool showInUI() const;

  // Whether this is a client that connected to one of the system's servers: the first phy is a tcp
  // or udp phy whose far end is no server.
  bool isServerConnectionPoint() const;

  // Without effect unless the connection point is deletable.
  void markForDeletion(bool marked);
  bool isMarkedForDeletion() const;
  // Whether requests and reloads may remove it.
  bool isDeletable() const { return deletable_; }

  bool isEnabled() const { return enabled_; }
  void setEnabled(bool enabled);
  // When that was set to what it is now.
  std::chrono::system_clock::time_point enabledSince() const { return enabledSince_; }

  std::string getUniqueID() const;

  // A copy of the first phy when it is a tcp phy.
  std::optional<TCPPhy> firstTCPPhy() const;

  bool hasDeviceConnection(const std::string& uniqueID) const;
  // The unique IDs of the device connections, in order.
  std::vector<std::string> deviceConnectionIDs() const;
  // Announces every device connection as gone and destroys exactly those.
  void removeAllDeviceConnections();
  // Sets the online flag of every device connection and announces them.
  void setDevicesOnline(bool online);
  // Marks a device connection seen; announces it when asked.
  void notifyDeviceConnection(AbstractDeviceConnection& deviceConnection, bool notify);
  // Hands a new description to the device connection that it names. True when that was offline and
  // is now announced as online; false when it was online, or there is none.
  bool updateDeviceConnection(const DeviceConnectionDetails& details);

  // Forgets every phy.
  void clearPhys();

  // From now on the number is one higher whenever this connection point is connected and stands for
  // a client of our servers. It ends with another call, at the latest with null before the number
  // goes.
  void countIn(std::atomic<unsigned>* number);

 protected:
  IPellInternalClient& sender() const { return sender_; }
  AbstractConnectionPointManager& manager() const { return manager_; }
  // Why disconnect() was called last.
  const char* endReason() const { return endReason_; }
  // Whether an announcement of the state failed.
  bool isUnannounced() const { return unannounced_; }
  // Set by a subclass while it is built.
  void setDeletable(bool deletable) { deletable_ = deletable; }

 private:
  using Phys = std::vector<std::unique_ptr<ConnectionPointPhy>>;
  using DevicePtr = std::shared_ptr<AbstractDeviceConnection>;
  // By unique ID.
  using DeviceConnections = std::map<std::string, DevicePtr>;

  // What a description loses to the connection point that takes it over.
  struct Identity {
    Phys phys;
    std::string uniqueID;
  };

  int loadPhys(const cJSON* item) VALTOR_REQUIRES(descriptionLock_);
  Identity takeIdentity();
  bool hasEqualPhys(const Phys& phys) const;
  bool hasServerPhy() const VALTOR_REQUIRES(descriptionLock_);
  // After every change of what countIn() looks at.
  void recount() VALTOR_REQUIRES(descriptionLock_);
  DevicePtr findDeviceConnection(const std::string& uniqueID) const;
  // Renders a device connection as gone and cuts it off from this object.
  static JSONPtr renderGone(AbstractDeviceConnection& deviceConnection);
  static void logOffline(const AbstractDeviceConnection& deviceConnection);

  void applyOnline(bool online) VALTOR_REQUIRES(notificationLock_);
  void announceSeen(AbstractDeviceConnection& deviceConnection, bool notify)
      VALTOR_REQUIRES(notificationLock_);
  // Sends {key: {objectName: array}}; an empty array of device connections is not sent.
  void sendDeviceConnections(const char* key, JSONPtr array) VALTOR_REQUIRES(notificationLock_);
  void sendSelf(const char* key) VALTOR_REQUIRES(notificationLock_);
  void sendNotification(const char* key, const char* objectName, JSONPtr array)
      VALTOR_REQUIRES(notificationLock_);

  IPellInternalClient& sender_;
  AbstractConnectionPointManager& manager_;

  std::atomic<bool> enabled_{true};
  std::atomic<std::chrono::system_clock::time_point> enabledSince_{
      std::chrono::system_clock::now()};
  std::atomic<bool> connected_{false};
  std::atomic<bool> unannounced_{false};
  std::atomic<bool> ending_{false};
  std::atomic<const char*> endReason_{"disabled"};
  std::atomic<bool> markedForDeletion_{false};
  std::atomic<bool> deletable_{false};

  // Held from the rendering of an announcement until it is sent, so that announcements go out in
  // the order of what they say. Never held across disconnect().
  mutable Mutex notificationLock_;
  mutable PosixMutex deviceLock_;
  DeviceConnections deviceConnections_ VALTOR_GUARDED_BY(deviceLock_);

  mutable Mutex descriptionLock_;
  // In the order of the description; the first decides isServerConnectionPoint().
  Phys phys_ VALTOR_GUARDED_BY(descriptionLock_);
  std::string uniqueID_ VALTOR_GUARDED_BY(descriptionLock_);
  std::string type_ VALTOR_GUARDED_BY(descriptionLock_);
  std::string name_ VALTOR_GUARDED_BY(descriptionLock_);
  std::atomic<unsigned>* number_ VALTOR_GUARDED_BY(descriptionLock_) = nullptr;
  bool counted_ VALTOR_GUARDED_BY(descriptionLock_) = false;  // in number_
};

}  // namespace valtor
