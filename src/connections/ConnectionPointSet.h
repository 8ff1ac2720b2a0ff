#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "app/util/Mutex.h"
#include "connections/ConnectionPoint.h"

namespace valtor {

// The connection points of one manager, by unique ID: what is stored, how much may be, how many
// connected clients of our servers are among it, and what happens to what is taken out. It owns
// them; callers copy the pointer for the length of a call. Any thread may call it.
//
// Its lock is the manager lock, which is not recursive: what a callback does must not come back
// here. What was taken out is handed to the caller, to be destroyed without the lock, since that
// may wait for threads.
class ConnectionPointSet {
 public:
  using Pointer = std::shared_ptr<ConnectionPoint>;
  using List = std::vector<Pointer>;

  // Far above any plant; keeps memory and time bounded whatever the bus describes.
  static constexpr std::size_t kMaxStored = 10000;
  // With so many connected clients of the system's servers nothing more is to be stored.
  static constexpr unsigned kMaxConnectedServers = 20;

  ConnectionPointSet() = default;
  ~ConnectionPointSet();
  ConnectionPointSet(const ConnectionPointSet&) = delete;
  ConnectionPointSet& operator=(const ConnectionPointSet&) = delete;

  Pointer find(const std::string& uniqueID) const;
  // Clears the mark for deletion of what it finds, in the same step: between two the cleanup thread
  // could take it.
  Pointer findAndUnmark(const std::string& uniqueID);
  std::size_t size() const;
  // Whether a connection point of that unique ID could be stored.
  bool hasRoomFor(const std::string& uniqueID) const;
  // The clients of the system's servers that are connected. Kept, not counted anew.
  unsigned connectedServers() const { return connectedServers_; }

  // Stores the connection point. What had its unique ID before is moved into replaced. False, with
  // nothing changed, when there is no room.
  bool store(const Pointer& connectionPoint, Pointer& replaced);

  // What is stored at this moment, for those who must not wait for the manager lock, which is held
  // while links are ended and announced. Who lets the last of the pointers go destroys.
  List snapshot() const;

  // Calls visit for each connection point, in the order of their unique IDs, under the lock.
  void forEach(const std::function<void(ConnectionPoint&)>& visit) const;
  // The same, and the pointers.
  List all() const;

  // Marks every connection point that is not a server connection point, as far as it lets itself
  // be marked.
  void markClients(bool marked);
  // Removes what is marked, whatever it is, and says so on the console.
  List removeMarked();
  // Removes the server connection points that are marked and not connected. Gives up with a console
  // line when the lock is taken.
  List purgeMarkedServers();
  // Removes the connection point of that unique ID if it is deletable; none when it is not.
  Pointer removeDeletable(const std::string& uniqueID);

 private:
  // Disconnects the connection point, announces it and its device connections as gone and takes it
  // out.
  void remove(const Pointer& connectionPoint) VALTOR_REQUIRES(lock_);
  List removeMarkedServers() VALTOR_REQUIRES(lock_);
  bool hasRoom(const std::string& uniqueID) const VALTOR_REQUIRES(lock_);

  mutable PosixMutex lock_;
  std::map<std::string, Pointer> stored_ VALTOR_GUARDED_BY(lock_);
  mutable Mutex listLock_;                                              // a leaf
  std::map<std::string, Pointer> listed_ VALTOR_GUARDED_BY(listLock_);  // the same as stored_
  std::atomic<unsigned> connectedServers_{0};  // kept by the connection points themselves
  std::atomic<int> lockFailures_{0};           // consecutive purges that found the lock taken
};

}  // namespace valtor
