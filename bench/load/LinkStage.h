#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "load/FaultyLink.h"
#include "load/Scenario.h"

namespace valtor::bench {

// A bridge all of whose links are faulty, with numbered messages both ways, and what must hold
// whatever happens to its links: no message is damaged, doubled or out of order; a link that ends
// costs each stream at most one run of messages; one that stands costs only what the daemon counts.
class LinkStage {
 public:
  LinkStage(const Run& run, int routers);

  FaultyLink& link(int router) { return *links_[static_cast<std::size_t>(router) + 1]; }
  FaultyLink& controllerLink() { return *links_[0]; }
  Node& node(int router) { return *bridge.routers()[static_cast<std::size_t>(router)]; }
  int routers() const { return static_cast<int>(links_.size()) - 1; }

  // New streams: 300 B and 16 KiB to all routers, 300 B from each.
  void startFlows();
  void pauseFlows();
  void resumeFlows();
  Flow& down() { return *down_; }
  Flow& up(int router) { return *up_[static_cast<std::size_t>(router)]; }

  bool wait(const std::function<bool()>& condition, double seconds = 30);
  // Waits until all links are up, and each stream has brought what was sent after that. Fails the
  // run when that takes more than half a minute.
  void recover(const std::string& name);
  // Makes the controller standby, once its link is up, and active when all routers are left.
  void changeRole();
  // Ends the streams and judges them, and one more over links that must stand; what went wrong
  // names the row.
  void judge(const std::string& name, const NumberedCheck* more = nullptr);
  // Messages that did not arrive at or from that router, and the links that the streams had to it.
  struct Loss {
    uint64_t down;
    uint64_t up;
    uint64_t breaks;
  };
  Loss lossOf(int router);
  // Of all routers together.
  Loss loss();
  // Messages that have arrived of all streams that were judged.
  uint64_t carried() const { return carried_; }
  // Of a router, as the daemon's status names it: of its "dropped", "lost" and the like, or of an
  // object that is one.
  static double figure(int router, const char* member, const char* inner = nullptr);

  EventLoop loop;

 private:
  std::vector<std::unique_ptr<FaultyLink>> links_;  // the controller's first; before the bridge

 public:
  Bridge bridge;

 private:
  std::vector<NumberedCheck*> checksOf(int router);
  bool isUp() const;
  uint64_t breaksOf(int router) const;
  // What the daemon says that it lost while links stood, since the streams began: towards that
  // router, and towards the controller.
  uint64_t droppedOf(int router) const;
  uint64_t givenUp() const;

  const Run& run_;
  std::unique_ptr<Flow> down_;
  std::unique_ptr<Flow> large_;
  std::vector<std::unique_ptr<Flow>> up_;
  std::vector<int> linksBefore_;
  std::vector<uint64_t> droppedBefore_;
  uint64_t givenUpBefore_ = 0;
  uint64_t carried_ = 0;
};

}  // namespace valtor::bench
