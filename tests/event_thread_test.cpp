#include "EventThreadEx.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "SanitizerSupport.h"
#include "wait_test_support.h"

namespace {

enum Action { kServe, kCloseFromInside, kBlockUntilReleased };

// What the callbacks saw.
struct Seen {
  std::atomic<int> calls{0}, ticks{0}, begins{0}, ends{0}, action{kServe};  // ticks: key 0, events 0
  std::atomic<HandleObj> lastKey{0};
  std::atomic<uint32_t> lastEvents{0}, eventThread{0}, beginThread{0}, endThread{0};
  std::atomic<bool> release{false};
  CCallbackEventThread* thread = nullptr;
};

int32_t OnEvent(void* context, HandleObj key, uint32_t events) {
  Seen* seen = static_cast<Seen*>(context);
  seen->eventThread = GetCurrentThreadId();
  seen->lastKey = key;
  seen->lastEvents = events;
  if (key == 0 && events == 0) ++seen->ticks;
  ++seen->calls;
  if (seen->action == kCloseFromInside) seen->thread->Close(INFINITE);
  while (seen->action == kBlockUntilReleased && !seen->release) Sleep(5);
  return 1;
}

HandleObj KeyOf(HANDLE h) { return reinterpret_cast<HandleObj>(h); }

class EventThreadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    baselineThreads_ = CountProcEntries("task");
    auto onBegin = [](void* c) {
      static_cast<Seen*>(c)->beginThread = GetCurrentThreadId();
      ++static_cast<Seen*>(c)->begins;
    };
    auto onEnd = [](void* c) {
      static_cast<Seen*>(c)->endThread = GetCurrentThreadId();
      ++static_cast<Seen*>(c)->ends;
    };
    thread_ = std::make_unique<CCallbackEventThread>(onBegin, &seen_, onEnd, &seen_);
    seen_.thread = thread_.get();
  }
  void TearDown() override {
    thread_.reset();
    CloseHandle(event_);
  }
  // The player's way: priority 1, a 1 MiB stack, no poll timeout, no self-close.
  int32_t OpenAsPlayer(uint32_t pollTimeoutMs = INFINITE, int32_t allowSelfClose = 0) {
    return thread_->OpenWithCallback(OnEvent, &seen_, 1, 0x100000, pollTimeoutMs, allowSelfClose);
  }
  // Opens, adds the auto-reset `event_` with events 3 and signals it.
  void OpenAndSignal(int32_t allowSelfClose = 0) {
    ASSERT_EQ(OpenAsPlayer(INFINITE, allowSelfClose), 1);
    ASSERT_EQ(thread_->AddHandle(KeyOf(event_), event_, -1, 1, 3), 1);
    SetEvent(event_);
  }
  bool ThreadsBackToBaseline() {
    return WaitUntil([&] { return CountProcEntries("task") == baselineThreads_; });
  }

  Seen seen_;
  int baselineThreads_ = 0;
  HANDLE event_ = CreateEventA(nullptr, 0, 0, nullptr);
  std::unique_ptr<CCallbackEventThread> thread_;
};

TEST_F(EventThreadTest, OpenCloseCyclesLeaveNothingBehind) {
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
  EXPECT_EQ(seen_.endThread.load(), worker);
  thread_->Close(INFINITE);
  thread_->Close(0);
  EXPECT_EQ(seen_.ends.load(), 1);
  EXPECT_EQ(CountProcEntries("task"), baselineThreads_);  // joined

  HANDLE ticker = CreateEventA(nullptr, 1, 1, nullptr);
  auto cycle = [&] {
    ASSERT_EQ(OpenAsPlayer(), 1);
    ASSERT_EQ(thread_->AddHandle(KeyOf(ticker), ticker, -1, 0, 3), 1);
    thread_->Close(INFINITE);
  };
  cycle();  // first-use records exist from here on
  const int fds = CountProcEntries("fd");
  const size_t heap = mallinfo2().uordblks;
  for (int i = 0; i < 1000; ++i) cycle();
  EXPECT_EQ(CountProcEntries("task"), baselineThreads_);
  EXPECT_EQ(CountProcEntries("fd"), fds);
  if (heap != 0) {  // mallinfo2 is blind under ASan
    EXPECT_LT(mallinfo2().uordblks, heap + 64 * 1024);
  }
  EXPECT_EQ(seen_.begins.load(), 1002);
  EXPECT_EQ(seen_.ends.load(), 1002);
  CloseHandle(ticker);
}

TEST_F(EventThreadTest, TimeoutTicksAndABusyHandleStillLetTheStopIn) {
  ASSERT_EQ(OpenAsPlayer(50), 1);
  ASSERT_TRUE(WaitUntil([&] { return seen_.ticks.load() >= 3; }));
  EXPECT_EQ(seen_.lastKey.load(), 0u);
  EXPECT_EQ(seen_.lastEvents.load(), 0u);
  // Always signalled: served again and again, so the timeout never passes.
  HANDLE busy = CreateEventA(nullptr, 1, 1, nullptr);
  ASSERT_EQ(thread_->AddHandle(KeyOf(busy), busy, -1, 1, 3), 1);
  const int ticks = seen_.ticks.load(), calls = seen_.calls.load();
  ASSERT_TRUE(WaitUntil([&] { return seen_.calls.load() >= calls + 50; }));
  Sleep(100);
  EXPECT_LE(seen_.ticks.load(), ticks + 1);  // one may have been under way
  EXPECT_EQ(seen_.lastKey.load(), KeyOf(busy));
  EXPECT_EQ(seen_.lastEvents.load(), 3u);
  EXPECT_EQ(seen_.eventThread.load(), thread_->ThreadId());
  thread_->Close(INFINITE);
  const int after = seen_.calls.load();
  Sleep(20);
  EXPECT_EQ(seen_.calls.load(), after);
  EXPECT_EQ(seen_.ends.load(), 1);
  CloseHandle(busy);
}

TEST_F(EventThreadTest, CommandsFromAnotherThread) {
  EXPECT_EQ(thread_->AddHandle(KeyOf(event_), event_, -1, 1, 3), 0);  // closed
  EXPECT_EQ(thread_->DelHandle(KeyOf(event_), 1), 0);
  ASSERT_EQ(OpenAsPlayer(), 1);
  EXPECT_EQ(thread_->AddHandle(1, nullptr, -1, 1, 3), 0);
  EXPECT_EQ(thread_->AddHandle(2, FakeHandle(), -1, 1, 3), 0);
  ASSERT_EQ(thread_->AddHandle(KeyOf(event_), event_, -1, 1, 1), 1);
  EXPECT_EQ(thread_->AddHandle(KeyOf(event_), event_, -1, 1, 1), 0);  // the key is taken
  SetEvent(event_);
  ASSERT_TRUE(WaitUntil([&] { return seen_.calls.load() == 1; }));
  EXPECT_EQ(seen_.lastKey.load(), KeyOf(event_));
  EXPECT_EQ(seen_.lastEvents.load(), 1u);
  EXPECT_EQ(thread_->DelHandle(KeyOf(event_), 1), 1);
  EXPECT_EQ(thread_->DelHandle(KeyOf(event_), 1), 0);
  EXPECT_EQ(thread_->DelHandle(KeyOf(event_), 0), 1);  // posted: no answer awaited
  SetEvent(event_);
  Sleep(50);
  EXPECT_EQ(seen_.calls.load(), 1);
}

TEST_F(EventThreadTest, FullCallbackFormGetsEveryArgument) {
  struct Expected {
    HANDLE handle;
    CCallbackEventThread* thread;
    std::atomic<int> good{0}, bad{0};
  } expected{event_, thread_.get()};
  auto call = [](void* c, HandleObj key, HANDLE handle, int32_t socket, CCallbackEventThread* thread,
                 uint32_t events) -> int32_t {
    Expected* e = static_cast<Expected*>(c);
    const bool ok = key == 7 && handle == e->handle && socket == -1 && thread == e->thread && events == 5;
    return ++(ok ? e->good : e->bad);
  };
  ASSERT_EQ(thread_->OpenWithFullCallback(call, &expected, 2, 0, INFINITE, 0), 1);
  ASSERT_EQ(thread_->AddHandle(7, event_, -1, 1, 5), 1);
  SetEvent(event_);
  EXPECT_TRUE(WaitUntil([&] { return expected.good.load() == 1; }));
  thread_->Close(INFINITE);
  EXPECT_EQ(expected.bad.load(), 0);
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

TEST_F(EventThreadTest, BadHandleAddedOnTheWorkerReachesOnPollError) {
  ProbeThread probe;
  ASSERT_EQ(probe.Open(0, 0, INFINITE, 0), 1);
  ASSERT_EQ(probe.AddHandle(1, event_, -1, 1, 3), 1);
  SetEvent(event_);
  ASSERT_TRUE(WaitUntil([&] { return probe.errors.load() == 1; }));
  EXPECT_EQ(probe.added.load(), 1);
  probe.Close(INFINITE);
  EXPECT_EQ(probe.errors.load(), 1);
}

TEST_F(EventThreadTest, SelfCloseIsRefusedWithAReportUnlessAllowed) {
  DiagnosticsCapture capture;
  seen_.action = kCloseFromInside;
  OpenAndSignal();
  ASSERT_TRUE(WaitUntil([&] { return capture.Reports().size() == 1; }));
  const std::string report = capture.Reports()[0];
  EXPECT_NE(report.find("Debug Assertion Failed(线程不允许关闭自己!!)!"), std::string::npos);
  EXPECT_NE(report.find("File: \"codelib/brisk/source/EventThreadEx(122)\""), std::string::npos);
  seen_.action = kServe;  // the worker runs on
  SetEvent(event_);
  ASSERT_TRUE(WaitUntil([&] { return seen_.calls.load() == 2; }));
  thread_->Close(INFINITE);
  EXPECT_EQ(seen_.ends.load(), 1);

  seen_.action = kCloseFromInside;
  OpenAndSignal(1);
  ASSERT_TRUE(WaitUntil([&] { return thread_->ThreadId() == 0; }));
  EXPECT_TRUE(ThreadsBackToBaseline());  // the loop ended
  EXPECT_EQ(seen_.ends.load(), 1);       // no stop message was handled
  SetEvent(event_);
  Sleep(20);
  EXPECT_EQ(seen_.calls.load(), 3);
  seen_.action = kServe;
  EXPECT_EQ(OpenAsPlayer(), 1);
}

TEST_F(EventThreadTest, WorkerThatWillNotStopIsCutOff) {
  if (UNDER_ADDRESS_SANITIZER) GTEST_SKIP() << "thread cancellation cannot run under ASan";
  DiagnosticsCapture capture;
  seen_.action = kBlockUntilReleased;
  OpenAndSignal();
  ASSERT_TRUE(WaitUntil([&] { return seen_.calls.load() == 1; }));
  const uint32_t start = GetTickCount();
  thread_->Close(100);
  EXPECT_GE(GetTickCount() - start, 99u);
  EXPECT_EQ(thread_->ThreadId(), 0u);
  EXPECT_EQ(capture.Lines(), std::vector<std::string>{std::string("CEventThread::Close(), 线程无法正常退出，强行kill，") +
                                                      GetSelfModulePath() + "\n"});
  EXPECT_TRUE(ThreadsBackToBaseline());  // cancelled at its next sleep
  EXPECT_EQ(seen_.ends.load(), 0);
}

// Holds the worker, with no cancellation point, until released.
struct Gate {
  std::atomic<bool> inside{false}, release{false};
  static void Hold(void* context) {
    Gate* gate = static_cast<Gate*>(context);
    gate->inside = true;
    while (!gate->release.load()) {
    }
  }
};

// A worker cut off inside a callback runs on after Close has returned: the
// object may go (its memory reused) at once, as the worker never touches it
// again; cut off while it handles the stop, Close still keeps to its timeout.
TEST(EventThreadCutOff, WorkerRunsOnAfterTheObjectIsGone) {
  if (UNDER_ADDRESS_SANITIZER) GTEST_SKIP() << "thread cancellation cannot run under ASan";
  DiagnosticsCapture capture;
  const int baseline = CountProcEntries("task");
  auto holdInEvent = [](void* c, HandleObj, uint32_t) -> int32_t { return Gate::Hold(c), 1; };
  for (bool inStop : {false, true}) {
    Gate gate;
    std::vector<unsigned char> storage(sizeof(CCallbackEventThread));
    auto* thread = new (storage.data())
        CCallbackEventThread(nullptr, nullptr, inStop ? &Gate::Hold : nullptr, &gate);
    HANDLE event = CreateEventA(nullptr, 0, !inStop, nullptr);
    ASSERT_EQ(thread->OpenWithCallback(holdInEvent, &gate, 1, 0, INFINITE, 0), 1);
    ASSERT_EQ(thread->AddHandle(KeyOf(event), event, -1, 1, 3), 1);
    ASSERT_TRUE(inStop || WaitUntil([&] { return gate.inside.load(); }));
    const uint32_t start = GetTickCount();
    thread->Close(100);
    EXPECT_LT(GetTickCount() - start, 600u) << inStop;
    EXPECT_TRUE(gate.inside.load()) << inStop;
    thread->~CCallbackEventThread();
    std::fill(storage.begin(), storage.end(), 0xA5);
    gate.release = true;
    EXPECT_TRUE(WaitUntil([&] { return CountProcEntries("task") == baseline; })) << inStop;
    CloseHandle(event);
  }
  EXPECT_EQ(capture.Lines().size(), 2u);  // the kills' lines
}

TEST(EventThreadShortGrace, HostListAndControlExtension) {
  struct Case {
    const char* host;
    const char* module;
    bool expected;
  } cases[] = {{"C:\\Program Files\\Internet Explorer\\IEXPLORE.EXE", "/opt/libTQFPlay.so", true},
               {"/usr/bin/pythonw.exe", "/opt/libTQFPlay.so", true},        {"vb7.exe", "", true},
               {"/usr/bin/python3", "/opt/libTQFPlay.so", false},           {"", nullptr, false},
               {"/usr/bin/vb9.exe", "/opt/libTQFPlay.so", false},           {"/usr/bin/host", "/opt/ocx", false},
               {"/usr/bin/host", "C:\\ctl\\Player.OCX", true},           {"/usr/bin/host", "/opt/x.ocx/libTQFPlay.so", false}};
  for (const Case& c : cases)
    EXPECT_EQ(EventThreadNeedsShortGrace(c.host, c.module), c.expected) << c.host << " " << (c.module ? c.module : "");
}

}  // namespace
