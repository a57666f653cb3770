// Readers and writers hammer one CRWLock; the sections check their own exclusion.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "RWLock.h"

namespace {

TEST(LocksRace, ReadersNeverMeetAWriter) {
  CRWLock lock;
  std::atomic<int> readersInside{0}, writersInside{0}, violations{0}, writes{0}, reads{0};
  int64_t guarded = 0;  // written only by writers
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&, isWriter = t < 2] {
      for (int i = 0; i < 3000; ++i) {
        if (isWriter) {
          if (!lock.LockExclusive(i % 3 == 0)) continue;  // some tries, some waits
          violations += writersInside.fetch_add(1) != 0 || readersInside.load() != 0;
          ++guarded, ++writes;
          writersInside.fetch_sub(1);
        } else {
          if (!lock.LockShared(i % 5 == 0)) continue;
          readersInside.fetch_add(1);
          violations += writersInside.load() != 0;
          volatile int64_t seen = guarded;
          (void)seen;
          ++reads;
          readersInside.fetch_sub(1);
        }
        lock.Unlock();
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(violations.load(), 0);
  EXPECT_EQ(lock.Active(), 0);
  EXPECT_EQ(guarded, writes.load());  // no increment lost to an overlap
  EXPECT_GE(writes.load(), 2 * 2000);  // the waits among the tries always get in
  EXPECT_GE(reads.load(), 4 * 2400);
}

}  // namespace
