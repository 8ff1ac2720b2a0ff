#include "peers/TrafficTap.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/OwnedJSON.h"

namespace valtor {

namespace {

// "" without the memory for all of it.
std::string lineOf(Direction direction, const PellInternalMessage& message,
                   const FilterResult& result) {
  takeJSONFailure();
  const JSONPtr object(cJSON_CreateObject());
  const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
  cJSON_AddNumberToObject(object.get(), "time", now.count());
  cJSON_AddStringToObject(object.get(), "direction",
                          direction == Direction::ToRouters ? "toRouter" : "fromRouter");
  cJSON_AddStringToObject(object.get(), "kind", kindName(message.getKind()));
  cJSON_AddStringToObject(object.get(), "path",
                          std::string(shownPath(message.header.path)).c_str());
  cJSON_AddNumberToObject(object.get(), "source", message.header.sourceConnID);
  cJSON_AddNumberToObject(object.get(), "destination", message.header.destConnID);
  cJSON_AddBoolToObject(object.get(), "passed", result.pass ? 1 : 0);
  if (!result.pass) {
    cJSON_AddStringToObject(object.get(), "rule", result.rule != nullptr ? result.rule : "??");
  }
  cJSON_AddNumberToObject(object.get(), "bytes", static_cast<double>(message.receivedBytes()));
  const char* const body = message.bodyText() != nullptr ? message.bodyText() : "";
  const std::string_view seen(body, strnlen(body, TrafficTap::kShownBody + 1));
  cJSON_AddStringToObject(object.get(), "body",
                          std::string(cutText(seen, TrafficTap::kShownBody)).c_str());
  std::string line = printJSON(object.get(), false) + '\n';
  return takeJSONFailure() ? std::string() : line;
}

}  // namespace

TrafficTap::FollowerPtr TrafficTap::follow(std::string uniqueID, std::function<void()> wake) {
  auto follower = std::make_shared<Follower>();
  follower->uniqueID = std::move(uniqueID);
  follower->wake = std::move(wake);
  const Locked lock(lock_);
  list_.push_back(follower);
  ++followers_;
  return follower;
}

void TrafficTap::unfollow(const FollowerPtr& follower) {
  const Locked lock(lock_);
  followers_ -= static_cast<int>(std::erase(list_, follower));
}

std::string TrafficTap::take(Follower& follower) {
  std::string text;
  const Locked lock(lock_);
  if (follower.missed > 0) {
    text = "{\"missed\":" + std::to_string(follower.missed) + "}\n";
  }
  for (const std::string& line : follower.lines) {
    text += line;
  }
  // Nothing is forgotten that there was no memory for.
  follower.missed = 0;
  follower.lines.clear();
  follower.bytes = 0;
  return text;
}

void TrafficTap::offer(const std::string& uniqueID, Direction direction,
                       const PellInternalMessage& message, const FilterResult& result) {
  const Locked lock(lock_);
  std::string line;
  for (const FollowerPtr& follower : list_) {
    if (follower->uniqueID != uniqueID) {
      continue;
    }
    const bool wasEmpty = follower->lines.empty();
    try {
      if (line.empty()) {
        line = lineOf(direction, message, result);
      }
      if (!line.empty()) {
        follower->lines.push_back(line);
      }
    } catch (const std::bad_alloc&) {
      line.clear();
    }
    if (line.empty()) {
      if (follower->missed++ == 0 && wasEmpty) {
        follower->wake();
      }
      continue;
    }
    follower->bytes += line.size();
    while (follower->lines.size() > kMaxLines || follower->bytes > kMaxBytes) {
      follower->bytes -= follower->lines.front().size();
      follower->lines.pop_front();
      ++follower->missed;
    }
    if (wasEmpty) {
      follower->wake();
    }
  }
}

}  // namespace valtor
