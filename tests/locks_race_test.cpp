// Readers and writers hammer one CRWLock, and threads share a CRecursiveLock
// through timed enters; the sections check their own exclusion.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "RWLock.h"
#include "RecursiveLock.h"

namespace {

TEST(LocksRace, ReadersNeverMeetAWriter) {
  CRWLock lock;
  std::atomic<int> readersInside{0};
  std::atomic<int> writersInside{0};
  std::atomic<bool> violated{false};
  int64_t guarded = 0;  // written only by writers
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    const bool isWriter = t < 2;
    threads.emplace_back([&, isWriter] {
      for (int i = 0; i < 3000; ++i) {
        if (isWriter) {
          if (!lock.LockExclusive(i % 3 == 0)) continue;  // some tries, some waits
          if (writersInside.fetch_add(1) != 0 || readersInside.load() != 0) violated = true;
          ++guarded;
          writersInside.fetch_sub(1);
          lock.Unlock();
        } else {
          if (!lock.LockShared(i % 5 == 0)) continue;
          readersInside.fetch_add(1);
          if (writersInside.load() != 0) violated = true;
          volatile int64_t seen = guarded;
          (void)seen;
          readersInside.fetch_sub(1);
          lock.Unlock();
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_FALSE(violated.load());
  EXPECT_EQ(lock.Active(), 0);
  EXPECT_GT(guarded, 0);
}

TEST(LocksRace, TimedEntersShareARecursiveLock) {
  CRecursiveLock lock;
  int64_t counter = 0;
  std::atomic<int64_t> taken{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        if (!lock.Lock(t == 0 ? 0u : 50u)) continue;
        CLockGuard inner(&lock);  // re-entry by the owner
        ++counter;
        ++taken;
        lock.Unlock();
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, taken.load());
  EXPECT_EQ(lock.recursion, 0);
}

}  // namespace
