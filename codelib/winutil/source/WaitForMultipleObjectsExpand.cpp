#include "WaitForMultipleObjectsExpand.h"

#include <algorithm>
#include <cstring>

#include "Diagnostics.h"
#include "ThreadStartRecord.h"

namespace {

constexpr const char* kSourceFile = "codelib/winutil/source/WaitForMultipleObjectsExpand";
constexpr int32_t kGroupSize = 63;  // caller's handles per helper, beside cancelEvent

int32_t HelperCount(int32_t n) { return (n - 3) / 62; }

// The loop of a helper thread: one wait on its group per goEvent.
uint32_t HelperMain(void* argument) {
  WaitHelper* h = static_cast<WaitHelper*>(argument);
  for (;;) {
    // Only goEvent starts a turn. A cancel is left alone here: one set for
    // this turn, even before the helper wakes, ends the wait below at once,
    // and the caller clears any left from an earlier turn before it sets
    // goEvent. (Taking cancels here as well lost this turn's cancel when the
    // helper was slow to wake: the caller then waited for it for ever.)
    if (WaitForSingleObject(h->goEvent, INFINITE) != WAIT_OBJECT_0) continue;
    if (h->quit) return 1;
    // In the wait-all mode cancelEvent is one of the objects required.
    if (h->waitAll) SetEvent(h->cancelEvent);
    const uint32_t r = WaitForMultipleObjects(static_cast<uint32_t>(h->handleCount), h->handles,
                                              h->waitAll, INFINITE);
    if (r == WAIT_FAILED || r == WAIT_TIMEOUT) {
      const char* none = nullptr;
      BRISK_REPORT_AT(kSourceFile, 151, "%s", none);
      h->resultIndex = -1;
      SetEvent(h->resultEvent);
    } else if (h->waitAll) {
      h->resultIndex = -1;
      SetEvent(h->resultEvent);
    } else if (r != WAIT_OBJECT_0) {  // index 0 is cancelEvent: called off, no result
      h->resultIndex = static_cast<int32_t>(r);
      SetEvent(h->resultEvent);
    }
    SetEvent(h->doneEvent);
  }
}

void CloseIfSet(HANDLE& object) {
  if (object) CloseHandle(object);
  object = nullptr;
}

void CloseHelperEvents(WaitHelper* h) {
  CloseIfSet(h->doneEvent);
  CloseIfSet(h->cancelEvent);
  CloseIfSet(h->goEvent);
  CloseIfSet(h->resultEvent);
}

// Creates the four events, then the thread. On any failure everything made is
// closed again and `thread` stays null.
bool StartHelper(WaitHelper* h) {
  memset(h, 0, sizeof *h);
  h->handleCount = 1;
  h->resultIndex = -1;
  HANDLE* events[4] = {&h->resultEvent, &h->goEvent, &h->cancelEvent, &h->doneEvent};
  for (HANDLE* e : events) {
    *e = CreateEventA(nullptr, 0, 0, nullptr);
    if (*e == nullptr) {
      CloseHelperEvents(h);
      return false;
    }
  }
  h->handles[0] = h->cancelEvent;
  h->thread = CreateThread(nullptr, 0, HelperMain, h, 0, &h->threadId);
  if (h->thread == nullptr) {
    CloseHelperEvents(h);
    return false;
  }
  return true;
}

void StopHelper(WaitHelper* h) {
  h->quit = 1;
  SetEvent(h->goEvent);
  WaitForSingleObject(h->thread, INFINITE);
  CloseIfSet(h->thread);
  CloseHelperEvents(h);
}

// Puts `index` into the ascending list `out` of `*count` entries.
void InsertSorted(int32_t* out, int32_t* count, int32_t index) {
  int32_t* end = out + *count;
  int32_t* at = std::upper_bound(out, end, index);
  std::move_backward(at, end, end + 1);
  *at = index;
  ++*count;
}

// Up to 64 objects: the platform's own wait.
int32_t WaitDirect(const HANDLE* handles, int32_t n, uint32_t timeoutMs, int32_t* outIndices,
                   int32_t* outCount, int32_t waitAll) {
  const uint32_t r = WaitForMultipleObjects(static_cast<uint32_t>(n), handles, waitAll, timeoutMs);
  if (r < static_cast<uint32_t>(n)) {
    if (!waitAll) outIndices[(*outCount)++] = static_cast<int32_t>(r);
    return WAIT_SET_SATISFIED;
  }
  return r == WAIT_TIMEOUT ? WAIT_SET_TIMEOUT : WAIT_SET_FAILED;
}

}  // namespace

WaitHandleSet::WaitHandleSet() {
  memset(slots_, 0, sizeof slots_);
  memset(mainHandles_, 0, sizeof mainHandles_);
}

WaitHandleSet::~WaitHandleSet() {
  for (Slot& s : slots_) {
    if (s.started) StopHelper(&s.helper);
    s.started = 0;
  }
}

int32_t WaitHandleSet::StartedHelpers() const {
  int32_t count = 0;
  for (const Slot& s : slots_) count += s.started ? 1 : 0;
  return count;
}

int32_t WaitHandleSet::WaitForMultipleObjectsExpand(const HANDLE* handles, int32_t n,
                                                    uint32_t timeoutMs, int32_t* outIndices,
                                                    int32_t* outCount, int32_t rebuilt,
                                                    int32_t waitAll) {
  if (handles == nullptr || n < 1) return WAIT_SET_FAILED;
  if (!waitAll) {
    if (outIndices == nullptr || outCount == nullptr) return WAIT_SET_FAILED;
    *outCount = 0;
  } else if (timeoutMs != INFINITE) {
    return WAIT_SET_FAILED;  // all of many objects can only be awaited without limit
  }
  if (n <= static_cast<int32_t>(MAXIMUM_WAIT_OBJECTS))
    return WaitDirect(handles, n, timeoutMs, outIndices, outCount, waitAll);
  if (n > WAIT_SET_MAX_HANDLES) return WAIT_SET_FAILED;

  const int32_t k = HelperCount(n);
  if (rebuilt) memcpy(mainHandles_ + k, handles, static_cast<size_t>(64 - k) * sizeof(HANDLE));
  HANDLE doneEvents[WAIT_SET_MAX_HELPERS];
  const int32_t armed = ArmHelpers(handles, n, rebuilt, waitAll, doneEvents);
  if (armed < 0) return WAIT_SET_FAILED;

  const uint32_t r = WaitForMultipleObjects(64, mainHandles_, waitAll, timeoutMs);
  if (waitAll) {
    if (r >= 64) return r == WAIT_TIMEOUT ? WAIT_SET_TIMEOUT : WAIT_SET_FAILED;
    // Every helper has its result; let each finish its turn so that the set can
    // be given new handles at once.
    WaitForMultipleObjects(static_cast<uint32_t>(armed), doneEvents, 1, INFINITE);
    return WAIT_SET_SATISFIED;
  }
  return CollectAny(r, k, armed, doneEvents, outIndices, outCount);
}

int32_t WaitHandleSet::ArmHelpers(const HANDLE* handles, int32_t n, int32_t rebuilt,
                                  int32_t waitAll, HANDLE* doneEvents) {
  int32_t armed = 0;
  for (int32_t first = 64 - HelperCount(n); first < n; first += kGroupSize, ++armed) {
    Slot& s = slots_[armed];
    if (!s.started) {
      s.started = 1;
      if (!StartHelper(&s.helper)) {
        s.started = 0;
        CallOff(armed, doneEvents);
        return -1;
      }
    }
    WaitHelper& h = s.helper;
    mainHandles_[armed] = h.resultEvent;
    if (rebuilt) {
      const int32_t count = std::min(kGroupSize, n - first);
      memcpy(h.handles + 1, handles + first, static_cast<size_t>(count) * sizeof(HANDLE));
      h.handleCount = count + 1;
    }
    h.waitAll = waitAll;
    // A cancel left over from the last call (sent to a helper that had
    // already finished) must not call off this turn.
    WaitForSingleObject(h.cancelEvent, 0);
    SetEvent(h.goEvent);
    doneEvents[armed] = h.doneEvent;
  }
  return armed;
}

void WaitHandleSet::CallOff(int32_t armed, const HANDLE* doneEvents) {
  // No helper may be left waiting on the caller's handles, nor a result set
  // for the next call.
  for (int32_t i = 0; i < armed; ++i) SetEvent(slots_[i].helper.cancelEvent);
  if (armed > 0) WaitForMultipleObjects(static_cast<uint32_t>(armed), doneEvents, 1, INFINITE);
  for (int32_t i = 0; i < armed; ++i) WaitForSingleObject(slots_[i].helper.resultEvent, 0);
}

int32_t WaitHandleSet::CollectAny(uint32_t r, int32_t k, int32_t armed, const HANDLE* doneEvents,
                                  int32_t* outIndices, int32_t* outCount) {
  if (r >= static_cast<uint32_t>(k) && r < 64) outIndices[(*outCount)++] = static_cast<int32_t>(r) - k;
  for (int32_t i = 0; i < armed; ++i)
    if (static_cast<uint32_t>(i) != r) SetEvent(slots_[i].helper.cancelEvent);

  bool failed = false;
  auto collect = [&](int32_t i) {
    const int32_t index = slots_[i].helper.resultIndex;
    if (index == -1)
      failed = true;
    else
      InsertSorted(outIndices, outCount, index - k + kGroupSize * (i + 1));
  };
  int32_t pending[WAIT_SET_MAX_HELPERS];
  int32_t pendingCount = 0;
  for (int32_t i = 0; i < armed; ++i) {
    if (static_cast<uint32_t>(i) != r &&
        WaitForSingleObject(slots_[i].helper.resultEvent, 0) != WAIT_OBJECT_0) {
      pending[pendingCount++] = i;
      SetEvent(slots_[i].helper.cancelEvent);
      continue;
    }
    collect(i);
  }
  // No helper may still be waiting when the caller gets its array back.
  WaitForMultipleObjects(static_cast<uint32_t>(armed), doneEvents, 1, INFINITE);
  for (int32_t p = 0; p < pendingCount; ++p)
    if (WaitForSingleObject(slots_[pending[p]].helper.resultEvent, 0) == WAIT_OBJECT_0)
      collect(pending[p]);

  if (*outCount > 0) return WAIT_SET_SATISFIED;
  return failed ? WAIT_SET_FAILED : WAIT_SET_TIMEOUT;
}

int32_t WaitHandleSet::WaitAnySignaled(const HANDLE* handles, int32_t n, uint32_t timeoutMs,
                                       int32_t* outIndices, int32_t* outCount, int32_t rebuilt) {
  if (handles == nullptr || n < 1 || outIndices == nullptr || outCount == nullptr)
    return WAIT_SET_FAILED;
  *outCount = 0;
  int32_t hits[WAIT_SET_MAX_HELPERS + 1];  // at most one per group
  int32_t hitCount = 0;
  const int32_t result =
      WaitForMultipleObjectsExpand(handles, n, timeoutMs, hits, &hitCount, rebuilt, 0);
  if (result != WAIT_SET_SATISFIED) return result;

  // The groups as ranges: all of it up to 64, else the direct handles and then
  // 63 at a time. A group's wait reports its lowest signalled index, so only
  // what lies behind a first hit needs a look.
  const int32_t firstEnd = n <= 64 ? n : 64 - HelperCount(n);
  int32_t next = 0;
  for (int32_t begin = 0, end = firstEnd; begin < n;
       begin = end, end = std::min(n, end + kGroupSize)) {
    int32_t from = begin;
    if (next < hitCount && hits[next] >= begin && hits[next] < end) {
      outIndices[(*outCount)++] = hits[next];
      from = hits[next++] + 1;
    }
    for (int32_t i = from; i < end; ++i)
      if (WaitForSingleObject(handles[i], 0) == WAIT_OBJECT_0) outIndices[(*outCount)++] = i;
  }
  return WAIT_SET_SATISFIED;
}
