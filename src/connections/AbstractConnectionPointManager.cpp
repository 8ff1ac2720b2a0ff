#include "connections/AbstractConnectionPointManager.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <syslog.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/Files.h"
#include "app/util/Paths.h"
#include "connections/IncomingClientDirectory.h"

namespace valtor {

namespace {

void prepareIncomingClientDirectoryOnce() {
  static std::once_flag once;
  std::call_once(once, [] { prepareIncomingClientDirectory(paths().incomingClientDirectory); });
}

}  // namespace

AbstractConnectionPointManager::AbstractConnectionPointManager(const std::string& name,
                                                               std::string type)
    : AbstractJSONTopLevelContainer(name + "ConnectionPointMgr", &paths().containerDirectory),
      name_(name),
      type_(std::move(type)) {
  prepareIncomingClientDirectoryOnce();
}

AbstractConnectionPointManager::~AbstractConnectionPointManager() { stopCleanupThread(); }

void AbstractConnectionPointManager::addPhy(std::unique_ptr<ConnectionPointPhy> phy) {
  phys_.push_back(std::move(phy));
}

void AbstractConnectionPointManager::addSubtype(std::string subtype) {
  subtypes_.push_back(std::move(subtype));
}

bool AbstractConnectionPointManager::isTypeSupported(const std::string& type) const {
  return type == type_ || std::find(subtypes_.begin(), subtypes_.end(), type) != subtypes_.end();
}

// --- Reading the set -----------------------------------------------------------------------------

JSONPtr AbstractConnectionPointManager::toJSON() const {
  JSONPtr object(cJSON_CreateObject());
  cJSON_AddStringToObject(object.get(), "type", type_.c_str());
  if (!subtypes_.empty()) {
    JSONPtr subtypes(cJSON_CreateArray());
    for (const std::string& subtype : subtypes_) {
      addElement(subtypes.get(), JSONPtr(cJSON_CreateString(subtype.c_str())));
    }
    addMember(object.get(), "subtype", std::move(subtypes));
  }
  JSONPtr phys(cJSON_CreateArray());
  for (const auto& phy : phys_) {
    addElement(phys.get(), phy->toJSON());
  }
  addMember(object.get(), "phy", std::move(phys));
  return object;
}

JSONPtr AbstractConnectionPointManager::renderSet(bool servers) const {
  JSONPtr array(cJSON_CreateArray());
  const Locked lock(lock_);
  for (const auto& entry : connectionPoints_) {
    if (entry.second->isServerConnectionPoint() == servers) {
      addElement(array.get(), entry.second->toJSON());
    }
  }
  return array;
}

JSONPtr AbstractConnectionPointManager::getServerConnectionPointsJSON() const {
  JSONPtr array = renderSet(true);
  return array && array->child != nullptr ? std::move(array) : nullptr;
}

JSONPtr AbstractConnectionPointManager::getClientConnectionPointsJSON() const {
  return renderSet(false);
}

JSONPtr AbstractConnectionPointManager::getDeviceConnectionsJSON(bool gone) const {
  JSONPtr array(cJSON_CreateArray());
  const Locked lock(lock_);
  for (const auto& entry : connectionPoints_) {
    entry.second->addDeviceConnectionsTo(array.get(), gone);
  }
  return array;
}

std::shared_ptr<ConnectionPoint> AbstractConnectionPointManager::findConnectionPoint(
    const std::string& uniqueID) const {
  const Locked lock(lock_);
  const auto found = connectionPoints_.find(uniqueID);
  return found != connectionPoints_.end() ? found->second : nullptr;
}

unsigned AbstractConnectionPointManager::countConnectedServerConnectionPoints() const {
  unsigned count = 0;
  const Locked lock(lock_);
  for (const auto& entry : connectionPoints_) {
    if (entry.second->isConnected() && entry.second->isServerConnectionPoint()) {
      ++count;
    }
  }
  return count;
}

// --- Adding and merging --------------------------------------------------------------------------

std::unique_ptr<ConnectionPoint> AbstractConnectionPointManager::createConnectionPoint(
    const cJSON* /*item*/) {
  return nullptr;
}

void AbstractConnectionPointManager::addConnectionPoint(
    std::unique_ptr<ConnectionPoint> connectionPoint) {
  add(std::move(connectionPoint));
  writeIncomingClientConnections(false);
}

void AbstractConnectionPointManager::add(std::unique_ptr<ConnectionPoint> connectionPoint) {
  if (isTypeSupported(connectionPoint->getType())) {
    if (countConnectedServerConnectionPoints() < maxConnectionPoints_) {
      store(std::move(connectionPoint));
    } else {
      refuse(std::move(connectionPoint));
    }
  }
}

void AbstractConnectionPointManager::store(
    const std::shared_ptr<ConnectionPoint>& connectionPoint) {
  const std::string uniqueID = connectionPoint->getUniqueID();
  std::shared_ptr<ConnectionPoint> replaced;
  bool stored = false;
  {
    const Locked lock(lock_);
    stored = connectionPoints_.size() < kMaxStored || connectionPoints_.count(uniqueID) > 0;
    if (stored) {
      replaced = std::exchange(connectionPoints_[uniqueID], connectionPoint);
    }
  }
  if (!stored) {
    syslog(LOG_WARNING, "ConnectionPoint %s refused, %zu are stored already.\n",
           nameForLog(uniqueID).c_str(), kMaxStored);
    return;
  }
  // Before its successor connects: what both would use must be free by then.
  replaced.reset();
  if (connectionPoint->isEnabled()) {
    connectionPoint->connect();
  }
  ensureCleanupThread();
}

void AbstractConnectionPointManager::refuse(std::unique_ptr<ConnectionPoint> connectionPoint) {
  const std::string uniqueID = connectionPoint->getUniqueID();
  syslog(LOG_INFO, "Add ConnectionPoint %s refused, Too Many.\n", nameForLog(uniqueID).c_str());
  std::printf("Add ConnectionPoint %s refused, Too Many.\n", uniqueID.c_str());
  connectionPoint->disconnect();
}

std::shared_ptr<ConnectionPoint> AbstractConnectionPointManager::findAndUnmark(
    const std::string& uniqueID) {
  const Locked lock(lock_);
  const auto found = connectionPoints_.find(uniqueID);
  if (found == connectionPoints_.end()) {
    return nullptr;
  }
  found->second->markForDeletion(false);
  return found->second;
}

std::shared_ptr<ConnectionPoint> AbstractConnectionPointManager::addOrUpdateConnectionPoint(
    std::unique_ptr<ConnectionPoint> connectionPoint) {
  if (!isTypeSupported(connectionPoint->getType())) {
    return nullptr;
  }
  std::shared_ptr<ConnectionPoint> existing = merge(std::move(connectionPoint));
  if (!existing) {
    writeIncomingClientConnections(false);
  }
  return existing;
}

std::shared_ptr<ConnectionPoint> AbstractConnectionPointManager::merge(
    std::unique_ptr<ConnectionPoint> connectionPoint) {
  // Found and unmarked in one step: between two the cleanup thread could purge it.
  std::shared_ptr<ConnectionPoint> existing = findAndUnmark(connectionPoint->getUniqueID());
  if (!existing) {
    connectionPoint->markForDeletion(false);
    add(std::move(connectionPoint));
    return nullptr;
  }
  existing->update(*connectionPoint);
  if (!existing->isEnabled()) {
    existing->removeAllDeviceConnections();
    existing->disconnect();
  } else if (!existing->isConnected()) {
    existing->connect();
  }
  return existing;
}

void AbstractConnectionPointManager::addConnectionPoints(ConnectionPointList connectionPoints) {
  bool added = false;
  for (auto& connectionPoint : connectionPoints) {
    added = merge(std::move(connectionPoint)) == nullptr || added;
  }
  // Once for all: a list may be long, and the file holds the whole set.
  if (added) {
    writeIncomingClientConnections(false);
  }
}

void AbstractConnectionPointManager::mergeConnectionPoints(const cJSON* array) {
  bool added = false;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, array) {
    std::unique_ptr<ConnectionPoint> connectionPoint = createSupported(element);
    if (connectionPoint) {
      added = merge(std::move(connectionPoint)) == nullptr || added;
    }
  }
  if (added) {
    writeIncomingClientConnections(false);
  }
}

std::unique_ptr<ConnectionPoint> AbstractConnectionPointManager::createSupported(
    const cJSON* item) {
  const char* type = stringMember(item, "type");
  return type != nullptr && isTypeSupported(type) ? createConnectionPoint(item) : nullptr;
}

AbstractConnectionPointManager::ConnectionPointList loadConnectionPointsFromFile(
    AbstractConnectionPointManager& manager, const std::string& path) {
  AbstractConnectionPointManager::ConnectionPointList loaded;
  try {
    const JSONPtr document(cJSON_Parse(readTextFile(path, false).c_str()));
    if (!document) {
      throw std::runtime_error("not JSON: " + path);
    }
    if (cJSON_IsObject(document.get()) == 0) {
      throw std::runtime_error("not a JSON object: " + path);
    }
    const cJSON* described = arrayMember(document.get(), "connectionPoint");
    if (described == nullptr) {
      throw std::runtime_error("no array \"connectionPoint\": " + path);
    }
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, described) {
      std::unique_ptr<ConnectionPoint> connectionPoint = manager.createSupported(element);
      if (connectionPoint) {
        loaded.push_back(std::move(connectionPoint));
      }
    }
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "Error loading DB connectionPoints: %s\n", error.what());
    loaded.clear();
  }
  return loaded;
}

// --- Reloading and removing ----------------------------------------------------------------------

int AbstractConnectionPointManager::loadFromJSON(const cJSON* item) {
  if (item == nullptr) {
    return 0;
  }
  reset();
  const cJSON* described = arrayMember(item, "connectionPoint");
  if (described == nullptr) {
    return 0;
  }
  markClientsForDeletion(true);
  mergeConnectionPoints(described);
  sweepMarked();
  return 0;
}

void AbstractConnectionPointManager::markClientsForDeletion(bool marked) {
  const Locked lock(lock_);
  for (const auto& entry : connectionPoints_) {
    if (!entry.second->isServerConnectionPoint()) {
      entry.second->markForDeletion(marked);
    }
  }
}

void AbstractConnectionPointManager::sweepMarked() {
  std::vector<std::shared_ptr<ConnectionPoint>> swept;  // outlives the lock
  const Locked lock(lock_);
  for (const auto& entry : connectionPoints_) {
    if (entry.second->isMarkedForDeletion()) {
      entry.second->disconnect();
      swept.push_back(entry.second);
    }
  }
  for (const auto& connectionPoint : swept) {
    std::printf("%s erasing connectionPoint: %s\n",
                "virtual int AbstractConnectionPointManager::loadFromJSON(cJSON*)",
                connectionPoint->getUniqueID().c_str());
    removeConnectionPoint(connectionPoint);
  }
}

void AbstractConnectionPointManager::removeConnectionPoint(
    const std::shared_ptr<ConnectionPoint>& connectionPoint) {
  connectionPoint->disconnect();
  connectionPoint->removeAllDeviceConnections();
  connectionPoint->notifyDeleted();
  const auto found = connectionPoints_.find(connectionPoint->getUniqueID());
  if (found == connectionPoints_.end() || found->second != connectionPoint) {
    return;
  }
  syslog(LOG_INFO,
         "AbstractConnectionPointManager removeConnectionPoint %s, connections.size=%zu\n",
         nameForLog(connectionPoint->getUniqueID()).c_str(), connectionPoints_.size());
  connectionPoints_.erase(found);
}

// --- Clients that connected to us ----------------------------------------------------------------

void AbstractConnectionPointManager::ensureCleanupThread() {
  if (cleanupThread_) {
    return;
  }
  auto thread = std::make_unique<ConnectionPointCleanupThread>(*this, cleanupInterval_);
  // A refused thread is logged; the next addition tries again.
  if (thread->start()) {
    cleanupThread_ = std::move(thread);
  }
}

void AbstractConnectionPointManager::stopCleanupThread() {
  if (!cleanupThread_) {
    return;
  }
  cleanupThread_->end();
  cleanupThread_->join();
  cleanupThread_.reset();
}

void AbstractConnectionPointManager::purgeMarkedClients() {
  std::fflush(stdout);
  const int status = lock_.tryLock();
  if (status != 0) {
    const int failures = ++lockFailures_;
    std::printf("CANT ACQUIRE LOCK = attempt %d (rv=%d)! %s\n", failures, status,
                errnoText(status).c_str());
    return;
  }
  std::vector<std::shared_ptr<ConnectionPoint>> removed;
  {
    const Locked lock(lock_, std::adopt_lock);
    removed = removeMarkedClients();
    lockFailures_ = 0;
  }
  if (removed.empty()) {
    return;
  }
  removed.clear();
  writeIncomingClientConnections(true);
}

std::vector<std::shared_ptr<ConnectionPoint>>
AbstractConnectionPointManager::removeMarkedClients() {
  std::vector<std::shared_ptr<ConnectionPoint>> marked;
  for (const auto& entry : connectionPoints_) {
    const ConnectionPoint& connectionPoint = *entry.second;
    if (!connectionPoint.isConnected() && connectionPoint.isMarkedForDeletion() &&
        connectionPoint.isServerConnectionPoint()) {
      std::printf("Found client marked for deletion: %s\n", connectionPoint.getUniqueID().c_str());
      marked.push_back(entry.second);
    }
  }
  for (const auto& connectionPoint : marked) {
    removeConnectionPoint(connectionPoint);
  }
  return marked;
}

void AbstractConnectionPointManager::writeIncomingClientConnections(bool force) {
  // Rendered under the file lock too, so that of two writers the one with the newer list is last.
  const Locked lock(fileLock_);
  JSONPtr clients = getServerConnectionPointsJSON();
  if (!clients && !force) {
    return;
  }
  JSONPtr object(cJSON_CreateObject());
  addMember(object.get(), "serverConnectionPoint",
            clients ? std::move(clients) : JSONPtr(cJSON_CreateArray()));
  cJSON_AddStringToObject(object.get(), "type", type_.c_str());
  try {
    saveTextFile(paths().incomingClientDirectory + name_ + "IncomingClientConnections.json",
                 printJSON(object.get(), false));
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "The list of incoming %s clients is not on disk until its next change: %s\n",
           type_.c_str(), error.what());
  }
}

void AbstractConnectionPointManager::saveDescription() {
  const Locked lock(fileLock_);
  save(false);
}

}  // namespace valtor
