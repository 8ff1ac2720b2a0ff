#include "connections/ConnectionPointSet.h"

#include <cstdio>
#include <mutex>
#include <syslog.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/LineBudget.h"

namespace valtor {

ConnectionPointSet::~ConnectionPointSet() {
  const Locked lock(lock_);
  for (const auto& entry : stored_) {
    entry.second->countIn(nullptr);
  }
}

ConnectionPointSet::Pointer ConnectionPointSet::find(const std::string& uniqueID) const {
  const Locked lock(lock_);
  const auto found = stored_.find(uniqueID);
  return found != stored_.end() ? found->second : nullptr;
}

ConnectionPointSet::Pointer ConnectionPointSet::findAndUnmark(const std::string& uniqueID) {
  const Locked lock(lock_);
  const auto found = stored_.find(uniqueID);
  if (found == stored_.end()) {
    return nullptr;
  }
  found->second->markForDeletion(false);
  return found->second;
}

bool ConnectionPointSet::hasRoom(const std::string& uniqueID) const {
  return stored_.size() < kMaxStored || stored_.count(uniqueID) > 0;
}

bool ConnectionPointSet::hasRoomFor(const std::string& uniqueID) const {
  const Locked lock(lock_);
  return hasRoom(uniqueID);
}

bool ConnectionPointSet::store(const Pointer& connectionPoint, Pointer& replaced) {
  const std::string uniqueID = connectionPoint->getUniqueID();
  const Locked lock(lock_);
  if (!hasRoom(uniqueID)) {
    return false;
  }
  const auto [place, isNew] = stored_.try_emplace(uniqueID);
  try {
    const Locked list(listLock_);
    listed_[uniqueID] = connectionPoint;
  } catch (...) {
    if (isNew) {
      stored_.erase(place);
    }
    throw;
  }
  replaced = std::exchange(place->second, connectionPoint);
  if (replaced) {
    replaced->countIn(nullptr);
  }
  connectionPoint->countIn(&connectedServers_);
  return true;
}

void ConnectionPointSet::forEach(const std::function<void(ConnectionPoint&)>& visit) const {
  const Locked lock(lock_);
  for (const auto& entry : stored_) {
    visit(*entry.second);
  }
}

std::size_t ConnectionPointSet::size() const {
  const Locked lock(lock_);
  return stored_.size();
}

ConnectionPointSet::List ConnectionPointSet::all() const {
  List list;
  const Locked lock(lock_);
  list.reserve(stored_.size());
  for (const auto& entry : stored_) {
    list.push_back(entry.second);
  }
  return list;
}

ConnectionPointSet::List ConnectionPointSet::snapshot() const {
  List list;
  const Locked lock(listLock_);
  list.reserve(listed_.size());
  for (const auto& entry : listed_) {
    list.push_back(entry.second);
  }
  return list;
}

// --- Taking out ----------------------------------------------------------------------------------

void ConnectionPointSet::markClients(bool marked) {
  const Locked lock(lock_);
  for (const auto& entry : stored_) {
    if (!entry.second->isServerConnectionPoint()) {
      entry.second->markForDeletion(marked);
    }
  }
}

ConnectionPointSet::List ConnectionPointSet::removeMarked() {
  List marked;
  const Locked lock(lock_);
  for (const auto& entry : stored_) {
    if (entry.second->isMarkedForDeletion()) {
      entry.second->disconnectBecause("removed");
      marked.push_back(entry.second);
    }
  }
  for (const Pointer& connectionPoint : marked) {
    if (LineBudget::spendTrace()) {
      std::printf("%s erasing connectionPoint: %s\n",
                  "virtual int AbstractConnectionPointManager::loadFromJSON(cJSON*)",
                  connectionPoint->getUniqueID().c_str());
    }
    remove(connectionPoint);
  }
  return marked;
}

ConnectionPointSet::List ConnectionPointSet::purgeMarkedServers() {
  const int status = lock_.tryLock();
  if (status != 0) {
    const int failures = ++lockFailures_;
    std::printf("CANT ACQUIRE LOCK = attempt %d (rv=%d)! %s\n", failures, status,
                errnoText(status).c_str());
    return {};
  }
  const Locked lock(lock_, std::adopt_lock);
  List removed = removeMarkedServers();
  lockFailures_ = 0;
  return removed;
}

ConnectionPointSet::List ConnectionPointSet::removeMarkedServers() {
  List marked;
  for (const auto& entry : stored_) {
    const ConnectionPoint& connectionPoint = *entry.second;
    if (!connectionPoint.isConnected() && connectionPoint.isMarkedForDeletion() &&
        connectionPoint.isServerConnectionPoint()) {
      std::printf("Found client marked for deletion: %s\n", connectionPoint.getUniqueID().c_str());
      marked.push_back(entry.second);
    }
  }
  for (const Pointer& connectionPoint : marked) {
    remove(connectionPoint);
  }
  return marked;
}

ConnectionPointSet::Pointer ConnectionPointSet::removeDeletable(const std::string& uniqueID) {
  const Locked lock(lock_);
  const auto found = stored_.find(uniqueID);
  if (found == stored_.end() || !found->second->isDeletable()) {
    return nullptr;
  }
  Pointer removed = found->second;
  remove(removed);
  return removed;
}

void ConnectionPointSet::remove(const Pointer& connectionPoint) {
  connectionPoint->disconnectBecause("removed");
  connectionPoint->removeAllDeviceConnections();
  connectionPoint->notifyDeleted();
  const auto found = stored_.find(connectionPoint->getUniqueID());
  if (found == stored_.end() || found->second != connectionPoint) {
    return;
  }
  if (LineBudget::spend()) {
    syslog(LOG_INFO,
           "AbstractConnectionPointManager removeConnectionPoint %s, connections.size=%zu\n",
           nameForLog(connectionPoint->getUniqueID()).c_str(), stored_.size());
  }
  connectionPoint->countIn(nullptr);
  {
    const Locked list(listLock_);
    listed_.erase(found->first);
  }
  stored_.erase(found);
}

}  // namespace valtor
