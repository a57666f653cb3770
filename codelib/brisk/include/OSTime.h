// Time, sleep and identity, as the toolkit uses them.
#pragma once

#include <cstdint>

// Milliseconds of CLOCK_MONOTONIC, truncated to 32 bits (wraps after 49 days).
uint32_t GetTickCount();
uint32_t timeGetTime();

// Sleeps `ms` milliseconds; 0 gives up the rest of the time slice. A
// cancellation point for TerminateThread.
void Sleep(uint32_t ms);

// The kernel's thread id and the process id.
uint32_t GetCurrentThreadId();
uint32_t GetCurrentProcessId();

// The processor's time stamp counter on x86-64; monotonic nanoseconds elsewhere.
uint64_t ReadTimeStampCounter();
