// The live stream's pattern under load: a writer reserves, fills and commits
// with eviction into a small queue while a reader, woken by the commit event,
// takes the oldest block, holds it, checks it and removes it. Every block the
// reader sees must be whole and newer than the one before.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "OSTime.h"
#include "VBufferQueue.h"
#include "WaitableObject.h"

namespace {

constexpr uint32_t kRunMs = 3000;

// A block: its sequence number, then bytes derived from it.
int32_t SizeOf(uint32_t seq) { return 8 + static_cast<int32_t>((seq * 2654435761u) % 3000u); }
uint8_t ByteOf(uint32_t seq, int32_t i) { return static_cast<uint8_t>(seq * 31u + static_cast<uint32_t>(i)); }

void Fill(uint8_t* p, uint32_t seq) {
  std::memcpy(p, &seq, sizeof seq);
  const int32_t size = SizeOf(seq);
  for (int32_t i = 4; i < size; ++i) p[i] = ByteOf(seq, i);
}

bool IsIntact(const uint8_t* p, int32_t size, uint32_t* seq) {
  std::memcpy(seq, p, sizeof *seq);
  if (size != SizeOf(*seq)) return false;
  for (int32_t i = 4; i < size; ++i) {
    if (p[i] != ByteOf(*seq, i)) return false;
  }
  return true;
}

TEST(VBufferQueueRace, WriterEvictsWhileReaderHoldsAndRemoves) {
  VBufferQueue queue(1, 0);
  ASSERT_EQ(1, queue.Open(64 * 1024, nullptr, nullptr, 4));
  HANDLE ready = CreateEventA(nullptr, 0, 0, nullptr);
  ASSERT_NE(nullptr, ready);
  ASSERT_EQ(1, queue.AddNotify(reinterpret_cast<VBufNotifyKey>(ready), VBufSignalEventOnCommit));

  std::atomic<bool> stop{false};
  uint32_t written = 0;
  uint32_t dropped = 0;
  int64_t evictedBytes = 0;
  std::thread writer([&] {
    for (uint32_t seq = 1; !stop.load(std::memory_order_relaxed); ++seq) {
      int32_t evicted = 0;
      uint8_t* p = queue.PrepareNewBufferAtTail(SizeOf(seq), 1, &evicted);
      evictedBytes += evicted;
      if (p == nullptr) {  // the reader's block stopped the eviction
        ++dropped;
        continue;
      }
      Fill(p, seq);
      ASSERT_EQ(1, queue.NewBufferAtTail(p, -1, seq, 0, 0));
      ++written;
    }
  });

  uint32_t seen = 0;
  uint32_t last = 0;
  uint32_t broken = 0;
  uint32_t outOfOrder = 0;
  const uint32_t start = GetTickCount();
  while (GetTickCount() - start < kRunMs) {
    if (queue.GetBufferCount() == 0) {
      WaitForSingleObject(ready, 10);
      continue;
    }
    int32_t size = 0;
    uint32_t user = 0;
    uint8_t* block = queue.GetBuffer(nullptr, &size, &user);
    if (block == nullptr) continue;
    uint32_t seq = 0;
    if (!IsIntact(block, size, &seq) || seq != user) ++broken;
    if (seq <= last) ++outOfOrder;
    last = seq;
    ++seen;
    queue.ReleaseAndRemoveAtHead(block, 0, nullptr);
  }
  stop = true;
  writer.join();

  EXPECT_EQ(0u, broken);
  EXPECT_EQ(0u, outOfOrder);
  EXPECT_GT(seen, 100u);
  EXPECT_GT(evictedBytes, 0);  // the writer did outrun the reader
  EXPECT_LE(seen, written);
  std::printf("written %u, seen %u, dropped %u, evicted %lld bytes\n", written, seen, dropped,
              static_cast<long long>(evictedBytes));

  ASSERT_EQ(1, queue.RemoveNotify(reinterpret_cast<VBufNotifyKey>(ready)));
  CloseHandle(ready);
  queue.Close();
  EXPECT_EQ(0, queue.IsOpen());
}

}  // namespace
