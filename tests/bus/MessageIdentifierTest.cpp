#include <filesystem>
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
  void SetUp() override {
    folder_.becomePathPrefix();
    resetMessageIdentifiersForTest();
  }
  // The folder goes; the next identifier must not be made from what was read in it.
  void TearDown() override { resetMessageIdentifiersForTest(); }

  // The next identifier when the address file holds this.
  std::string firstIdentifierWith(const std::string& content) {
    folder_.write("sys/class/net/eth0/address", content);
    resetMessageIdentifiersForTest();
    return nextMessageIdentifier();
  }

  test::TemporaryFolder folder_;
  const std::string process_ = std::to_string(getpid());
};

TEST_F(MessageIdentifierTest, CountsFromZeroBeforeProcessAndAddress) {
  EXPECT_EQ(nextMessageIdentifier(), "0@" + process_ + ".0011a2b3c4d5");
  EXPECT_EQ(PellInternalMessage(MessageKind::GET, "a").getUniqueId(),
            "1@" + process_ + ".0011a2b3c4d5");
}

TEST_F(MessageIdentifierTest, LastByteReadIsReplacedAndNamedInTheLog) {
  using namespace std::string_literals;
  const struct {
    std::string content, address, replaced;
  } cases[] = {
      {"00:11:a2\n", "0011a2", "\n"},  {"00:11:a2", "0011a", "2"}, {"00:11:a2\0"s, "0011a2", ""},
      {"00:11\0:a2\n"s, "0011", "\n"}, {"\n", "", "\n"},           {"", "", ""}};
  for (const auto& example : cases) {
    const test::LogCapture log;
    EXPECT_EQ(firstIdentifierWith(example.content), "0@" + process_ + "." + example.address);
    EXPECT_EQ(log.lines().size(), example.replaced.empty() ? 0U : 1U);
    if (!example.replaced.empty()) {
      EXPECT_EQ(log.count(LOG_DEBUG, paths().hostAddressFile + " terminated with'" +
                                         example.replaced + "'.\n"),
                1);
    }
  }
}

TEST_F(MessageIdentifierTest, UnreadableAddressGivesAStarAndOneWarning) {
  for (const bool folderInstead : {false, true}) {
    std::filesystem::remove_all(paths().hostAddressFile);
    if (folderInstead) {
      std::filesystem::create_directory(paths().hostAddressFile);
    }
    resetMessageIdentifiersForTest();
    const test::LogCapture log;
    EXPECT_EQ(nextMessageIdentifier(), "0@*");
    EXPECT_EQ(nextMessageIdentifier(), "1@*");
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.count(LOG_USER | LOG_WARNING,
                        "PellInternalClient::primeHostID could not open saved file: " +
                            paths().hostAddressFile + ". Empty mac address used.\n"),
              1);
  }
}

TEST_F(MessageIdentifierTest, ThreadsNeverGetTheSameIdentifier) {
  constexpr std::size_t kThreads = 4;
  constexpr std::size_t kEach = 500;
  std::vector<std::vector<std::string>> made(kThreads);
  std::vector<std::thread> threads;
  for (std::vector<std::string>& mine : made) {
    threads.emplace_back([&mine] {
      for (std::size_t i = 0; i < kEach; ++i) {
        mine.push_back(nextMessageIdentifier());
      }
    });
  }
  std::set<std::string> all;
  for (std::size_t i = 0; i < kThreads; ++i) {
    threads[i].join();
    all.insert(made[i].begin(), made[i].end());
  }
  EXPECT_EQ(all.size(), kThreads * kEach);
  EXPECT_EQ(nextMessageIdentifier(), "2000@" + process_ + ".0011a2b3c4d5");
}

}  // namespace
}  // namespace valtor
