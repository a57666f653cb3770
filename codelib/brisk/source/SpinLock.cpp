#include "SpinLock.h"

#include "OSTime.h"

void SpinLockAcquire(volatile int32_t* word, uint32_t sleepMs) {
  while (__atomic_exchange_n(word, 1, __ATOMIC_ACQUIRE) != 0) {
    if (sleepMs != INFINITE) Sleep(sleepMs);
  }
}

void SpinLockRelease(volatile int32_t* word) { __atomic_exchange_n(word, 0, __ATOMIC_RELEASE); }

int ReleaseSemaphoreRetry(HANDLE* semaphore, int32_t count) {
  for (;;) {
    int result = ReleaseSemaphore(*semaphore, count, nullptr);
    if (result) return result;
    if (GetLastError() != ERROR_TOO_MANY_POSTS) return 0;
    Sleep(1);
  }
}
