#include "WaitForMultipleObjectsExpand.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "OSTime.h"
#include "wait_test_support.h"

namespace {

struct Waited {
  int32_t result;
  std::vector<int32_t> indices;
};

Waited WaitAny(WaitHandleSet& set, const HANDLE* handles, int32_t n, uint32_t timeoutMs,
               int32_t rebuilt) {
  std::vector<int32_t> out(static_cast<size_t>(n > 0 ? n : 1));
  int32_t count = -1;
  Waited w;
  w.result = set.WaitAnySignaled(handles, n, timeoutMs, out.data(), &count, rebuilt);
  w.indices.assign(out.begin(), out.begin() + (count > 0 ? count : 0));
  return w;
}

class WaitHandleSetTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(EnsureDescriptors(9000)); }
  std::unique_ptr<WaitHandleSet> set_ = std::make_unique<WaitHandleSet>();
};

// The helper tree by size: how many helpers start, and that the last handle,
// which always lies in the last group, is found.
TEST_F(WaitHandleSetTest, HelpersStartedBySize) {
  struct Case {
    int32_t n;
    int32_t helpers;
  } cases[] = {{1, 0}, {64, 0}, {65, 1}, {126, 1}, {127, 2}, {2000, 32}, {4031, 64}, {4032, 64}};
  for (const Case& c : cases) {
    WaitHandleSet set;
    EventRow events(c.n, 0);
    ASSERT_TRUE(events.AllMade());
    SetEvent(events[c.n - 1]);
    Waited w = WaitAny(set, events.data(), c.n, 1000, 1);
    EXPECT_EQ(w.result, 0) << c.n;
    EXPECT_EQ(w.indices, std::vector<int32_t>{c.n - 1}) << c.n;
    EXPECT_EQ(set.StartedHelpers(), c.helpers) << c.n;
  }
}

TEST_F(WaitHandleSetTest, DestructionEndsEveryHelper) {
  const int baseline = CountProcEntries("task");
  {
    WaitHandleSet set;
    EventRow events(200, 0);
    EXPECT_EQ(WaitAny(set, events.data(), 200, 0, 1).result, 1);
    EXPECT_EQ(CountProcEntries("task"), baseline + 3);
  }
  EXPECT_EQ(CountProcEntries("task"), baseline);  // joined, not left behind
}

TEST_F(WaitHandleSetTest, RefusesBadArgumentsWithoutStartingHelpers) {
  EventRow events(4033, 1);
  ASSERT_TRUE(events.AllMade());
  int32_t out[4033];
  int32_t count = 0;
  EXPECT_EQ(set_->WaitAnySignaled(events.data(), 4033, 0, out, &count, 1), 2);
  EXPECT_EQ(set_->WaitAnySignaled(nullptr, 5, 0, out, &count, 1), 2);
  EXPECT_EQ(set_->WaitAnySignaled(events.data(), 0, 0, out, &count, 1), 2);
  EXPECT_EQ(set_->WaitAnySignaled(events.data(), 5, 0, nullptr, &count, 1), 2);
  EXPECT_EQ(set_->WaitAnySignaled(events.data(), 5, 0, out, nullptr, 1), 2);
  // Wait-all works only without limit.
  const uint32_t start = GetTickCount();
  EXPECT_EQ(set_->WaitForMultipleObjectsExpand(events.data(), 100, 5, out, &count, 1, 1), 2);
  EXPECT_LT(GetTickCount() - start, 5u);
  EXPECT_EQ(set_->StartedHelpers(), 0);
}

TEST_F(WaitHandleSetTest, ReportsEverySignalledIndexAscending) {
  EventRow events(300, 0);
  ASSERT_TRUE(events.AllMade());
  // Direct handles (0..59 for 300: k = 4) and several in one helper's group.
  const std::vector<int32_t> expected = {3, 59, 60, 61, 100, 122, 123, 200, 299};
  for (int32_t i : expected) SetEvent(events[i]);
  Waited w = WaitAny(*set_, events.data(), 300, 1000, 1);
  EXPECT_EQ(w.result, 0);
  EXPECT_EQ(w.indices, expected);
  // All of them were consumed (auto-reset): nothing is left.
  EXPECT_EQ(WaitAny(*set_, events.data(), 300, 0, 0).result, 1);
}

TEST_F(WaitHandleSetTest, SeventyWithTwoSignalled) {
  EventRow events(70, 0);
  SetEvent(events[3]);
  SetEvent(events[68]);
  Waited w = WaitAny(*set_, events.data(), 70, INFINITE, 1);
  EXPECT_EQ(w.result, 0);
  EXPECT_EQ(w.indices, (std::vector<int32_t>{3, 68}));
}

TEST_F(WaitHandleSetTest, ManualResetEventDoesNotStarveThoseBehind) {
  EventRow events(10, 1);
  SetEvent(events[0]);
  SetEvent(events[7]);
  for (int pass = 0; pass < 3; ++pass) {
    Waited w = WaitAny(*set_, events.data(), 10, 0, pass == 0);
    EXPECT_EQ(w.indices, (std::vector<int32_t>{0, 7}));
  }
}

TEST_F(WaitHandleSetTest, TimeoutLeavesHelpersIdleAndReusable) {
  EventRow events(200, 0);
  const uint32_t start = GetTickCount();
  Waited w = WaitAny(*set_, events.data(), 200, 10, 1);
  EXPECT_EQ(w.result, 1);
  EXPECT_TRUE(w.indices.empty());
  EXPECT_GE(GetTickCount() - start, 9u);
  EXPECT_EQ(set_->StartedHelpers(), 3);
  for (int32_t i : {150, 5, 199}) {
    SetEvent(events[i]);
    w = WaitAny(*set_, events.data(), 200, 1000, 0);
    EXPECT_EQ(w.result, 0);
    EXPECT_EQ(w.indices, std::vector<int32_t>{i});
  }
}

TEST_F(WaitHandleSetTest, SmallerArrayKeepsHelpersAndNeedsRebuilt) {
  EventRow big(200, 0);
  EventRow a(70, 0);
  EventRow b(70, 0);
  EXPECT_EQ(WaitAny(*set_, big.data(), 200, 0, 1).result, 1);
  EXPECT_EQ(WaitAny(*set_, a.data(), 70, 0, 1).result, 1);
  EXPECT_EQ(set_->StartedHelpers(), 3);  // the two not needed stay alive
  // Without `rebuilt` the set still waits on `a`, whatever array is passed.
  // (A helper needs a moment to take its turn: a timeout of 0 may call it off
  // before it looks.)
  SetEvent(b[68]);
  EXPECT_EQ(WaitAny(*set_, b.data(), 70, 20, 0).result, 1);
  SetEvent(a[68]);
  EXPECT_EQ(WaitAny(*set_, b.data(), 70, 1000, 0).indices, std::vector<int32_t>{68});
  // With it, `b` is taken.
  EXPECT_EQ(WaitAny(*set_, b.data(), 70, 1000, 1).indices, std::vector<int32_t>{68});
}

// A helper's handle that becomes signalled while a timed-out call calls its
// helpers off is either reported or left signalled: never lost.
TEST_F(WaitHandleSetTest, SignalAroundTheCancelIsNeverLost) {
  EventRow events(130, 0);
  int reported = 0;
  for (int round = 0; round < 300; ++round) {
    const int32_t index = 64 + round % 66;  // in a helper's group
    SetEvent(events[index]);
    Waited w = WaitAny(*set_, events.data(), 130, 0, round == 0);
    if (w.result == 0) {
      EXPECT_EQ(w.indices, std::vector<int32_t>{index});
      ++reported;
    } else {
      ASSERT_EQ(w.result, 1);
      EXPECT_EQ(WaitForSingleObject(events[index], 0), WAIT_OBJECT_0) << "lost at round " << round;
    }
  }
  RecordProperty("reported", reported);
}

TEST_F(WaitHandleSetTest, WaitAllAcrossHelpers) {
  EventRow events(100, 1);
  int32_t out[100];
  int32_t count = 0;
  for (int i = 0; i < 100; ++i) SetEvent(events[i]);
  EXPECT_EQ(set_->WaitForMultipleObjectsExpand(events.data(), 100, INFINITE, out, &count, 1, 1), 0);
  // The set is reusable at once for the other mode.
  Waited w = WaitAny(*set_, events.data(), 100, 0, 0);
  EXPECT_EQ(w.indices.size(), 100u);
}

TEST_F(WaitHandleSetTest, FailuresDirectAndInAHelper) {
  DiagnosticsCapture capture;
  EventRow events(70, 0);
  std::vector<HANDLE> handles(events.handles);
  // Direct path: a bad handle fails (2), not a timeout.
  handles[3] = FakeHandle();
  EXPECT_EQ(WaitAny(*set_, handles.data(), 10, 0, 1).result, 2);
  // In a helper's group: reported, and the group counts as failed.
  handles[3] = events[3];
  handles[68] = FakeHandle();
  EXPECT_EQ(WaitAny(*set_, handles.data(), 70, 50, 1).result, 2);
  std::vector<std::string> reports = capture.Reports();
  ASSERT_FALSE(reports.empty());
  EXPECT_NE(reports[0].find("File: \"codelib/winutil/source/WaitForMultipleObjectsExpand(151)\""),
            std::string::npos);
  EXPECT_NE(reports[0].find("Expression: (false)"), std::string::npos);
  // With the failing group still there, a signalled handle elsewhere is
  // reported unless the failed helper's result wins the main wait (it stands
  // at a lower index): which of the two comes first is a matter of timing.
  SetEvent(events[3]);
  Waited w = WaitAny(*set_, handles.data(), 70, 1000, 0);
  ASSERT_TRUE(w.result == 0 || w.result == 2) << w.result;
  if (w.result == 0) {
    EXPECT_EQ(w.indices, std::vector<int32_t>{3});
  }
  // Once the group is sound again, the same wait reports the handle.
  handles[68] = events[68];
  SetEvent(events[3]);
  w = WaitAny(*set_, handles.data(), 70, 1000, 1);
  EXPECT_EQ(w.result, 0);
  EXPECT_EQ(w.indices, std::vector<int32_t>{3});
}

}  // namespace
