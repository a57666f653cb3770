#include "EventThreadEx.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <memory>
#include <new>
#include <vector>
#include <string>

#include "OSTime.h"
#include "SanitizerSupport.h"
#include "wait_test_support.h"

namespace {

// What the callbacks saw.
struct Seen {
  std::atomic<int> calls{0};
  std::atomic<int> ticks{0};  // key 0, events 0
  std::atomic<int> begins{0};
  std::atomic<int> ends{0};
  std::atomic<HandleObj> lastKey{0};
  std::atomic<uint32_t> lastEvents{0};
  std::atomic<uint32_t> eventThread{0};
  std::atomic<uint32_t> beginThread{0};
  std::atomic<uint32_t> endThread{0};
  // Optional behaviour of the event callback, set before Open.
  int32_t (*action)(Seen* seen, HandleObj key) = nullptr;
  CCallbackEventThread* thread = nullptr;
  std::atomic<bool> release{false};
};

int32_t OnEvent(void* context, HandleObj key, uint32_t events) {
  Seen* seen = static_cast<Seen*>(context);
  seen->eventThread = GetCurrentThreadId();
  seen->lastKey = key;
  seen->lastEvents = events;
  if (key == 0 && events == 0) ++seen->ticks;
  ++seen->calls;
  return seen->action ? seen->action(seen, key) : 1;
}

void OnBegin(void* context) {
  Seen* seen = static_cast<Seen*>(context);
  seen->beginThread = GetCurrentThreadId();
  ++seen->begins;
}

void OnEnd(void* context) {
  Seen* seen = static_cast<Seen*>(context);
  seen->endThread = GetCurrentThreadId();
  ++seen->ends;
}

// Polls `condition` every millisecond for up to five seconds.
template <class F>
bool WaitUntil(F condition) {
  for (uint32_t start = GetTickCount(); GetTickCount() - start < 5000; Sleep(1))
    if (condition()) return true;
  return condition();
}

HandleObj KeyOf(HANDLE h) { return reinterpret_cast<HandleObj>(h); }

class EventThreadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    baselineThreads_ = CountProcEntries("task");
    thread_ = std::make_unique<CCallbackEventThread>(OnBegin, &seen_, OnEnd, &seen_);
    seen_.thread = thread_.get();
  }
  // The player's way: priority 1, a 1 MiB stack, no poll timeout, no self-close.
  int32_t OpenAsPlayer(uint32_t pollTimeoutMs = INFINITE, int32_t allowSelfClose = 0) {
    return thread_->OpenWithCallback(OnEvent, &seen_, 1, 0x100000, pollTimeoutMs, allowSelfClose);
  }
  bool ThreadsBackToBaseline() {
    return WaitUntil([&] { return CountProcEntries("task") == baselineThreads_; });
  }

  Seen seen_;
  int baselineThreads_ = 0;
  std::unique_ptr<CCallbackEventThread> thread_;
};

TEST_F(EventThreadTest, OpenTwiceAndCloseTwice) {
  ASSERT_EQ(OpenAsPlayer(), 1);
  const uint32_t worker = thread_->ThreadId();
  EXPECT_NE(worker, 0u);
  EXPECT_NE(worker, GetCurrentThreadId());
  EXPECT_EQ(thread_->IsRunning(), 1);
  EXPECT_EQ(seen_.begins.load(), 1);  // before Open returned
  EXPECT_EQ(seen_.beginThread.load(), worker);
  EXPECT_EQ(OpenAsPlayer(), 0);
  EXPECT_EQ(thread_->ThreadId(), worker);  // the running worker is left alone
  thread_->Close(INFINITE);
  EXPECT_EQ(thread_->ThreadId(), 0u);
  EXPECT_EQ(seen_.ends.load(), 1);
  EXPECT_EQ(seen_.endThread.load(), worker);
  thread_->Close(INFINITE);
  thread_->Close(0);
  EXPECT_EQ(seen_.ends.load(), 1);
  EXPECT_EQ(CountProcEntries("task"), baselineThreads_);  // joined
  EXPECT_EQ(OpenAsPlayer(), 1);  // no memory of the last run
  thread_->Close(INFINITE);
}

TEST_F(EventThreadTest, AlwaysSignalledHandleAndStopStillServed) {
  HANDLE ticker = CreateEventA(nullptr, 1, 1, nullptr);
  ASSERT_EQ(OpenAsPlayer(), 1);
  ASSERT_EQ(thread_->AddHandle(KeyOf(ticker), ticker, -1, 0, 3), 1);
  ASSERT_TRUE(WaitUntil([&] { return seen_.calls.load() >= 50; }));
  EXPECT_EQ(seen_.lastKey.load(), KeyOf(ticker));
  EXPECT_EQ(seen_.lastEvents.load(), 3u);
  EXPECT_EQ(seen_.eventThread.load(), thread_->ThreadId());
  thread_->Close(INFINITE);
  const int calls = seen_.calls.load();
  Sleep(20);
  EXPECT_EQ(seen_.calls.load(), calls);
  EXPECT_EQ(seen_.ends.load(), 1);
  CloseHandle(ticker);
}

TEST_F(EventThreadTest, ThousandCyclesLeaveNothingBehind) {
  HANDLE ticker = CreateEventA(nullptr, 1, 1, nullptr);
  auto cycle = [&] {
    ASSERT_EQ(OpenAsPlayer(), 1);
    ASSERT_EQ(thread_->AddHandle(KeyOf(ticker), ticker, -1, 0, 3), 1);
    thread_->Close(INFINITE);
  };
  cycle();  // first-use records (performance sites) exist from here on
  const int fds = CountProcEntries("fd");
  const size_t heap = mallinfo2().uordblks;
  for (int i = 0; i < 1000; ++i) cycle();
  EXPECT_EQ(CountProcEntries("task"), baselineThreads_);
  EXPECT_EQ(CountProcEntries("fd"), fds);
  if (heap != 0) {  // not under ASan, whose allocator mallinfo2 does not see
    EXPECT_LT(mallinfo2().uordblks, heap + 64 * 1024);
  }
  EXPECT_EQ(seen_.begins.load(), 1001);
  EXPECT_EQ(seen_.ends.load(), 1001);
  CloseHandle(ticker);
}

TEST_F(EventThreadTest, FinitePollTimeoutTicks) {
  ASSERT_EQ(OpenAsPlayer(50), 1);
  ASSERT_TRUE(WaitUntil([&] { return seen_.ticks.load() >= 3; }));
  EXPECT_EQ(seen_.lastKey.load(), 0u);
  EXPECT_EQ(seen_.lastEvents.load(), 0u);
  // A handle that is always signalled means the timeout never passes.
  HANDLE busy = CreateEventA(nullptr, 1, 1, nullptr);
  ASSERT_EQ(thread_->AddHandle(KeyOf(busy), busy, -1, 1, 3), 1);
  const int ticks = seen_.ticks.load();
  Sleep(200);
  EXPECT_LE(seen_.ticks.load(), ticks + 1);  // one may have been under way
  thread_->Close(INFINITE);
  CloseHandle(busy);
}

TEST_F(EventThreadTest, CommandsFromAnotherThread) {
  HANDLE event = CreateEventA(nullptr, 0, 0, nullptr);
  EXPECT_EQ(thread_->AddHandle(KeyOf(event), event, -1, 1, 3), 0);  // closed
  EXPECT_EQ(thread_->DelHandle(KeyOf(event), 1), 0);
  ASSERT_EQ(OpenAsPlayer(), 1);
  EXPECT_EQ(thread_->AddHandle(1, nullptr, -1, 1, 3), 0);
  EXPECT_EQ(thread_->AddHandle(2, FakeHandle(), -1, 1, 3), 0);
  ASSERT_EQ(thread_->AddHandle(KeyOf(event), event, -1, 1, 1), 1);
  EXPECT_EQ(thread_->AddHandle(KeyOf(event), event, -1, 1, 1), 0);  // the key is taken
  SetEvent(event);
  ASSERT_TRUE(WaitUntil([&] { return seen_.calls.load() == 1; }));
  EXPECT_EQ(seen_.lastKey.load(), KeyOf(event));
  EXPECT_EQ(seen_.lastEvents.load(), 1u);
  EXPECT_EQ(thread_->DelHandle(KeyOf(event), 1), 1);
  EXPECT_EQ(thread_->DelHandle(KeyOf(event), 1), 0);
  EXPECT_EQ(thread_->DelHandle(KeyOf(event), 0), 1);  // posted: no answer awaited
  SetEvent(event);
  Sleep(50);
  EXPECT_EQ(seen_.calls.load(), 1);
  thread_->Close(INFINITE);
  CloseHandle(event);
}

TEST_F(EventThreadTest, FullCallbackForm) {
  struct Full {
    static int32_t Call(void* context, HandleObj key, HANDLE handle, int32_t socket,
                        CCallbackEventThread* thread, uint32_t events) {
      Full* f = static_cast<Full*>(context);
      f->key = key;
      f->handle = handle;
      f->socket = socket;
      f->thread = thread;
      f->events = events;
      f->calls++;
      return 1;
    }
    std::atomic<HandleObj> key{0};
    std::atomic<HANDLE> handle{nullptr};
    std::atomic<int32_t> socket{0};
    std::atomic<CCallbackEventThread*> thread{nullptr};
    std::atomic<uint32_t> events{0};
    std::atomic<int> calls{0};
  } full;
  HANDLE event = CreateEventA(nullptr, 0, 1, nullptr);
  ASSERT_EQ(thread_->OpenWithFullCallback(&Full::Call, &full, 2, 0, INFINITE, 0), 1);
  ASSERT_EQ(thread_->AddHandle(7, event, -1, 1, 5), 1);
  ASSERT_TRUE(WaitUntil([&] { return full.calls.load() == 1; }));
  EXPECT_EQ(full.key.load(), 7u);
  EXPECT_EQ(full.handle.load(), event);
  EXPECT_EQ(full.socket.load(), -1);
  EXPECT_EQ(full.thread.load(), thread_.get());
  EXPECT_EQ(full.events.load(), 5u);
  thread_->Close(INFINITE);
  CloseHandle(event);
}

// A subclass that adds a dead handle on the worker, where it is not checked.
class ProbeThread : public CEventThread {
 public:
  ~ProbeThread() override { Close(INFINITE); }
  int32_t OnEvent(HandleObj key, HANDLE, int32_t, uint32_t) override {
    if (key == 1) added = AddHandle(2, FakeHandle(), -1, 1, 3);
    return 1;
  }
  int32_t OnPollError(uint32_t) override {
    ++errors;
    DelHandle(2, 1);  // on the worker: at once
    return 0;
  }
  std::atomic<int32_t> added{-1};
  std::atomic<int> errors{0};
};

TEST(EventThreadWorker, BadHandleAddedOnTheWorkerReachesOnPollError) {
  auto probe = std::make_unique<ProbeThread>();
  HANDLE event = CreateEventA(nullptr, 0, 0, nullptr);
  ASSERT_EQ(probe->Open(0, 0, INFINITE, 0), 1);
  ASSERT_EQ(probe->AddHandle(1, event, -1, 1, 3), 1);
  SetEvent(event);
  ASSERT_TRUE(WaitUntil([&] { return probe->errors.load() == 1; }));
  EXPECT_EQ(probe->added.load(), 1);
  probe->Close(INFINITE);
  EXPECT_EQ(probe->errors.load(), 1);
  CloseHandle(event);
}

int32_t CloseFromInside(Seen* seen, HandleObj) {
  seen->thread->Close(INFINITE);
  return 1;
}

TEST_F(EventThreadTest, SelfCloseRefusedWithReport) {
  DiagnosticsCapture capture;
  seen_.action = CloseFromInside;
  HANDLE event = CreateEventA(nullptr, 0, 0, nullptr);
  ASSERT_EQ(OpenAsPlayer(), 1);
  ASSERT_EQ(thread_->AddHandle(KeyOf(event), event, -1, 1, 3), 1);
  SetEvent(event);
  ASSERT_TRUE(WaitUntil([&] { return capture.Reports().size() == 1; }));
  const std::string report = capture.Reports()[0];
  EXPECT_NE(report.find("Debug Assertion Failed(线程不允许关闭自己!!)!"), std::string::npos);
  EXPECT_NE(report.find("File: \"codelib/brisk/source/EventThreadEx(122)\""), std::string::npos);
  // The worker runs on.
  seen_.action = nullptr;
  SetEvent(event);
  ASSERT_TRUE(WaitUntil([&] { return seen_.calls.load() == 2; }));
  EXPECT_EQ(thread_->IsRunning(), 1);
  thread_->Close(INFINITE);
  CloseHandle(event);
}

TEST_F(EventThreadTest, SelfCloseAllowed) {
  seen_.action = CloseFromInside;
  HANDLE event = CreateEventA(nullptr, 0, 0, nullptr);
  ASSERT_EQ(OpenAsPlayer(INFINITE, 1), 1);
  ASSERT_EQ(thread_->AddHandle(KeyOf(event), event, -1, 1, 3), 1);
  SetEvent(event);
  ASSERT_TRUE(WaitUntil([&] { return thread_->ThreadId() == 0; }));
  EXPECT_TRUE(ThreadsBackToBaseline());  // the loop ended
  EXPECT_EQ(seen_.ends.load(), 0);       // no stop message was handled
  SetEvent(event);
  Sleep(20);
  EXPECT_EQ(seen_.calls.load(), 1);
  seen_.action = nullptr;
  ASSERT_EQ(OpenAsPlayer(), 1);
  thread_->Close(INFINITE);
  CloseHandle(event);
}

int32_t BlockUntilReleased(Seen* seen, HandleObj) {
  while (!seen->release.load()) Sleep(5);
  return 1;
}

TEST_F(EventThreadTest, WorkerThatWillNotStopIsCutOff) {
  if (UNDER_ADDRESS_SANITIZER) GTEST_SKIP() << "thread cancellation cannot run under ASan";
  DiagnosticsCapture capture;
  seen_.action = BlockUntilReleased;
  HANDLE event = CreateEventA(nullptr, 0, 0, nullptr);
  ASSERT_EQ(OpenAsPlayer(), 1);
  ASSERT_EQ(thread_->AddHandle(KeyOf(event), event, -1, 1, 3), 1);
  SetEvent(event);
  ASSERT_TRUE(WaitUntil([&] { return seen_.calls.load() == 1; }));
  const uint32_t start = GetTickCount();
  thread_->Close(100);
  EXPECT_GE(GetTickCount() - start, 99u);
  EXPECT_EQ(thread_->ThreadId(), 0u);
  const std::string expected =
      std::string("CEventThread::Close(), 线程无法正常退出，强行kill，") + GetSelfModulePath() + "\n";
  EXPECT_EQ(capture.Lines(), std::vector<std::string>{expected});
  EXPECT_TRUE(ThreadsBackToBaseline());  // cancelled at its next sleep
  EXPECT_EQ(seen_.ends.load(), 0);
  CloseHandle(event);
}

// A callback that holds the worker, with no cancellation point, until released.
struct Gate {
  std::atomic<bool> inside{false};
  std::atomic<bool> release{false};
  void Hold() {
    inside = true;
    while (!release.load()) {
    }
  }
};

int32_t HoldInEvent(void* context, HandleObj, uint32_t) {
  static_cast<Gate*>(context)->Hold();
  return 1;
}

void HoldInEnd(void* context) { static_cast<Gate*>(context)->Hold(); }

// A worker cut off inside its callback runs on after Close has returned. The
// object may be destroyed, its memory reused, at once: the worker never
// touches it again, and ends by itself once the callback returns.
TEST(EventThreadCutOff, ObjectMayGoAtOnceWhileTheWorkerRunsOn) {
  if (UNDER_ADDRESS_SANITIZER) GTEST_SKIP() << "thread cancellation cannot run under ASan";
  DiagnosticsCapture capture;
  const int baseline = CountProcEntries("task");
  Gate gate;
  std::vector<unsigned char> storage(sizeof(CCallbackEventThread));
  auto* thread = new (storage.data()) CCallbackEventThread(nullptr, nullptr, nullptr, nullptr);
  HANDLE event = CreateEventA(nullptr, 0, 1, nullptr);
  ASSERT_EQ(thread->OpenWithCallback(HoldInEvent, &gate, 1, 0, INFINITE, 0), 1);
  ASSERT_EQ(thread->AddHandle(KeyOf(event), event, -1, 1, 3), 1);
  ASSERT_TRUE(WaitUntil([&] { return gate.inside.load(); }));
  thread->Close(100);
  thread->~CCallbackEventThread();
  std::fill(storage.begin(), storage.end(), 0xA5);
  gate.release = true;
  EXPECT_TRUE(WaitUntil([&] { return CountProcEntries("task") == baseline; }));
  EXPECT_EQ(capture.Lines().size(), 1u);  // the kill's line
  CloseHandle(event);
}

// A worker cut off while it handles the stop: Close keeps to its timeout (the
// queue's teardown, which waits for the message that worker holds, is the
// worker's own at its end).
TEST(EventThreadCutOff, CloseDuringTheStopKeepsToItsTimeout) {
  if (UNDER_ADDRESS_SANITIZER) GTEST_SKIP() << "thread cancellation cannot run under ASan";
  DiagnosticsCapture capture;
  const int baseline = CountProcEntries("task");
  Gate gate;
  auto thread = std::make_unique<CCallbackEventThread>(nullptr, nullptr, HoldInEnd, &gate);
  ASSERT_EQ(thread->OpenWithCallback(OnEvent, nullptr, 1, 0, INFINITE, 0), 1);
  const uint32_t start = GetTickCount();
  thread->Close(100);
  EXPECT_LT(GetTickCount() - start, 600u);
  EXPECT_TRUE(gate.inside.load());
  thread.reset();
  gate.release = true;
  EXPECT_TRUE(WaitUntil([&] { return CountProcEntries("task") == baseline; }));  // gone with `gate`
}

TEST(EventThreadShortGrace, HostListAndControlExtension) {
  struct Case {
    const char* host;
    const char* module;
    bool expected;
  } cases[] = {
      {"C:\\Program Files\\Internet Explorer\\IEXPLORE.EXE", "/opt/libTQFPlay.so", true},
      {"/usr/bin/pythonw.exe", "/opt/libTQFPlay.so", true},
      {"vb7.exe", "", true},
      {"/usr/bin/python3", "/opt/libTQFPlay.so", false},
      {"/usr/bin/vb9.exe", "/opt/libTQFPlay.so", false},
      {"/usr/bin/host", "C:\\ctl\\Player.OCX", true},
      {"/usr/bin/host", "/opt/x.ocx/libTQFPlay.so", false},
      {"/usr/bin/host", "/opt/ocx", false},
      {"", nullptr, false},
  };
  for (const Case& c : cases)
    EXPECT_EQ(EventThreadNeedsShortGrace(c.host, c.module), c.expected) << c.host << " " << (c.module ? c.module : "");
}

}  // namespace
