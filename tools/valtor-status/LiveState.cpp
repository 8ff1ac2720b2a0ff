#include "valtor-status/LiveState.h"

#include <algorithm>
#include <cmath>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <utility>

#include "support/PrintableText.h"
#include "valtor-status/WallClock.h"

namespace valtor {
namespace {

constexpr double kLossesShown = 600;  // seconds
constexpr int kDecimals = 3;

// JSON with a call for each member.
class Writer {
 public:
  Writer() { json_.SetMaxDecimalPlaces(kDecimals); }

  Writer& key(const char* name) {
    json_.Key(name);
    return *this;
  }
  void text(std::string_view value) {
    const std::string clean = withoutBrokenUtf8(value);
    json_.String(clean.data(), static_cast<rapidjson::SizeType>(clean.size()));
  }
  void number(double value) { json_.Double(std::isfinite(value) ? value : 0); }
  void count(uint64_t value) { json_.Uint64(value); }
  // Without decimals where there are none.
  void shortNumber(double value) {
    constexpr double kLargest = 1e15;
    const bool isWhole = std::abs(value) < kLargest && std::trunc(value) == value;
    isWhole ? static_cast<void>(json_.Int64(static_cast<int64_t>(value))) : number(value);
  }
  void flag(bool value) { json_.Bool(value); }
  void none() { json_.Null(); }
  void raw(const std::string& value) {
    json_.RawValue(value.data(), value.size(), rapidjson::kObjectType);
  }
  void numberOrNone(const std::optional<double>& value) { value ? number(*value) : none(); }
  void beginObject() { json_.StartObject(); }
  void endObject() { json_.EndObject(); }
  void beginArray() { json_.StartArray(); }
  void endArray() { json_.EndArray(); }
  std::string result() const { return {buffer_.GetString(), buffer_.GetSize()}; }

 private:
  rapidjson::StringBuffer buffer_;
  rapidjson::Writer<rapidjson::StringBuffer> json_{buffer_};
};

void write(Writer& json, const History::Event& event) {
  json.beginObject();
  json.key("id").count(event.id);
  json.key("time").number(event.time);
  json.key("kind").text(event.kind);
  json.key("router").text(event.router);
  json.key("text").text(event.text);
  json.endObject();
}

void write(Writer& json, const BusParticipant::View& bus) {
  json.beginObject();
  json.key("state").text(bus.up ? "up" : "down");
  json.key("since").number(bus.since);
  json.key("problem").text(bus.problem);
  json.key("daemonDelayMs").numberOrNone(bus.daemonDelayMs);
  json.key("daemonAnsweredAt").numberOrNone(bus.daemonAnsweredAt);
  json.key("messages").count(bus.messages);
  json.endObject();
}

void write(Writer& json, const History::Sample& sample) {
  const auto rounded = [](float value) {
    constexpr double kTenths = 10;
    return std::round(value * kTenths) / kTenths;
  };
  json.beginArray();
  json.number(sample.time);
  json.shortNumber(rounded(sample.toRouter));
  json.shortNumber(rounded(sample.fromRouter));
  json.shortNumber(rounded(sample.toRouterBytes));
  json.shortNumber(rounded(sample.fromRouterBytes));
  json.endArray();
}

bool isQuiet(const History::Sample& sample) {
  return sample.toRouter == 0 && sample.fromRouter == 0 && sample.toRouterBytes == 0 &&
         sample.fromRouterBytes == 0;
}

// What most routers do most of the time is short: [first, last] of seconds in which nothing
// crossed, one after the other.
void writeRates(Writer& json, const std::deque<History::Sample>& samples, uint64_t since) {
  constexpr double kLongestStep = 2.5;  // seconds; beyond it nobody has looked
  json.beginArray();
  for (std::size_t i = 0; i < samples.size(); ++i) {
    if (samples[i].number <= since) {
      continue;
    }
    if (!isQuiet(samples[i])) {
      write(json, samples[i]);
      continue;
    }
    const double first = samples[i].time;
    while (i + 1 < samples.size() && isQuiet(samples[i + 1]) &&
           samples[i + 1].time > samples[i].time &&
           samples[i + 1].time - samples[i].time < kLongestStep) {
      ++i;
    }
    json.beginArray();
    json.number(first);
    json.number(samples[i].time);
    json.endArray();
  }
  json.endArray();
}

uint64_t recentLosses(const StatusFigures& figures, const StatusFigures::Router& router) {
  return static_cast<uint64_t>(
      std::count_if(router.link.losses.begin(), router.link.losses.end(),
                    [&](double time) { return time > figures.now - kLossesShown; }));
}

}  // namespace

std::string eventJSON(const History::Event& event) {
  Writer json;
  write(json, event);
  return json.result();
}

bool LiveState::answered(std::string document, const BusParticipant::View& bus) {
  std::optional<StatusFigures> figures = StatusFigures::of(document);
  if (!figures) {
    return false;
  }
  const double time = wallSeconds();
  const Locked lock(lock_);
  history_.answered(std::move(*figures), time, Clock::now());
  document_ = std::move(document);
  answering_ = true;
  problem_.clear();
  asOf_ = time;
  finish(bus, time);
  return true;
}

void LiveState::silent(const std::string& problem, const BusParticipant::View& bus) {
  const double time = wallSeconds();
  const Locked lock(lock_);
  history_.silent(problem, time);
  answering_ = false;
  problem_ = problem;
  finish(bus, time);
}

void LiveState::finish(const BusParticipant::View& bus, double time) {
  history_.bus(bus, time);
  bus_ = bus;
  ++revision_;
  cache_.clear();
  changed_.notify_all();
}

LiveState::Text LiveState::whole(Mark& mark) {
  const Locked lock(lock_);
  mark = {revision_, history_.lastSample(), history_.lastEvent()};
  return text(0, true);
}

LiveState::News LiveState::next(Mark& mark, Clock::time_point deadline) {
  const Locked lock(lock_);
  changed_.wait_until(lock_, deadline, [&]() VALTOR_REQUIRES(lock_) {
    return ended_ || revision_ != mark.revision;
  });
  News news;
  if (ended_ || revision_ == mark.revision) {
    return news;
  }
  news.state = text(mark.sample, false);
  for (const History::Event& event : history_.events()) {
    if (event.id > mark.event) {
      news.events.push_back(event);
    }
  }
  mark = {revision_, history_.lastSample(), history_.lastEvent()};
  return news;
}

LiveState::Text LiveState::text(uint64_t sinceSample, bool whole) {
  for (const Cached& cached : cache_) {
    if (cached.sample == sinceSample && cached.whole == whole) {
      return cached.text;
    }
  }
  Text made = std::make_shared<const std::string>(render(sinceSample, whole));
  cache_.push_back({sinceSample, whole, made});
  return made;
}

std::string LiveState::render(uint64_t sinceSample, bool whole) const {
  Writer json;
  json.beginObject();
  json.key("now").number(wallSeconds());
  json.key("version").text(version_);
  json.key("daemon").beginObject();
  json.key("answering").flag(answering_);
  json.key("problem").text(problem_);
  json.key("asOf").numberOrNone(document_.empty() ? std::nullopt : std::optional(asOf_));
  json.key("document");
  document_.empty() ? json.none() : json.raw(document_);
  json.endObject();
  write(json.key("bus"), bus_);
  json.key("routers").beginArray();
  if (const auto& figures = history_.figures()) {
    for (const StatusFigures::Router& router : figures->routers) {
      json.beginObject();
      json.key("uniqueID").text(router.uniqueID);
      json.key("lostLastTenMinutes").count(recentLosses(*figures, router));
      writeRates(json.key("rates"), history_.samples(router.uniqueID), sinceSample);
      json.endObject();
    }
  }
  json.endArray();
  if (whole) {
    json.key("events").beginArray();
    for (const History::Event& event : history_.events()) {
      write(json, event);
    }
    json.endArray();
  }
  json.endObject();
  return json.result();
}

LiveState::Figures LiveState::figures() const {
  const Locked lock(lock_);
  return {answering_, problem_, document_.empty() ? -1 : wallSeconds() - asOf_,
          history_.figures().value_or(StatusFigures()), bus_};
}

std::string LiveState::problem() const {
  const Locked lock(lock_);
  return answering_ ? "" : problem_;
}

void LiveState::end() {
  const Locked lock(lock_);
  ended_ = true;
  changed_.notify_all();
}

bool LiveState::hasEnded() const {
  const Locked lock(lock_);
  return ended_;
}

}  // namespace valtor
