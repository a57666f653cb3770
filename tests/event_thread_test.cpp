#include "EventThreadEx.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <memory>
#include <new>
#include <utility>
#include <string>
#include <vector>

#include "SanitizerSupport.h"
#include "wait_test_support.h"

namespace {

// What the callbacks saw; ticks are the calls with key 0 and events 0.
struct Seen {
  std::atomic<int> ticks{0}, ends{0};
  std::atomic<bool> closeFromInside{false};
  std::atomic<uint32_t> eventThread{0}, beginThread{0}, endThread{0};
  CCallbackEventThread* thread = nullptr;
  static void Begin(void* c) { static_cast<Seen*>(c)->beginThread = GetCurrentThreadId(); }
  static void End(void* c) { static_cast<Seen*>(c)->endThread = GetCurrentThreadId(), ++static_cast<Seen*>(c)->ends; }
};

int32_t OnEvent(void* context, HandleObj key, uint32_t events) {
  Seen* seen = static_cast<Seen*>(context);
  seen->eventThread = GetCurrentThreadId();
  if (key == 0 && events == 0) ++seen->ticks;
  if (seen->closeFromInside) seen->thread->Close(INFINITE);
  return 1;
}

HandleObj KeyOf(HANDLE h) { return reinterpret_cast<HandleObj>(h); }

class EventThreadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    baselineThreads_ = CountProcEntries("task");
    thread_ = std::make_unique<CCallbackEventThread>(Seen::Begin, &seen_, Seen::End, &seen_);
    seen_.thread = thread_.get();
  }
  void TearDown() override { thread_.reset(), CloseHandle(event_); }
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

  Seen seen_;
  int baselineThreads_ = 0;
  HANDLE event_ = CreateEventA(nullptr, 0, 0, nullptr);
  std::unique_ptr<CCallbackEventThread> thread_;
};

TEST_F(EventThreadTest, OpenCloseCyclesLeaveNothingBehind) {
  ASSERT_EQ(OpenAsPlayer(), 1);
  const uint32_t worker = thread_->ThreadId();
  EXPECT_EQ(seen_.beginThread.load(), worker);  // before Open returned
  EXPECT_TRUE(OpenAsPlayer() == 0 && thread_->ThreadId() == worker);  // the running worker is left alone
  thread_->Close(INFINITE), thread_->Close(INFINITE);  // a second Close does nothing
  EXPECT_EQ(seen_.endThread.load(), worker);

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
  EXPECT_TRUE(heap == 0 || mallinfo2().uordblks < heap + 64 * 1024);  // 0: mallinfo2 is blind under ASan
  EXPECT_EQ(seen_.ends.load(), 1002);  // one end per open
  CloseHandle(ticker);
}

// With a poll timeout and nothing signalled, the callback ticks on the worker.
TEST_F(EventThreadTest, PollTimeoutTicksWithKeyAndEventsZero) {
  ASSERT_EQ(OpenAsPlayer(50), 1);
  ASSERT_TRUE(WaitUntil([&] { return seen_.ticks.load() >= 3; }));
  EXPECT_EQ(seen_.eventThread.load(), thread_->ThreadId());
}

TEST_F(EventThreadTest, CommandsFromAnotherThreadReachTheFullCallbackForm) {
  EXPECT_EQ(thread_->AddHandle(7, event_, -1, 1, 5) + thread_->DelHandle(7, 1), 0);  // closed
  struct Expected {
    HANDLE handle;
    CCallbackEventThread* thread;
    std::atomic<int> good{0}, bad{0};
  } expected{event_, thread_.get()};
  auto call = [](void* c, HandleObj key, HANDLE handle, int32_t socket, CCallbackEventThread* thread,
                 uint32_t events) -> int32_t {
    Expected* e = static_cast<Expected*>(c);
    return ++(key == 7 && handle == e->handle && socket == -1 && thread == e->thread && events == 5 ? e->good : e->bad);
  };
  ASSERT_EQ(thread_->OpenWithFullCallback(call, &expected, 2, 0, INFINITE, 0), 1);
  EXPECT_EQ(thread_->AddHandle(1, nullptr, -1, 1, 3) + thread_->AddHandle(2, FakeHandle(), -1, 1, 3), 0);
  ASSERT_EQ(thread_->AddHandle(7, event_, -1, 1, 5), 1);
  EXPECT_EQ(thread_->AddHandle(7, event_, -1, 1, 5), 0);  // the key is taken
  SetEvent(event_);
  ASSERT_TRUE(WaitUntil([&] { return expected.good.load() == 1; }));
  EXPECT_EQ(thread_->DelHandle(7, 1), 1);
  EXPECT_EQ(thread_->DelHandle(7, 1), 0);
  EXPECT_EQ(thread_->DelHandle(7, 0), 1);  // posted: no answer awaited
  SetEvent(event_);
  Sleep(50);
  EXPECT_EQ(std::make_pair(expected.good.load(), expected.bad.load()), std::make_pair(1, 0));
}

// A subclass that adds a dead handle on the worker, where it is not checked.
class ProbeThread : public CEventThread {
 public:
  ~ProbeThread() override { Close(INFINITE); }
  int32_t OnEvent(HandleObj key, HANDLE, int32_t, uint32_t) override {
    if (key == 1) added = AddHandle(2, FakeHandle(), -1, 1, 3);
    return 1;
  }
  int32_t OnPollError(uint32_t) override { return ++errors, DelHandle(2, 1), 0; }  // on the worker: at once
  std::atomic<int32_t> added{-1};
  std::atomic<int> errors{0};
};

TEST_F(EventThreadTest, BadHandleAddedOnTheWorkerReachesOnPollError) {
  ProbeThread probe;
  ASSERT_EQ(probe.Open(0, 0, INFINITE, 0), 1);
  ASSERT_EQ(probe.AddHandle(1, event_, -1, 1, 3), 1);
  SetEvent(event_);
  ASSERT_TRUE(WaitUntil([&] { return probe.errors.load() == 1; }));
  probe.Close(INFINITE);
  EXPECT_EQ(std::make_pair(probe.added.load(), probe.errors.load()), std::make_pair(1, 1));  // the removal held
}

// Refused, the worker runs on and still handles the stop; allowed, the loop
// ends without one and the object can open again.
TEST_F(EventThreadTest, SelfCloseIsRefusedWithAReportUnlessAllowed) {
  DiagnosticsCapture capture;
  seen_.closeFromInside = true;
  OpenAndSignal();
  ASSERT_TRUE(WaitUntil([&] { return capture.Reports().size() == 1; }));
  EXPECT_NE(capture.Reports()[0].find("File: \"codelib/brisk/source/EventThreadEx(122)\""), std::string::npos);
  thread_->Close(INFINITE);
  EXPECT_EQ(seen_.ends.load(), 1);

  OpenAndSignal(1);
  ASSERT_TRUE(WaitUntil([&] { return thread_->ThreadId() == 0; }));
  EXPECT_TRUE(WaitUntil([&] { return CountProcEntries("task") == baselineThreads_; }));
  EXPECT_EQ(seen_.ends.load(), 1);  // no stop message was handled
  seen_.closeFromInside = false;
  EXPECT_EQ(OpenAsPlayer(), 1);
}

// Holds the worker, with no cancellation point, until released.
struct Gate {
  std::atomic<bool> inside{false}, release{false};
  static void Hold(void* context) {
    Gate* gate = static_cast<Gate*>(context);
    gate->inside = true;
    while (!gate->release.load()) {}
  }
};

// A worker that will not stop, inside a callback or while it handles the
// stop, is cut off when Close's timeout passes. It runs on after Close has
// returned: the object may go (its memory reused) at once, as the worker
// never touches it again.
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
    const uint32_t took = GetTickCount() - start;
    EXPECT_TRUE(took >= 99u && took < 600u && gate.inside.load() && thread->ThreadId() == 0) << inStop << " " << took;
    thread->~CCallbackEventThread();
    std::fill(storage.begin(), storage.end(), 0xA5);
    gate.release = true;
    EXPECT_TRUE(WaitUntil([&] { return CountProcEntries("task") == baseline; })) << inStop;
    CloseHandle(event);
  }
  EXPECT_EQ(capture.Lines().size(), 2u);  // the kills' lines
}

TEST(EventThreadShortGrace, HostListAndControlExtension) {
  EXPECT_TRUE(EventThreadNeedsShortGrace("C:\\Program Files\\Internet Explorer\\IEXPLORE.EXE", "/opt/libTQFPlay.so") &&
              EventThreadNeedsShortGrace("vb7.exe", "") && EventThreadNeedsShortGrace("/usr/bin/host", "C:\\ctl\\Player.OCX"));
  EXPECT_FALSE(EventThreadNeedsShortGrace("/usr/bin/python3", "/opt/libTQFPlay.so") || EventThreadNeedsShortGrace("", nullptr) ||
               EventThreadNeedsShortGrace("/usr/bin/host", "/opt/x.ocx/libTQFPlay.so"));
}

}  // namespace
