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

// Opens the next link of a client; its far end.
UniqueDescriptor openLink(BusLink& link, const std::vector<std::string>& firstFrames = {}) {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  EXPECT_TRUE(link.open(UniqueDescriptor(ends[0]), 100, [&] { return firstFrames; }));
  return UniqueDescriptor(ends[1]);
}

std::string drain(const UniqueDescriptor& end) {
  std::string bytes(4'000'000, '\0');
  const ssize_t count = recv(end.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
  bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return bytes;
}

TEST(BusLink, ABudgetOfAHundredAllows999FullSockets) {
  BusLink link;
  const UniqueDescriptor far = openLink(link);
  fullSends = 999;
  EXPECT_EQ(link.send("1:a;", 1, 100).outcome, BusLink::Send::Sent);
  EXPECT_EQ(drain(far), "1:a;");
  fullSends = 1000;
  const BusLink::SendResult result = link.send("1:b;", 1, 100);
  EXPECT_EQ(result.outcome, BusLink::Send::BudgetExhausted);
  EXPECT_EQ(result.sent, 0U);
  EXPECT_EQ(drain(far), "");
}

TEST(BusLink, TheRestOfAFrameGoesOutBeforeTheNextOneOfItsLink) {
  BusLink link;
  const UniqueDescriptor far = openLink(link);
  const std::string big(1'000'000, 'x');
  const BusLink::SendResult result = link.send(big, 1, 1);
  EXPECT_EQ(result.outcome, BusLink::Send::BudgetExhausted);
  std::string received = drain(far);
  EXPECT_EQ(received.size(), result.sent);
  while (link.send("next", 1, 1).outcome != BusLink::Send::Sent) {
    received += drain(far);
  }
  EXPECT_TRUE(received + drain(far) == big + "next");
  link.send(big, 1, 1);
  const UniqueDescriptor other = openLink(link, {"login"});
  EXPECT_EQ(drain(other), "login");
}

TEST(BusLink, FirstFramesPrecedeEverythingAndOldLinksAreRefused) {
  BusLink link;
  EXPECT_EQ(link.send("x", 0, 100).outcome, BusLink::Send::NotConnected);
  const UniqueDescriptor one = openLink(link);
  const UniqueDescriptor two = openLink(link, {"login", "list"});
  EXPECT_EQ(link.send("old", 1, 100).outcome, BusLink::Send::NotConnected);
  EXPECT_EQ(link.send("new", 2, 100).outcome, BusLink::Send::Sent);
  EXPECT_EQ(drain(two), "loginlistnew");
  EXPECT_EQ(drain(one), "");

  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  close(ends[1]);
  const auto results =
      link.open(UniqueDescriptor(ends[0]), 100, [] { return std::vector<std::string>{"login"}; });
  ASSERT_TRUE(results && results->size() == 1);
  EXPECT_EQ(results->front().outcome, BusLink::Send::Failed);
  EXPECT_EQ(results->front().error, EPIPE);
}

}  // namespace
}  // namespace valtor
