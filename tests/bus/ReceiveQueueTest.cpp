#include <gtest/gtest.h>
#include <thread>

#include "bus/ReceiveQueue.h"
#include "support/ScarceMemory.h"

namespace valtor {
namespace {

TEST(ReceiveQueue, BatchesEndAtTheirLimits) {
  ReceiveQueue queue;
  for (uint32_t i = 0; i < 320; ++i) {
    queue.push({i / 250, std::string(10, 'x')});
  }
  EXPECT_TRUE(queue.hasRoom({321, 3201}));
  EXPECT_FALSE(queue.hasRoom({320, 3201}));
  EXPECT_FALSE(queue.hasRoom({321, 3200}));
  std::vector<std::size_t> sizes;
  uint32_t drained = 0;
  for (const std::size_t byteBound : {5000U, 5000U, 5000U, 5000U, 150U}) {
    std::vector<char> buffer;
    sizes.push_back(queue.take(buffer, byteBound, drained, 100).chunks);
  }
  EXPECT_EQ(sizes, (std::vector<std::size_t>{100, 100, 50, 50, 16}));
}

TEST(ReceiveQueue, AChunkThatTheBufferFindsNoMemoryForStays) {
  ReceiveQueue queue;
  for (const char* const text : {"a", "b", "c"}) {
    queue.push({1, text + std::string(999, '.')});
  }
  uint32_t drained = 0;
  std::string got;
  for (const std::size_t least : {1500U, 1000U, 10'000U}) {
    std::vector<char> buffer;
    {
      const test::ScarceMemory scarce(least);
      if (least == 1000) {
        EXPECT_THROW(queue.take(buffer, 5000, drained, 100), std::bad_alloc);
      } else {
        queue.take(buffer, 5000, drained, 100);
      }
    }
    for (std::size_t i = 0; i < buffer.size(); i += 1000) {
      got += buffer[i];
    }
    got += ' ';
  }
  EXPECT_EQ(got, "a  bc ");
}

TEST(ReceiveQueue, AWaitingReaderIsWokenByAChunkOrTheEnd) {
  ReceiveQueue queue;
  std::stop_source stop;
  std::vector<bool> found;
  std::thread reader([&] {
    for (int i = 0; i < 2; ++i) {
      found.push_back(queue.waitForChunk(stop.get_token(), std::nullopt));
      queue.clear();
      if (i == 0) {
        stop.request_stop();
      }
    }
  });
  queue.push({1, "x"});
  reader.join();
  EXPECT_EQ(found, (std::vector<bool>{true, false}));
}

}  // namespace
}  // namespace valtor
