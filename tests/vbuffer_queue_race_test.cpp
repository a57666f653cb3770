// The live stream's pattern under load: a writer reserves, fills and commits
// with eviction into a small wrapping queue while a reader, woken by the commit
// event, holds the oldest block, checks its bytes and removes it. Every block
// must reach the reader whole and in order, or be evicted: never both, never lost.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "VBufferQueue.h"
#include "WaitableObject.h"

namespace {

constexpr uint32_t kBlocks = 20000;

// A block's size and bytes follow from its sequence number, its user word.
int32_t SizeOf(uint32_t seq) { return 8 + static_cast<int32_t>((seq * 2654435761u) % 3000u); }
uint8_t ByteOf(uint32_t seq, int32_t i) { return static_cast<uint8_t>(seq * 31u + static_cast<uint32_t>(i)); }

TEST(VBufferQueueRace, WriterEvictsWhileReaderHoldsAndRemoves) {
  VBufferQueue queue(1, 0);
  ASSERT_EQ(1, queue.Open(64 * 1024, nullptr, nullptr, 4));
  HANDLE ready = CreateEventA(nullptr, 0, 0, nullptr);
  ASSERT_NE(nullptr, ready);
  ASSERT_EQ(1, queue.AddNotify(reinterpret_cast<VBufNotifyKey>(ready), VBufSignalEventOnCommit));

  std::atomic<bool> writerDone{false};
  std::atomic<int64_t> evictedBytes{0};
  int64_t writtenBytes = 0;
  uint32_t lastWritten = 0, badCommits = 0;
  std::thread writer([&] {
    for (uint32_t seq = 1; seq <= kBlocks; ++seq) {
      int32_t evicted = 0;
      uint8_t* p = queue.PrepareNewBufferAtTail(SizeOf(seq), 1, &evicted);
      evictedBytes += evicted;
      if (p == nullptr) continue;  // the reader's block stopped the eviction: dropped
      for (int32_t i = 0; i < SizeOf(seq); ++i) p[i] = ByteOf(seq, i);
      if (queue.NewBufferAtTail(p, -1, seq, 0, 0) != 1) ++badCommits;
      writtenBytes += SizeOf(seq);
      lastWritten = seq;
    }
    writerDone = true;
  });

  // The first commit signals; the reader starts once eviction has begun.
  EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(ready, 10000));
  while (evictedBytes.load() == 0 && !writerDone.load()) WaitForSingleObject(ready, 10);
  int64_t seenBytes = 0;
  uint32_t last = 0, broken = 0, outOfOrder = 0, notRemoved = 0;
  while (!writerDone.load() || queue.GetBufferCount() != 0) {
    int32_t size = 0;
    uint32_t user = 0;
    uint8_t* block = queue.GetBuffer(nullptr, &size, &user);
    if (block == nullptr) {
      WaitForSingleObject(ready, 10);
      continue;
    }
    bool intact = size == SizeOf(user);
    for (int32_t i = 0; intact && i < size; ++i) intact = block[i] == ByteOf(user, i);
    if (!intact) ++broken;
    if (user <= last) ++outOfOrder;
    last = user;
    seenBytes += size;
    if (queue.ReleaseAndRemoveAtHead(block, 0, nullptr) != 1) ++notRemoved;  // held: nobody else removes it
  }
  writer.join();

  EXPECT_EQ(std::vector<uint32_t>({0, 0, 0, 0}), std::vector<uint32_t>({badCommits, broken, outOfOrder, notRemoved}));
  EXPECT_TRUE(seenBytes > 0 && seenBytes < writtenBytes);  // some blocks were evicted
  EXPECT_EQ(writtenBytes, seenBytes + evictedBytes.load());  // each block delivered or evicted
  EXPECT_EQ(lastWritten, last);  // nothing comes after the newest block to evict it

  ASSERT_EQ(1, queue.RemoveNotify(reinterpret_cast<VBufNotifyKey>(ready)));
  CloseHandle(ready);
}

}  // namespace
