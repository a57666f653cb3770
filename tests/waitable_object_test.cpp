#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "OSTime.h"
#include "SanitizerSupport.h"
#include "ThreadStartRecord.h"
#include "WaitableObject.h"

namespace {

struct Handles {
  std::vector<HANDLE> items;
  ~Handles() {
    for (HANDLE h : items) CloseHandle(h);
  }
  HANDLE Add(HANDLE h) {
    EXPECT_NE(h, nullptr);
    items.push_back(h);
    return h;
  }
};

TEST(WaitableObject, AutoResetEventIsConsumedByTheWaitItSatisfies) {
  Handles h;
  HANDLE event = h.Add(CreateEventA(nullptr, 0, 1, nullptr));
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
  SetEvent(event);
  SetEvent(event);  // setting twice still gives one wake
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
}

TEST(WaitableObject, ManualResetEventStaysSignalledUntilReset) {
  Handles h;
  HANDLE event = h.Add(CreateEventA(nullptr, 1, 0, nullptr));
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
  SetEvent(event);
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  ResetEvent(event);
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
}

TEST(WaitableObject, SemaphoreCountsAndRefusesToPassItsMaximum) {
  Handles h;
  HANDLE semaphore = h.Add(CreateSemaphoreA(nullptr, 1, 3, nullptr));
  int32_t previous = -1;
  ASSERT_TRUE(ReleaseSemaphore(semaphore, 2, &previous));
  EXPECT_EQ(previous, 1);
  EXPECT_FALSE(ReleaseSemaphore(semaphore, 1, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_TOO_MANY_POSTS);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_TIMEOUT);
  EXPECT_TRUE(ReleaseSemaphore(semaphore, 3, nullptr));
  EXPECT_EQ(CreateSemaphoreA(nullptr, 2, 1, nullptr), nullptr);
}

TEST(WaitableObject, LowestSignalledIndexWinsAndOnlyItIsConsumed) {
  Handles h;
  HANDLE objects[4];
  for (HANDLE& o : objects) o = h.Add(CreateEventA(nullptr, 0, 0, nullptr));
  SetEvent(objects[3]);
  SetEvent(objects[1]);
  EXPECT_EQ(WaitForMultipleObjects(4, objects, 0, 0), WAIT_OBJECT_0 + 1);
  EXPECT_EQ(WaitForMultipleObjects(4, objects, 0, 0), WAIT_OBJECT_0 + 3);
  EXPECT_EQ(WaitForMultipleObjects(4, objects, 0, 0), WAIT_TIMEOUT);
}

TEST(WaitableObject, SixtyFourObjectsAreTheLimit) {
  Handles h;
  std::vector<HANDLE> objects;
  for (int i = 0; i < 65; ++i) objects.push_back(h.Add(CreateEventA(nullptr, 1, 0, nullptr)));
  SetEvent(objects[63]);
  EXPECT_EQ(WaitForMultipleObjects(64, objects.data(), 0, 0), WAIT_OBJECT_0 + 63);
  EXPECT_EQ(WaitForMultipleObjects(65, objects.data(), 0, 0), WAIT_FAILED);
  EXPECT_EQ(WaitForMultipleObjects(0, objects.data(), 0, 0), WAIT_FAILED);
}

TEST(WaitableObject, WaitAllTakesEverythingOrNothing) {
  Handles h;
  HANDLE objects[2] = {h.Add(CreateEventA(nullptr, 0, 1, nullptr)),
                       h.Add(CreateSemaphoreA(nullptr, 0, 5, nullptr))};
  EXPECT_EQ(WaitForMultipleObjects(2, objects, 1, 20), WAIT_TIMEOUT);
  // The event was not taken by the wait that timed out.
  EXPECT_EQ(WaitForSingleObject(objects[0], 0), WAIT_OBJECT_0);
  SetEvent(objects[0]);
  ReleaseSemaphore(objects[1], 1, nullptr);
  EXPECT_EQ(WaitForMultipleObjects(2, objects, 1, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(objects[0], 0), WAIT_TIMEOUT);
  EXPECT_EQ(WaitForSingleObject(objects[1], 0), WAIT_TIMEOUT);
}

TEST(WaitableObject, TimeoutWaitsAboutAsLongAsAsked) {
  Handles h;
  HANDLE event = h.Add(CreateEventA(nullptr, 0, 0, nullptr));
  uint32_t start = GetTickCount();
  EXPECT_EQ(WaitForSingleObject(event, 50), WAIT_TIMEOUT);
  uint32_t spent = GetTickCount() - start;
  EXPECT_GE(spent, 49u);
  EXPECT_LT(spent, 5000u);
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

uint32_t ReturnArgument(void* argument) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(argument));
}

struct GoDone {
  HANDLE go;
  HANDLE done;
};

uint32_t WaitForGoThenSignalDone(void* argument) {
  GoDone* pair = static_cast<GoDone*>(argument);
  WaitForSingleObject(pair->go, INFINITE);
  SetEvent(pair->done);  // the thread's last touch of either event
  return 7;
}

TEST(ThreadStartRecord, ThreadHandleSignalsTheEndAndKeepsTheExitCode) {
  uint32_t id = 0;
  HANDLE thread = CreateThread(nullptr, 0, ReturnArgument, reinterpret_cast<void*>(42), 0, &id);
  ASSERT_NE(thread, nullptr);
  EXPECT_NE(id, 0u);
  EXPECT_NE(id, GetCurrentThreadId());
  EXPECT_EQ(WaitForSingleObject(thread, 10000), WAIT_OBJECT_0);
  uint32_t code = 0;
  EXPECT_TRUE(GetExitCodeThread(thread, &code));
  EXPECT_EQ(code, 42u);
  EXPECT_TRUE(CloseHandle(thread));
}

TEST(ThreadStartRecord, RunningThreadReportsStillActiveAndOutlivesItsClosedHandle) {
  GoDone pair{CreateEventA(nullptr, 1, 0, nullptr), CreateEventA(nullptr, 1, 0, nullptr)};
  HANDLE thread = CreateThread(nullptr, 1 << 20, WaitForGoThenSignalDone, &pair, 0, nullptr);
  ASSERT_NE(thread, nullptr);
  EXPECT_EQ(WaitForSingleObject(thread, 20), WAIT_TIMEOUT);
  uint32_t code = 0;
  EXPECT_TRUE(GetExitCodeThread(thread, &code));
  EXPECT_EQ(code, STILL_ACTIVE);
  EXPECT_TRUE(SetThreadPriority(thread, THREAD_PRIORITY_ABOVE_NORMAL));
  EXPECT_EQ(GetThreadPriority(thread), THREAD_PRIORITY_ABOVE_NORMAL);
  EXPECT_TRUE(CloseHandle(thread));  // detaches; the thread goes on
  SetEvent(pair.go);
  EXPECT_EQ(WaitForSingleObject(pair.done, 10000), WAIT_OBJECT_0);
  CloseHandle(pair.go);
  CloseHandle(pair.done);
}

uint32_t SleepForever(void*) {
  for (;;) Sleep(10);
}

TEST(ThreadStartRecord, TerminateThreadCutsOffAThreadAtItsNextSleep) {
  if (UNDER_ADDRESS_SANITIZER) GTEST_SKIP() << "thread cancellation cannot run under ASan";
  HANDLE thread = CreateThread(nullptr, 0, SleepForever, nullptr, 0, nullptr);
  ASSERT_NE(thread, nullptr);
  EXPECT_TRUE(TerminateThread(thread, 1));
  EXPECT_FALSE(TerminateThread(thread, 1));  // already let go of
  EXPECT_EQ(WaitForSingleObject(thread, 20), WAIT_TIMEOUT);  // never signalled
  EXPECT_TRUE(CloseHandle(thread));
}

TEST(OSTime, SleepAndTickCountAgree) {
  uint32_t start = GetTickCount();
  Sleep(30);
  EXPECT_GE(GetTickCount() - start, 29u);
  EXPECT_EQ(GetCurrentProcessId(), static_cast<uint32_t>(getpid()));
  uint64_t a = ReadTimeStampCounter();
  uint64_t b = ReadTimeStampCounter();
  EXPECT_GE(b, a);
}

}  // namespace
