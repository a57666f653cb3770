// Threads started the one way the program starts them: through a
// ThreadStartRecord on the heap, which the new thread copies and frees before
// it calls the entry function.
//
// A thread handle is a waitable object (WaitableObject.h) that becomes
// signalled when the entry function has returned; WaitForSingleObject on it
// waits for the thread's end. CloseHandle on it joins a thread that has ended
// and detaches one that still runs.
#pragma once

#include <cstdint>

#include "WaitableObject.h"

typedef uint32_t (*ThreadEntry)(void* argument);

struct ThreadStartRecord {
  uint32_t creatorThreadId;  // kept by nobody
  ThreadEntry entry;
  void* argument;
};

constexpr uint32_t STILL_ACTIVE = 259;

// Priorities as the Win32 numbers; Linux threads of a normal user all run at
// one priority, so the value is kept on the handle and not applied.
constexpr int32_t THREAD_PRIORITY_LOWEST = -2;
constexpr int32_t THREAD_PRIORITY_BELOW_NORMAL = -1;
constexpr int32_t THREAD_PRIORITY_NORMAL = 0;
constexpr int32_t THREAD_PRIORITY_ABOVE_NORMAL = 1;
constexpr int32_t THREAD_PRIORITY_HIGHEST = 2;
constexpr int32_t THREAD_PRIORITY_TIME_CRITICAL = 15;

// Starts `entry(argument)` on a new thread with `stackSize` bytes of stack (0:
// the default). Writes the thread's id to `threadId` when that is not null.
// Null when the thread could not be made; nothing is left behind then.
HANDLE CreateThread(void* security, uint32_t stackSize, ThreadEntry entry, void* argument,
                    uint32_t flags, uint32_t* threadId);

int SetThreadPriority(HANDLE thread, int32_t priority);
int32_t GetThreadPriority(HANDLE thread);

// The entry function's result, or STILL_ACTIVE while it runs. Non-zero on
// success.
int GetExitCodeThread(HANDLE thread, uint32_t* exitCode);

// Cuts a thread off: it is cancelled at its next wait or sleep and detached.
// Its handle never becomes signalled. Non-zero on success.
int TerminateThread(HANDLE thread, uint32_t exitCode);
