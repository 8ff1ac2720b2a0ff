#include <cerrno>
#include <gtest/gtest.h>
#include <stop_token>
#include <sys/socket.h>
#include <thread>

#include "app/util/Watchdog.h"
#include "bus/BusLink.h"
#include "bus/BusSupport.h"
#include "bus/FrameSender.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/NotifySocket.h"

namespace valtor {
namespace {

using test::eventually;
using namespace std::chrono_literals;

SharedFrame frame(const std::string& bytes) { return std::make_shared<const Frame>(bytes, 0); }

std::shared_ptr<BusLink> makeLink(
    std::chrono::milliseconds budget,
    const std::shared_ptr<ClosingSignal>& closing = std::make_shared<ClosingSignal>()) {
  return std::make_shared<BusLink>("router", budget, closing);
}

// Opens the next link of a client; its far end.
UniqueDescriptor openLink(BusLink& link, const std::vector<std::string>& firstFrames = {}) {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  EXPECT_TRUE(link.open(UniqueDescriptor(ends[0]), [&] {
    std::vector<SharedFrame> frames;
    for (const std::string& first : firstFrames) {
      frames.push_back(frame(first));
    }
    return frames;
  }));
  return UniqueDescriptor(ends[1]);
}

std::string drain(const UniqueDescriptor& end) {
  std::string bytes(1 << 20, '\0');
  const ssize_t count = recv(end.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
  bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return bytes;
}

TEST(BusLink, TheRestOfAFrameGoesOutBeforeTheNextOneOfItsLink) {
  const auto link = makeLink(1ms);
  const UniqueDescriptor far = openLink(*link);
  const std::string big(1'000'000, 'x');
  const BusLink::SendResult result = link->send(frame(big), 1);
  EXPECT_EQ(result.outcome, BusLink::Send::BudgetExhausted);
  std::string received = drain(far);
  EXPECT_EQ(received.size(), result.sent);
  while (link->send(frame("next"), 1).outcome != BusLink::Send::Sent) {
    received += drain(far);
  }
  EXPECT_TRUE(received + drain(far) == big + "next");
  link->send(frame(big), 1);
  const UniqueDescriptor other = openLink(*link, {"login"});
  EXPECT_EQ(drain(other), "login");
}

TEST(BusLink, FirstFramesPrecedeEverythingAndOldLinksAreRefused) {
  const auto link = makeLink(100ms);
  EXPECT_EQ(link->send(frame("x"), 0).outcome, BusLink::Send::NotConnected);
  const UniqueDescriptor one = openLink(*link);
  const UniqueDescriptor two = openLink(*link, {"login", "list"});
  EXPECT_EQ(link->send(frame("old"), 1).outcome, BusLink::Send::NotConnected);
  EXPECT_EQ(link->send(frame("new"), 2).outcome, BusLink::Send::Sent);
  EXPECT_EQ(drain(two), "loginlistnew");
  EXPECT_EQ(drain(one), "");

  const auto sender = std::make_shared<FrameSender>();
  link->setSender(sender);
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const UniqueDescriptor far(ends[1]);
  link->open(UniqueDescriptor(ends[0]), [&] {
    link->forward(frame("early"), {});  // somebody else sees the link stand already
    return std::vector<SharedFrame>{frame("login"), frame("list")};
  });
  std::string got;
  EXPECT_TRUE(eventually([&] { return (got += drain(far)).size() >= 14; }));
  EXPECT_EQ(got, "loginlistearly");
}

TEST(BusLink, FirstFramesThatCannotLeaveAreReported) {
  const auto link = makeLink(100ms);

  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  close(ends[1]);
  const auto results = link->open(UniqueDescriptor(ends[0]),
                                  [] { return std::vector<SharedFrame>{frame("login")}; });
  ASSERT_TRUE(results && results->size() == 1);
  EXPECT_EQ(results->front().outcome, BusLink::Send::Failed);
  EXPECT_EQ(results->front().error, EPIPE);
}

TEST(BusLink, WhoWaitsForAFullSocketOrForItsTurnIsLetGoWithItsOwnClient) {
  const auto link = makeLink(1h);
  const UniqueDescriptor far = openLink(*link);
  std::stop_source client;
  const auto sendAsClient = [&] {
    EXPECT_EQ(link->send(frame(std::string(4'000'000, 'x')), 1, client.get_token()).outcome,
              BusLink::Send::NotConnected);
  };
  std::thread first(sendAsClient);
  char byte = 0;
  recv(far.get(), &byte, 1, MSG_WAITALL);
  std::thread second(sendAsClient);
  client.request_stop();
  first.join();
  second.join();
  // The link goes on, with the rest of the frame first.
  std::thread reader([&] {
    std::string all;
    EXPECT_TRUE(eventually([&] { return (all += drain(far)).size() >= 4'000'003; }));
    EXPECT_EQ(all.substr(3'999'999), "next");
  });
  EXPECT_EQ(link->send(frame("next"), 1).outcome, BusLink::Send::Sent);
  reader.join();
}

TEST(BusLink, AFullSocketIsWaitedForUntilTheLinkOrTheClientEnds) {
  const auto closing = std::make_shared<ClosingSignal>();
  const auto link = makeLink(1h, closing);
  const std::string big(4'000'000, 'x');
  for (const bool byClient : {false, true}) {
    const UniqueDescriptor far = openLink(*link);
    std::thread ender([&] {
      char byte = 0;
      recv(far.get(), &byte, 1, MSG_WAITALL);
      if (byClient) {
        closing->begin();
      }
      link->shutdownSocket();
    });
    EXPECT_EQ(link->send(frame(big), link->number()).outcome, BusLink::Send::NotConnected);
    ender.join();
  }
}

TEST(BusLink, WaitsForRoomFeedTheWatchdog) {
  const test::NotifySocket manager("@valtor-watchdog-room");
  Watchdog watchdog;
  const auto feedsIn = [&](const auto& wait, const auto& end) {
    std::thread waiter([&] {
      const Watchdog::Feeder feeder(&watchdog);
      wait();
    });
    EXPECT_TRUE(manager.isFed(3));
    end();
    waiter.join();
  };
  const auto link = makeLink(1h);
  const UniqueDescriptor far = openLink(*link);
  feedsIn([&] { link->send(frame(std::string(4'000'000, 'x')), 1); },
          [&] { link->shutdownSocket(); });
  OutgoingQueue queue;
  feedsIn([&] { queue.waitForChange(0, {}, {}); }, [&] { queue.wake(); });
}

// What waits behind others that send to a slow node.
TEST(BusLink, WhoTakesFeedsTheWatchdogForAThreadThatWaitsForALock) {
  const test::NotifySocket manager("@valtor-watchdog-lock");
  Watchdog watchdog;
  Mutex held;
  for (const bool inLine : {true, false}) {
    const auto link = makeLink(1h);
    link->setWatchdog(&watchdog);
    const UniqueDescriptor far = openLink(*link);
    std::thread slow([&] {
      const Locked lock(held);
      link->send(frame(std::string(40'000'000, 'x')), 1);
    });
    char bytes[4096];
    recv(far.get(), bytes, 1, MSG_WAITALL);
    std::thread fed([&] {
      const Watchdog::Feeder feeder(&watchdog);
      if (inLine) {
        link->send(frame("answer"), 1);
      } else {
        const Locked lock(held);
      }
    });
    // While nothing is taken, it may be the hang that the watchdog is for.
    EXPECT_TRUE(eventually([&] { return manager.next(400ms).empty(); }));
    int times = 0;
    EXPECT_TRUE(eventually([&] {
      recv(far.get(), bytes, sizeof bytes, MSG_DONTWAIT);
      times += manager.next(5ms).empty() ? 0 : 1;
      return times == 3;
    }));
    link->shutdownSocket();
    slow.join();
    fed.join();
  }
}

// A link whose far end takes what the test takes, with a frame sender behind it.
class ForwardingTest : public testing::Test {
 protected:
  ForwardingTest() { link_->setSender(sender_); }
  ~ForwardingTest() override { link_->closeSocket(); }

  void forward(const std::string& bytes) {
    const SharedFrame counted = sender_->budget().count(frame(bytes));
    EXPECT_EQ(link_->forward(counted, {}), BusLink::Send::Sent);
  }
  // What comes out until so many bytes have.
  static std::string readBytes(const UniqueDescriptor& far, std::size_t count) {
    std::string all;
    EXPECT_TRUE(eventually([&] {
      all += drain(far);
      return all.size() >= count;
    }));
    return all;
  }

  test::LogCapture log_;
  std::shared_ptr<FrameSender> sender_ = std::make_shared<FrameSender>();
  std::shared_ptr<BusLink> link_ = makeLink(1h);
};

TEST_F(ForwardingTest, ABurstReachesAReaderThatDrainsWholeAndInOrder) {
  const UniqueDescriptor far = openLink(*link_);
  std::string expected;
  const std::string filler(10'000, 'x');
  std::thread burst([&] {
    for (int i = 0; i < 700; ++i) {  // most of it waits; some are sent past it
      forward(std::to_string(i) + filler);
    }
  });
  for (int i = 0; i < 700; ++i) {
    expected += std::to_string(i) + filler;
  }
  const std::string got = readBytes(far, expected.size());
  burst.join();
  EXPECT_TRUE(got == expected);
  EXPECT_TRUE(eventually([&] { return !link_->hasWaiting() && sender_->budget().used() == 0; }));
}

TEST_F(ForwardingTest, TheRestOfWhatSomebodyGaveUpGoesOutThoughNobodySendsAnyMore) {
  const auto link = makeLink(1ms);
  link->setSender(sender_);
  const UniqueDescriptor far = openLink(*link);
  const std::string big(4'000'000, 'x');
  EXPECT_EQ(link->send(frame(big), 1).outcome, BusLink::Send::BudgetExhausted);
  // It stands still for longer than the budget, of which whoever gave up has told.
  EXPECT_TRUE(eventually([&] { return link->isStalled(); }));
  EXPECT_TRUE(readBytes(far, big.size()) == big);
  EXPECT_EQ(log_.countContaining("FAILED after 100 retries"), 0);
  link->closeSocket();
}

TEST_F(ForwardingTest, WhoSendsPastAQueueThatCannotMoveGivesUpAfterItsBudget) {
  const auto link = makeLink(1ms);
  link->setSender(sender_);
  const UniqueDescriptor far = openLink(*link);
  // Full between two frames, so that the queue's head has not begun to go out.
  while (link->send(frame(std::string(10'000, 'x')), 1).outcome == BusLink::Send::Sent) {
  }
  EXPECT_EQ(link->forward(frame(std::string(10'000, 'y')), {}), BusLink::Send::Sent);
  for (int i = 0; i < 3; ++i) {
    const auto result = link->send(frame("past"), 1);
    EXPECT_EQ(result.outcome, BusLink::Send::BudgetExhausted);
    EXPECT_FALSE(result.kept);
  }
  // That the queue's head goes on waiting is logged, and no loss.
  const auto gaveUp = [] { return test::countOf(Warning::SendGaveUp); };
  const uint64_t before = gaveUp();
  const auto lines = log_.countContaining("after 100 retries");
  EXPECT_TRUE(eventually([&] { return log_.countContaining("after 100 retries") > lines + 1; }));
  EXPECT_EQ(gaveUp(), before);
  link->closeSocket();
}

TEST_F(ForwardingTest, AFullQueueAndWhoSendsPastItTakeTurns) {
  const UniqueDescriptor far = openLink(*link_);
  const auto number = link_->number();
  EXPECT_EQ(link_->send(frame("first"), number).outcome, BusLink::Send::Sent);
  const std::string filler(100'000, 'x');
  std::size_t filled = 0;
  for (ssize_t n = 0; n >= 0; filled += n > 0 ? static_cast<std::size_t>(n) : 0) {
    n = ::send(link_->descriptor(), filler.data(), filler.size(), MSG_DONTWAIT);
  }
  forward("queued");
  std::thread past(
      [&] { EXPECT_EQ(link_->send(frame("past"), number).outcome, BusLink::Send::Sent); });
  const std::string got = readBytes(far, filled + 15);
  past.join();
  EXPECT_EQ(got.substr(got.size() - 10), "queuedpast");
  EXPECT_EQ(link_->forwarded().figures().messages, 1U);
  EXPECT_EQ(link_->sent().figures().messages, 3U);
}

TEST_F(ForwardingTest, AFullQueueHoldsUpWhoForwardsUntilItsReaderStalls) {
  const UniqueDescriptor far = openLink(*link_);
  const std::string big(4 << 20, 'x');
  for (int i = 0; i < 12; ++i) {  // 48 MiB into 32: returns only because nobody reads
    forward(big);
  }
  EXPECT_TRUE(link_->isStalled());
  EXPECT_EQ(log_.countContaining("router takes no messages"), 1);
  const std::size_t waiting = link_->waiting().frames;
  EXPECT_LE(link_->waiting().bytes, OutgoingQueue::kMaxBytes);
  const std::string got = readBytes(far, waiting * big.size());
  EXPECT_EQ(got.size(), waiting * big.size());
  EXPECT_EQ(log_.countContaining("router: " + std::to_string(12 - waiting) +
                                 " messages were dropped while it took none."),
            1);
  forward("again");
  EXPECT_EQ(readBytes(far, 5), "again");
}

TEST_F(ForwardingTest, WhatWaitsGoesWithItsLinkAndStalledLinksGiveWay) {
  const UniqueDescriptor far = openLink(*link_);
  const auto other = makeLink(1h);
  other->setSender(sender_);
  const UniqueDescriptor otherFar = openLink(*other);
  const std::string big(4 << 20, 'x');
  forward(big);
  ASSERT_TRUE(eventually([&] { return link_->isStalled(); }));
  for (int i = 0; i < 7; ++i) {
    forward(big);  // 32 MiB
  }
  std::thread reader([&] { readBytes(otherFar, 10 * big.size()); });
  for (int i = 0; i < 10; ++i) {
    const SharedFrame counted = sender_->budget().count(frame(big));
    EXPECT_EQ(other->forward(counted, {}), BusLink::Send::Sent);
  }
  reader.join();
  const std::size_t waiting = link_->waiting().frames;
  link_->setState(0);
  EXPECT_EQ(log_.countContaining("router: " + std::to_string(waiting) +
                                 " messages that waited to leave are lost with the link."),
            1);
  EXPECT_EQ(link_->framesLostWithLink(), waiting);
  EXPECT_EQ(link_->forward(frame("x"), {}), BusLink::Send::NotConnected);
  other->closeSocket();
}

}  // namespace
}  // namespace valtor
