#include "router/DeviceParamList.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>

namespace valtor {
namespace {

constexpr std::string_view kInvalidValue = "invalid";

// The parameters of one group, to find a match in without walking them all: two long lists would
// otherwise cost the product of their lengths. Refers to the parameters it was made from.
class MatchIndex {
 public:
  explicit MatchIndex(const std::vector<DeviceParam>& params) {
    for (const DeviceParam& param : params) {
      keys_.emplace(param.oid.param, param.value.text, param.oid.device.name);
    }
  }

  // Whether the parameter matches (DeviceParam::matches) one of the group's.
  bool hasMatchFor(const DeviceParam& param) const {
    return keys_.count({param.oid.param, param.value.text, param.oid.device.name}) > 0 ||
           keys_.count({param.oid.param, param.value.text, kTielineDevice}) > 0;
  }

 private:
  std::set<std::tuple<std::string_view, std::string_view, std::string_view>> keys_;
};

}  // namespace

DeviceParamList::DeviceParamList(const std::string& deviceName, const cJSON* requestData,
                                 bool keepDuplicates)
    : keepDuplicates_(keepDuplicates) {
  load(deviceName, requestData);
}

DeviceParamList::~DeviceParamList() = default;

// Has the outcome of an addParam for each member. All of them belong to one device and none is
// complete yet, so a duplicate is simply one whose name and value were seen before.
void DeviceParamList::load(const std::string& deviceName, const cJSON* requestData) {
  const cJSON* members = cJSON_GetObjectItem(requestData, "param");
  if (!cJSON_IsObject(members) || members->child == nullptr) {
    return;
  }
  std::vector<DeviceParam>& params = ensureGroup(deviceName).params;
  std::set<std::pair<std::string_view, std::string_view>> seen;
  const cJSON* member = nullptr;
  cJSON_ArrayForEach(member, members) {
    DeviceParam param;
    if (param.loadFromJSON(member) != 0) {
      continue;
    }
    param.oid.device = DeviceID(deviceName);
    hasInvalidValue_ = hasInvalidValue_ || param.value.text == kInvalidValue;
    const char* text = cJSON_GetStringValue(member);
    if (keepDuplicates_ || seen.emplace(member->string, text != nullptr ? text : "").second) {
      params.push_back(std::move(param));
    }
  }
}

void DeviceParamList::addParam(const std::string& deviceName, const DeviceParam& param) {
  const Locked<Mutex> locked(lock_);
  std::vector<DeviceParam>& params = ensureGroup(deviceName).params;
  bool found = false;
  if (!keepDuplicates_) {
    for (DeviceParam& existing : params) {
      if (existing.matches(param)) {
        existing.complete = false;
        found = true;
      }
    }
  }
  if (!found) {
    params.push_back(param);
  }
}

bool DeviceParamList::markComplete(const std::string& deviceName, const DeviceParam& param) {
  const Locked<Mutex> locked(lock_);
  Group* group = findGroup(deviceName);
  bool found = false;
  if (group != nullptr) {
    for (DeviceParam& existing : group->params) {
      if (!existing.complete && existing.matches(param)) {
        existing.markComplete();
        found = true;
      }
    }
  }
  return found;
}

std::size_t DeviceParamList::markCompleteFrom(const DeviceParamList& other) {
  const Locked<Mutex> locked(lock_);
  for (const Group& answered : other.groupsUnlocked()) {
    Group* group = findGroup(answered.deviceName);
    if (group == nullptr) {
      continue;
    }
    const MatchIndex index(answered.params);
    for (DeviceParam& param : group->params) {
      if (!param.complete && index.hasMatchFor(param)) {
        param.markComplete();
        param.statusCode = other.statusCodeUnlocked();
      }
    }
  }
  return incomplete();
}

void DeviceParamList::merge(const DeviceParamList& other) {
  const Locked<Mutex> locked(lock_);
  // A copy, since a list may be merged into itself.
  std::vector<Group> added = other.groupsUnlocked();
  for (Group& group : added) {
    std::vector<DeviceParam>& params = ensureGroup(group.deviceName).params;
    std::move(group.params.begin(), group.params.end(), std::back_inserter(params));
  }
}

std::size_t DeviceParamList::countIncomplete() const {
  const Locked<Mutex> locked(lock_);
  return incomplete();
}

std::size_t DeviceParamList::countPending() const {
  const Locked<Mutex> locked(lock_);
  std::size_t count = 0;
  for (const Group& group : groups_) {
    count += static_cast<std::size_t>(
        std::count_if(group.params.begin(), group.params.end(),
                      [](const DeviceParam& param) { return param.pending; }));
  }
  return count;
}

std::size_t DeviceParamList::size() const {
  const Locked<Mutex> locked(lock_);
  std::size_t count = 0;
  for (const Group& group : groups_) {
    count += group.params.size();
  }
  return count;
}

JSONPtr DeviceParamList::toJSON(const std::string& deviceName) const {
  const Locked<Mutex> locked(lock_);
  JSONPtr object(cJSON_CreateObject());
  for (const Group& group : groups_) {
    if (!deviceName.empty() && group.deviceName != deviceName) {
      continue;
    }
    for (const DeviceParam& param : group.params) {
      addMember(object.get(), param.oid.param.c_str(), param.value.toJSON());
    }
  }
  return object;
}

std::vector<DeviceParam> DeviceParamList::params(const std::string& deviceName) const {
  const Locked<Mutex> locked(lock_);
  for (const Group& group : groups_) {
    if (group.deviceName == deviceName) {
      return group.params;
    }
  }
  return {};
}

std::int32_t DeviceParamList::statusCode() const {
  const Locked<Mutex> locked(lock_);
  return statusCode_;
}

void DeviceParamList::setStatusCode(std::int32_t statusCode) {
  const Locked<Mutex> locked(lock_);
  statusCode_ = statusCode;
}

DeviceParamList::Group* DeviceParamList::findGroup(const std::string& deviceName) {
  const auto found =
      std::find_if(groups_.begin(), groups_.end(),
                   [&deviceName](const Group& group) { return group.deviceName == deviceName; });
  return found != groups_.end() ? &*found : nullptr;
}

DeviceParamList::Group& DeviceParamList::ensureGroup(const std::string& deviceName) {
  Group* group = findGroup(deviceName);
  return group != nullptr ? *group : groups_.emplace_back(Group{deviceName, {}});
}

std::size_t DeviceParamList::incomplete() const {
  std::size_t count = 0;
  for (const Group& group : groups_) {
    count += static_cast<std::size_t>(
        std::count_if(group.params.begin(), group.params.end(),
                      [](const DeviceParam& param) { return !param.complete; }));
  }
  return count;
}

}  // namespace valtor
