#include "ThreadStartRecord.h"

#include <cerrno>
#include <cstdlib>
#include <pthread.h>

#include "OSTime.h"
#include "WaitableObjectImpl.h"

namespace {

struct StartBlock {
  ThreadStartRecord* record;
  WaitableObject* handle;
  std::atomic<uint32_t> threadId{0};
  std::atomic<bool> started{false};
};

WaitableObject* ThreadObject(HANDLE thread) {
  if (!IsWaitableObject(thread)) return nullptr;
  WaitableObject* o = static_cast<WaitableObject*>(thread);
  return o->kind == WaitableKind::Thread ? o : nullptr;
}

// The thread's own reference to its handle, let go of also when the thread is
// cancelled (cancellation unwinds the stack).
struct HandleReference {
  WaitableObject* handle;
  ~HandleReference() { DropReference(handle); }
};

void* ThreadMain(void* p) {
  StartBlock* block = static_cast<StartBlock*>(p);
  ThreadStartRecord record = *block->record;
  delete block->record;
  WaitableObject* handle = block->handle;
  HandleReference reference{handle};
  block->threadId.store(GetCurrentThreadId());
  block->started.store(true, std::memory_order_release);
  // From here on `block` belongs to the creator again.
  uint32_t result = record.entry(record.argument);
  handle->exitCode.store(result);
  SetEvent(handle);
  return nullptr;
}

}  // namespace

void ReleaseThreadOf(WaitableObject* thread) {
  if (thread->released.exchange(true)) return;
  if (WaitForSingleObject(thread, 0) == WAIT_OBJECT_0 &&
      !pthread_equal(thread->thread, pthread_self())) {
    pthread_join(thread->thread, nullptr);
  } else {
    pthread_detach(thread->thread);
  }
}

HANDLE CreateThread(void*, uint32_t stackSize, ThreadEntry entry, void* argument, uint32_t,
                    uint32_t* threadId) {
  if (entry == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  HANDLE event = CreateEventA(nullptr, 1, 0, nullptr);
  if (event == nullptr) return nullptr;
  WaitableObject* handle = static_cast<WaitableObject*>(event);
  handle->kind = WaitableKind::Thread;
  handle->references.store(2);

  StartBlock block;
  block.record = new ThreadStartRecord{GetCurrentThreadId(), entry, argument};
  block.handle = handle;

  pthread_attr_t attr;
  pthread_attr_init(&attr);
  if (stackSize != 0) pthread_attr_setstacksize(&attr, stackSize < 65536 ? 65536 : stackSize);
  int error = pthread_create(&handle->thread, &attr, ThreadMain, &block);
  pthread_attr_destroy(&attr);
  if (error != 0) {
    delete block.record;
    handle->released.store(true);
    handle->references.store(1);
    CloseHandle(handle);
    SetLastError(static_cast<uint32_t>(error));
    return nullptr;
  }
  // The block lives on this stack: wait until the thread has copied it.
  while (!block.started.load(std::memory_order_acquire)) Sleep(0);
  if (threadId) *threadId = block.threadId.load();
  return handle;
}

int SetThreadPriority(HANDLE thread, int32_t priority) {
  WaitableObject* o = ThreadObject(thread);
  if (!o) return 0;
  o->priority = priority;
  return 1;
}

int32_t GetThreadPriority(HANDLE thread) {
  WaitableObject* o = ThreadObject(thread);
  return o ? o->priority : 0x7FFFFFFF;
}

int GetExitCodeThread(HANDLE thread, uint32_t* exitCode) {
  WaitableObject* o = ThreadObject(thread);
  if (!o || !exitCode) return 0;
  *exitCode = o->exitCode.load();
  return 1;
}

int TerminateThread(HANDLE thread, uint32_t exitCode) {
  WaitableObject* o = ThreadObject(thread);
  if (!o || o->released.exchange(true)) return 0;
  pthread_cancel(o->thread);
  pthread_detach(o->thread);
  o->exitCode.store(exitCode);
  return 1;
}
