// The layout behind a HANDLE, shared by the waitable objects and the threads.
#pragma once

#include <atomic>
#include <cstdint>
#include <pthread.h>

enum class WaitableKind : int32_t { AutoEvent, ManualEvent, Semaphore, Thread };

struct WaitableObject {
  static constexpr uint32_t MAGIC = 0x57414954;  // "WAIT"

  uint32_t magic = MAGIC;
  WaitableKind kind = WaitableKind::AutoEvent;
  int fd = -1;
  // Owners of the object: the handle, and for a thread the running thread too.
  // The last one to let go frees it.
  std::atomic<int32_t> references{1};
  // Semaphores: the count as last released or taken (never below the
  // descriptor's own), and the maximum.
  std::atomic<int32_t> count{0};
  int32_t maximum = 0;
  // Threads: the pthread, whether it was let go of (detached or joined), the
  // entry function's result and the priority last set.
  pthread_t thread{};
  std::atomic<bool> released{false};
  std::atomic<uint32_t> exitCode{259};  // STILL_ACTIVE until the entry returns
  int32_t priority = 0;
};

// The cheap test of the operations: not null and carrying our magic word. A
// closed handle is a caller's error, as with any handle; GetHandleInformation
// is the safe test.
bool IsWaitableObject(const void* object);

// Lets go of one reference; the last frees the object and its descriptor.
void DropReference(WaitableObject* object);

// Joins a thread that has ended, or detaches one still running, unless that
// was done already. Called by CloseHandle on a thread handle.
void ReleaseThreadOf(WaitableObject* thread);
