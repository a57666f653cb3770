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

TEST(SameSizeMemPoolRace, TwoThreadsGrowingAtOnceAddOneChunk) {
  for (int round = 0; round < 50; ++round) {
    SameSizeMemPool<Owned> pool(4, 4, 0);
    std::atomic<int> ready{0};
    Owned* got[2] = {nullptr, nullptr};
    auto take = [&](int i) {
      for (ready.fetch_add(1); ready.load() < 2;) {
      }
      got[i] = pool.Alloc();
    };
    std::thread a(take, 0), b(take, 1);
    a.join();
    b.join();
    ASSERT_TRUE(got[0] != nullptr && got[1] != nullptr && got[0] != got[1]) << round;
    EXPECT_EQ(std::vector<int>({1, 2, 2}), std::vector<int>({pool.ChunkCount(), pool.UsedCount(), pool.FreeCount()}));
  }
}

// Each thread takes six objects, stamps them, checks that nobody else wrote
// to them while it held them, and gives them back. Four threads of six never
// need more than the four chunks, so every Alloc succeeds; at the end nothing
// is in use and every slot of every chunk is free.
TEST(SameSizeMemPoolRace, ObjectsHaveOneOwnerAtATime) {
  constexpr int kThreads = 4, kRounds = 5000;
  SameSizeMemPool<Owned> pool(8, 4, 0);
  std::atomic<int> conflicts{0};
  std::atomic<int64_t> taken{0};
  auto work = [&](uint64_t id) {
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
  EXPECT_EQ(conflicts.load(), 0);
  EXPECT_EQ(taken.load(), int64_t{kThreads} * kRounds * 6);
  EXPECT_EQ(pool.UsedCount(), 0);
  EXPECT_EQ(pool.FreeCount(), pool.ChunkCount() * 8);
  EXPECT_LE(pool.ChunkCount(), 4);
}

}  // namespace
