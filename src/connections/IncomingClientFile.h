#pragma once

#include <atomic>
#include <functional>
#include <string>

#include "app/util/Mutex.h"
#include "app/util/OwnedJSON.h"

namespace valtor {

// The file in which a manager lists the clients that connected to the system's servers, for other
// programs of the controller. Its lock is the file lock: a list is rendered and written under it,
// so that of two writers the one with the newer list is last, and a slow disk holds up nobody who
// only needs the set. Any thread may write.
class IncomingClientFile {
 public:
  // Of the manager with that name, which serves that type. The first one of the process prepares
  // the folder.
  IncomingClientFile(const std::string& managerName, std::string type);

  // Writes what render answers: an array of connection points, or none. Without any the file stays
  // as it is, unless forced, or the last write was and failed. render may take the manager lock. A
  // failure is logged and kept in mind.
  void write(const std::function<JSONPtr()>& render, bool force);
  // Whether the last write failed.
  bool isUnsaved() const { return unsaved_; }

  // Makes the folder (its path ends with "/") and opens it to everyone: programs of whatever user
  // exchange files there. What is a link, no folder, or belongs neither to root nor to this
  // process's user stays as it is. Every failure is logged; false for one that may pass.
  static bool prepareFolder(const std::string& directory);

 private:
  const std::string path_;
  const std::string type_;
  Mutex lock_;
  std::atomic<bool> unsaved_{false};              // written under the lock
  bool forced_ VALTOR_GUARDED_BY(lock_) = false;  // what failed
};

}  // namespace valtor
