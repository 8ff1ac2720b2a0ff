#include <algorithm>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "app/util/Paths.h"
#include "bus/message/MessageIdentifier.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

namespace valtor {
namespace {

class MessageIdentifierTest : public testing::Test {
 protected:
  MessageIdentifierTest() {
    folder_.becomePathPrefix();
    resetMessageIdentifiersForTest();
  }
  // The folder goes; the next identifier must not be made from what was read in it.
  ~MessageIdentifierTest() override { resetMessageIdentifiersForTest(); }

  test::TemporaryFolder folder_;
  test::LogCapture log_;
  const std::string process_ = std::to_string(getpid());
};

TEST_F(MessageIdentifierTest, LastByteOfTheAddressFileIsReplacedAndNamedInTheLog) {
  folder_.write("sys/class/net/eth0/address", "00:11:a2");
  EXPECT_EQ(nextMessageIdentifier(), "0@" + process_ + ".0011a");
  EXPECT_EQ(log_.count(LOG_DEBUG, paths().hostAddressFile + " terminated with'2'.\n"), 1);
}

TEST_F(MessageIdentifierTest, UnreadableAddressGivesAStarAndOneWarning) {
  setPathPrefix(folder_.at("empty"));
  EXPECT_EQ(nextMessageIdentifier(), "0@*");
  EXPECT_EQ(nextMessageIdentifier(), "1@*");
  EXPECT_EQ(log_.count(LOG_USER | LOG_WARNING,
                       "PellInternalClient::primeHostID could not open saved file: " +
                           paths().hostAddressFile + ". Empty mac address used.\n"),
            1);
}

TEST_F(MessageIdentifierTest, ThreadsNeverGetTheSameIdentifier) {
  std::vector<std::string> made(2000);
  const auto makeFrom = [&](std::ptrdiff_t first) {
    std::generate_n(made.begin() + first, 1000, nextMessageIdentifier);
  };
  std::thread other(makeFrom, 0);
  makeFrom(1000);
  other.join();
  EXPECT_EQ(std::set(made.begin(), made.end()).size(), made.size());
  EXPECT_EQ(nextMessageIdentifier(), "2000@" + process_ + ".0011a2b3c4d5");
}

}  // namespace
}  // namespace valtor
