// The two smallest primitives: a word lock for sections of a few integer
// operations, and the one way the program releases a semaphore.
#pragma once

#include <cstdint>

#include "WaitableObject.h"

// Takes the word lock `word` (0 when free). Between tries: Sleep(sleepMs), or
// no yield at all for INFINITE. The holder releases it with SpinLockRelease.
void SpinLockAcquire(volatile int32_t* word, uint32_t sleepMs);
void SpinLockRelease(volatile int32_t* word);

// ReleaseSemaphore, repeated after Sleep(1) while it fails with
// ERROR_TOO_MANY_POSTS. Returns what the last ReleaseSemaphore returned, or 0
// after any other error.
int ReleaseSemaphoreRetry(HANDLE* semaphore, int32_t count);
