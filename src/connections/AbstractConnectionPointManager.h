#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/util/Mutex.h"
#include "bus/IPellaInternalProtocolHandler.h"
#include "connections/AnswerRoom.h"
#include "connections/ConnectionPoint.h"
#include "connections/ConnectionPointCleanupThread.h"
#include "connections/ConnectionPointSet.h"
#include "connections/IncomingClientFile.h"
#include "connections/phy/ConnectionPointPhy.h"
#include "data/AbstractJSONTopLevelContainer.h"

namespace valtor {

// The set of connection points of one type, kept by unique ID: it creates, merges, connects and
// removes them, answers the requests on "device", keeps its own description in its container file
// and the list of incoming clients in a file of its own. It owns its connection points; callers
// copy the pointer for the length of a call. "Client" has two senses in the names:
// getClientConnectionPointsJSON() and markClientsForDeletion() are about the connection points to
// which the system connects, all else about clients that connected to it, the server connection
// points.
//
// Requests, reloads and additions are the business of one thread at a time (start-up, later the
// bus's message-queue thread); everything else may be called from any thread. The cleanup thread,
// started by the first addition, purges beside them.
//
// Every most-derived manager calls stopCleanupThread() first thing in its own destructor: a purge
// calls virtual operations.
class AbstractConnectionPointManager : public AbstractJSONTopLevelContainer,
                                       public IPellaInternalProtocolHandler {
 public:
  using ConnectionPointList = std::vector<std::unique_ptr<ConnectionPoint>>;

  // The name stands in the file names, the type is the connection point type that it serves. The
  // first manager of the process prepares the folder of the incoming-client files.
  AbstractConnectionPointManager(const std::string& name, std::string type);
  ~AbstractConnectionPointManager() override;
  AbstractConnectionPointManager(const AbstractConnectionPointManager&) = delete;
  AbstractConnectionPointManager& operator=(const AbstractConnectionPointManager&) = delete;

  // Reloads the set from the member "connectionPoint", an array: connection points that it lists
  // are added or updated, deletable clients that it no longer lists are removed. Without that
  // member, or with null, the set stays. Always 0.
  int loadFromJSON(const cJSON* item) override;
  // The manager's own description, without its connection points: {"type", "subtype", "phy"}.
  JSONPtr toJSON() const override;

  // Whether this manager serves connection points of that type.
  virtual bool isTypeSupported(const std::string& type) const;

  // A new array of the server connection points' objects; none when there are no such.
  virtual JSONPtr getServerConnectionPointsJSON() const;
  // A new array, possibly empty, of the other connection points' objects.
  virtual JSONPtr getClientConnectionPointsJSON() const;
  // A new array of every device connection's status object.
  virtual JSONPtr getDeviceConnectionsJSON(bool gone) const;

  // The connection point of that unique ID, or null.
  virtual std::shared_ptr<ConnectionPoint> findConnectionPoint(const std::string& uniqueID) const;

  // Stores the connection point, in place of one with its unique ID, and connects it when it is
  // enabled. It is discarded when its type is not served, and refused with a log line while too
  // many clients are connected or too much is stored.
  virtual void addConnectionPoint(std::unique_ptr<ConnectionPoint> connectionPoint);
  // Merges the description into the stored connection point of its unique ID, which then connects
  // or disconnects as the description says and is returned; adds it when there is none.
  virtual std::shared_ptr<ConnectionPoint> addOrUpdateConnectionPoint(
      std::unique_ptr<ConnectionPoint> connectionPoint);
  // The same for each, in order; what finds no room is reported once, as a number.
  void addConnectionPoints(ConnectionPointList connectionPoints);
  virtual bool startConnectionPoints() = 0;

  // A new connection point for a description, or none. The base makes none.
  virtual std::unique_ptr<ConnectionPoint> createConnectionPoint(const cJSON* item);
  // The same for a description with a type that this manager serves; none for any other.
  std::unique_ptr<ConnectionPoint> createSupported(const cJSON* item);

  // Takes the requests whose path begins with "device".
  bool handleMessage(const PellInternalMessage& message, ResponseList& responses) override;

  // A connection point that should be connected may not even be trying, since memory or threads
  // were lacking. For whoever connects: a client looks after it has called a handler.
  void noteBehind() { behind_ = true; }
  bool isBehind() const override { return behind_; }
  // Connects every enabled connection point that is not, up to the first that cannot even try; one
  // that is trying goes on.
  void catchUp() override;

  // The number of clients of the system's servers that are connected.
  unsigned countConnectedServerConnectionPoints() const { return set_.connectedServers(); }

  // Marks every connection point that is not a server connection point, as far as it lets itself
  // be marked.
  void markClientsForDeletion(bool marked);

  // Writes the list of server connection points to the incoming-client file. Without any the file
  // stays as it is, unless forced. A failure is logged, and writeAgain() tries again.
  void writeIncomingClientConnections(bool force);
  // Saves the manager's description; a failure is logged, and writeAgain() tries again. Any thread.
  void saveList();
  // Writes what could not be written: the first few times that it is called, then less often. Run
  // by the cleanup thread.
  void writeAgain();
  // How many of these two files could not be written and hold less than the manager. Any thread.
  unsigned unsavedFiles() const {
    return (unsaved_ ? 1U : 0U) + (incomingClientFile_.isUnsaved() ? 1U : 0U);
  }

  // One purge: removes the server connection points that are marked and not connected. Gives up
  // with a console line when the manager lock is taken. Run by the cleanup thread.
  void purgeMarkedClients();

  // How long the cleanup thread waits between two purges; heeded by a thread that is not yet
  // started.
  void setCleanupInterval(std::chrono::milliseconds interval) { cleanupInterval_ = interval; }

  const std::string& getManagerName() const { return name_; }
  const std::string& getManagerType() const { return type_; }

 protected:
  virtual bool handleGET(const PellInternalMessage& message, ResponseList& responses);
  virtual bool handleSET(const PellInternalMessage& message, ResponseList& responses);
  virtual bool handleDEL(const PellInternalMessage& message, ResponseList& responses);
  virtual bool handleUPDATE(const PellInternalMessage& message, ResponseList& responses);

  // Ends and joins the cleanup thread. May be called again. The caller holds no lock of this
  // manager and none that a connection point's end waits for.
  void stopCleanupThread();

  // For subclasses, while they are built.
  void addPhy(std::unique_ptr<ConnectionPointPhy> phy);
  void addSubtype(std::string subtype);

  // The path's second element: the device that a request is addressed to, which may be empty. None
  // when the path has one element only.
  static std::optional<std::string> addressedDevice(const PellInternalMessage& message);
  // The text of a string item; "" for any other.
  static std::string_view textOf(const cJSON* item);
  // Appends an answer with the status 200 and {name: value} as its "param".
  void answer(ResponseList& responses, const PellInternalMessage& message, const char* name,
              JSONPtr value);
  // False, with a warning, when the request has got as much as one request may.
  bool hasRoomForAnswer(const PellInternalMessage& message) { return answerRoom_.isLeft(message); }
  // Offers the message to every connection point; whether any took it.
  bool offerDeviceParam(const std::string& uniqueID, const PellInternalMessage& message);

  const ConnectionPointSet& connectionPoints() const { return set_; }

 private:
  bool handleRequest(const PellInternalMessage& message, ResponseList& responses);
  // The device connections by unique ID, made at the first name of a request that needs it.
  class DeviceIndex;

  // How a "DEL" reads a name that does not say itself what it is the name of.
  enum class DeleteMode { None, ConnectionPoint, DeviceConnection };

  JSONPtr renderSet(bool servers) const;
  // The manager's object with its server connection points, in an array.
  JSONPtr describeWithServers() const;

  // What a run of additions leaves to be done at its end, once for all: a list may be long, and the
  // file holds the whole set.
  struct Additions {
    bool any = false;
    std::size_t withoutRoom = 0;
  };

  // addConnectionPoint() and addOrUpdateConnectionPoint() without what finish() does.
  void add(std::unique_ptr<ConnectionPoint> connectionPoint, Additions& additions);
  std::shared_ptr<ConnectionPoint> merge(std::unique_ptr<ConnectionPoint> connectionPoint,
                                         Additions& additions);
  void finish(const Additions& additions);
  // Whether it was stored.
  bool store(const std::shared_ptr<ConnectionPoint>& connectionPoint);
  static void refuse(std::unique_ptr<ConnectionPoint> connectionPoint);
  bool isSupported(const cJSON* item) const;
  void mergeConnectionPoints(const cJSON* array);
  void ensureCleanupThread();
  // saveList(), and a cleanup thread for what could not be written, which there is not before the
  // first connection point.
  void saveChange();
  bool handleDeviceConnections(const PellInternalMessage& message, ResponseList& responses,
                               bool notifyNew);
  bool applyDeviceConnections(const cJSON* array, bool notifyNew);
  bool deleteElement(std::string_view element, DeleteMode& mode, DeviceIndex& devices);
  bool deleteConnectionPoint(std::string_view uniqueID);

  const std::string name_;
  const std::string type_;
  // These two do not change once the object is built.
  std::vector<std::string> subtypes_;
  std::vector<std::unique_ptr<ConnectionPointPhy>> phys_;

  ConnectionPointSet set_;
  IncomingClientFile incomingClientFile_;
  AnswerRoom answerRoom_;  // of the request that is being handled
  std::chrono::milliseconds cleanupInterval_ = ConnectionPointCleanupThread::kPollTimeout;
  std::atomic<bool> behind_{false};
  std::atomic<bool> unsaved_{false};  // the manager's description
  Mutex saveLock_;
  unsigned refusals_ = 0;  // calls of writeAgain() with something to write, in a row
  // Touched only by whoever adds connection points and by the destructors.
  std::unique_ptr<ConnectionPointCleanupThread> cleanupThread_;
};

// The tree of a database file's text, without its line feeds, whose object has an array
// "connectionPoint". Throws std::runtime_error with the reason and the path when it is none.
JSONPtr parseConnectionPointFile(const std::string& text, const std::string& path);

// The connection points that a database file describes and the manager serves, in the order of the
// file. A file that cannot be read, is not JSON, not an object or holds no array "connectionPoint"
// is logged with the reason; the list is then empty. Throws nothing for a broken file, ReadFault or
// std::bad_alloc for one that may be good.
AbstractConnectionPointManager::ConnectionPointList loadConnectionPointsFromFile(
    AbstractConnectionPointManager& manager, const std::string& path);

}  // namespace valtor
