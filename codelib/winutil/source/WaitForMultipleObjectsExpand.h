// WaitHandleSet: a wait on up to 4032 waitable objects, where the platform's
// WaitForMultipleObjects takes 64.
//
// Above 64 objects the set keeps a tree of one level: the caller's own wait
// holds some objects directly and, for the rest, the result event of up to 64
// helper threads, each of which waits on up to 63 of the objects. For n
// objects k = (n - 3) / 62 helpers are used; the first 64 - k objects are
// direct and the rest go to the helpers 63 at a time (65 objects: one helper
// with two; 4032: 64 helpers with 63 each). The caller's wait is then always
// on 64 objects. Helpers start on first need and live until the set is
// destroyed; one not needed by a call sits idle.
//
// A set is used by one thread at a time. With 64 objects or fewer it starts no
// thread and copies nothing.
#pragma once

#include <cstdint>

#include "WaitableObject.h"

// One helper thread of a WaitHandleSet and its four auto-reset events.
struct WaitHelper {
  HANDLE thread;
  uint32_t threadId;
  HANDLE handles[64];       // handles[0] is always cancelEvent
  int32_t handleCount;      // entries of `handles` in use, cancelEvent included
  HANDLE resultEvent;       // set when the helper has a result for the caller
  int32_t resultIndex;      // index into `handles`, or -1 for a failure
  HANDLE goEvent;           // arms the helper for one turn
  int32_t quit;
  HANDLE cancelEvent;       // calls a waiting helper off
  HANDLE doneEvent;         // set when the helper has finished a turn
  int32_t waitAll;          // the mode of the current turn
};

// Results of the two waits.
constexpr int32_t WAIT_SET_SATISFIED = 0;
constexpr int32_t WAIT_SET_TIMEOUT = 1;
constexpr int32_t WAIT_SET_FAILED = 2;

constexpr int32_t WAIT_SET_MAX_HANDLES = 4032;
constexpr int32_t WAIT_SET_MAX_HELPERS = 64;

class WaitHandleSet {
 public:
  WaitHandleSet();
  // Ends every helper that was started, in order, and closes its objects.
  ~WaitHandleSet();
  WaitHandleSet(const WaitHandleSet&) = delete;
  WaitHandleSet& operator=(const WaitHandleSet&) = delete;

  // Waits on handles[0..n-1], 1 <= n <= 4032. Returns 0 when satisfied, 1 on
  // timeout, 2 on failure (bad arguments, more than 4032 handles, `waitAll`
  // with a timeout other than INFINITE, a helper that cannot be started).
  //
  // `rebuilt` must be non-zero on the first call and whenever the array
  // differs from the last call's: without it the helpers keep the handles they
  // were given before.
  //
  // With `waitAll` 0, a result of 0 writes at least one signalled index (at
  // most one per group of the tree) to `outIndices`, ascending, and their
  // number to `*outCount`; `outIndices` needs room for n entries. A handle of
  // a helper's group that is signalled while a timed-out call calls its
  // helpers off is still reported, with the result 0. When the call returns,
  // no helper waits on any handle of the array.
  //
  // With `waitAll` set, 0 means every object was signalled and taken.
  int32_t WaitForMultipleObjectsExpand(const HANDLE* handles, int32_t n, uint32_t timeoutMs,
                                       int32_t* outIndices, int32_t* outCount, int32_t rebuilt,
                                       int32_t waitAll);

  // As above with `waitAll` 0, but reports every index that is signalled at
  // the time of the scan, ascending. Each reported auto-reset event or
  // semaphore count has been consumed: the caller serves every index it gets.
  // A manual-reset event that stays signalled cannot starve those behind it.
  int32_t WaitAnySignaled(const HANDLE* handles, int32_t n, uint32_t timeoutMs,
                          int32_t* outIndices, int32_t* outCount, int32_t rebuilt);

  // Number of helper threads started so far (for inspection).
  int32_t StartedHelpers() const;

 private:
  struct Slot {
    int32_t started;
    WaitHelper helper;
  };
  // Above 64 objects, the steps of the wait: start (on first need) and arm
  // one helper per group of the handles past the direct ones; the number
  // armed, or -1 when a helper cannot be started (those armed are called off).
  int32_t ArmHelpers(const HANDLE* handles, int32_t n, int32_t rebuilt, int32_t waitAll,
                     HANDLE* doneEvents);
  // Cancels the first `armed` helpers and waits until each has finished.
  void CallOff(int32_t armed, const HANDLE* doneEvents);
  // After the caller's wait ended with `r` (without waitAll): the direct hit
  // and every helper's result, ascending, once no helper waits any more.
  int32_t CollectAny(uint32_t r, int32_t k, int32_t armed, const HANDLE* doneEvents,
                     int32_t* outIndices, int32_t* outCount);
  Slot slots_[WAIT_SET_MAX_HELPERS];
  HANDLE mainHandles_[64];
};
