#include <gtest/gtest.h>
#include <set>
#include <string>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "app/util/Paths.h"
#include "bus/PellInternalMessage.h"
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
  std::vector<std::set<std::string>> made(4);
  std::vector<std::thread> threads;
  for (std::set<std::string>& mine : made) {
    threads.emplace_back([&mine] {
      while (mine.size() < 500) {
        mine.insert(nextMessageIdentifier());
      }
    });
  }
  std::set<std::string> all;
  for (std::size_t i = 0; i < threads.size(); ++i) {
    threads[i].join();
    all.merge(made[i]);
  }
  EXPECT_EQ(all.size(), 2000U);
  EXPECT_EQ(nextMessageIdentifier(), "2000@" + process_ + ".0011a2b3c4d5");
}

}  // namespace
}  // namespace valtor
