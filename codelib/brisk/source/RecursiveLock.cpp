#include "RecursiveLock.h"

#include "OSTime.h"

CRecursiveLock::CRecursiveLock() : recursion(0), ownerThreadId(0) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&section, &attr);
  pthread_mutexattr_destroy(&attr);
}

CRecursiveLock::~CRecursiveLock() { pthread_mutex_destroy(&section); }

void CRecursiveLock::Enter() {
  if (++recursion == 1) ownerThreadId = GetCurrentThreadId();
}

void CRecursiveLock::Lock() {
  pthread_mutex_lock(&section);
  Enter();
}

int CRecursiveLock::Lock(uint32_t timeoutMs) {
  if (timeoutMs == INFINITE) {
    Lock();
    return 1;
  }
  if (pthread_mutex_trylock(&section) == 0) {
    Enter();
    return 1;
  }
  if (timeoutMs == 0) return 0;
  const uint32_t start = GetTickCount();
  do {
    Sleep(1);
    if (pthread_mutex_trylock(&section) == 0) {
      Enter();
      return 1;
    }
  } while (GetTickCount() - start < timeoutMs);
  return 0;
}

void CRecursiveLock::Unlock() {
  if (--recursion == 0) ownerThreadId = 0;
  pthread_mutex_unlock(&section);
}

CLockGuard::CLockGuard(CRecursiveLock* l, uint32_t timeoutMs, int32_t doLock)
    : lock(l), locked(doLock ? l->Lock(timeoutMs) : 0), detached(0) {}

CLockGuard::CLockGuard(CRecursiveLock* l, int32_t doLock)
    : CLockGuard(l, INFINITE, doLock) {}

CLockGuard::~CLockGuard() {
  if (detached == 0 && locked != 0) lock->Unlock();
}
