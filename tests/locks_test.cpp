#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "OSTime.h"
#include "RWLock.h"
#include "RecursiveLock.h"
#include "SpinLock.h"

namespace {

// Polls `condition` until it holds or ten seconds pass.
bool Eventually(const std::function<bool()>& condition) {
  for (uint32_t start = GetTickCount(); GetTickCount() - start < 10000;) {
    if (condition()) return true;
    Sleep(1);
  }
  return condition();
}

struct RWState {
  int32_t active, waitingReaders, waitingWriters;
};

RWState Read(CRWLock& lock) {
  CLockGuard guard(&lock.mutex);
  return {lock.active, lock.waitingReaders, lock.waitingWriters};
}

// Holds a CRecursiveLock on another thread until released.
class OtherHolder {
 public:
  explicit OtherHolder(CRecursiveLock& lock) : thread_([&] {
      lock.Lock();
      held_ = true;
      while (!release_) Sleep(1);
      lock.Unlock();
    }) {
    EXPECT_TRUE(Eventually([&] { return held_.load(); }));
  }
  ~OtherHolder() {
    release_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> held_{false};
  std::atomic<bool> release_{false};
  std::thread thread_;
};

TEST(CRecursiveLock, ZeroTimeoutIsOneTryAndTheOwnerMayReenter) {
  CRecursiveLock lock;
  {
    OtherHolder other(lock);
    uint32_t start = GetTickCount();
    EXPECT_EQ(lock.Lock(0), 0);
    EXPECT_LT(GetTickCount() - start, 1000u);
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

TEST(CRecursiveLock, FiniteTimeoutPollsUntilItPasses) {
  CRecursiveLock lock;
  OtherHolder other(lock);
  for (uint32_t timeout : {1u, 30u}) {
    uint32_t start = GetTickCount();
    EXPECT_EQ(lock.Lock(timeout), 0);
    uint32_t spent = GetTickCount() - start;
    EXPECT_GE(spent, timeout);
    EXPECT_LT(spent, 5000u);
  }
}

TEST(CRecursiveLock, TimedEnterTakesTheLockWhenItIsFreedInTime) {
  CRecursiveLock lock;
  std::atomic<bool> held{false};
  std::thread t([&] {
    lock.Lock();
    held = true;
    Sleep(20);
    lock.Unlock();
  });
  ASSERT_TRUE(Eventually([&] { return held.load(); }));
  EXPECT_NE(lock.Lock(10000), 0);
  lock.Unlock();
  t.join();
}

TEST(CLockGuard, GuardThatTimedOutLeavesTheLockAlone) {
  CRecursiveLock lock;
  OtherHolder other(lock);
  {
    CLockGuard guard(&lock, 0u, 1);
    EXPECT_EQ(guard.locked, 0);
  }
  // Had the guard unlocked a lock it did not hold, the count would be off.
  EXPECT_EQ(lock.recursion, 1);
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

TEST(CRWLock, IdleLockGoesToAWriterAndBack) {
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

  std::atomic<int> order{0};
  std::atomic<int> writerAt{-1};
  std::atomic<bool> writerRelease{false};
  std::thread writer([&] {
    lock.LockExclusive(0);
    writerAt = order++;
    while (!writerRelease) Sleep(1);
    lock.Unlock();
  });
  ASSERT_TRUE(Eventually([&] { return Read(lock).waitingWriters == 1; }));

  // A writer waits: new readers are refused a try and queue behind it.
  EXPECT_EQ(lock.LockShared(1), 0);
  std::atomic<int> readersIn{0};
  std::atomic<bool> readersRelease{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      lock.LockShared(0);
      ++readersIn;
      while (!readersRelease) Sleep(1);
      lock.Unlock();
    });
  }
  ASSERT_TRUE(Eventually([&] { return Read(lock).waitingReaders == 3; }));
  EXPECT_EQ(readersIn.load(), 0);

  lock.Unlock();  // the last reader leaves: the writer gets it
  ASSERT_TRUE(Eventually([&] { return writerAt.load() == 0; }));
  EXPECT_EQ(Read(lock).active, -1);
  EXPECT_EQ(readersIn.load(), 0);

  writerRelease = true;  // the writer leaves: all three readers at once
  ASSERT_TRUE(Eventually([&] { return readersIn.load() == 3; }));
  EXPECT_EQ(Read(lock).active, 3);
  readersRelease = true;
  writer.join();
  for (auto& t : readers) t.join();
  EXPECT_EQ(lock.Active(), 0);
}

TEST(CRWLock, SecondWriterIsPreferredOverReadersThatWaitedLonger) {
  CRWLock lock;
  ASSERT_EQ(lock.LockExclusive(0), 1);
  std::atomic<bool> readerIn{false};
  std::thread reader([&] {
    lock.LockShared(0);
    readerIn = true;
    lock.Unlock();
  });
  ASSERT_TRUE(Eventually([&] { return Read(lock).waitingReaders == 1; }));
  std::atomic<bool> writerIn{false};
  std::atomic<bool> writerRelease{false};
  std::thread writer([&] {
    lock.LockExclusive(0);
    writerIn = true;
    while (!writerRelease) Sleep(1);
    lock.Unlock();
  });
  ASSERT_TRUE(Eventually([&] { return Read(lock).waitingWriters == 1; }));

  lock.Unlock();
  ASSERT_TRUE(Eventually([&] { return writerIn.load(); }));
  EXPECT_FALSE(readerIn.load());
  writerRelease = true;
  ASSERT_TRUE(Eventually([&] { return readerIn.load(); }));
  writer.join();
  reader.join();
}

TEST(CRWLock, UnlockOfAnIdleLockLeavesAPhantomReader) {
  CRWLock lock;
  lock.Unlock();
  EXPECT_EQ(lock.Active(), 1);
  EXPECT_EQ(lock.LockExclusive(1), 0);
  std::atomic<bool> writerIn{false};
  std::thread writer([&] {
    lock.LockExclusive(0);
    writerIn = true;
    lock.Unlock();
  });
  ASSERT_TRUE(Eventually([&] { return Read(lock).waitingWriters == 1; }));
  EXPECT_FALSE(writerIn.load());
  lock.Unlock();  // the second Unlock lets the writer in
  ASSERT_TRUE(Eventually([&] { return writerIn.load(); }));
  writer.join();
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

TEST(ReleaseSemaphoreRetry, RetriesWhileTheSemaphoreIsFull) {
  HANDLE semaphore = CreateSemaphoreA(nullptr, 1, 1, nullptr);
  std::thread taker([&] {
    Sleep(20);
    WaitForSingleObject(semaphore, INFINITE);
  });
  // Full at first: the release succeeds once the taker has made room.
  EXPECT_NE(ReleaseSemaphoreRetry(&semaphore, 1), 0);
  taker.join();
  EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_OBJECT_0);
  HANDLE closed = nullptr;
  EXPECT_EQ(ReleaseSemaphoreRetry(&closed, 1), 0);
  CloseHandle(semaphore);
}

}  // namespace
