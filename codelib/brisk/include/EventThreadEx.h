// CEventThread: the toolkit's worker thread. It owns one thread, a poll set
// (COSPoll) and one COSMsgQ: the thread does nothing but run poll passes over
// its table of handles, and other threads reach it with small command
// messages through the queue, whose filled-slots semaphore is one more record
// of the table. The poll set's events reach the virtual operations below.
//
// CCallbackEventThread forwards the worker's events to plain function
// pointers, so that a user needs no class of its own.
//
// The usual life of a CCallbackEventThread (this is what the file player
// does with its TickThread):
//
//   static int32_t Tick(void* context, HandleObj key, uint32_t events);
//
//   CCallbackEventThread* thread = new CCallbackEventThread(nullptr, nullptr, nullptr, nullptr);
//   HANDLE ticker = CreateEventA(nullptr, 1, 1, nullptr);   // manual reset, set: always due
//   thread->OpenWithCallback(Tick, player, EVENT_THREAD_PRIORITY_NORMAL, EVENT_THREAD_STACK_SIZE,
//                            INFINITE, EVENT_THREAD_NO_SELF_CLOSE);       // 1 or 0
//   thread->AddHandle(reinterpret_cast<HandleObj>(ticker), ticker, -1, 0, 3);  // wait 0: posted
//   ...            // Tick(player, key, 3) runs on the worker pass after pass
//   thread->Close(INFINITE);  // stop message, worker joined; Tick never runs again
//   delete thread;            // Close first, then the destructor (which closes again, harmlessly)
//   CloseHandle(ticker);      // the thread never owns the handles in its table
//
// Priority 1 is the normal priority (no call); the stack is 1 MiB. Close from
// another thread waits for Tick to return; a Tick that does not return within
// the timeout is cut off (the kill path below). Close must not be called from
// inside Tick unless the thread was opened with allowSelfClose set.
//
// Rules of use:
//   - Open/Close are for one controlling thread at a time; Close has no lock.
//   - AddHandle/DelHandle are the only ways to change the table while the
//     worker runs; the poll set's own operations (PollSet()) are for the
//     worker (callbacks).
//   - The queue holds four commands: posters block while the worker is busy.
//   - A subclass of CEventThread must call Close in its own destructor, while
//     its overrides are still valid (CCallbackEventThread does).
//   - The object is small: the poll set's tables (about 400 KiB) live in the
//     core, on the heap.
//
// The worker runs on a core of its own (EventThreadCore: the poll set, the
// command queue, the flags it writes), held jointly by this object and by the
// worker; the last of the two to let go frees it. A worker cut off by Close,
// or closed from inside, may therefore run on after Close has returned and
// this object is gone: it touches only its core, never calls into this object
// again once its current callback returns, and frees the core at its end.
//
// Close(timeoutMs): a worker that has not acknowledged the stop message within
// `timeoutMs` is cancelled (pthread_cancel: it ends at its next wait or
// sleep; whatever it holds stays held) and the line
// "CEventThread::Close(), 线程无法正常退出，强行kill，<module path>\n" goes to the
// debug sink. In a host named in CEVENTTHREAD_SHORT_GRACE_HOSTS, or when this
// module's file ends in ".ocx", a worker that acknowledged the stop gets only
// 50 ms more to end before the same happens. Close returns within its timeout
// plus a few milliseconds: what a cut-off worker still holds is freed by the
// worker at its end.
#pragma once

#include <atomic>
#include <cstdint>

#include "OSMsgQ.h"
#include "OSPoll.h"

// Command codes of the worker's messages.
constexpr MsgWord EVENT_THREAD_START = 0;
constexpr MsgWord EVENT_THREAD_ADD_HANDLE = 1;
constexpr MsgWord EVENT_THREAD_DEL_HANDLE = 2;
constexpr MsgWord EVENT_THREAD_STOP = 3;

// Hosts that give a stopping worker only a short grace, and the module
// extension that does the same.
extern const char CEVENTTHREAD_SHORT_GRACE_HOSTS[];
extern const char CEVENTTHREAD_SHORT_GRACE_EXTENSION[];
constexpr uint32_t CEVENTTHREAD_SHORT_GRACE_MS = 50;

// Whether a host at `hostPath` with this module at `modulePath` gets the short
// grace: the host's file name (behind the last '/' or '\') is on the list, or
// the module's extension is "ocx" in any case.
bool EventThreadNeedsShortGrace(const char* hostPath, const char* modulePath);

// Named values of Open and its callback forms.
constexpr int32_t EVENT_THREAD_PRIORITY_NORMAL = 1;     // of 0..3: lowest to time critical
constexpr uint32_t EVENT_THREAD_STACK_SIZE = 0x100000;  // 1 MiB, the players' workers
constexpr int32_t EVENT_THREAD_NO_SELF_CLOSE = 0;       // Close only from other threads

class CEventThread;

// What a worker runs on. Held by its CEventThread and by the worker itself;
// Release drops one hold and the last frees the core. Only the worker uses
// the poll set once it runs; `owner` is cleared when the CEventThread lets go
// of a worker that may still run (a kill or a close from inside).
class EventThreadCore : public COSPoll {
 public:
  EventThreadCore(CEventThread* front, uint32_t timeoutMs);

  int32_t OnPollError(uint32_t lastError) override;
  int32_t OnPollTimeout() override;
  int32_t OnHandleSignaled(HandleObj key, HANDLE handle, int32_t socket, uint32_t events) override;
  int32_t OnHandleFailed(HandleObj key, HANDLE handle, int32_t socket, int32_t result) override;

  void Release();
  HandleObj QueueKey() const { return reinterpret_cast<HandleObj>(&queue); }
  static uint32_t WorkerMain(void* argument);

  COSMsgQ queue;
  std::atomic<CEventThread*> owner;
  std::atomic<int32_t> running{0};      // written by the worker only
  std::atomic<int32_t> selfClosed{0};
  const uint32_t pollTimeoutMs;
  const uint32_t idleSleepMs = 0;

 private:
  ~EventThreadCore() override = default;  // through Release only
  // Carries out a command: the value for the sender, and the value for the
  // poll loop in `loopValue`.
  uint32_t Execute(const MsgWord* words, int32_t* loopValue);

  std::atomic<int32_t> holds_{2};  // the CEventThread's and the worker's
};

class CEventThread {
 public:
  CEventThread();
  // Close(INFINITE).
  virtual ~CEventThread();
  CEventThread(const CEventThread&) = delete;
  CEventThread& operator=(const CEventThread&) = delete;

  // The poll set's events, on the worker; results as COSPoll reads them.
  // The wait failed. Default: 0.
  virtual int32_t OnPollError(uint32_t lastError);
  // A finite poll timeout passed: OnEvent(0, null, -1, 0), 1 if that gave
  // non-zero, else 0.
  virtual int32_t OnPollTimeout();
  // OnEvent gave a negative result. Default: 0.
  virtual int32_t OnHandleFailed(HandleObj key, HANDLE handle, int32_t socket, int32_t result);
  // A user record was signalled (or, with key 0, handle null, socket -1 and
  // events 0, a finite poll timeout passed). Non-zero counts as work done.
  virtual int32_t OnEvent(HandleObj key, HANDLE handle, int32_t socket, uint32_t events) = 0;
  // Run on the worker: before its first pass, and while it handles the stop.
  virtual void OnThreadBegin();
  virtual void OnThreadEnd();

  // Starts the worker: `priority` 0..3 (lowest, normal, highest, time
  // critical; clamped), its stack size (0: default), the timeout of each poll
  // pass (INFINITE: none), whether Close may be called on the worker itself.
  // 1 once the worker has acknowledged its start (OnThreadBegin has run); 0 if
  // open already (the running worker is left alone) or on any failure.
  int32_t Open(int32_t priority, uint32_t stackSize, uint32_t pollTimeoutMs, int32_t allowSelfClose);
  // Stops the worker and joins it (see the file comment); a closed object
  // returns at once. On the worker itself: allowed only with allowSelfClose,
  // then this object lets go of the worker, whose loop ends when the current
  // callback returns; otherwise an assertion report and nothing else.
  void Close(uint32_t timeoutMs);

  // Adds a record for `handle` (and `socket`, -1 for none) under `key` with
  // event mask `mask`. On the worker: at once, handle unchecked. From another
  // thread: the handle must be alive; with `wait` 0 the command is posted
  // (blocking while the queue is full) and 1 means posted; with `wait` set, 1
  // means the worker added it. 0 on a closed or not yet running thread.
  int32_t AddHandle(HandleObj key, HANDLE handle, int32_t socket, int32_t wait, uint32_t mask);
  // As AddHandle, for removing the record of `key`.
  int32_t DelHandle(HandleObj key, int32_t wait);

  // The worker's poll set, for the worker's own callbacks (EnableHandle,
  // GetHandleInfos and the like); null when closed. Never from another thread.
  COSPoll* PollSet() const { return core_; }

  uint32_t ThreadId() const { return threadId_.load(); }
  int32_t IsRunning() const { return core_ != nullptr ? core_->running.load() : 0; }

 private:
  bool OnWorker() const;
  int32_t PostCommand(MsgWord code, HandleObj key, HANDLE handle, int32_t socket, uint32_t mask,
                      int32_t wait);
  // Hands the core to the worker, which may still run, and forgets the worker.
  void LetGoOfWorker();
  void Kill();

  // Set by Open and cleared by Close, on the controlling thread only.
  EventThreadCore* core_;
  HANDLE threadHandle_;
  std::atomic<uint32_t> threadId_;
  int32_t allowSelfClose_;
};

typedef void (*EventThreadNotify)(void* context);
// The short form: (context, key, events).
typedef int32_t (*EventThreadCallback)(void* context, HandleObj key, uint32_t events);
// The long form: (context, key, handle, socket, thread, events).
class CCallbackEventThread;
typedef int32_t (*EventThreadFullCallback)(void* context, HandleObj key, HANDLE handle,
                                           int32_t socket, CCallbackEventThread* thread,
                                           uint32_t events);

class CCallbackEventThread : public CEventThread {
 public:
  // Either function may be null. They run on the worker: `onBegin` before its
  // first pass, `onEnd` while it handles the stop.
  CCallbackEventThread(EventThreadNotify onBegin, void* onBeginContext, EventThreadNotify onEnd,
                       void* onEndContext);
  // Close(INFINITE) first, while the callbacks are still valid.
  ~CCallbackEventThread() override;

  // Open with the short form of event function.
  int32_t OpenWithCallback(EventThreadCallback onEvent, void* context, int32_t priority,
                           uint32_t stackSize, uint32_t pollTimeoutMs, int32_t allowSelfClose);
  // Open with the long form.
  int32_t OpenWithFullCallback(EventThreadFullCallback onEvent, void* context, int32_t priority,
                               uint32_t stackSize, uint32_t pollTimeoutMs, int32_t allowSelfClose);

  int32_t OnEvent(HandleObj key, HANDLE handle, int32_t socket, uint32_t events) override;
  void OnThreadBegin() override;
  void OnThreadEnd() override;

 private:
  EventThreadNotify onBegin_;
  void* onBeginContext_;
  EventThreadNotify onEnd_;
  void* onEndContext_;
  union {
    EventThreadCallback shortForm;
    EventThreadFullCallback longForm;
  } onEvent_;
  int32_t eventFormIsLong_;
  void* onEventContext_;
};
