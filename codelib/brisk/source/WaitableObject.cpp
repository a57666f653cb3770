#include "WaitableObject.h"
#include "WaitableObjectImpl.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <unordered_set>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "OSTime.h"

namespace {

// Taken while a wait-all consumes its objects, so that two such waits never
// take part of each other's objects and put them back in a loop.
std::mutex g_waitAllMutex;

// The handles given out and not yet closed, for the validity test: a closed
// handle's memory may be gone, so only membership here makes it safe to look
// at. The set exists only while handles do, so that unloading the library
// after its last handle is closed leaves nothing behind.
std::mutex g_liveMutex;
std::unordered_set<const void*>* g_live = nullptr;

void AddLive(const void* object) {
  std::lock_guard<std::mutex> guard(g_liveMutex);
  if (!g_live) g_live = new std::unordered_set<const void*>;
  g_live->insert(object);
}

void RemoveLive(const void* object) {
  std::lock_guard<std::mutex> guard(g_liveMutex);
  if (!g_live) return;
  g_live->erase(object);
  if (g_live->empty()) {
    delete g_live;
    g_live = nullptr;
  }
}

bool IsLive(const void* object) {
  std::lock_guard<std::mutex> guard(g_liveMutex);
  return g_live && g_live->count(object) != 0 &&
         fcntl(static_cast<const WaitableObject*>(object)->fd, F_GETFD) != -1;
}

WaitableObject* NewObject(WaitableKind kind, int flags, uint64_t initial) {
  int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC | flags);
  if (fd < 0) return nullptr;
  WaitableObject* object = new WaitableObject;
  object->kind = kind;
  object->fd = fd;
  if (initial != 0 && write(fd, &initial, sizeof initial) != sizeof initial) {
    close(fd);
    delete object;
    return nullptr;
  }
  AddLive(object);
  return object;
}

// Takes the signal of a signalled object: one count of a semaphore, the whole
// counter of an auto-reset event. A manual-reset object is only tested.
// False when the object was not (or no longer) signalled.
bool Consume(WaitableObject* object) {
  uint64_t value = 0;
  if (object->kind == WaitableKind::ManualEvent || object->kind == WaitableKind::Thread) {
    pollfd p{object->fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1 && (p.revents & POLLIN);
  }
  if (read(object->fd, &value, sizeof value) != sizeof value) return false;
  if (object->kind == WaitableKind::Semaphore) object->count.fetch_sub(1);
  return true;
}

// Gives back what Consume took, for a wait-all that could not take everything.
void Restore(WaitableObject* object) {
  if (object->kind == WaitableKind::AutoEvent) {
    SetEvent(object);
  } else if (object->kind == WaitableKind::Semaphore) {
    object->count.fetch_add(1);
    uint64_t one = 1;
    (void)!write(object->fd, &one, sizeof one);
  }
}

// Milliseconds left of a wait that started at `start`; -1 for no limit.
int RemainingMs(uint32_t timeoutMs, uint32_t start) {
  if (timeoutMs == INFINITE) return -1;
  uint32_t spent = GetTickCount() - start;
  return spent >= timeoutMs ? 0 : static_cast<int>(timeoutMs - spent);
}

bool AllValid(uint32_t count, const HANDLE* objects) {
  for (uint32_t i = 0; i < count; ++i)
    if (!IsWaitableObject(objects[i])) return false;
  return true;
}

// One pass of a wait-all: takes every object or none. True if all were taken.
bool ConsumeAll(uint32_t count, WaitableObject* const* objects) {
  std::lock_guard<std::mutex> guard(g_waitAllMutex);
  for (uint32_t i = 0; i < count; ++i) {
    if (!Consume(objects[i])) {
      while (i-- > 0) Restore(objects[i]);
      return false;
    }
  }
  return true;
}

}  // namespace

bool IsWaitableObject(const void* object) {
  return object != nullptr &&
         static_cast<const WaitableObject*>(object)->magic == WaitableObject::MAGIC;
}

void DropReference(WaitableObject* object) {
  if (object->references.fetch_sub(1) != 1) return;
  object->magic = 0;
  close(object->fd);
  delete object;
}

uint32_t GetLastError() { return static_cast<uint32_t>(errno); }

void SetLastError(uint32_t error) { errno = static_cast<int>(error); }

HANDLE CreateEventA(void*, int manualReset, int initialState, const char*) {
  return NewObject(manualReset ? WaitableKind::ManualEvent : WaitableKind::AutoEvent, 0,
                   initialState ? 1 : 0);
}

int SetEvent(HANDLE event) {
  if (!IsWaitableObject(event)) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  WaitableObject* o = static_cast<WaitableObject*>(event);
  uint64_t one = 1;
  return write(o->fd, &one, sizeof one) == sizeof one;
}

int ResetEvent(HANDLE event) {
  if (!IsWaitableObject(event)) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  WaitableObject* o = static_cast<WaitableObject*>(event);
  uint64_t value;
  (void)!read(o->fd, &value, sizeof value);
  return 1;
}

HANDLE CreateSemaphoreA(void*, int32_t initialCount, int32_t maximumCount, const char*) {
  if (maximumCount <= 0 || initialCount < 0 || initialCount > maximumCount) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  WaitableObject* o =
      NewObject(WaitableKind::Semaphore, EFD_SEMAPHORE, static_cast<uint64_t>(initialCount));
  if (o) {
    o->count.store(initialCount);
    o->maximum = maximumCount;
  }
  return o;
}

int ReleaseSemaphore(HANDLE semaphore, int32_t count, int32_t* previousCount) {
  if (!IsWaitableObject(semaphore) ||
      static_cast<WaitableObject*>(semaphore)->kind != WaitableKind::Semaphore) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  WaitableObject* o = static_cast<WaitableObject*>(semaphore);
  if (count <= 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  int32_t before = o->count.load();
  do {
    if (static_cast<int64_t>(before) + count > o->maximum) {
      SetLastError(ERROR_TOO_MANY_POSTS);
      return 0;
    }
  } while (!o->count.compare_exchange_weak(before, before + count));
  uint64_t add = static_cast<uint64_t>(count);
  if (write(o->fd, &add, sizeof add) != sizeof add) {
    o->count.fetch_sub(count);
    return 0;
  }
  if (previousCount) *previousCount = before;
  return 1;
}

uint32_t WaitForSingleObject(HANDLE object, uint32_t timeoutMs) {
  return WaitForMultipleObjects(1, &object, 0, timeoutMs);
}

namespace {

// The lowest signalled index wins and only that object is consumed.
uint32_t WaitAny(uint32_t count, WaitableObject* const* o, uint32_t timeoutMs) {
  pollfd fds[MAXIMUM_WAIT_OBJECTS];
  for (uint32_t i = 0; i < count; ++i) fds[i] = {o[i]->fd, POLLIN, 0};
  const uint32_t start = GetTickCount();
  for (;;) {
    int ready = poll(fds, count, RemainingMs(timeoutMs, start));
    if (ready < 0 && errno != EINTR) return WAIT_FAILED;
    for (uint32_t i = 0; ready > 0 && i < count; ++i)
      if ((fds[i].revents & POLLIN) && Consume(o[i])) return WAIT_OBJECT_0 + i;
    if (RemainingMs(timeoutMs, start) == 0) return WAIT_TIMEOUT;
  }
}

// Waits for each object in turn to be signalled, then takes all or none.
uint32_t WaitAll(uint32_t count, WaitableObject* const* o, uint32_t timeoutMs) {
  const uint32_t start = GetTickCount();
  for (;;) {
    for (uint32_t i = 0; i < count;) {
      pollfd p{o[i]->fd, POLLIN, 0};
      int ready = poll(&p, 1, RemainingMs(timeoutMs, start));
      if (ready < 0 && errno != EINTR) return WAIT_FAILED;
      if (ready > 0) ++i;
      else if (ready == 0) return WAIT_TIMEOUT;
    }
    if (ConsumeAll(count, o)) return WAIT_OBJECT_0;
    if (RemainingMs(timeoutMs, start) == 0) return WAIT_TIMEOUT;
    Sleep(0);
  }
}

}  // namespace

uint32_t WaitForMultipleObjects(uint32_t count, const HANDLE* objects, int waitAll,
                                uint32_t timeoutMs) {
  if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || objects == nullptr ||
      !AllValid(count, objects)) {
    SetLastError(ERROR_INVALID_HANDLE);
    return WAIT_FAILED;
  }
  WaitableObject* const* o = reinterpret_cast<WaitableObject* const*>(objects);
  return waitAll ? WaitAll(count, o, timeoutMs) : WaitAny(count, o, timeoutMs);
}

int CloseHandle(HANDLE object) {
  if (!IsWaitableObject(object)) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  WaitableObject* o = static_cast<WaitableObject*>(object);
  RemoveLive(o);
  if (o->kind == WaitableKind::Thread) ReleaseThreadOf(o);
  DropReference(o);
  return 1;
}

int GetHandleInformation(HANDLE object, uint32_t* flags) {
  if (flags) *flags = 0;
  if (!IsLive(object)) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  return 1;
}

int GetWaitableDescriptor(HANDLE object) {
  return IsWaitableObject(object) ? static_cast<WaitableObject*>(object)->fd : -1;
}
