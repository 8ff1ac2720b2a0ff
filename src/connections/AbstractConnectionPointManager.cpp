#include "connections/AbstractConnectionPointManager.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <new>
#include <stdexcept>
#include <syslog.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/Files.h"
#include "app/util/LineBudget.h"
#include "app/util/Paths.h"

namespace valtor {

AbstractConnectionPointManager::AbstractConnectionPointManager(const std::string& name,
                                                               std::string type)
    : AbstractJSONTopLevelContainer(name + "ConnectionPointMgr", &paths().containerDirectory),
      name_(name),
      type_(std::move(type)),
      incomingClientFile_(name, type_) {}

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
  set_.forEach([&array, servers](const ConnectionPoint& connectionPoint) {
    if (connectionPoint.isServerConnectionPoint() == servers) {
      addElement(array.get(), connectionPoint.toJSON());
    }
  });
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
  set_.forEach([&array, gone](const ConnectionPoint& connectionPoint) {
    connectionPoint.addDeviceConnectionsTo(array.get(), gone);
  });
  return array;
}

std::shared_ptr<ConnectionPoint> AbstractConnectionPointManager::findConnectionPoint(
    const std::string& uniqueID) const {
  return set_.find(uniqueID);
}

// --- Adding and merging --------------------------------------------------------------------------

std::unique_ptr<ConnectionPoint> AbstractConnectionPointManager::createConnectionPoint(
    const cJSON* /*item*/) {
  return nullptr;
}

void AbstractConnectionPointManager::addConnectionPoint(
    std::unique_ptr<ConnectionPoint> connectionPoint) {
  Additions additions;
  add(std::move(connectionPoint), additions);
  finish(additions);
}

void AbstractConnectionPointManager::add(std::unique_ptr<ConnectionPoint> connectionPoint,
                                         Additions& additions) {
  additions.any = true;
  if (!isTypeSupported(connectionPoint->getType())) {
    return;
  }
  if (set_.connectedServers() >= ConnectionPointSet::kMaxConnectedServers) {
    refuse(std::move(connectionPoint));
  } else if (!store(std::move(connectionPoint))) {
    ++additions.withoutRoom;
  }
}

void AbstractConnectionPointManager::finish(const Additions& additions) {
  if (additions.withoutRoom > 0) {
    syslog(LOG_WARNING, "%zu ConnectionPoints refused, there is room for %zu.\n",
           additions.withoutRoom, ConnectionPointSet::kMaxStored);
  }
  if (additions.any) {
    writeIncomingClientConnections(false);
  }
}

bool AbstractConnectionPointManager::store(
    const std::shared_ptr<ConnectionPoint>& connectionPoint) {
  std::shared_ptr<ConnectionPoint> replaced;
  if (!set_.store(connectionPoint, replaced)) {
    return false;
  }
  // Before its successor connects: what both would use must be free by then.
  replaced.reset();
  if (connectionPoint->isEnabled()) {
    connectionPoint->connect();
  }
  ensureCleanupThread();
  return true;
}

void AbstractConnectionPointManager::refuse(std::unique_ptr<ConnectionPoint> connectionPoint) {
  const std::string uniqueID = connectionPoint->getUniqueID();
  if (LineBudget::spend()) {
    syslog(LOG_INFO, "Add ConnectionPoint %s refused, Too Many.\n", nameForLog(uniqueID).c_str());
  }
  if (LineBudget::spendTrace()) {
    std::printf("Add ConnectionPoint %s refused, Too Many.\n", uniqueID.c_str());
  }
  connectionPoint->disconnect();
}

std::shared_ptr<ConnectionPoint> AbstractConnectionPointManager::addOrUpdateConnectionPoint(
    std::unique_ptr<ConnectionPoint> connectionPoint) {
  Additions additions;
  std::shared_ptr<ConnectionPoint> existing = merge(std::move(connectionPoint), additions);
  finish(additions);
  return existing;
}

std::shared_ptr<ConnectionPoint> AbstractConnectionPointManager::merge(
    std::unique_ptr<ConnectionPoint> connectionPoint, Additions& additions) {
  if (!isTypeSupported(connectionPoint->getType())) {
    return nullptr;
  }
  std::shared_ptr<ConnectionPoint> existing = set_.findAndUnmark(connectionPoint->getUniqueID());
  if (!existing) {
    connectionPoint->markForDeletion(false);
    add(std::move(connectionPoint), additions);
    return nullptr;
  }
  existing->update(*connectionPoint);
  if (!existing->isEnabled()) {
    existing->removeAllDeviceConnections();
    existing->disconnectBecause("disabled");
  } else if (!existing->isConnected()) {
    existing->connect();
  }
  return existing;
}

void AbstractConnectionPointManager::addConnectionPoints(ConnectionPointList connectionPoints) {
  Additions additions;
  for (auto& connectionPoint : connectionPoints) {
    merge(std::move(connectionPoint), additions);
  }
  finish(additions);
}

// A frame holds hundreds of thousands of descriptions: what finds no room is not even loaded, and a
// list is heeded as far as it could be stored.
void AbstractConnectionPointManager::mergeConnectionPoints(const cJSON* array) {
  Additions additions;
  std::size_t heeded = 0;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, array) {
    if (!isSupported(element)) {
      continue;
    }
    const char* uniqueID = stringMember(element, "uniqueID");
    if (heeded == ConnectionPointSet::kMaxStored ||
        (uniqueID != nullptr && !set_.hasRoomFor(uniqueID))) {
      if (uniqueID != nullptr) {
        set_.findAndUnmark(uniqueID);  // listed, so it stays
      }
      ++additions.withoutRoom;
      continue;
    }
    ++heeded;
    if (std::unique_ptr<ConnectionPoint> described = createConnectionPoint(element)) {
      merge(std::move(described), additions);
    }
  }
  finish(additions);
}

bool AbstractConnectionPointManager::isSupported(const cJSON* item) const {
  const char* type = stringMember(item, "type");
  return type != nullptr && isTypeSupported(type);
}

std::unique_ptr<ConnectionPoint> AbstractConnectionPointManager::createSupported(
    const cJSON* item) {
  return isSupported(item) ? createConnectionPoint(item) : nullptr;
}

JSONPtr parseConnectionPointFile(const std::string& text, const std::string& path) {
  takeJSONFailure();
  JSONPtr document(cJSON_Parse(text.c_str()));
  if (!document) {
    requireWholeJSON();  // not the file's fault
    throw std::runtime_error("not JSON: " + path);
  }
  if (cJSON_IsObject(document.get()) == 0) {
    throw std::runtime_error("not a JSON object: " + path);
  }
  if (arrayMember(document.get(), "connectionPoint") == nullptr) {
    throw std::runtime_error("no array \"connectionPoint\": " + path);
  }
  return document;
}

AbstractConnectionPointManager::ConnectionPointList loadConnectionPointsFromFile(
    AbstractConnectionPointManager& manager, const std::string& path) {
  AbstractConnectionPointManager::ConnectionPointList loaded;
  try {
    const JSONPtr document = parseConnectionPointFile(readTextFile(path, false), path);
    const cJSON* described = arrayMember(document.get(), "connectionPoint");
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, described) {
      std::unique_ptr<ConnectionPoint> connectionPoint = manager.createSupported(element);
      if (connectionPoint) {
        loaded.push_back(std::move(connectionPoint));
      }
    }
  } catch (const std::bad_alloc&) {
    throw;  // the file may be good
  } catch (const ReadFault&) {
    throw;
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
  set_.removeMarked();
  return 0;
}

void AbstractConnectionPointManager::markClientsForDeletion(bool marked) {
  set_.markClients(marked);
}

void AbstractConnectionPointManager::catchUp() {
  behind_ = false;
  try {
    const ConnectionPointSet::List all = set_.all();
    if (!all.empty()) {
      ensureCleanupThread();
    }
    for (const auto& connectionPoint : all) {
      if (!connectionPoint->isEnabled() && connectionPoint->isEnding()) {
        connectionPoint->disconnectBecause("disabled");
      } else if (connectionPoint->isEnabled() && !connectionPoint->isConnected()) {
        connectionPoint->connect();
      }
      if (behind_) {
        return;  // what this one lacks, the others would lack, too
      }
    }
  } catch (...) {
    behind_ = true;
    throw;
  }
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
  if (!set_.purgeMarkedServers().empty()) {
    writeIncomingClientConnections(true);
  }
}

void AbstractConnectionPointManager::writeIncomingClientConnections(bool force) {
  incomingClientFile_.write([this] { return getServerConnectionPointsJSON(); }, force);
}

void AbstractConnectionPointManager::saveList() {
  const Locked lock(saveLock_);
  try {
    unsaved_ = save(false) != 0;
  } catch (...) {
    unsaved_ = true;
    throw;
  }
}

void AbstractConnectionPointManager::saveChange() {
  saveList();
  if (unsavedFiles() > 0) {
    ensureCleanupThread();
  }
}

// A disk may be full for a moment or broken for good, which must not fill the log.
void AbstractConnectionPointManager::writeAgain() {
  constexpr unsigned kSoon = 6;
  constexpr unsigned kLater = 30;  // five minutes of passes
  if (!unsaved_ && !incomingClientFile_.isUnsaved()) {
    refusals_ = 0;
    return;
  }
  if (++refusals_ > kSoon && refusals_ % kLater != 0) {
    return;
  }
  if (unsaved_) {
    saveList();
  }
  if (incomingClientFile_.isUnsaved()) {
    writeIncomingClientConnections(false);
  }
}

}  // namespace valtor
