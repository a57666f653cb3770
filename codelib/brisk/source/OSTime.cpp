#include "OSTime.h"

#include <cerrno>
#include <pthread.h>
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

namespace {

// The calling thread's id, asked of the kernel once per thread: every lock
// records its owner, so this is on every hot path.
thread_local uint32_t t_threadId = 0;

// The child of fork() runs on a new thread that inherits the parent's copy.
void ForgetThreadId() { t_threadId = 0; }

}  // namespace

uint32_t GetCurrentThreadId() {
  if (t_threadId == 0) {
    static const int registered = pthread_atfork(nullptr, nullptr, ForgetThreadId);
    (void)registered;
    t_threadId = static_cast<uint32_t>(gettid());
  }
  return t_threadId;
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
