#include <atomic>
#include <cerrno>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "bus/BusLink.h"

namespace {

// How many of the next sends meet a full socket.
std::atomic<int> fullSends{0};

}  // namespace

// Takes the C library's place in this executable, so that a full socket can be counted.
extern "C" ssize_t send(int socket, const void* data, size_t size, int flags) {
  if (fullSends > 0) {
    --fullSends;
    errno = EAGAIN;
    return -1;
  }
  return syscall(SYS_sendto, socket, data, size, flags, nullptr, 0);
}

namespace valtor {
namespace {

struct Pair {
  Pair() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0) {
      near.reset(ends[0]);
      far.reset(ends[1]);
    }
  }
  UniqueDescriptor near;
  UniqueDescriptor far;
};

std::string drain(const UniqueDescriptor& end) {
  char bytes[4096];
  const ssize_t count = recv(end.get(), bytes, sizeof bytes, MSG_DONTWAIT);
  return std::string(bytes, count > 0 ? static_cast<std::size_t>(count) : 0);
}

const auto kNothingFirst = [] { return std::vector<std::string>(); };

TEST(BusLink, ABudgetOfAHundredAllows999FullSockets) {
  Pair pair;
  BusLink link;
  ASSERT_TRUE(link.open(std::move(pair.near), 100, kNothingFirst));
  fullSends = 999;
  EXPECT_EQ(link.send("1:a;", 1, 100).outcome, BusLink::Send::Sent);
  EXPECT_EQ(drain(pair.far), "1:a;");
  fullSends = 1000;
  const BusLink::SendResult result = link.send("1:b;", 1, 100);
  EXPECT_EQ(result.outcome, BusLink::Send::BudgetExhausted);
  EXPECT_EQ(result.sent, 0U);
  EXPECT_EQ(drain(pair.far), "");
}

TEST(BusLink, FirstFramesPrecedeEverythingAndOldLinksAreRefused) {
  Pair one;
  Pair two;
  BusLink link;
  EXPECT_EQ(link.send("x", 0, 100).outcome, BusLink::Send::NotConnected);
  ASSERT_TRUE(link.open(std::move(one.near), 100, kNothingFirst));
  EXPECT_EQ(link.state(), 1);
  ASSERT_TRUE(link.open(std::move(two.near), 100, [] {
    return std::vector<std::string>{"login", "list"};
  }));
  EXPECT_EQ(link.send("old", 1, 100).outcome, BusLink::Send::NotConnected);
  EXPECT_EQ(link.send("new", 2, 100).outcome, BusLink::Send::Sent);
  EXPECT_EQ(drain(two.far), "loginlistnew");
  EXPECT_EQ(drain(one.far), "");

  Pair dead;
  dead.far.reset();
  const auto results =
      link.open(std::move(dead.near), 100, [] { return std::vector<std::string>{"login"}; });
  ASSERT_TRUE(results && results->size() == 1);
  EXPECT_EQ(results->front().outcome, BusLink::Send::Failed);
  EXPECT_EQ(results->front().error, EPIPE);
}

}  // namespace
}  // namespace valtor
