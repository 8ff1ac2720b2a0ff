#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/util/UniqueDescriptor.h"
#include "bus/MyThreadClass.h"
#include "peers/TrafficTap.h"

namespace valtor {

// Answers everybody who connects to a local stream socket with one document, and closes. Whoever
// first sends the line "follow UNIQUE-ID" gets the messages of that router instead, a JSON object a
// line, until it closes. One thread serves all; it sleeps while nobody asks, and gives nobody more
// than kPatience for what must not wait. Whoever owns it ends it before what the functions use.
class StatusServer final : public MyThreadClass {
 public:
  // What it serves. All are called on its thread, and what one throws, which is logged, ends all
  // askers; wake may be called by any thread, also under locks.
  struct Source {
    std::function<std::string()> document;
    // Begins to follow a router; null when there is none of that unique ID.
    std::function<TrafficTap::FollowerPtr(const std::string& uniqueID, std::function<void()> wake)>
        follow;
    std::function<std::string(TrafficTap::Follower&)> take;
    std::function<void(const TrafficTap::FollowerPtr&)> unfollow;
  };

  // How long somebody who sends nothing may still send a line.
  static constexpr std::chrono::milliseconds kGrace{300};
  // How long an answer may take to be read.
  static constexpr std::chrono::milliseconds kPatience{1000};
  // At once; others wait to be accepted. kMostFollowers of them stay, and hold a mebibyte or two.
  static constexpr std::size_t kMaxAskers = 64;

  // Listens at the path, whose folder is made, and for the group "adm" where there is one. Where
  // that fails, one line says so and nobody is served.
  StatusServer(std::string path, Source source);
  // Ends the thread and removes the socket.
  ~StatusServer() override;

  bool isServing() const { return serving_; }

 protected:
  void InternalThreadEntry() override;

 private:
  using Clock = std::chrono::steady_clock;
  struct Asker;

  bool listen();
  void closeListener();
  void acceptAll();
  void serve(Asker& asker, short events);
  void readRequest(Asker& asker);
  void answer(Asker& asker);
  void write(Asker& asker);
  void wait();
  void dropAskers(bool (*ends)(const Asker&));
  void wake();

  const std::string path_;
  const Source source_;
  UniqueDescriptor listener_;
  UniqueDescriptor wakeEvent_;
  bool refuses_ = false;                        // who asks cannot be accepted, which has been told
  std::vector<std::unique_ptr<Asker>> askers_;  // of the thread
  bool serving_ = false;
};

}  // namespace valtor
