#include <gtest/gtest.h>
#include <thread>

#include "bus/ReceiveQueue.h"

namespace valtor {
namespace {

TEST(ReceiveQueue, BatchesEndAtTheirLimitsAndMakeRoomForAWaitingWriter) {
  ReceiveQueue queue;
  for (uint32_t i = 0; i < 320; ++i) {
    auto chunk = std::make_unique<ReceivedChunk>();
    chunk->length = 10;
    chunk->link = i / 250;
    ASSERT_TRUE(queue.push(std::move(chunk), 320));
  }
  EXPECT_FALSE(queue.push(std::make_unique<ReceivedChunk>(), 320));
  std::vector<std::size_t> sizes;
  std::thread reader([&] {
    uint32_t drained = 0;
    for (const std::size_t byteBound : {5000U, 5000U, 5000U, 5000U, 150U}) {
      std::vector<char> buffer;
      sizes.push_back(queue.take(buffer, byteBound, drained, 100).chunks);
    }
  });
  queue.waitForRoom(5, [] { return false; });
  reader.join();
  EXPECT_EQ(sizes, (std::vector<std::size_t>{100, 100, 50, 50, 16}));
  queue.waitForRoom(1, [] { return true; });  // told to give up
}

}  // namespace
}  // namespace valtor
