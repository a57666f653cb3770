#include <gtest/gtest.h>

#include <vector>

#include "OSTime.h"
#include "SanitizerSupport.h"
#include "ThreadStartRecord.h"
#include "WaitableObject.h"

namespace {

// Steps on one object: 'S' SetEvent, 'R' ResetEvent, 'P' ReleaseSemaphore by
// one, '+' a wait that is satisfied, '-' a wait that times out.
TEST(WaitableObject, EventsAndSemaphoresCountWakes) {
  struct Case {
    const char* what;
    HANDLE object;
    const char* steps;
  } cases[] = {
      {"auto-reset: consumed by the wait, set twice is one wake", CreateEventA(nullptr, 0, 1, nullptr), "+-SS+-"},
      {"manual-reset: stays until reset", CreateEventA(nullptr, 1, 0, nullptr), "-S++R-"},
      {"semaphore 2 of 3", CreateSemaphoreA(nullptr, 2, 3, nullptr), "++-PPP+++-"},
  };
  for (const Case& c : cases) {
    ASSERT_NE(c.object, nullptr) << c.what;
    for (const char* s = c.steps; *s; ++s) {
      const bool ok = *s == 'S'   ? SetEvent(c.object)
                      : *s == 'R' ? ResetEvent(c.object)
                      : *s == 'P' ? ReleaseSemaphore(c.object, 1, nullptr)
                                  : WaitForSingleObject(c.object, 0) == (*s == '+' ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
      EXPECT_TRUE(ok) << c.what << " at step " << (s - c.steps);
    }
    CloseHandle(c.object);
  }
}

TEST(WaitableObject, SemaphoreRefusesToPassItsMaximum) {
  HANDLE semaphore = CreateSemaphoreA(nullptr, 1, 3, nullptr);
  int32_t previous = -1;
  ASSERT_TRUE(ReleaseSemaphore(semaphore, 2, &previous));
  EXPECT_EQ(previous, 1);
  EXPECT_FALSE(ReleaseSemaphore(semaphore, 1, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_TOO_MANY_POSTS);
  EXPECT_EQ(CreateSemaphoreA(nullptr, 2, 1, nullptr), nullptr);
  CloseHandle(semaphore);
}

TEST(WaitableObject, WaitForMultipleObjects) {
  std::vector<HANDLE> objects;
  for (int i = 0; i < 65; ++i) objects.push_back(CreateEventA(nullptr, 0, 0, nullptr));
  // Any: the lowest signalled index wins, and only it is consumed.
  SetEvent(objects[63]);
  SetEvent(objects[1]);
  EXPECT_EQ(WaitForMultipleObjects(64, objects.data(), 0, 0), WAIT_OBJECT_0 + 1);
  EXPECT_EQ(WaitForMultipleObjects(64, objects.data(), 0, 0), WAIT_OBJECT_0 + 63);
  EXPECT_EQ(WaitForMultipleObjects(64, objects.data(), 0, 0), WAIT_TIMEOUT);
  EXPECT_EQ(WaitForMultipleObjects(65, objects.data(), 0, 0), WAIT_FAILED);
  EXPECT_EQ(WaitForMultipleObjects(0, objects.data(), 0, 0), WAIT_FAILED);
  // All: everything or nothing; a wait that timed out took nothing.
  HANDLE semaphore = CreateSemaphoreA(nullptr, 0, 5, nullptr);
  HANDLE pair[2] = {objects[0], semaphore};
  SetEvent(objects[0]);
  const uint32_t start = GetTickCount();
  EXPECT_EQ(WaitForMultipleObjects(2, pair, 1, 50), WAIT_TIMEOUT);
  EXPECT_GE(GetTickCount() - start, 49u);
  EXPECT_EQ(WaitForSingleObject(objects[0], 0), WAIT_OBJECT_0);
  SetEvent(objects[0]);
  ReleaseSemaphore(semaphore, 1, nullptr);
  EXPECT_EQ(WaitForMultipleObjects(2, pair, 1, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForMultipleObjects(2, pair, 0, 0), WAIT_TIMEOUT);
  for (HANDLE h : objects) CloseHandle(h);
  CloseHandle(semaphore);
}

TEST(WaitableObject, InvalidHandlesFailAndTheValidityTestIsSafeOnClosedOnes) {
  EXPECT_EQ(WaitForSingleObject(nullptr, 0), WAIT_FAILED);
  EXPECT_FALSE(SetEvent(nullptr));
  EXPECT_FALSE(CloseHandle(nullptr));
  HANDLE event = CreateEventA(nullptr, 0, 0, nullptr);
  uint32_t flags = 7;
  EXPECT_TRUE(GetHandleInformation(event, &flags));
  EXPECT_EQ(flags, 0u);
  EXPECT_TRUE(CloseHandle(event));
  EXPECT_FALSE(GetHandleInformation(event, nullptr));
}

struct GoDone {
  HANDLE go, done;
};

TEST(ThreadStartRecord, ThreadHandleSignalsTheEndAndKeepsTheExitCode) {
  auto returnArgument = [](void* argument) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(argument)); };
  uint32_t id = 0, code = 0;
  HANDLE thread = CreateThread(nullptr, 0, returnArgument, reinterpret_cast<void*>(42), 0, &id);
  ASSERT_NE(thread, nullptr);
  EXPECT_NE(id, 0u);
  EXPECT_NE(id, GetCurrentThreadId());
  EXPECT_EQ(WaitForSingleObject(thread, 10000), WAIT_OBJECT_0);
  EXPECT_TRUE(GetExitCodeThread(thread, &code));
  EXPECT_EQ(code, 42u);
  EXPECT_TRUE(CloseHandle(thread));

  // A running thread: still active, its priority settable, and it outlives its closed handle.
  GoDone pair{CreateEventA(nullptr, 1, 0, nullptr), CreateEventA(nullptr, 1, 0, nullptr)};
  auto waitForGo = [](void* argument) -> uint32_t {
    GoDone* p = static_cast<GoDone*>(argument);
    WaitForSingleObject(p->go, INFINITE);
    SetEvent(p->done);  // the thread's last touch of either event
    return 7;
  };
  thread = CreateThread(nullptr, 1 << 20, waitForGo, &pair, 0, nullptr);
  ASSERT_NE(thread, nullptr);
  EXPECT_EQ(WaitForSingleObject(thread, 20), WAIT_TIMEOUT);
  EXPECT_TRUE(GetExitCodeThread(thread, &code));
  EXPECT_EQ(code, STILL_ACTIVE);
  EXPECT_TRUE(SetThreadPriority(thread, THREAD_PRIORITY_ABOVE_NORMAL));
  EXPECT_EQ(GetThreadPriority(thread), THREAD_PRIORITY_ABOVE_NORMAL);
  EXPECT_TRUE(CloseHandle(thread));  // detaches
  SetEvent(pair.go);
  EXPECT_EQ(WaitForSingleObject(pair.done, 10000), WAIT_OBJECT_0);
  CloseHandle(pair.go);
  CloseHandle(pair.done);
}

TEST(ThreadStartRecord, TerminateThreadCutsOffAThreadAtItsNextSleep) {
  if (UNDER_ADDRESS_SANITIZER) GTEST_SKIP() << "thread cancellation cannot run under ASan";
  auto sleepForever = [](void*) -> uint32_t {
    for (;;) Sleep(10);
  };
  HANDLE thread = CreateThread(nullptr, 0, sleepForever, nullptr, 0, nullptr);
  ASSERT_NE(thread, nullptr);
  EXPECT_TRUE(TerminateThread(thread, 1));
  EXPECT_FALSE(TerminateThread(thread, 1));                  // already let go of
  EXPECT_EQ(WaitForSingleObject(thread, 20), WAIT_TIMEOUT);  // never signalled
  EXPECT_TRUE(CloseHandle(thread));
}

TEST(OSTime, SleepAndTickCountAgree) {
  const uint32_t start = GetTickCount();
  Sleep(30);
  EXPECT_GE(GetTickCount() - start, 29u);
  EXPECT_EQ(GetCurrentProcessId(), static_cast<uint32_t>(getpid()));
  const uint64_t a = ReadTimeStampCounter();
  EXPECT_GE(ReadTimeStampCounter(), a);
}

}  // namespace
