#include "EventThreadEx.h"

#include <cstring>
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
  char host[260];
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

CEventThread::CEventThread() { Reset(); }

CEventThread::~CEventThread() { Close(INFINITE); }

void CEventThread::Reset() {
  threadHandle_ = nullptr;
  threadId_.store(0);
  running_.store(0);
  pollTimeoutMs_ = INFINITE;
  allowSelfClose_ = 0;
  selfClosed_.store(0);
  idleSleepMs_ = 0;
}

bool CEventThread::OnWorker() const {
  const uint32_t id = threadId_.load();
  return id != 0 && id == GetCurrentThreadId();
}

void CEventThread::OnThreadBegin() {}

void CEventThread::OnThreadEnd() {}

int32_t CEventThread::OnPollTimeout() { return OnEvent(0, nullptr, -1, 0) != 0 ? 1 : 0; }

uint32_t CEventThread::WorkerMain(void* argument) {
  CEventThread* self = static_cast<CEventThread*>(argument);
  self->OnThreadBegin();
  for (;;) {
    const int32_t result = self->Poll(self->pollTimeoutMs_);
    if (result == 3) return 0;
    if (result == 0) Sleep(self->idleSleepMs_);
  }
}

uint32_t CEventThread::Execute(const MsgWord* words, int32_t* loopValue) {
  switch (words[0]) {
    case EVENT_THREAD_START:
      running_.store(1);
      *loopValue = 1;
      return 1;
    case EVENT_THREAD_ADD_HANDLE:
      *loopValue = 1;
      return static_cast<uint32_t>(AddHandle(words[1], reinterpret_cast<HANDLE>(words[2]),
                                             static_cast<int32_t>(words[3]), 1,
                                             static_cast<uint32_t>(words[4])));
    case EVENT_THREAD_DEL_HANDLE:
      *loopValue = 1;
      return static_cast<uint32_t>(DelHandle(words[1], 1));
    case EVENT_THREAD_STOP:
      running_.store(0);
      OnThreadEnd();
      *loopValue = 3;
      return 1;
    default:
      *loopValue = 0;
      return 0;
  }
}

int32_t CEventThread::OnHandleSignaled(HandleObj key, HANDLE handle, int32_t socket,
                                       uint32_t events) {
  if (key != QueueKey()) {
    const int32_t result = OnEvent(key, handle, socket, events);
    if (selfClosed_.load()) return 3;
    return result != 0 ? 1 : 0;
  }
  int32_t loopValue = -1;
  if (queue_.IsOpen()) {
    // The wait has already taken the semaphore's count.
    MsgRecord* record = queue_.PopRecord(0, 1);
    if (record != nullptr) queue_.Answer(record, Execute(record->words, &loopValue));
  }
  return loopValue;
}

int32_t CEventThread::PostCommand(MsgWord code, HandleObj key, HANDLE handle, int32_t socket,
                                  uint32_t mask, int32_t wait) {
  const MsgWord words[MSG_WORDS] = {code, key, reinterpret_cast<MsgWord>(handle),
                                    static_cast<MsgWord>(static_cast<intptr_t>(socket)), mask};
  if (!wait) return queue_.SendMsg(words, nullptr, INFINITE, 0);
  uint32_t reply = 0;
  return queue_.SendMsg(words, &reply, INFINITE, 1) && reply != 0;
}

int32_t CEventThread::AddHandle(HandleObj key, HANDLE handle, int32_t socket, int32_t wait,
                                uint32_t mask) {
  if (threadId_.load() == 0) return 0;
  if (running_.load() && OnWorker()) return COSPoll::AddHandle(key, handle, socket, mask, 1, 0);
  if (!running_.load()) return 0;
  if (handle == nullptr || !GetHandleInformation(handle, nullptr)) return 0;
  return PostCommand(EVENT_THREAD_ADD_HANDLE, key, handle, socket, mask, wait);
}

int32_t CEventThread::DelHandle(HandleObj key, int32_t wait) {
  if (threadId_.load() == 0) return 0;
  if (running_.load() && OnWorker()) return COSPoll::DelHandle(key);
  if (!running_.load()) return 0;
  return PostCommand(EVENT_THREAD_DEL_HANDLE, key, nullptr, -1, kPlainMask, wait);
}

int32_t CEventThread::Open(int32_t priority, uint32_t stackSize, uint32_t pollTimeoutMs,
                           int32_t allowSelfClose) {
  if (threadId_.load() != 0) return 0;
  DropTableAndQueue();
  Reset();
  allowSelfClose_ = allowSelfClose;
  pollTimeoutMs_ = pollTimeoutMs;
  if (queue_.Create(4, 1, 0)) {
    COSPoll::AddHandle(QueueKey(), queue_.FilledSlots(), -1, 1, 1, 0);
    uint32_t id = 0;
    HANDLE thread = CreateThread(nullptr, stackSize, WorkerMain, this, 0, &id);
    if (thread != nullptr) {
      threadHandle_ = thread;
      threadId_.store(id);
      const int32_t clamped = priority < 0 ? 0 : priority > 3 ? 3 : priority;
      if (priority == 1 || SetThreadPriority(thread, kPriorities[clamped])) {
        const MsgWord start[MSG_WORDS] = {EVENT_THREAD_START, 0, 0, kNoSocket, kPlainMask};
        uint32_t reply = 0;
        queue_.SendMsg(start, &reply, INFINITE, 1);
        if (running_.load()) return 1;
      }
    }
  }
  Close(100);
  Reset();
  return 0;
}

void CEventThread::DropTableAndQueue() {
  DelAllHandles();
  queue_.Close();
}

void CEventThread::Kill() {
  TerminateThread(threadHandle_, static_cast<uint32_t>(-1));
  DebugPrint("CEventThread::Close(), 线程无法正常退出，强行kill，%s\n", GetSelfModulePath());
}

void CEventThread::Close(uint32_t timeoutMs) {
  if (threadId_.load() == 0) return;
  if (!running_.load()) {
    // Never acknowledged its start, or already stopped: cut it off. The
    // handle is left open on this path, as the thread may still be on its way
    // to its cancellation point.
    TerminateThread(threadHandle_, static_cast<uint32_t>(-1));
    DropTableAndQueue();
    Reset();
    return;
  }
  if (OnWorker()) {
    if (allowSelfClose_) {
      DropTableAndQueue();
      CloseHandle(threadHandle_);
      Reset();
      selfClosed_.store(1);  // the dispatch that called us ends the loop
      return;
    }
    BRISK_REPORT_AT(kSourceFile, 122, "%s", "线程不允许关闭自己!!");
    return;
  }

  bool killed = false;
  if (WaitForSingleObject(threadHandle_, 0) != WAIT_OBJECT_0) {
    const MsgWord stop[MSG_WORDS] = {EVENT_THREAD_STOP, 0, 0, kNoSocket, kPlainMask};
    uint32_t reply = 0;
    if (!queue_.SendMsg(stop, &reply, timeoutMs, 0)) {
      if (threadId_.load() == 0) {  // it closed itself meanwhile
        DropTableAndQueue();
        Reset();
        return;
      }
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
  // itself is waited for.
  if (!killed) WaitForSingleObject(threadHandle_, INFINITE);
  CloseHandle(threadHandle_);
  DropTableAndQueue();
  Reset();
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
