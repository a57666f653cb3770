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
      ready.fetch_add(1);
      while (ready.load() < 2) {
      }
      got[i] = pool.Alloc();
    };
    std::thread a(take, 0);
    std::thread b(take, 1);
    a.join();
    b.join();
    ASSERT_NE(got[0], nullptr);
    ASSERT_NE(got[1], nullptr);
    EXPECT_NE(got[0], got[1]);
    EXPECT_EQ(pool.ChunkCount(), 1) << round;
  }
}

TEST(SameSizeMemPoolRace, ObjectsHaveOneOwnerAtATime) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 5000;
  SameSizeMemPool<Owned> pool(8, 4, 0);
  std::atomic<int> conflicts{0};
  auto work = [&](uint64_t id) {
    Owned* held[6];
    for (int round = 0; round < kRounds; ++round) {
      int n = 0;
      for (; n < 6; ++n) {
        held[n] = pool.Alloc();
        if (held[n] == nullptr) break;
        held[n]->owner = id;
        held[n]->stamp = static_cast<uint64_t>(round);
      }
      for (int i = 0; i < n; ++i) {
        if (held[i]->owner != id || held[i]->stamp != static_cast<uint64_t>(round)) ++conflicts;
        pool.Free(held[i]);
      }
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(work, static_cast<uint64_t>(t + 1));
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(conflicts.load(), 0);
  EXPECT_EQ(pool.UsedCount(), 0);
  EXPECT_EQ(pool.FreeCount(), pool.ChunkCount() * 8);
  EXPECT_LE(pool.ChunkCount(), 4);
}

}  // namespace
