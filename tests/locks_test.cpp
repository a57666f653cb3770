#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <thread>
#include <vector>

#include "RWLock.h"
#include "RecursiveLock.h"
#include "SpinLock.h"
#include "wait_test_support.h"

namespace {

struct RWState {
  int32_t active, waitingReaders, waitingWriters;
};

RWState Read(CRWLock& lock) {
  CLockGuard guard(&lock.mutex);
  return {lock.active, lock.waitingReaders, lock.waitingWriters};
}

void Take(CRWLock& lock, bool exclusive) { exclusive ? lock.LockExclusive(0) : lock.LockShared(0); }
void Take(CRecursiveLock& lock, bool) { lock.Lock(); }

// Another thread that takes the lock (waiting as long as needed), says so,
// and holds it until released.
template <class Lock>
struct Holder {
  std::atomic<bool> in{false}, release{false};
  std::thread thread;
  Holder(Lock& lock, bool exclusive)
      : thread([this, &lock, exclusive] {
          Take(lock, exclusive);
          in = true;
          while (!release) Sleep(1);
          lock.Unlock();
        }) {}
  ~Holder() {
    release = true;
    thread.join();
  }
};

TEST(CRecursiveLock, TimedEntersAgainstAnotherOwnerAndReentry) {
  CRecursiveLock lock;
  {
    Holder<CRecursiveLock> other(lock, true);
    ASSERT_TRUE(WaitUntil([&] { return other.in.load(); }));
    for (uint32_t timeout : {0u, 1u, 30u}) {  // 0 is one try; others poll until they pass
      const uint32_t start = GetTickCount();
      EXPECT_EQ(lock.Lock(timeout), 0);
      EXPECT_GE(GetTickCount() - start, timeout);
    }
    {
      CLockGuard guard(&lock, 0u, 1);
      EXPECT_EQ(guard.locked, 0);
    }
    EXPECT_EQ(lock.recursion, 1);  // the guard that timed out left the lock alone
    other.release = true;
    EXPECT_NE(lock.Lock(10000), 0);  // freed in time
    lock.Unlock();
  }
  ASSERT_NE(lock.Lock(0), 0);
  ASSERT_NE(lock.Lock(0), 0);
  EXPECT_EQ(lock.recursion, 2);
  EXPECT_EQ(lock.ownerThreadId, GetCurrentThreadId());
  lock.Unlock();
  lock.Unlock();
  EXPECT_EQ(lock.recursion, 0);
  EXPECT_EQ(lock.ownerThreadId, 0u);
}

TEST(CLockGuard, GuardReleasesUnlessDetachedOrNotAsked) {
  CRecursiveLock lock;
  { CLockGuard guard(&lock); }
  EXPECT_EQ(lock.recursion, 0);
  {
    CLockGuard guard(&lock, 0);
    EXPECT_EQ(guard.locked, 0);
    EXPECT_EQ(lock.recursion, 0);
  }
  {
    CLockGuard guard(&lock);
    guard.detached = 1;
  }
  EXPECT_EQ(lock.recursion, 1);
  lock.Unlock();
}

TEST(CRWLock, IdleLockGoesToAWriterOrToReaders) {
  CRWLock lock;
  EXPECT_EQ(lock.LockExclusive(1), 1);
  EXPECT_EQ(lock.Active(), -1);
  EXPECT_EQ(lock.LockShared(1), 0);
  EXPECT_EQ(lock.LockExclusive(1), 0);
  lock.Unlock();
  EXPECT_EQ(lock.Active(), 0);
  EXPECT_EQ(lock.LockShared(1), 1);
  EXPECT_EQ(lock.LockShared(1), 1);
  EXPECT_EQ(lock.Active(), 2);
  EXPECT_EQ(lock.LockExclusive(1), 0);
  lock.Unlock();
  lock.Unlock();
  EXPECT_EQ(lock.Active(), 0);
}

TEST(CRWLock, WaitingWriterGoesFirstThenQueuedReadersGoTogether) {
  CRWLock lock;
  ASSERT_EQ(lock.LockShared(0), 1);  // this thread reads
  {
    Holder<CRWLock> writer(lock, true);
    ASSERT_TRUE(WaitUntil([&] { return Read(lock).waitingWriters == 1; }));
    EXPECT_EQ(lock.LockShared(1), 0);  // a writer waits: new readers are refused a try
    std::deque<Holder<CRWLock>> readers;
    for (int i = 0; i < 3; ++i) readers.emplace_back(lock, false);
    ASSERT_TRUE(WaitUntil([&] { return Read(lock).waitingReaders == 3; }));
    auto readersIn = [&] {
      int n = 0;
      for (auto& r : readers) n += r.in;
      return n;
    };
    lock.Unlock();  // the last reader leaves: the writer gets it
    ASSERT_TRUE(WaitUntil([&] { return writer.in.load(); }));
    EXPECT_EQ(Read(lock).active, -1);
    EXPECT_EQ(readersIn(), 0);
    writer.release = true;  // the writer leaves: all three readers at once
    ASSERT_TRUE(WaitUntil([&] { return readersIn() == 3; }));
    EXPECT_EQ(Read(lock).active, 3);
  }
  EXPECT_EQ(lock.Active(), 0);
}

TEST(CRWLock, SecondWriterIsPreferredOverReadersThatWaitedLonger) {
  CRWLock lock;
  ASSERT_EQ(lock.LockExclusive(0), 1);
  Holder<CRWLock> reader(lock, false);
  ASSERT_TRUE(WaitUntil([&] { return Read(lock).waitingReaders == 1; }));
  Holder<CRWLock> writer(lock, true);
  ASSERT_TRUE(WaitUntil([&] { return Read(lock).waitingWriters == 1; }));
  lock.Unlock();
  ASSERT_TRUE(WaitUntil([&] { return writer.in.load(); }));
  EXPECT_FALSE(reader.in.load());
  writer.release = true;
  EXPECT_TRUE(WaitUntil([&] { return reader.in.load(); }));
}

TEST(CRWLock, UnlockOfAnIdleLockLeavesAPhantomReader) {
  CRWLock lock;
  lock.Unlock();
  EXPECT_EQ(lock.Active(), 1);
  EXPECT_EQ(lock.LockExclusive(1), 0);
  {
    Holder<CRWLock> writer(lock, true);
    ASSERT_TRUE(WaitUntil([&] { return Read(lock).waitingWriters == 1; }));
    EXPECT_FALSE(writer.in.load());
    lock.Unlock();  // the second Unlock lets the writer in
    ASSERT_TRUE(WaitUntil([&] { return writer.in.load(); }));
  }
  EXPECT_EQ(lock.Active(), 0);
}

TEST(SpinLock, WordLockExcludesAndReleases) {
  volatile int32_t word = 0;
  int64_t counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        SpinLockAcquire(&word, 0);
        ++counter;
        SpinLockRelease(&word);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, 80000);
  EXPECT_EQ(word, 0);
}

}  // namespace
