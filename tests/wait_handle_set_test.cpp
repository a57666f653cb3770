#include "WaitForMultipleObjectsExpand.h"

#include <gtest/gtest.h>

#include <vector>

#include "wait_test_support.h"

namespace {

using Indices = std::vector<int32_t>;

// WaitAnySignaled: the result, with the signalled indices or -1 after the result.
Indices WaitAny(WaitHandleSet& set, const HANDLE* handles, int32_t n, uint32_t timeoutMs, int32_t rebuilt) {
  Indices out(static_cast<size_t>(n));
  int32_t count = 0;
  const int32_t result = set.WaitAnySignaled(handles, n, timeoutMs, out.data(), &count, rebuilt);
  out.resize(static_cast<size_t>(count));
  if (result != WAIT_SET_SATISFIED) out.insert(out.begin(), -result);
  return out;
}

// The wait on more than 64 handles through helper threads, one per 63.
TEST(WaitHandleSet, Contract) {
  ASSERT_TRUE(EnsureDescriptors(9000));
  const int baseline = CountProcEntries("task");
  const Indices timedOut{-WAIT_SET_TIMEOUT}, failed{-WAIT_SET_FAILED};
  {
    WaitHandleSet set;
    EventRow events(WAIT_SET_MAX_HANDLES + 1, 0);
    ASSERT_TRUE(events.AllMade());
    int32_t out[8], count = 0;
    // Refusals start no helper; wait-all works only without limit.
    EXPECT_EQ(WaitAny(set, events.data(), WAIT_SET_MAX_HANDLES + 1, 0, 1), failed);
    EXPECT_EQ(WaitAny(set, events.data(), 0, 0, 1), failed);
    EXPECT_EQ(set.WaitAnySignaled(events.data(), 5, 0, out, nullptr, 1), WAIT_SET_FAILED);
    EXPECT_EQ(set.WaitForMultipleObjectsExpand(events.data(), 100, 5, out, &count, 1, 1), WAIT_SET_FAILED);
    EXPECT_EQ(set.StartedHelpers(), 0);

    // In order of size, as helpers once started stay. Every signalled index
    // is reported, ascending, and consumed; direct handles are the first 64-k.
    struct Case {
      int32_t n, rebuilt;
      Indices signalled;
      int32_t helpers;
    } cases[] = {{1, 1, {0}, 0},       {64, 1, {63}, 0},  {65, 1, {64}, 1},   {70, 1, {3, 68}, 1},   {127, 1, {126}, 2},
                 {200, 1, {}, 3},      {200, 0, {150}, 3}, {200, 0, {5}, 3},  {4031, 1, {4030}, 64},
                 {300, 1, {3, 59, 60, 61, 100, 122, 123, 200, 299}, 64},       {4032, 1, {4031}, 64}};
    for (const Case& c : cases) {
      for (int32_t i : c.signalled) SetEvent(events[i]);
      const uint32_t start = GetTickCount();
      EXPECT_EQ(WaitAny(set, events.data(), c.n, c.signalled.empty() ? 10 : 1000, c.rebuilt),
                c.signalled.empty() ? timedOut : c.signalled) << c.n;
      EXPECT_TRUE(!c.signalled.empty() || GetTickCount() - start >= 9u) << c.n;
      EXPECT_EQ(set.StartedHelpers(), c.helpers) << c.n;
    }
    EXPECT_EQ(CountProcEntries("task"), baseline + 64);
  }
  EXPECT_EQ(CountProcEntries("task"), baseline);  // every helper joined

  WaitHandleSet set;
  EventRow manual(100, 1), a(70, 0), racing(130, 0);
  int32_t out[100], count = 0;
  // A manual-reset event does not starve those behind it.
  SetEvent(manual[0]), SetEvent(manual[7]);
  for (int pass = 0; pass < 3; ++pass) EXPECT_EQ(WaitAny(set, manual.data(), 10, 0, pass == 0), (Indices{0, 7}));
  // Wait-all across helpers; the set is at once reusable for the other mode.
  for (int i = 0; i < 100; ++i) SetEvent(manual[i]);
  EXPECT_EQ(set.WaitForMultipleObjectsExpand(manual.data(), 100, INFINITE, out, &count, 1, 1), WAIT_SET_SATISFIED);
  EXPECT_EQ(WaitAny(set, manual.data(), 100, 0, 0).size(), 100u);

  // A helper's handle signalled while a timed-out call calls the helpers off
  // is either reported or left signalled: never lost.
  for (int round = 0; round < 300; ++round) {
    const int32_t index = 64 + round % 66;  // in a helper's group
    SetEvent(racing[index]);
    const Indices got = WaitAny(set, racing.data(), 130, 0, round == 0);
    ASSERT_TRUE(got == Indices{index} || (got == timedOut && WaitForSingleObject(racing[index], 0) == WAIT_OBJECT_0))
        << "lost at round " << round;
  }

  // A bad handle fails the wait, direct or in a helper's group (reported).
  DiagnosticsCapture capture;
  std::vector<HANDLE> handles(a.handles);
  for (int bad : {3, 68}) {
    handles[bad] = FakeHandle();
    EXPECT_EQ(WaitAny(set, handles.data(), bad == 3 ? 10 : 70, 50, 1), failed) << bad;
    handles[bad] = a[bad];  // sound again
  }
  ASSERT_FALSE(capture.Reports().empty());
  EXPECT_NE(capture.Reports()[0].find("WaitForMultipleObjectsExpand(151)"), std::string::npos);
  SetEvent(a[3]);
  EXPECT_EQ(WaitAny(set, handles.data(), 70, 1000, 1), Indices{3});
}

}  // namespace
