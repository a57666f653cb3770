// The live stream's pattern under load: a writer reserves, fills and commits
// with eviction into a small queue while a reader, woken by the commit event,
// holds the oldest block, checks it and removes it. Every committed block must
// reach the reader whole and in order, or be evicted: never both, never lost.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "VBufferQueue.h"
#include "WaitableObject.h"

namespace {

constexpr uint32_t kBlocks = 20000;

// A block: its sequence number, then bytes derived from it.
int32_t SizeOf(uint32_t seq) { return 8 + static_cast<int32_t>((seq * 2654435761u) % 3000u); }
uint8_t ByteOf(uint32_t seq, int32_t i) { return static_cast<uint8_t>(seq * 31u + static_cast<uint32_t>(i)); }

bool IsIntact(const uint8_t* p, int32_t size, uint32_t* seq) {
  std::memcpy(seq, p, sizeof *seq);
  for (int32_t i = 4; i < size; ++i) {
    if (p[i] != ByteOf(*seq, i)) return false;
  }
  return size == SizeOf(*seq);
}

TEST(VBufferQueueRace, WriterEvictsWhileReaderHoldsAndRemoves) {
  VBufferQueue queue(1, 0);
  ASSERT_EQ(1, queue.Open(64 * 1024, nullptr, nullptr, 4));
  HANDLE ready = CreateEventA(nullptr, 0, 0, nullptr);
  ASSERT_NE(nullptr, ready);
  ASSERT_EQ(1, queue.AddNotify(reinterpret_cast<VBufNotifyKey>(ready), VBufSignalEventOnCommit));

  std::atomic<bool> writerDone{false};
  std::atomic<int64_t> evictedBytes{0};
  int64_t writtenBytes = 0;
  uint32_t written = 0, lastWritten = 0, badCommits = 0;
  std::thread writer([&] {
    for (uint32_t seq = 1; seq <= kBlocks; ++seq) {
      int32_t evicted = 0;
      uint8_t* p = queue.PrepareNewBufferAtTail(SizeOf(seq), 1, &evicted);
      evictedBytes += evicted;
      if (p == nullptr) continue;  // the reader's block stopped the eviction: dropped
      std::memcpy(p, &seq, sizeof seq);
      for (int32_t i = 4; i < SizeOf(seq); ++i) p[i] = ByteOf(seq, i);
      if (queue.NewBufferAtTail(p, -1, seq, 0, 0) != 1) ++badCommits;
      writtenBytes += SizeOf(seq);
      ++written;
      lastWritten = seq;
    }
    writerDone = true;
  });

  // The reader starts once the writer has outrun it, so eviction is exercised.
  while (evictedBytes.load() == 0 && !writerDone.load()) WaitForSingleObject(ready, 10);
  int64_t seenBytes = 0;
  uint32_t seen = 0, last = 0, broken = 0, outOfOrder = 0, notRemoved = 0;
  while (!writerDone.load() || queue.GetBufferCount() != 0) {
    if (queue.GetBufferCount() == 0) {
      WaitForSingleObject(ready, 10);
      continue;
    }
    int32_t size = 0;
    uint32_t user = 0, seq = 0;
    uint8_t* block = queue.GetBuffer(nullptr, &size, &user);
    if (block == nullptr) continue;
    if (!IsIntact(block, size, &seq) || seq != user) ++broken;
    if (seq <= last) ++outOfOrder;
    last = seq;
    ++seen;
    seenBytes += size;
    if (queue.ReleaseAndRemoveAtHead(block, 0, nullptr) != 1) ++notRemoved;  // held: nobody else removes it
  }
  writer.join();

  EXPECT_EQ(std::vector<uint32_t>({0, 0, 0, 0}), std::vector<uint32_t>({badCommits, broken, outOfOrder, notRemoved}));
  EXPECT_GT(evictedBytes.load(), 0);
  EXPECT_TRUE(seen > 0 && seen < written);
  EXPECT_EQ(writtenBytes, seenBytes + evictedBytes.load());  // each block delivered or evicted
  EXPECT_EQ(lastWritten, last);  // nothing comes after the newest block to evict it
  EXPECT_EQ(0, queue.GetDataSize());

  ASSERT_EQ(1, queue.RemoveNotify(reinterpret_cast<VBufNotifyKey>(ready)));
  CloseHandle(ready);
}

}  // namespace
