#include "RWLock.h"

#include <atomic>

#include "OSTime.h"

namespace {

void AtomicAdd(int32_t& word, int32_t value) {
  std::atomic_ref<int32_t>(word).fetch_add(value);
}

// Waits for a hand-over on `semaphore`; the hand-over has counted us already.
void AwaitHandOver(HANDLE semaphore, int32_t& inFlight) {
  if (WaitForSingleObject(semaphore, INFINITE) == WAIT_OBJECT_0) AtomicAdd(inFlight, -1);
}

}  // namespace

CRWLock::CRWLock()
    : readerSemaphore(CreateSemaphoreA(nullptr, 0, 0x7fffffff, nullptr)),
      readerReleasesInFlight(0),
      writerSemaphore(CreateSemaphoreA(nullptr, 0, 0x7fffffff, nullptr)),
      writerReleasesInFlight(0),
      waitingReaders(0),
      waitingWriters(0),
      active(0) {}

CRWLock::~CRWLock() {
  CloseHandle(writerSemaphore);
  CloseHandle(readerSemaphore);
}

int CRWLock::LockShared(int32_t noWait) {
  mutex.Lock();
  if (waitingWriters == 0 && active >= 0) {
    ++active;
    mutex.Unlock();
    return 1;
  }
  if (noWait) {
    mutex.Unlock();
    return 0;
  }
  ++waitingReaders;
  mutex.Unlock();
  AwaitHandOver(readerSemaphore, readerReleasesInFlight);
  return 1;
}

int CRWLock::LockExclusive(int32_t noWait) {
  mutex.Lock();
  if (active == 0) {
    active = -1;
    mutex.Unlock();
    return 1;
  }
  if (noWait) {
    mutex.Unlock();
    return 0;
  }
  ++waitingWriters;
  mutex.Unlock();
  AwaitHandOver(writerSemaphore, writerReleasesInFlight);
  return 1;
}

void CRWLock::Unlock() {
  HANDLE semaphore = nullptr;
  int32_t* inFlight = nullptr;
  int32_t releases = 0;
  mutex.Lock();
  if (active > 0)
    --active;
  else
    ++active;
  if (active == 0) {
    if (waitingWriters > 0) {
      active = -1;
      --waitingWriters;
      semaphore = writerSemaphore;
      inFlight = &writerReleasesInFlight;
      releases = 1;
    } else if (waitingReaders > 0) {
      active = waitingReaders;
      releases = waitingReaders;
      waitingReaders = 0;
      semaphore = readerSemaphore;
      inFlight = &readerReleasesInFlight;
    }
  }
  mutex.Unlock();
  if (releases == 0) return;
  AtomicAdd(*inFlight, releases);
  while (!ReleaseSemaphore(semaphore, releases, nullptr)) {
    if (GetLastError() != ERROR_TOO_MANY_POSTS) {
      AtomicAdd(*inFlight, -releases);
      return;
    }
    Sleep(1);
  }
}

int32_t CRWLock::Active() {
  CLockGuard guard(&mutex);
  return active;
}
