#include "EventThreadEx.h"

#include <climits>
#include <cstring>
#include <new>
#include <pthread.h>
#include <strings.h>
#include <unistd.h>

#include "Diagnostics.h"
#include "OSTime.h"
#include "StringToolkit.h"
#include "ThreadStartRecord.h"

const char CEVENTTHREAD_SHORT_GRACE_HOSTS[] = "vb6.exe;vb7.exe;vb8.exe;iexplore.exe;pythonw.exe";
const char CEVENTTHREAD_SHORT_GRACE_EXTENSION[] = "ocx";

namespace {

constexpr const char* kSourceFile = "codelib/brisk/source/EventThreadEx";

// Open's `priority` 0..3 as thread priorities; 1 (normal) makes no call.
constexpr int32_t kPriorities[4] = {THREAD_PRIORITY_LOWEST, THREAD_PRIORITY_NORMAL,
                                    THREAD_PRIORITY_HIGHEST, THREAD_PRIORITY_TIME_CRITICAL};

// Commands other than an add carry the empty OSHandle and mask 3.
constexpr MsgWord kNoSocket = static_cast<MsgWord>(-1);
constexpr uint32_t kPlainMask = 3;

bool HostNeedsShortGrace() {
  char host[PATH_MAX];  // the whole path: the name at its end decides
  const ssize_t n = readlink("/proc/self/exe", host, sizeof host - 1);
  host[n > 0 ? n : 0] = '\0';
  return EventThreadNeedsShortGrace(host, GetSelfModulePath());
}

}  // namespace

bool EventThreadNeedsShortGrace(const char* hostPath, const char* modulePath) {
  if (hostPath != nullptr && *hostPath != '\0') {
    const char* slash = StrFindLastOf(hostPath, hostPath + strlen(hostPath) - 1, "/\\");
    const char* name = slash ? slash + 1 : hostPath;
    if (MultiMatchingFileName(name, CEVENTTHREAD_SHORT_GRACE_HOSTS, 0, 0, -1)) return true;
  }
  if (modulePath == nullptr || *modulePath == '\0') return false;
  const char* dot = StrFindLastOf(modulePath, modulePath + strlen(modulePath) - 1, ".");
  return dot != nullptr && strcasecmp(dot + 1, CEVENTTHREAD_SHORT_GRACE_EXTENSION) == 0;
}

// ---- EventThreadCore -------------------------------------------------------

EventThreadCore::EventThreadCore(CEventThread* front, uint32_t timeoutMs)
    : owner(front), pollTimeoutMs(timeoutMs) {}

void EventThreadCore::Release() {
  if (holds_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

namespace {

// The worker's hold on its core, let go of when the worker ends, also when it
// is cancelled (cancellation unwinds the stack). Freeing the core closes
// descriptors, and a close is a cancellation point: a cancellation still
// pending must not act inside this destructor.
struct CoreHold {
  EventThreadCore* core;
  ~CoreHold() {
    int state = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    core->Release();
    pthread_setcancelstate(state, nullptr);
  }
};

}  // namespace

uint32_t EventThreadCore::WorkerMain(void* argument) {
  EventThreadCore* core = static_cast<EventThreadCore*>(argument);
  CoreHold hold{core};
  if (CEventThread* front = core->owner.load()) front->OnThreadBegin();
  for (;;) {
    const int32_t result = core->Poll(core->pollTimeoutMs);
    if (result == 3) return 0;
    if (result == 0) Sleep(core->idleSleepMs);
  }
}

// A core whose owner has let go ends its loop (result 3) instead of calling
// into an object that may be gone.
int32_t EventThreadCore::OnPollError(uint32_t lastError) {
  CEventThread* front = owner.load();
  return front != nullptr ? front->OnPollError(lastError) : 3;
}

int32_t EventThreadCore::OnPollTimeout() {
  CEventThread* front = owner.load();
  return front != nullptr ? front->OnPollTimeout() : 3;
}

int32_t EventThreadCore::OnHandleFailed(HandleObj key, HANDLE handle, int32_t socket,
                                        int32_t result) {
  CEventThread* front = owner.load();
  return front != nullptr ? front->OnHandleFailed(key, handle, socket, result) : 3;
}

int32_t EventThreadCore::OnHandleSignaled(HandleObj key, HANDLE handle, int32_t socket,
                                          uint32_t events) {
  if (key != QueueKey()) {
    CEventThread* front = owner.load();
    if (front == nullptr) return 3;
    const int32_t result = front->OnEvent(key, handle, socket, events);
    // Closed from inside, or cut off meanwhile: `front` may be gone.
    if (selfClosed.load() || owner.load() == nullptr) return 3;
    return result != 0 ? 1 : 0;
  }
  int32_t loopValue = -1;
  if (queue.IsOpen()) {
    // The wait has already taken the semaphore's count.
    MsgRecord* record = queue.PopRecord(0, 1);
    if (record != nullptr) queue.Answer(record, Execute(record->words, &loopValue));
  }
  return loopValue;
}

uint32_t EventThreadCore::Execute(const MsgWord* words, int32_t* loopValue) {
  switch (words[0]) {
    case EVENT_THREAD_START:
      running.store(1);
      *loopValue = 1;
      return 1;
    case EVENT_THREAD_ADD_HANDLE:
      *loopValue = 1;
      return static_cast<uint32_t>(AddHandle(words[1], reinterpret_cast<HANDLE>(words[2]),
                                             static_cast<int32_t>(words[3]),
                                             static_cast<uint32_t>(words[4]), /*enabled=*/1,
                                             /*context=*/0));
    case EVENT_THREAD_DEL_HANDLE:
      *loopValue = 1;
      return static_cast<uint32_t>(DelHandle(words[1]));
    case EVENT_THREAD_STOP:
      running.store(0);
      if (CEventThread* front = owner.load()) front->OnThreadEnd();
      *loopValue = 3;
      return 1;
    default:
      *loopValue = 0;
      return 0;
  }
}

// ---- CEventThread ----------------------------------------------------------

CEventThread::CEventThread() : core_(nullptr), threadHandle_(nullptr), threadId_(0), allowSelfClose_(0) {}

CEventThread::~CEventThread() { Close(INFINITE); }

bool CEventThread::OnWorker() const {
  const uint32_t id = threadId_.load();
  return id != 0 && id == GetCurrentThreadId();
}

int32_t CEventThread::OnPollError(uint32_t) { return 0; }

int32_t CEventThread::OnPollTimeout() { return OnEvent(0, nullptr, -1, 0) != 0 ? 1 : 0; }

int32_t CEventThread::OnHandleFailed(HandleObj, HANDLE, int32_t, int32_t) { return 0; }

void CEventThread::OnThreadBegin() {}

void CEventThread::OnThreadEnd() {}

int32_t CEventThread::PostCommand(MsgWord code, HandleObj key, HANDLE handle, int32_t socket,
                                  uint32_t mask, int32_t wait) {
  const MsgWord words[MSG_WORDS] = {code, key, reinterpret_cast<MsgWord>(handle),
                                    static_cast<MsgWord>(static_cast<intptr_t>(socket)), mask};
  if (!wait) return core_->queue.SendMsg(words, nullptr, INFINITE, 0);
  uint32_t reply = 0;
  return core_->queue.SendMsg(words, &reply, INFINITE, 1) && reply != 0;
}

int32_t CEventThread::AddHandle(HandleObj key, HANDLE handle, int32_t socket, int32_t wait,
                                uint32_t mask) {
  if (threadId_.load() == 0) return 0;
  if (IsRunning() && OnWorker())
    return core_->AddHandle(key, handle, socket, mask, /*enabled=*/1, /*context=*/0);
  if (!IsRunning()) return 0;
  if (handle == nullptr || !GetHandleInformation(handle, nullptr)) return 0;
  return PostCommand(EVENT_THREAD_ADD_HANDLE, key, handle, socket, mask, wait);
}

int32_t CEventThread::DelHandle(HandleObj key, int32_t wait) {
  if (threadId_.load() == 0) return 0;
  if (IsRunning() && OnWorker()) return core_->DelHandle(key);
  if (!IsRunning()) return 0;
  return PostCommand(EVENT_THREAD_DEL_HANDLE, key, nullptr, -1, kPlainMask, wait);
}

int32_t CEventThread::Open(int32_t priority, uint32_t stackSize, uint32_t pollTimeoutMs,
                           int32_t allowSelfClose) {
  if (threadId_.load() != 0) return 0;
  allowSelfClose_ = allowSelfClose;
  core_ = new (std::nothrow) EventThreadCore(this, pollTimeoutMs);
  if (core_ == nullptr) return 0;
  if (core_->queue.Create(4, 1, 0)) {
    core_->AddHandle(core_->QueueKey(), core_->queue.FilledSlots(), -1, /*mask=*/1, /*enabled=*/1,
                     /*context=*/0);
    uint32_t id = 0;
    HANDLE thread = CreateThread(nullptr, stackSize, EventThreadCore::WorkerMain, core_, 0, &id);
    if (thread != nullptr) {
      threadHandle_ = thread;
      threadId_.store(id);
      const int32_t clamped = priority < 0 ? 0 : priority > 3 ? 3 : priority;
      if (priority == 1 || SetThreadPriority(thread, kPriorities[clamped])) {
        const MsgWord start[MSG_WORDS] = {EVENT_THREAD_START, 0, 0, kNoSocket, kPlainMask};
        uint32_t reply = 0;
        core_->queue.SendMsg(start, &reply, INFINITE, 1);
        if (IsRunning()) return 1;
      }
      Close(100);
      return 0;
    }
  }
  // No worker was made: both holds are ours.
  core_->Release();
  core_->Release();
  core_ = nullptr;
  allowSelfClose_ = 0;
  return 0;
}

void CEventThread::LetGoOfWorker() {
  core_->owner.store(nullptr);
  core_->Release();
  core_ = nullptr;
  threadHandle_ = nullptr;
  threadId_.store(0);
  allowSelfClose_ = 0;
}

void CEventThread::Kill() {
  TerminateThread(threadHandle_, static_cast<uint32_t>(-1));
  DebugPrint("CEventThread::Close(), 线程无法正常退出，强行kill，%s\n", GetSelfModulePath());
}

void CEventThread::Close(uint32_t timeoutMs) {
  if (threadId_.load() == 0) return;
  if (!IsRunning()) {
    // Never acknowledged its start, or already stopped: cut it off. The
    // handle is left open on this path, as the thread may still be on its way
    // to its cancellation point.
    TerminateThread(threadHandle_, static_cast<uint32_t>(-1));
    LetGoOfWorker();
    return;
  }
  if (OnWorker()) {
    if (allowSelfClose_) {
      core_->selfClosed.store(1);  // the dispatch that called us ends the loop
      CloseHandle(threadHandle_);
      LetGoOfWorker();
      return;
    }
    BRISK_REPORT_AT(kSourceFile, 122, "%s", "线程不允许关闭自己!!");
    return;
  }

  bool killed = false;
  if (WaitForSingleObject(threadHandle_, 0) != WAIT_OBJECT_0) {
    const MsgWord stop[MSG_WORDS] = {EVENT_THREAD_STOP, 0, 0, kNoSocket, kPlainMask};
    uint32_t reply = 0;
    if (!core_->queue.SendMsg(stop, &reply, timeoutMs, 0)) {
      if (threadId_.load() == 0) return;  // it closed itself meanwhile
      Kill();
      killed = true;
    }
  }
  if (!killed && HostNeedsShortGrace() &&
      WaitForSingleObject(threadHandle_, CEVENTTHREAD_SHORT_GRACE_MS) == WAIT_TIMEOUT) {
    Kill();
    killed = true;
  }
  // A cancelled thread's handle is never signalled: only a thread that ends by
  // itself is waited for. A cut-off one frees its core at its end.
  if (!killed) WaitForSingleObject(threadHandle_, INFINITE);
  CloseHandle(threadHandle_);
  LetGoOfWorker();
}

CCallbackEventThread::CCallbackEventThread(EventThreadNotify onBegin, void* onBeginContext,
                                           EventThreadNotify onEnd, void* onEndContext)
    : onBegin_(onBegin),
      onBeginContext_(onBeginContext),
      onEnd_(onEnd),
      onEndContext_(onEndContext),
      onEvent_{nullptr},
      eventFormIsLong_(0),
      onEventContext_(nullptr) {}

CCallbackEventThread::~CCallbackEventThread() { Close(INFINITE); }

int32_t CCallbackEventThread::OpenWithCallback(EventThreadCallback onEvent, void* context,
                                               int32_t priority, uint32_t stackSize,
                                               uint32_t pollTimeoutMs, int32_t allowSelfClose) {
  if (ThreadId() != 0) return 0;  // a running worker keeps its function
  onEvent_.shortForm = onEvent;
  onEventContext_ = context;
  eventFormIsLong_ = 0;
  return Open(priority, stackSize, pollTimeoutMs, allowSelfClose);
}

int32_t CCallbackEventThread::OpenWithFullCallback(EventThreadFullCallback onEvent, void* context,
                                                   int32_t priority, uint32_t stackSize,
                                                   uint32_t pollTimeoutMs,
                                                   int32_t allowSelfClose) {
  if (ThreadId() != 0) return 0;
  onEvent_.longForm = onEvent;
  onEventContext_ = context;
  eventFormIsLong_ = 1;
  return Open(priority, stackSize, pollTimeoutMs, allowSelfClose);
}

int32_t CCallbackEventThread::OnEvent(HandleObj key, HANDLE handle, int32_t socket,
                                      uint32_t events) {
  if (eventFormIsLong_)
    return onEvent_.longForm ? onEvent_.longForm(onEventContext_, key, handle, socket, this, events)
                             : 0;
  return onEvent_.shortForm ? onEvent_.shortForm(onEventContext_, key, events) : 0;
}

void CCallbackEventThread::OnThreadBegin() {
  if (onBegin_) onBegin_(onBeginContext_);
}

void CCallbackEventThread::OnThreadEnd() {
  if (onEnd_) onEnd_(onEndContext_);
}
