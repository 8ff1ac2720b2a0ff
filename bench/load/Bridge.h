#pragma once

#include <chrono>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "app/util/OwnedJSON.h"
#include "load/EventLoop.h"
#include "load/Node.h"
#include "load/Process.h"
#include "load/Samples.h"

namespace valtor::bench {

constexpr uint16_t kBusPort = 15000;

// A daemon between the controller's node and those of its routers, all links up and the start over.
// The daemon is the executable of this build, whose fixed paths lie below the build's own folder.
class Bridge {
 public:
  // So many routers with a node, and so many disabled entries besides. Where the nodes listen at
  // another port than the bus's, somebody carries to them what arrives there. Throws
  // std::runtime_error when it does not come up.
  explicit Bridge(EventLoop& loop, int routers, int disabledEntries = 0,
                  uint16_t nodePort = kBusPort);

  // Takes the daemon of another build from now on: one whose fixed paths lie below the "root" of
  // its folder.
  static void useBuild(const std::string& folder);

  // Makes a request on "device" that is answered some time; members are those behind the "id".
  void ask(const std::string& kind, const std::string& members);
  void askForConnectionPoints() { ask("GET", R"("objectName":["connectionPoint"])"); }
  // Waits for the answers to everything that was asked; false when the limit was reached first.
  bool allAnswered(std::chrono::seconds limit);
  // Seconds from request to answer.
  Samples& answerTimes() { return answerTimes_; }
  std::size_t unanswered() const { return asked_.size(); }

  // Tells the daemon the controller's role.
  void announceRole(const std::string& role);
  // What the daemon says about itself; throws std::runtime_error when it says nothing.
  static JSONPtr status();
  // A number of it, by the members that lead there; throws std::runtime_error where there is none.
  static double figure(std::initializer_list<const char*> path);

  std::vector<Node*> routers() const;
  // Seconds from the start of the process until a request was answered, and until every router was
  // logged in on.
  double secondsToAnswer() const { return secondsToAnswer_; }
  double secondsToLinks() const { return secondsToLinks_; }

  Node controller;
  std::unique_ptr<Process> daemon;

  // Where the router of that number listens, and its unique ID.
  static std::string routerAddress(int index) { return "127.0.0." + std::to_string(2 + index); }
  static std::string routerId(int index) { return "router-" + std::to_string(index); }
  // The entry of a router in a database or in a request.
  static std::string entry(const std::string& id, const std::string& address, bool enabled);
  // So many disabled entries, comma between them.
  static std::string disabledEntries(int count, const std::string& idPrefix);

 private:
  void receive(std::string_view payload);

  EventLoop& loop_;
  std::vector<std::unique_ptr<Node>> routers_;
  std::map<std::string, int64_t> asked_;  // when, in ns
  int questions_ = 0;
  Samples answerTimes_;
  double secondsToAnswer_ = 0;
  double secondsToLinks_ = 0;
};

}  // namespace valtor::bench
