// Waitable objects: events, semaphores and thread handles with the semantics
// of their Win32 namesakes, built on eventfd so that every object is pollable.
//
// A HANDLE is an opaque pointer to one of these objects; null means none.
// Every object owns one eventfd descriptor:
//   - an event is signalled while its counter is non-zero; an auto-reset event
//     is consumed (read to zero) by the wait it satisfies, a manual-reset one
//     stays signalled until ResetEvent;
//   - a semaphore is an EFD_SEMAPHORE counter with a maximum kept beside it;
//     each satisfied wait takes one count;
//   - a thread handle (see ThreadStartRecord.h) is a manual-reset event that is
//     set when the thread's entry function returns.
//
// Errors are reported through the calling thread's errno, read and written by
// GetLastError and SetLastError, with the Win32 numbers where callers decide on
// them (ERROR_TOO_MANY_POSTS).
#pragma once

#include <cstdint>

typedef void* HANDLE;

constexpr uint32_t INFINITE = 0xFFFFFFFFu;
constexpr uint32_t WAIT_OBJECT_0 = 0;
constexpr uint32_t WAIT_TIMEOUT = 258;
constexpr uint32_t WAIT_FAILED = 0xFFFFFFFFu;
constexpr uint32_t MAXIMUM_WAIT_OBJECTS = 64;
constexpr uint32_t ERROR_INVALID_HANDLE = 6;
constexpr uint32_t ERROR_INVALID_PARAMETER = 87;
constexpr uint32_t ERROR_TOO_MANY_POSTS = 298;

// The calling thread's last error (errno).
uint32_t GetLastError();
void SetLastError(uint32_t error);

// An event, signalled from the start if `initialState` is non-zero. Null when
// no descriptor could be had.
HANDLE CreateEventA(void* security, int manualReset, int initialState, const char* name);
int SetEvent(HANDLE event);
int ResetEvent(HANDLE event);

// A semaphore holding `initialCount` of at most `maximumCount`.
HANDLE CreateSemaphoreA(void* security, int32_t initialCount, int32_t maximumCount,
                        const char* name);
// Adds `count` (above 0). A release that would pass the maximum fails with
// ERROR_TOO_MANY_POSTS and adds nothing. Writes the count before the release to
// `previousCount` when that is not null. Non-zero on success.
int ReleaseSemaphore(HANDLE semaphore, int32_t count, int32_t* previousCount);

// Waits until the object is signalled, consuming it as described above.
// WAIT_OBJECT_0, WAIT_TIMEOUT or WAIT_FAILED (a null or invalid handle).
// `timeoutMs` 0 tests once; INFINITE waits without limit.
uint32_t WaitForSingleObject(HANDLE object, uint32_t timeoutMs);

// Waits on 1 to 64 objects. With `waitAll` 0 the lowest signalled index wins
// and only that object is consumed: WAIT_OBJECT_0 + index. With `waitAll`
// non-zero the wait returns WAIT_OBJECT_0 once every object is signalled, and
// consumes all of them or, while one of them is taken by another thread in the
// meantime, none, and waits again. A count of 0 or above 64, or an invalid
// handle, gives WAIT_FAILED.
uint32_t WaitForMultipleObjects(uint32_t count, const HANDLE* objects, int waitAll,
                                uint32_t timeoutMs);

// Frees the object (a handle in use by a wait of another thread must not be
// closed); a thread handle lets go of its thread (see
// ThreadStartRecord.h). Zero for a null or invalid handle.
int CloseHandle(HANDLE object);

// The validity test: non-zero if `object` is a handle given out and not yet
// closed whose descriptor is open. Safe on any value, closed handles included. Writes 0 to `flags` when it is not null.
int GetHandleInformation(HANDLE object, uint32_t* flags);

// The object's descriptor, readable while the object is signalled (for a
// semaphore: while its count is above 0). -1 for an invalid handle. Meant for
// poll(); reading it consumes the object.
int GetWaitableDescriptor(HANDLE object);
