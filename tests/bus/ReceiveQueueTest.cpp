#include <gtest/gtest.h>
#include <thread>

#include "bus/ReceiveQueue.h"

namespace valtor {
namespace {

TEST(ReceiveQueue, BatchesEndAtTheirLimitsAndMakeRoomForAWaitingWriter) {
  ReceiveQueue queue;
  for (uint32_t i = 0; i < 320; ++i) {
    queue.push({i / 250, std::string(10, 'x')});
  }
  EXPECT_TRUE(queue.hasRoom({321, 3201}));
  EXPECT_FALSE(queue.hasRoom({320, 3201}));
  EXPECT_FALSE(queue.hasRoom({321, 3200}));
  std::vector<std::size_t> sizes;
  std::thread reader([&] {
    uint32_t drained = 0;
    for (const std::size_t byteBound : {5000U, 5000U, 5000U, 5000U, 150U}) {
      std::vector<char> buffer;
      sizes.push_back(queue.take(buffer, byteBound, drained, 100).chunks);
    }
  });
  queue.waitForRoom({5, 50}, [] { return false; });
  reader.join();
  EXPECT_EQ(sizes, (std::vector<std::size_t>{100, 100, 50, 50, 16}));
  queue.waitForRoom({0}, [] { return true; });  // told to give up
}

}  // namespace
}  // namespace valtor
