#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "app/util/Mutex.h"
#include "data/StatusCode.h"
#include "router/DeviceParam.h"

namespace valtor {

// The parameters of a "param" request, grouped by device, from which the bus threads read while the
// device that works on them marks one after the other complete. Any thread may call any operation:
// each holds the list's own lock, under which nothing else is called. merge and markCompleteFrom
// read the other list without its lock, so that no two lists can wait for each other; the caller
// sees to it that nobody changes the other list meanwhile.
class DeviceParamList {
 public:
  // Loads the members of the request's "param" object as parameters of the named device; without
  // such an object the list is empty. The name is the text by which the caller knows the device.
  // With keepDuplicates equal parameters are all kept, here and in addParam.
  DeviceParamList(const std::string& deviceName, const cJSON* requestData,
                  bool keepDuplicates = false);
  virtual ~DeviceParamList();
  DeviceParamList(const DeviceParamList&) = delete;
  DeviceParamList& operator=(const DeviceParamList&) = delete;

  // Appends a parameter to the device's group. Unless duplicates are kept, parameters of the group
  // that match it are instead made incomplete again, and nothing is added.
  void addParam(const std::string& deviceName, const DeviceParam& param);

  // Marks the incomplete parameters of the device's group that match complete; whether there were
  // any.
  bool markComplete(const std::string& deviceName, const DeviceParam& param);

  // Marks complete what matches a parameter in the other list's group of the same device, and gives
  // it the other list's status code. Returns the number of parameters that are still incomplete.
  std::size_t markCompleteFrom(const DeviceParamList& other);

  // Appends the other list's parameters, duplicates included. The other list may be this one.
  void merge(const DeviceParamList& other);

  std::size_t countIncomplete() const;
  std::size_t countPending() const;
  // All parameters of all devices.
  std::size_t size() const;

  // An object with one member per parameter of the device; of every device for an empty name.
  JSONPtr toJSON(const std::string& deviceName) const;

  // A copy of the device's parameters.
  std::vector<DeviceParam> params(const std::string& deviceName) const;

  // Whether a loaded parameter's value was exactly "invalid".
  bool hasInvalidValue() const { return hasInvalidValue_; }

  // The status code that markCompleteFrom hands on from this list.
  std::int32_t statusCode() const;
  void setStatusCode(std::int32_t statusCode);

 private:
  struct Group {
    std::string deviceName;
    std::vector<DeviceParam> params;
  };

  void load(const std::string& deviceName, const cJSON* requestData) VALTOR_REQUIRES(lock_);
  // The device's group, or null.
  Group* findGroup(const std::string& deviceName) VALTOR_REQUIRES(lock_);
  // The device's group, appended when there is none.
  Group& ensureGroup(const std::string& deviceName) VALTOR_REQUIRES(lock_);
  std::size_t incomplete() const VALTOR_REQUIRES(lock_);
  // For merge and markCompleteFrom, which do not take the lock of the list they read.
  const std::vector<Group>& groupsUnlocked() const VALTOR_NO_THREAD_SAFETY_ANALYSIS {
    return groups_;
  }
  std::int32_t statusCodeUnlocked() const VALTOR_NO_THREAD_SAFETY_ANALYSIS { return statusCode_; }

  mutable Mutex lock_;
  // In order of first appearance.
  std::vector<Group> groups_ VALTOR_GUARDED_BY(lock_);
  std::int32_t statusCode_ VALTOR_GUARDED_BY(lock_) = kStatusOK;
  bool hasInvalidValue_ = false;
  const bool keepDuplicates_;
};

}  // namespace valtor
