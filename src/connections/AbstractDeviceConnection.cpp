#include "connections/AbstractDeviceConnection.h"

#include <utility>

namespace valtor {

AbstractDeviceConnection::AbstractDeviceConnection(DeviceConnectionDetails details)
    : details_(std::move(details)) {}

AbstractDeviceConnection::~AbstractDeviceConnection() = default;

void AbstractDeviceConnection::update(const DeviceConnectionDetails& details) {
  const Locked lock(mutex_);
  details_ = details;
}

DeviceConnectionDetails AbstractDeviceConnection::getDetails() const {
  const Locked lock(mutex_);
  return details_;
}

std::string AbstractDeviceConnection::getUniqueID() const { return getDetails().getUniqueID(); }

std::string AbstractDeviceConnection::getName() const { return getDetails().getName(); }

bool AbstractDeviceConnection::isOnline() const {
  const Locked lock(mutex_);
  return online_;
}

void AbstractDeviceConnection::setOnline(bool online) {
  const Locked lock(mutex_);
  online_ = online;
}

void AbstractDeviceConnection::markSeen() {
  const Locked lock(mutex_);
  missedPolls_ = 0;
  online_ = true;
}

unsigned AbstractDeviceConnection::noteMissedPoll() {
  const Locked lock(mutex_);
  return ++missedPolls_;
}

unsigned AbstractDeviceConnection::getMissedPolls() const {
  const Locked lock(mutex_);
  return missedPolls_;
}

void AbstractDeviceConnection::attach(ConnectionPoint* connectionPoint,
                                      IPellInternalClient* sender) {
  const Locked lock(mutex_);
  connectionPoint_ = connectionPoint;
  sender_ = sender;
}

ConnectionPoint* AbstractDeviceConnection::connectionPoint() const {
  const Locked lock(mutex_);
  return connectionPoint_;
}

IPellInternalClient* AbstractDeviceConnection::sender() const {
  const Locked lock(mutex_);
  return sender_;
}

}  // namespace valtor
