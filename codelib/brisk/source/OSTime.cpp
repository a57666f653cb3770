#include "OSTime.h"

#include <cerrno>
#include <sched.h>
#include <time.h>
#include <unistd.h>
#if defined(__x86_64__)
#include <x86intrin.h>
#endif

uint32_t GetTickCount() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000u +
                               static_cast<uint64_t>(ts.tv_nsec) / 1000000u);
}

uint32_t timeGetTime() { return GetTickCount(); }

void Sleep(uint32_t ms) {
  if (ms == 0) {
    sched_yield();
    return;
  }
  timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

uint32_t GetCurrentThreadId() {
  // Asked on every lock entry: the system call is made once per thread.
  thread_local const uint32_t id = static_cast<uint32_t>(gettid());
  return id;
}

uint32_t GetCurrentProcessId() { return static_cast<uint32_t>(getpid()); }

uint64_t ReadTimeStampCounter() {
#if defined(__x86_64__)
  return __rdtsc();
#else
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC_RAW, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
#endif
}
