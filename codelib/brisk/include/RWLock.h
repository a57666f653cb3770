// CRWLock: a reader/writer lock that lets writers go first.
//
// Once a writer waits, new readers wait too and a try fails, even while other
// readers hold the lock. When the lock falls idle it is handed over inside the
// counter mutex: to one waiting writer if there is one, else to all waiting
// readers at once, so a woken thread already holds the lock. Uncontended paths
// touch no semaphore.
//
// Not recursive, no upgrade: a reader asking to write waits for itself. Unlock
// serves both kinds; an Unlock of an idle lock leaves a phantom reader
// (`active` 1), deliberately not guarded against.
#pragma once

#include <cstdint>

#include "RecursiveLock.h"
#include "WaitableObject.h"

struct CRWLock {
  CRecursiveLock mutex;               // guards the counters below, briefly
  HANDLE readerSemaphore;             // count 0, maximum 0x7fffffff
  int32_t readerReleasesInFlight;     // readers released but not yet awake
  HANDLE writerSemaphore;
  int32_t writerReleasesInFlight;
  int32_t waitingReaders;
  int32_t waitingWriters;
  int32_t active;                     // 0 idle, n readers, or -1 a writer

  CRWLock();
  ~CRWLock();
  CRWLock(const CRWLock&) = delete;
  CRWLock& operator=(const CRWLock&) = delete;

  // 1 when the lock is held; 0 only if `noWait` is non-zero and it is busy.
  int LockShared(int32_t noWait);
  int LockExclusive(int32_t noWait);
  void Unlock();

  // A snapshot of `active`, for inspection.
  int32_t Active();
};
