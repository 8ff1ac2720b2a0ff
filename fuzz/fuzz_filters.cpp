// Asks both sets of filters about arbitrary messages, and everything else that only looks at what
// crosses a bridge. The letters of an input choose what it is: a payload, the text of a body for
// the rule about database responses, or a schedule time.

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <optional>
#include <rapidjson/document.h>
#include <string>
#include <string_view>

#include "app/util/ErrnoText.h"
#include "bus/message/HeaderLine.h"
#include "bus/message/MessageIdentifier.h"
#include "bus/message/ScheduledTime.h"
#include "fuzz/Fuzzing.h"
#include "peers/BridgeWatch.h"
#include "peers/DatabaseIdHandler.h"
#include "peers/ForwardingFilters.h"

namespace valtor::fuzz {

namespace {

// --- Filters -------------------------------------------------------------------------------------

void watch(const PellInternalMessage& message, const FilterResult& result) {
  BridgeWatch watch;
  const auto follower = watch.tap.follow("r", [] {});
  watch.tap.offer("r", Direction::ToRouters, message, result);
  const std::string line = watch.tap.take(*follower);
  const JSONPtr shown(cJSON_Parse(line.c_str()));
  require(shown != nullptr && line.back() == '\n' && line.find('\n') + 1 == line.size(),
          "what is shown of a message is JSON in one line");
  const std::string_view path = stringMember(shown.get(), "path");
  require(path == cutText(message.header.path, HeaderLine::kLongest), "with what may be its path");
  watch.tap.unfollow(follower);
  for (unsigned i = 0; i <= LoopWatch::kMostCrossings; ++i) {
    watch.loops.note(message, &watch, [] { return std::string("router"); });
    watch.crossings.add(Direction::ToRouters, message.getKind(), message.header.path, 1);
  }
  require(watch.crossings.figures().size() == 1, "the same messages are counted together");
}

void filter(const std::string& host, const std::string& payload) {
  const PellInternalMessage message = received(payload);
  if (!message.isDecoded()) {
    return;
  }
  const std::string before = message.encode();
  const std::array<FilterResult, 4> results = {
      nodeMasterToPeer(message), routerMasterToPeer(message, host), nodePeerToMaster(message),
      routerPeerToMaster(message)};
  for (const FilterResult& result : results) {
    require(result.pass == (result.rule == nullptr), "who blocks says why");
    traceBlocked("master->peer", message, result.rule);
  }
  const MessageKind kind = message.getKind();
  if (message.header.path == "device" && (kind == MessageKind::SET || kind == MessageKind::DEL)) {
    require(!results[1].pass && !results[3].pass, "no configuration crosses to or from a router");
  }
  require(results[1].pass || routerMasterToPeer(message, host).rule == results[1].rule,
          "a filter says the same again");
  watch(message, results[1]);
  require(message.encode() == before, "a filter changes nothing");
}

// --- The identifier of a body --------------------------------------------------------------------

// What findId() promises, looked up in a tree: the first string, be it empty, behind a key "id" of
// the outermost object, be it inside of arrays, before the next key of whatever object.
struct IdInTree {
  std::optional<std::string> id;
  bool isOver = false;  // found, or another key came

  void lookInto(const rapidjson::Value& value) {
    if (value.IsString()) {
      id.emplace(value.GetString(), value.GetStringLength());
      isOver = true;
    } else if (value.IsObject()) {
      isOver = isOver || value.MemberCount() > 0;
    } else if (value.IsArray()) {
      for (auto element = value.Begin(); element != value.End() && !isOver; ++element) {
        lookInto(*element);
      }
    }
  }
};

std::string idOf(const rapidjson::Document& document) {
  IdInTree found;
  if (document.IsObject()) {
    for (const auto& member : document.GetObject()) {
      found.isOver = false;
      if (std::string_view(member.name.GetString(), member.name.GetStringLength()) == "id") {
        found.lookInto(member.value);
      }
      if (found.id) {
        break;
      }
    }
  }
  return found.id.value_or("");
}

std::size_t nesting(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(
      text.begin(), text.end(), [](char byte) { return byte == '[' || byte == '{'; }));
}

void findIdentifier(const std::string& text) {
  const std::string found = DatabaseIdHandler::findId(text.c_str());
  rapidjson::Document document;
  document.Parse<rapidjson::kParseIterativeFlag>(text.c_str());
  if (document.HasParseError() || nesting(text) >= DatabaseIdHandler::kDeepestNesting) {
    return;
  }
  require(found == idOf(document), "the identifier is that of the whole body");
  if (document.IsObject() && document.MemberCount() > 0 && document.MemberBegin()->name == "id" &&
      document.MemberBegin()->value.IsString()) {
    const rapidjson::Value& id = document.MemberBegin()->value;
    require(found == std::string(id.GetString(), id.GetStringLength()), "the first one counts");
    const PellInternalMessage message = received("[\"RSP\", \"db\", 1, 2, 0]\n" + text);
    require(cJSON_IsNull(message.viewBody()) != 0 || message.getUniqueId() == found.c_str(),
            "messages have the same identifier");
  }
}

// --- Schedule times ------------------------------------------------------------------------------

void schedule(const std::string& text) {
  const JSONPtr element(cJSON_CreateString(text.c_str()));
  PellInternalHeader header;
  timespec before{};
  clock_gettime(CLOCK_REALTIME, &before);
  const bool isTaken = parseScheduledTime(header, element.get());
  require(isTaken == header.isScheduled(), "a time is stored when it is taken");
  require(header.scheduledTime.tv_nsec >= 0 && header.scheduledTime.tv_nsec < 1'000'000'000,
          "nanoseconds are a part of a second");
  require(!isTaken || header.scheduledTime.tv_sec >= before.tv_sec, "it lies in the future");
  int hours = 0;
  int minutes = 0;
  int seconds = 0;
  int end = 0;
  if (std::sscanf(text.c_str(), "+%2d:%2d:%2d%n", &hours, &minutes, &seconds, &end) == 3 &&
      static_cast<std::size_t>(end) == text.size() &&
      text.find_first_not_of("0123456789:", 1) == std::string::npos && seconds < 60 && isTaken) {
    const time_t away = header.scheduledTime.tv_sec - before.tv_sec;
    const time_t offset = hours * 3600 + minutes * 60 + seconds;
    require(away >= offset && away <= offset + 2, "an offset counts from now");
  }
}

}  // namespace

const MemoryLimit kMemoryLimit{100, 400'000};

void examine(Input input) {
  switch (input.choose(3)) {
    case 0: {
      const std::vector<std::string> parts = input.parts();
      filter(hostOfIdentifier(parts.size() > 1 ? parts[1] : "1@2.3"), parts[0]);
      break;
    }
    case 1:
      findIdentifier(input.parts()[0]);
      break;
    default:
      schedule(input.parts()[0]);
      break;
  }
}

}  // namespace valtor::fuzz
