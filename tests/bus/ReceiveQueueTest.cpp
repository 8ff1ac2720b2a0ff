#include <gtest/gtest.h>
#include <thread>

#include "bus/ReceiveQueue.h"

namespace valtor {
namespace {

void pushChunks(ReceiveQueue& queue, int count, uint32_t link, int32_t length = 10) {
  for (int i = 0; i < count; ++i) {
    auto chunk = std::make_unique<ReceivedChunk>();
    chunk->length = length;
    chunk->link = link;
    chunk->data.fill(static_cast<char>('a' + i % 26));
    ASSERT_TRUE(queue.push(std::move(chunk), SIZE_MAX));
  }
}

// Takes batches until the queue is empty; the chunks in each, negative when the limit ended it.
std::vector<int> batches(ReceiveQueue& queue, uint32_t& drained) {
  std::vector<int> sizes;
  for (;;) {
    std::vector<char> buffer;
    const ReceiveQueue::Batch batch = queue.take(buffer, 10485760, drained, 100);
    if (batch.chunks == 0) {
      return sizes;
    }
    const int size = static_cast<int>(batch.chunks);
    EXPECT_EQ(buffer.size(), 10U * batch.chunks);
    sizes.push_back(batch.limitReached ? -size : size);
  }
}

TEST(ReceiveQueue, TheDrainedCountGoesOnFromBatchToBatch) {
  ReceiveQueue queue;
  uint32_t drained = 0;
  pushChunks(queue, 250, 1);
  EXPECT_EQ(batches(queue, drained), (std::vector<int>{-100, -100, 50}));
  pushChunks(queue, 80, 1);
  EXPECT_EQ(batches(queue, drained), (std::vector<int>{-50, 30}));
}

TEST(ReceiveQueue, ABatchHoldsOneLinkAndAtMostOneChunkBeyondItsBound) {
  ReceiveQueue queue;
  uint32_t drained = 0;
  pushChunks(queue, 3, 1);
  pushChunks(queue, 2, 2);
  EXPECT_EQ(batches(queue, drained), (std::vector<int>{3, 2}));
  pushChunks(queue, 5, 2, ReceivedChunk::kCapacity);
  std::vector<char> buffer;
  EXPECT_EQ(queue.take(buffer, 2 * ReceivedChunk::kCapacity, drained, 1000).chunks, 3U);
}

TEST(ReceiveQueue, AFullQueueRefusesOrMakesItsWriterWait) {
  ReceiveQueue queue;
  uint32_t drained = 0;
  pushChunks(queue, 5, 1);
  EXPECT_FALSE(queue.push(std::make_unique<ReceivedChunk>(), 5));
  std::thread reader([&] { batches(queue, drained); });
  queue.waitForRoom(5, [] { return false; });
  reader.join();
  EXPECT_TRUE(queue.hasRoom(1));
  pushChunks(queue, 5, 1);
  queue.waitForRoom(5, [] { return true; });  // told to give up
  EXPECT_FALSE(queue.hasRoom(5));
}

}  // namespace
}  // namespace valtor
