// CRecursiveLock: a recursive mutex with a timed enter, and CLockGuard, its
// scope guard.
//
// The timed enter tries once, then polls at the rate of Sleep(1) until the
// timeout has passed: a timeout of 0 is exactly one try, and a timeout of 1
// still makes one more try after the first. INFINITE waits without limit.
#pragma once

#include <cstdint>
#include <pthread.h>

#include "WaitableObject.h"

struct CRecursiveLock {
  pthread_mutex_t section;
  int32_t recursion;        // times the owner holds it; changed only while held
  uint32_t ownerThreadId;   // 0 when free; for inspection only

  CRecursiveLock();
  ~CRecursiveLock();
  CRecursiveLock(const CRecursiveLock&) = delete;
  CRecursiveLock& operator=(const CRecursiveLock&) = delete;

  void Lock();
  // Non-zero if the lock was taken within `timeoutMs`.
  int Lock(uint32_t timeoutMs);
  void Unlock();

 private:
  void Enter();  // bookkeeping after the section was taken
};

// Takes the lock for the scope. With a finite timeout the caller must look at
// `locked`; a guard that did not get the lock leaves it alone.
struct CLockGuard {
  CRecursiveLock* lock;
  int32_t locked;
  int32_t detached;  // non-zero: the destructor leaves the lock alone

  CLockGuard(CRecursiveLock* l, uint32_t timeoutMs, int32_t doLock);
  CLockGuard(CRecursiveLock* l, int32_t doLock = 1);
  ~CLockGuard();
  CLockGuard(const CLockGuard&) = delete;
  CLockGuard& operator=(const CLockGuard&) = delete;
};
