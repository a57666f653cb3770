#include "SameSizeMemPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

struct Owned {
  uint64_t owner = 0;
  uint64_t stamp = 0;
};

// Four threads start at once on an empty pool, so they race to add its first
// chunk; then each takes six objects at a time, stamps them, checks that nobody
// else wrote to them meanwhile and gives them back. No more than 24 objects are
// ever held: one chunk of 24 serves them all, or three of 8 added under load.
TEST(SameSizeMemPoolRace, GrowersAddOneChunkAndObjectsHaveOneOwnerAtATime) {
  constexpr int kThreads = 4, kRounds = 500;
  for (int pass = 0; pass < 20; ++pass) {
    const int32_t perChunk = pass % 2 == 0 ? 24 : 8;
    SameSizeMemPool<Owned> pool(perChunk, 4, 0);
    std::atomic<int> started{0}, conflicts{0};
    std::atomic<int64_t> taken{0};
    auto work = [&](uint64_t id) {
      for (started.fetch_add(1); started.load() < kThreads;) {
      }
      Owned* held[6];
      for (uint64_t round = 0; round < kRounds; ++round) {
        int n = 0;
        for (; n < 6 && (held[n] = pool.Alloc()) != nullptr; ++n) *held[n] = Owned{id, round};
        taken += n;
        for (int i = 0; i < n; ++i) {
          if (held[i]->owner != id || held[i]->stamp != round) ++conflicts;
          pool.Free(held[i]);
        }
      }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back(work, static_cast<uint64_t>(t + 1));
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(std::vector<int64_t>({0, int64_t{kThreads} * kRounds * 6, 0, pool.ChunkCount() * perChunk}),
              std::vector<int64_t>({conflicts.load(), taken.load(), pool.UsedCount(), pool.FreeCount()})) << pass;
    EXPECT_LE(pool.ChunkCount(), 24 / perChunk) << pass;
  }
}

}  // namespace
