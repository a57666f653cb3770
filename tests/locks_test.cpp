#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <thread>

#include "RWLock.h"
#include "RecursiveLock.h"
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

TEST(CRecursiveLock, TimedEntersReentryAndGuards) {
  CRecursiveLock lock;
  {
    Holder<CRecursiveLock> other(lock, true);
    ASSERT_TRUE(WaitUntil([&] { return other.in.load(); }));
    for (uint32_t timeout : {0u, 1u, 30u}) {  // 0 is one try; others poll until they pass
      const uint32_t start = GetTickCount();
      EXPECT_EQ(lock.Lock(timeout), 0);
      EXPECT_GE(GetTickCount() - start, timeout);
    }
    EXPECT_EQ(CLockGuard(&lock, 0u, 1).locked, 0);
    EXPECT_EQ(lock.recursion, 1);  // the guard that timed out left the lock alone
    other.release = true;
    EXPECT_NE(lock.Lock(10000), 0);  // freed in time
    lock.Unlock();
  }
  {
    CLockGuard outer(&lock), notAsked(&lock, 0);
    EXPECT_NE(lock.Lock(0), 0);  // re-entry, at the first try
    EXPECT_EQ(notAsked.locked, 0);
    EXPECT_TRUE(lock.recursion == 2 && lock.ownerThreadId == GetCurrentThreadId());
    lock.Unlock();
  }
  EXPECT_TRUE(lock.recursion == 0 && lock.ownerThreadId == 0u);
  { CLockGuard guard(&lock); guard.detached = 1; }  // a detached guard leaves the lock held
  EXPECT_EQ(lock.recursion, 1);
  lock.Unlock();
}

// A waiting writer goes before readers that waited longer or came later; when
// it leaves, all waiting readers get the lock together. While a writer waits,
// a reader's try fails even though readers hold the lock.
TEST(CRWLock, WritersGoFirstAndWaitingReadersGoTogether) {
  CRWLock lock;
  ASSERT_EQ(lock.LockExclusive(1), 1);
  EXPECT_EQ(lock.LockShared(1) + lock.LockExclusive(1), 0);
  {
    std::deque<Holder<CRWLock>> readers;
    readers.emplace_back(lock, false);
    ASSERT_TRUE(WaitUntil([&] { return Read(lock).waitingReaders == 1; }));
    Holder<CRWLock> writer(lock, true);
    ASSERT_TRUE(WaitUntil([&] { return Read(lock).waitingWriters == 1; }));
    for (int i = 0; i < 2; ++i) readers.emplace_back(lock, false);
    ASSERT_TRUE(WaitUntil([&] { return Read(lock).waitingReaders == 3; }));
    auto readersIn = [&] { return std::count_if(readers.begin(), readers.end(), [](auto& r) { return r.in.load(); }); };
    lock.Unlock();
    ASSERT_TRUE(WaitUntil([&] { return writer.in.load(); }));
    EXPECT_EQ(Read(lock).active, -1);
    EXPECT_EQ(readersIn(), 0);
    writer.release = true;
    ASSERT_TRUE(WaitUntil([&] { return readersIn() == 3; }));
    EXPECT_EQ(Read(lock).active, 3);
    Holder<CRWLock> second(lock, true);
    ASSERT_TRUE(WaitUntil([&] { return Read(lock).waitingWriters == 1; }));
    EXPECT_EQ(lock.LockShared(1), 0);
    for (auto& r : readers) r.release = true;
    EXPECT_TRUE(WaitUntil([&] { return second.in.load(); }));
  }
  EXPECT_EQ(lock.Active(), 0);
}

}  // namespace
