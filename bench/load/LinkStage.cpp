#include "load/LinkStage.h"

#include <algorithm>

namespace valtor::bench {

namespace {

constexpr uint16_t kNodePort = 15001;

std::vector<std::unique_ptr<FaultyLink>> makeLinks(EventLoop& loop, int routers) {
  std::vector<std::unique_ptr<FaultyLink>> links;
  links.push_back(std::make_unique<FaultyLink>(loop, "127.0.0.1", kBusPort, kNodePort));
  for (int i = 0; i < routers; ++i) {
    links.push_back(
        std::make_unique<FaultyLink>(loop, Bridge::routerAddress(i), kBusPort, kNodePort));
  }
  return links;
}

const cJSON* statusOf(const cJSON* document, int router) {
  const cJSON* one = nullptr;
  cJSON_ArrayForEach(one, arrayMember(document, "routers")) {
    if (stringMember(one, "uniqueID") == Bridge::routerId(router)) {
      return one;
    }
  }
  throw std::runtime_error("the status does not list " + Bridge::routerId(router));
}

}  // namespace

LinkStage::LinkStage(const Run& run, int routers)
    : links_(makeLinks(loop, routers)), bridge(loop, routers, 0, kNodePort), run_(run) {}

void LinkStage::startFlows() {
  up_.clear();
  const std::vector<Node*> nodes = bridge.routers();
  down_ = std::make_unique<Flow>(loop, bridge.controller, nodes, TrafficShape{});
  large_ = std::make_unique<Flow>(loop, bridge.controller, nodes,
                                  TrafficShape{"NOT", "tally", 1, 16 * kKiB});
  for (Node* node : nodes) {
    up_.push_back(std::make_unique<Flow>(loop, *node, std::vector<Node*>{&bridge.controller},
                                         TrafficShape{"NOT", "route", 100, 300}));
  }
  linksBefore_.clear();
  for (const auto& link : links_) {
    linksBefore_.push_back(link->links());
  }
  droppedBefore_.assign(bridge.routers().size(), 0);
  for (int i = 0; i < routers(); ++i) {
    droppedBefore_[static_cast<std::size_t>(i)] = droppedOf(i);
  }
  givenUpBefore_ = 0;
  givenUpBefore_ = givenUp();
  resumeFlows();
}

void LinkStage::resumeFlows() {
  down_->pace(100);
  large_->pace(20);
  for (const auto& flow : up_) {
    flow->pace(20);
  }
}

void LinkStage::pauseFlows() {
  down_->stop();
  large_->stop();
  for (const auto& flow : up_) {
    flow->stop();
  }
}

bool LinkStage::wait(const std::function<bool()>& condition, double seconds) {
  return loop.runUntil(condition, std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000)));
}

std::vector<NumberedCheck*> LinkStage::checksOf(int router) {
  const auto index = static_cast<std::size_t>(router);
  return {&down_->check(index), &large_->check(index), &up_[index]->check(0)};
}

bool LinkStage::isUp() const {
  const std::vector<Node*> nodes = bridge.routers();
  return bridge.controller.isReady() &&
         std::all_of(nodes.begin(), nodes.end(), [](const Node* one) { return one->isReady(); }) &&
         std::all_of(links_.begin(), links_.end(), [](const auto& one) { return one->isWhole(); });
}

void LinkStage::recover(const std::string& name) {
  do {
    if (!wait([this] { return isUp(); })) {
      return run_.results.fail(name + ": a link does not come up");
    }
    // A node may not yet have seen the end of its last link.
    loop.runFor(std::chrono::milliseconds(20));
  } while (!isUp());
  struct Expected {
    NumberedCheck* check;
    uint64_t sent;
    int router;
    bool isUp;
  };
  std::vector<Expected> expected;
  for (int i = 0; i < routers(); ++i) {
    const uint64_t sent[] = {down_->sent(), large_->sent(), up(i).sent()};
    const auto checks = checksOf(i);
    for (std::size_t j = 0; j < checks.size(); ++j) {
      expected.push_back({checks[j], sent[j], i, j == 2});
    }
  }
  const bool arrives = wait([&] {
    return std::all_of(expected.begin(), expected.end(),
                       [](const auto& one) { return one.check->next() > one.sent; });
  });
  if (!arrives) {
    run_.results.fail(name + ": something arrives no more");
  }
  for (const Expected& one : expected) {
    if (one.check->lastGapEnd() > one.sent && (one.isUp ? givenUp() : droppedOf(one.router)) == 0) {
      run_.results.fail(name + ", router " + std::to_string(one.router) +
                        ": lost although sent after all links were up");
    }
  }
}

void LinkStage::changeRole() {
  const std::vector<Node*> nodes = bridge.routers();
  wait([this] { return bridge.controller.isReady() && controllerLink().isWhole(); });
  loop.runFor(std::chrono::milliseconds(20));
  bridge.announceRole("standby");
  const bool left = wait([&nodes] {
    return std::none_of(nodes.begin(), nodes.end(),
                        [](const Node* one) { return one->isLinked(); });
  });
  if (!left) {
    run_.results.fail("standby is not heeded");
  }
  bridge.announceRole("active");
}

uint64_t LinkStage::breaksOf(int router) const {
  const auto index = static_cast<std::size_t>(router) + 1;
  return static_cast<uint64_t>(links_[index]->links() - linksBefore_[index] + links_[0]->links() -
                               linksBefore_[0]);
}

LinkStage::Loss LinkStage::lossOf(int router) {
  const auto checks = checksOf(router);
  return {checks[0]->skipped() + checks[1]->skipped(), checks[2]->skipped(), breaksOf(router)};
}

LinkStage::Loss LinkStage::loss() {
  Loss sum{0, 0, 0};
  for (int i = 0; i < routers(); ++i) {
    const Loss one = lossOf(i);
    sum.down += one.down;
    sum.up += one.up;
  }
  for (std::size_t i = 0; i < links_.size(); ++i) {
    sum.breaks += static_cast<uint64_t>(links_[i]->links() - linksBefore_[i]);
  }
  return sum;
}

void LinkStage::judge(const std::string& name, const NumberedCheck* more) {
  pauseFlows();
  const auto arrived = [this] {
    for (int i = 0; i < routers(); ++i) {
      const auto checks = checksOf(i);
      if (checks[0]->next() < down_->sent() || checks[1]->next() < large_->sent() ||
          checks[2]->next() < up(i).sent()) {
        return false;
      }
    }
    return true;
  };
  if (!wait(arrived)) {
    run_.results.fail(name + ": the last messages do not arrive");
  }
  const auto expectCounted = [&](const std::string& who, uint64_t lost, uint64_t counted) {
    if (lost > counted) {
      run_.results.fail(who + ": " + std::to_string(lost) + " lost while links stood, " +
                        std::to_string(counted) + " of them counted");
    }
  };
  uint64_t lostUp = more != nullptr ? more->skipped() : 0;
  if (more != nullptr) {
    expectInOrder(run_, *more, name);
  }
  for (int i = 0; i < routers(); ++i) {
    const std::string who = name + ", router " + std::to_string(i);
    const auto checks = checksOf(i);
    for (const NumberedCheck* check : checks) {
      carried_ += check->received();
      expectInOrder(run_, *check, who);
      if (const uint64_t breaks = breaksOf(i); breaks > 0 && check->gaps() > breaks) {
        run_.results.fail(who + ": " + std::to_string(check->gaps()) + " gaps by " +
                          std::to_string(breaks) + " ends of links");
      }
    }
    if (breaksOf(i) == 0) {
      expectCounted(who, checks[0]->skipped() + checks[1]->skipped(), droppedOf(i));
      lostUp += checks[2]->skipped();
    }
  }
  expectCounted(name + ", to the controller", lostUp, givenUp());
  for (const auto& link : links_) {
    if (link->doubled() > 0) {
      run_.results.fail(name + ": the daemon keeps two links at once");
    }
  }
  expectAlive(run_, bridge, name);
}

double LinkStage::figure(int router, const char* member, const char* inner) {
  const JSONPtr document = Bridge::status();
  const cJSON* const item = cJSON_GetObjectItem(statusOf(document.get(), router), member);
  return cJSON_GetNumberValue(inner == nullptr ? item : cJSON_GetObjectItem(item, inner));
}

uint64_t LinkStage::droppedOf(int router) const {
  return static_cast<uint64_t>(figure(router, "dropped")) -
         droppedBefore_[static_cast<std::size_t>(router)];
}

uint64_t LinkStage::givenUp() const {
  return static_cast<uint64_t>(Bridge::figure({"warnings", "sendGaveUp"})) - givenUpBefore_;
}

}  // namespace valtor::bench
