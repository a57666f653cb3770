#include <gtest/gtest.h>

#include "ThreadStartRecord.h"
#include "wait_test_support.h"

namespace {

TEST(WaitableObject, WaitForMultipleObjects) {
  EventRow objects(65, 0);
  // Any: the lowest signalled index wins, and only it is consumed. An
  // auto-reset event set twice before a wait still wakes one wait only.
  SetEvent(objects[63]), SetEvent(objects[1]), SetEvent(objects[1]);
  for (uint32_t expected : {WAIT_OBJECT_0 + 1, WAIT_OBJECT_0 + 63, uint32_t(WAIT_TIMEOUT)})
    EXPECT_EQ(WaitForMultipleObjects(64, objects.data(), 0, 0), expected);
  for (uint32_t n : {65u, 0u}) EXPECT_EQ(WaitForMultipleObjects(n, objects.data(), 0, 0), WAIT_FAILED) << n;
  // All: everything or nothing; a wait that timed out took nothing.
  HANDLE semaphore = CreateSemaphoreA(nullptr, 0, 5, nullptr);
  HANDLE pair[2] = {objects[0], semaphore};
  SetEvent(objects[0]);
  const uint32_t start = GetTickCount();
  EXPECT_EQ(WaitForMultipleObjects(2, pair, 1, 50), WAIT_TIMEOUT);
  EXPECT_GE(GetTickCount() - start, 49u);
  ReleaseSemaphore(semaphore, 1, nullptr);
  EXPECT_EQ(WaitForMultipleObjects(2, pair, 1, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForMultipleObjects(2, pair, 0, 0), WAIT_TIMEOUT);
  CloseHandle(semaphore);
}

TEST(WaitableObject, RefusalsAndTheValidityTestIsSafeOnClosedHandles) {
  HANDLE semaphore = CreateSemaphoreA(nullptr, 1, 3, nullptr);
  int32_t previous = -1;
  ASSERT_TRUE(ReleaseSemaphore(semaphore, 2, &previous));
  EXPECT_EQ(previous, 1);
  EXPECT_FALSE(ReleaseSemaphore(semaphore, 1, nullptr));  // past its maximum
  EXPECT_EQ(GetLastError(), ERROR_TOO_MANY_POSTS);
  EXPECT_EQ(CreateSemaphoreA(nullptr, 2, 1, nullptr), nullptr);
  EXPECT_EQ(WaitForSingleObject(nullptr, 0), WAIT_FAILED);
  EXPECT_FALSE(SetEvent(nullptr) || CloseHandle(nullptr));
  uint32_t flags = 7;
  EXPECT_TRUE(GetHandleInformation(semaphore, &flags) && flags == 0u);
  EXPECT_TRUE(CloseHandle(semaphore));
  EXPECT_FALSE(GetHandleInformation(semaphore, nullptr));
}

TEST(ThreadStartRecord, ThreadHandleSignalsTheEndAndKeepsTheExitCode) {
  auto returnArgument = [](void* argument) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(argument)); };
  uint32_t code = 0;
  HANDLE thread = CreateThread(nullptr, 0, returnArgument, reinterpret_cast<void*>(42), 0, nullptr);
  ASSERT_NE(thread, nullptr);
  EXPECT_TRUE(WaitForSingleObject(thread, 10000) == WAIT_OBJECT_0 && GetExitCodeThread(thread, &code));
  EXPECT_EQ(code, 42u);
  EXPECT_TRUE(CloseHandle(thread));

  // A running thread: still active, and it outlives its closed handle.
  HANDLE goDone[2] = {CreateEventA(nullptr, 1, 0, nullptr), CreateEventA(nullptr, 1, 0, nullptr)};
  auto waitForGo = [](void* events) -> uint32_t {
    WaitForSingleObject(static_cast<HANDLE*>(events)[0], INFINITE);
    return SetEvent(static_cast<HANDLE*>(events)[1]), 7;  // the thread's last touch of either event
  };
  thread = CreateThread(nullptr, 1 << 20, waitForGo, goDone, 0, nullptr);
  ASSERT_NE(thread, nullptr);
  EXPECT_EQ(WaitForSingleObject(thread, 20), WAIT_TIMEOUT);
  EXPECT_TRUE(GetExitCodeThread(thread, &code) && code == STILL_ACTIVE);
  EXPECT_TRUE(CloseHandle(thread));  // detaches
  SetEvent(goDone[0]);
  EXPECT_EQ(WaitForSingleObject(goDone[1], 10000), WAIT_OBJECT_0);
  for (HANDLE h : goDone) CloseHandle(h);
}

}  // namespace
