// VBufferQueue: lifecycle, placement, commits, eviction, limits, indexes and
// notifications.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "InlineArray.h"
#include "OSTime.h"
#include "PerformanceSite.h"
#include "VBufferQueue.h"
#include "WaitableObject.h"
#include "vbuffer_queue_test_util.h"

namespace {

TEST(VBufferQueueOpen, AcceptsOnlyAlignmentsFourAndSixtyEight) {
  struct Case {
    int32_t size;
    int32_t align;
    int32_t result;
  };
  const Case cases[] = {{100, 4, 1}, {100, 68, 1}, {100, 8, 0},  {100, 16, 0},
                        {100, 0, 0}, {100, -4, 0}, {100, 6, 0},  {0, 4, 0},
                        {-1, 4, 0},  {100, 34, 0}, {100, 2, 0}};
  for (const Case& c : cases) {
    VBufferQueue q(1, 0);
    EXPECT_EQ(c.result, q.Open(c.size, nullptr, nullptr, c.align)) << c.size << "/" << c.align;
    EXPECT_EQ(c.result, q.IsOpen());
  }
}

TEST(VBufferQueueOpen, CapacityOwnBufferRoundsCallersBufferStands) {
  VBufferQueue own(0, 0);
  ASSERT_EQ(1, own.Open(100, "video", nullptr, 68));
  EXPECT_EQ(136, own.GetCapacity());
  EXPECT_STREQ("video", own.GetName());
  EXPECT_EQ(0, own.Open(100, nullptr, nullptr, 4));  // already open
  uint8_t* p = own.PrepareNewBufferAtTail(0, 0, nullptr);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(p - VBUF_HEADER_SIZE) % 68);  // base on 68
  EXPECT_EQ(1, own.NewBufferAtTail(p, 0, 0, 0, 0));  // cancel, or closing would wait

  std::vector<uint8_t> buffer(100);
  VBufferQueue outside(0, 0);
  ASSERT_EQ(1, outside.Open(100, nullptr, buffer.data(), 68));
  EXPECT_EQ(100, outside.GetCapacity());
  EXPECT_EQ(nullptr, outside.GetName());
  outside.Close();
  EXPECT_EQ(0, outside.IsOpen());
  EXPECT_EQ(0, outside.GetCapacity());
}

TEST(VBufferQueuePlacement, TailBlocksInTheBufferOfAThousand) {
  QueueOnBuffer t;
  uint8_t* const B = t.B();
  uint8_t* first = t.queue.PrepareNewBufferAtTail(101, 0, nullptr);
  EXPECT_EQ(B + 68, first);
  EXPECT_EQ(1, t.queue.NewBufferAtTail(first, -1, 0, 0, 0));
  EXPECT_EQ(B + 68 + 104 + 68, t.queue.PrepareNewBufferAtTail(10, 0, nullptr));
}

TEST(VBufferQueuePlacement, HeadReservationOnEmptyQueueLandsAtBase) {
  QueueOnBuffer t;
  EXPECT_EQ(t.B() + 68, t.queue.PrepareNewBufferAtHead(100, 0, nullptr));
}

TEST(VBufferQueuePlacement, TailWrapsToBaseOnlyWhenItEndsBeforeTheHead) {
  QueueOnBuffer t;
  // Three blocks of 232 (300 bytes each), then drop the first: head at 300.
  for (int i = 0; i < 3; ++i) ASSERT_NE(nullptr, t.Push(232));
  ASSERT_EQ(1, t.queue.RemoveBufferAtHead(nullptr));
  // 100 bytes left before the end: a 200-byte block wraps to the base.
  EXPECT_EQ(t.B() + 68, t.Push(200));
  // The free stretch is now 268..300: no block fits, not even an empty one.
  EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtTail(40, 0, nullptr));
  EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtTail(0, 0, nullptr));
}

TEST(VBufferQueuePlacement, TailCannotWrapWhenTheHeadIsAtTheBase) {
  QueueOnBuffer t;
  ASSERT_NE(nullptr, t.Push(432));  // 0..500
  ASSERT_NE(nullptr, t.Push(332));  // 500..900
  // 100 bytes free at the end, none before the head.
  EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtTail(100, 0, nullptr));
  EXPECT_NE(nullptr, t.queue.PrepareNewBufferAtTail(32, 0, nullptr));
}

TEST(VBufferQueuePlacement, ExactFitAndOneByteMoreWithEviction) {
  QueueOnBuffer t;
  uint8_t* p = t.queue.PrepareNewBufferAtTail(1000 - 68, 0, nullptr);
  ASSERT_EQ(t.B() + 68, p);
  ASSERT_EQ(1, t.queue.NewBufferAtTail(p, 0, 0, 0, 0));  // cancel
  for (int i = 0; i < 3; ++i) ASSERT_NE(nullptr, t.Push(10 + i));
  int32_t evicted = -1;
  EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtTail(1000 - 67, 1, &evicted));
  EXPECT_EQ(10 + 11 + 12, evicted);
  EXPECT_EQ(0, t.queue.GetBufferCount());
  EXPECT_EQ(0, t.queue.IsBusy());
}

TEST(VBufferQueuePlacement, HeadBlocksGoDownAndWrapToTheTop) {
  QueueOnBuffer t;
  ASSERT_EQ(t.B() + 68, t.Push(32));                // 0..100
  EXPECT_EQ(t.B() + 1000 - 100 + 68, t.PushHead(32));  // wraps to 900..1000
  EXPECT_EQ(t.B() + 800 + 68, t.PushHead(32));         // 800..900
  // Below it the candidate must stay above the tail's end (100).
  EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtHead(700 - 68 + 4, 0, nullptr));
  EXPECT_EQ(t.B() + 100 + 68, t.queue.PrepareNewBufferAtHead(700 - 68, 0, nullptr));
}

TEST(VBufferQueueCommit, CancelEmptyAndSkip) {
  QueueOnBuffer t;
  EventLog::Lines().clear();
  ASSERT_EQ(1, t.queue.AddNotify(1, EventLog::Record));

  // Size 0 without allowEmpty cancels: result 1, no event, queue as before.
  uint8_t* p = t.queue.PrepareNewBufferAtTail(50, 0, nullptr);
  EXPECT_EQ(1, t.queue.IsBusy());
  EXPECT_EQ(1, t.queue.NewBufferAtTail(p, 0, 0, 0, 0));
  EXPECT_EQ(0, t.queue.IsBusy());
  EXPECT_EQ(0, t.queue.GetBufferCount());
  EXPECT_TRUE(EventLog::Lines().empty());
  EXPECT_EQ(p, t.queue.PrepareNewBufferAtTail(50, 0, nullptr));  // same space again

  // skip == size without allowEmpty: refused, reservation stands.
  EXPECT_EQ(0, t.queue.NewBufferAtTail(p, 10, 0, 0, 10));
  EXPECT_EQ(1, t.queue.IsBusy());
  // With allowEmpty it commits an empty block.
  EXPECT_EQ(1, t.queue.NewBufferAtTail(p, 10, 7, 1, 10));
  EXPECT_EQ(1, t.queue.GetBufferCount());
  EXPECT_EQ(0, t.queue.GetDataSize());

  // More than reserved gives the block up and frees its space.
  uint8_t* q = t.queue.PrepareNewBufferAtTail(20, 0, nullptr);
  ASSERT_NE(nullptr, q);
  EXPECT_EQ(0, t.queue.NewBufferAtTail(q, 21, 0, 0, 0));
  EXPECT_EQ(0, t.queue.IsBusy());
  EXPECT_EQ(q, t.queue.PrepareNewBufferAtTail(20, 0, nullptr));

  // A wrong pointer is refused and changes nothing.
  EXPECT_EQ(0, t.queue.NewBufferAtTail(q + 4, -1, 0, 0, 0));
  EXPECT_EQ(0, t.queue.NewBufferAtTail(nullptr, -1, 0, 0, 0));
  // A skip of 3: data starts 3 bytes later, with 17 bytes.
  for (int i = 0; i < 20; ++i) q[i] = static_cast<uint8_t>(i);
  EXPECT_EQ(1, t.queue.NewBufferAtTail(q, -1, 9, 0, 3));
  int32_t size = 0;
  uint32_t user = 0;
  uint8_t* got = t.queue.GetBufferByIndex(1, &size, &user);
  EXPECT_EQ(q + 3, got);
  EXPECT_EQ(17, size);
  EXPECT_EQ(9u, user);
  EXPECT_EQ(3, got[0]);
  EXPECT_EQ(1, t.queue.ReleaseBuffer(got, 0));
  // The list still links through the moved header.
  EXPECT_EQ(1, t.queue.RemoveBufferAtHead(nullptr));
  EXPECT_EQ(1, t.queue.RemoveBufferAtHead(nullptr));
  EXPECT_EQ(0, t.queue.RemoveBufferAtHead(nullptr));
  // The events carry the pointer as passed and the final size.
  ASSERT_GE(EventLog::Lines().size(), 2u);
  EXPECT_EQ("1:4:0:7", EventLog::Lines()[0]);
  EXPECT_EQ("1:4:17:9", EventLog::Lines()[1]);
}

TEST(VBufferQueueCommit, OneReservationPerEndAtATime) {
  QueueOnBuffer t;
  uint8_t* tail = t.queue.PrepareNewBufferAtTail(10, 0, nullptr);
  ASSERT_NE(nullptr, tail);
  EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtTail(10, 0, nullptr));
  uint8_t* head = t.queue.PrepareNewBufferAtHead(10, 0, nullptr);
  ASSERT_NE(nullptr, head);
  EXPECT_EQ(0, t.queue.NewBufferAtTail(head, -1, 0, 0, 0));
  EXPECT_EQ(0, t.queue.NewBufferAtHead(tail, -1, 0, 0, 0));
  EXPECT_EQ(1, t.queue.NewBufferAtHead(head, -1, 1, 0, 0));
  EXPECT_EQ(1, t.queue.NewBufferAtTail(tail, -1, 2, 0, 0));
  EXPECT_EQ(-1, t.queue.GetFirstIndex().Value());
  EXPECT_EQ(-10, t.queue.GetFirstOffset().Value());
  uint32_t user = 0;
  EXPECT_EQ(1, t.queue.GetHeadUser(&user));
  EXPECT_EQ(1u, user);
}

TEST(VBufferQueueCommit, RemovingTheOtherEndsLoneReservationJamsTheQueue) {
  QueueOnBuffer t;
  uint8_t* p = t.queue.PrepareNewBufferAtTail(40, 0, nullptr);
  ASSERT_NE(nullptr, p);
  // Kept as designed: the head removal takes the tail reservation for a block.
  EXPECT_EQ(1, t.queue.RemoveBufferAtHead(nullptr));
  EXPECT_EQ(-40, t.queue.GetDataSize());
  EXPECT_EQ(0, t.queue.NewBufferAtTail(p, -1, 0, 0, 0));
  EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtTail(4, 0, nullptr));
  t.queue.Clear();
  EXPECT_NE(nullptr, t.Push(4));
}

TEST(VBufferQueueEvict, StopsAtAHeldBlockAndLeavesTheRest) {
  QueueOnBuffer t;
  for (int i = 0; i < 3; ++i) ASSERT_NE(nullptr, t.Push(232, static_cast<uint8_t>(i)));
  int32_t size = 0;
  uint8_t* second = t.queue.GetBufferByIndex(1, &size, nullptr);
  ASSERT_NE(nullptr, second);
  int32_t evicted = 0;
  EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtTail(500, 1, &evicted));
  EXPECT_EQ(232, evicted);  // the first went, the held second stopped it
  EXPECT_EQ(1, t.queue.GetFirstIndex().Value());
  EXPECT_EQ(2, t.queue.GetBufferCount());
  EXPECT_EQ(1, second[0]);
  EXPECT_EQ(1, t.queue.ReleaseBuffer(second, 0));
  EXPECT_NE(nullptr, t.queue.PrepareNewBufferAtTail(500, 1, &evicted));
  EXPECT_EQ(232, evicted);
}

TEST(VBufferQueueEvict, StopsAtABlockPendingForATrackedReader) {
  QueueOnBuffer t(1000, 1);
  ASSERT_NE(nullptr, t.Push(432));
  ASSERT_EQ(1, t.queue.AddReader(77, 0));
  ASSERT_NE(nullptr, t.Push(300));  // pending for 77
  EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtTail(450, 1, nullptr));
  EXPECT_EQ(1, t.queue.GetFirstIndex().Value());  // the first (not pending) went
  EXPECT_EQ(1, t.queue.HasPending(77));
  int32_t size = 0;
  uint8_t* p = t.queue.GetBuffer(nullptr, &size, nullptr);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(1, t.queue.ReleaseBuffer(p, 77));
  EXPECT_EQ(0, t.queue.HasPending(77));
  EXPECT_NE(nullptr, t.queue.PrepareNewBufferAtTail(450, 1, nullptr));
}

TEST(VBufferQueueLimits, CountBytesAndPercent) {
  ReportCatcher reports;
  {
    QueueOnBuffer t;
    ASSERT_EQ(1, t.queue.AddReader(5, 0));
    ASSERT_EQ(1, t.queue.SetReaderSizeLimited(5, VBUF_LIMIT_COUNT, 2));
    ASSERT_NE(nullptr, t.Push(1));
    ASSERT_NE(nullptr, t.Push(1));
    EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtTail(1, 0, nullptr));
    EXPECT_NE(nullptr, t.Push(1, 0, 0, 1));
    EXPECT_EQ(2, t.queue.GetBufferCount());
    EXPECT_EQ(1, t.queue.GetFirstIndex().Value());
  }
  {
    QueueOnBuffer t;
    ASSERT_EQ(1, t.queue.AddReader(5, 0));
    ASSERT_EQ(1, t.queue.SetReaderSizeLimited(5, VBUF_LIMIT_BYTES, 100));
    ASSERT_NE(nullptr, t.Push(60));
    EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtTail(41, 0, nullptr));
    EXPECT_NE(nullptr, t.Push(40));
  }
  {
    QueueOnBuffer t;
    ASSERT_EQ(1, t.queue.AddReader(5, 0));
    ASSERT_EQ(1, t.queue.SetReaderSizeLimited(5, VBUF_LIMIT_PERCENT, 50));
    EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtTail(433, 0, nullptr));
    EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtHead(433, 0, nullptr));
    EXPECT_NE(nullptr, t.Push(432));
  }
  EXPECT_TRUE(reports.reports.empty());
}

TEST(VBufferQueueLimits, LastRecordRulesAndGoesWithItsReader) {
  ReportCatcher reports;
  QueueOnBuffer t;
  int32_t type = -1;
  int32_t value = -1;
  EXPECT_EQ(0, t.queue.GetReaderSizeLimited(&type, &value));
  EXPECT_EQ(0, type);
  EXPECT_EQ(0, value);
  ASSERT_EQ(1, t.queue.AddReader(1, 0));
  ASSERT_EQ(1, t.queue.AddReader(2, 0));
  EXPECT_EQ(0, t.queue.SetReaderSizeLimited(1, 4, 10));  // bad type: no report
  EXPECT_TRUE(reports.reports.empty());
  ASSERT_EQ(1, t.queue.SetReaderSizeLimited(1, VBUF_LIMIT_COUNT, 1));
  ASSERT_EQ(1, t.queue.SetReaderSizeLimited(2, VBUF_LIMIT_COUNT, 3));
  EXPECT_EQ(1, t.queue.GetReaderSizeLimited(&type, &value));
  EXPECT_EQ(3, value);
  for (int i = 0; i < 3; ++i) EXPECT_NE(nullptr, t.Push(1));  // b's limit of 3 rules
  EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtTail(1, 0, nullptr));
  EXPECT_EQ(1, t.queue.RemoveReader(2));
  EXPECT_EQ(1, t.queue.GetReaderSizeLimited(nullptr, &value));
  EXPECT_EQ(1, value);
  // CleanReaderSizeLimited removes the reader as well.
  EXPECT_EQ(1, t.queue.CleanReaderSizeLimited(1));
  EXPECT_EQ(0, t.queue.GetReaderCount());
  EXPECT_EQ(0, t.queue.GetReaderSizeLimited(nullptr, nullptr));
  EXPECT_EQ(0, t.queue.CleanReaderSizeLimited(1));
}

TEST(VBufferQueueIndexes, FollowTheirBlocksAcrossRemovals) {
  QueueOnBuffer t;
  for (int i = 0; i < 3; ++i) ASSERT_NE(nullptr, t.Push(10 + i, 0, 100 + i));
  EXPECT_EQ(1, t.queue.RemoveBufferAtHead(nullptr));
  EXPECT_EQ(1, t.queue.GetFirstIndex().Value());
  EXPECT_EQ(2, t.queue.GetLastIndex().Value());
  EXPECT_EQ(10, t.queue.GetFirstOffset().Value());
  EXPECT_EQ(10 + 11 + 12 - 1, t.queue.GetLastOffset().Value());
  int32_t size = 0;
  uint32_t user = 0;
  int32_t readCount = -1;
  int32_t pending = -1;
  VBufSeq offset;
  EXPECT_EQ(0, t.queue.GetBufferInfo(0, &size, &user, &readCount, &pending, &offset));
  EXPECT_EQ(1, t.queue.GetBufferInfo(2, &size, &user, &readCount, &pending, &offset));
  EXPECT_EQ(12, size);
  EXPECT_EQ(102u, user);
  EXPECT_EQ(0, readCount);
  EXPECT_EQ(0, pending);
  EXPECT_EQ(21, offset.Value());
  int32_t removed = 0;
  EXPECT_EQ(1, t.queue.RemoveBufferAtTail(&removed));
  EXPECT_EQ(12, removed);
  EXPECT_EQ(1, t.queue.GetLastIndex().Value());
  EXPECT_EQ(20, t.queue.GetLastOffset().Value());
  VBufSeq index;
  t.queue.GetEndInfo(1, &index, &offset);
  EXPECT_EQ(1, index.Value());
  EXPECT_EQ(10, offset.Value());
  t.queue.GetEndInfo(0, &index, &offset);
  EXPECT_EQ(1, index.Value());
  EXPECT_EQ(20, offset.Value());
  t.queue.SetFirstIndex(40);
  EXPECT_EQ(1, t.queue.GetBufferInfo(40, &size, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(11, size);
}

TEST(VBufferQueueIndexes, ClearGoesOnFromWhereItWasAndSetFirstOffsetMovesTheStream) {
  QueueOnBuffer t;
  t.queue.SetFirstIndex(5);
  for (int i = 0; i < 3; ++i) ASSERT_NE(nullptr, t.Push(10, static_cast<uint8_t>(i)));
  t.queue.SetFirstOffset(1000);
  EXPECT_EQ(1000 + 30 - 1, t.queue.GetLastOffset().Value());
  uint8_t byte = 0;
  EXPECT_EQ(1, t.queue.ReadByte(1025, &byte));
  EXPECT_EQ(2, byte);
  EXPECT_EQ(0, t.queue.ReadByte(1030, &byte));
  EXPECT_EQ(0, t.queue.ReadByte(999, &byte));
  t.queue.SetFirstOffset(0);
  t.queue.Clear();
  EXPECT_EQ(8, t.queue.GetFirstIndex().Value());
  EXPECT_EQ(30, t.queue.GetFirstOffset().Value());
  EXPECT_EQ(0, t.queue.GetBufferCount());
  EXPECT_EQ(7, t.queue.GetLastIndex().Value());
  EXPECT_EQ(t.B() + 68, t.Push(4));  // an empty list starts again at the base
}

TEST(VBufferQueueIndexes, IndexesAndOffsetsRunAcrossTheWrapOf32Bits) {
  QueueOnBuffer t;
  t.queue.SetFirstIndex(INT32_MAX - 1);
  t.queue.SetFirstOffset(INT32_MAX - 14);
  for (int i = 0; i < 4; ++i) ASSERT_NE(nullptr, t.Push(10, static_cast<uint8_t>(i + 1)));
  EXPECT_EQ(INT32_MIN + 1, t.queue.GetLastIndex().Value());
  EXPECT_TRUE(t.queue.GetLastIndex() > t.queue.GetFirstIndex());
  int32_t size = 0;
  uint8_t* p = t.queue.GetBufferByIndex(VBufSeq(INT32_MIN + 1), &size, nullptr);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(4, p[0]);
  EXPECT_EQ(1, t.queue.ReleaseBufferByIndex(VBufSeq(INT32_MIN + 1), 0));
  // 40 bytes from INT32_MAX - 14: the last byte lies past the wrap.
  uint8_t out[40] = {};
  VBufSeq position(INT32_MAX - 14);
  int32_t count = 40;
  EXPECT_EQ(1, t.queue.ReadBytes(&position, out, &count, 0));
  EXPECT_EQ(40, count);
  EXPECT_EQ(VBufSeq(INT32_MAX - 14) + 40, position);
  EXPECT_EQ(1, out[0]);
  EXPECT_EQ(4, out[39]);
  uint8_t byte = 0;
  EXPECT_EQ(1, t.queue.ReadByte(VBufSeq(INT32_MIN + 5), &byte));  // 20 bytes in
  EXPECT_EQ(3, byte);
}

TEST(VBufferQueueIndexes, RingGrowsWhileCommitsComeAtBothEnds) {
  QueueOnBuffer t(4000);
  std::vector<uint8_t> expected;  // the tags in stream order
  for (int i = 0; i <= 20; ++i) {
    const uint8_t tag = static_cast<uint8_t>(i);
    if (i % 2 == 0) {
      ASSERT_NE(nullptr, t.PushHead(4, tag));
      expected.insert(expected.begin(), 4, tag);
    } else {
      ASSERT_NE(nullptr, t.Push(4, tag));
      expected.insert(expected.end(), 4, tag);
    }
  }
  EXPECT_EQ(-11, t.queue.GetFirstIndex().Value());
  EXPECT_EQ(9, t.queue.GetLastIndex().Value());
  for (int32_t k = 0; k < 21; ++k) {
    int32_t size = 0;
    uint8_t* p = t.queue.GetBufferByIndex(t.queue.GetFirstIndex() + k, &size, nullptr);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(expected[static_cast<size_t>(k) * 4], p[0]) << k;
    EXPECT_EQ(1, t.queue.ReleaseBuffer(p, 0));
  }
  std::vector<uint8_t> out(expected.size());
  VBufSeq position = t.queue.GetFirstOffset();
  int32_t count = static_cast<int32_t>(out.size());
  ASSERT_EQ(1, t.queue.ReadBytes(&position, out.data(), &count, 0));
  EXPECT_EQ(expected, out);
}

TEST(VBufferQueueHolds, GetReleaseAndWriteHolds) {
  QueueOnBuffer t;
  int32_t size = -1;
  uint32_t user = 5;
  EXPECT_EQ(nullptr, t.queue.GetBuffer(nullptr, &size, &user));
  EXPECT_EQ(0, size);
  EXPECT_EQ(0u, user);
  uint8_t* reserved = t.queue.PrepareNewBufferAtTail(8, 0, nullptr);
  EXPECT_EQ(nullptr, t.queue.GetBuffer(nullptr, &size, nullptr));  // only a reservation
  ASSERT_EQ(1, t.queue.NewBufferAtTail(reserved, -1, 11, 0, 0));
  ASSERT_NE(nullptr, t.queue.PrepareNewBufferAtTail(8, 0, nullptr));

  uint8_t* first = t.queue.GetBuffer(nullptr, &size, &user);
  ASSERT_EQ(reserved, first);
  EXPECT_EQ(8, size);
  EXPECT_EQ(11u, user);
  EXPECT_EQ(nullptr, t.queue.GetBuffer(first, &size, &user));  // stops before the reservation
  EXPECT_EQ(nullptr, t.queue.GetBuffer(first, nullptr, &user));  // size is required

  // Read-held twice: no write hold. Released twice: 1, 1, then 0.
  EXPECT_EQ(first, t.queue.GetBufferByIndex(0, &size, nullptr));
  EXPECT_EQ(nullptr, t.queue.LockBufferByIndex(0, &size, nullptr));
  int32_t state = 0;
  EXPECT_EQ(first, t.queue.FindBuffer(first + 3, &state));
  EXPECT_EQ(0, state);
  EXPECT_EQ(1, t.queue.ReleaseBuffer(first, 0));
  EXPECT_EQ(1, t.queue.ReleaseBufferByIndex(0, 0));
  EXPECT_EQ(0, t.queue.ReleaseBuffer(first, 0));
  EXPECT_EQ(nullptr, t.queue.FindBuffer(first, &state));  // idle
  EXPECT_EQ(-2, state);

  // Write-held: no read by any route, no second write hold.
  EXPECT_EQ(first, t.queue.LockBufferByIndex(0, &size, &user));
  EXPECT_EQ(nullptr, t.queue.GetBuffer(nullptr, &size, nullptr));
  EXPECT_EQ(nullptr, t.queue.GetBufferByIndex(0, &size, nullptr));
  EXPECT_EQ(nullptr, t.queue.LockBufferByIndex(0, &size, nullptr));
  EXPECT_EQ(first, t.queue.FindBuffer(first, &state));
  EXPECT_EQ(2, state);
  EXPECT_EQ(0, t.queue.ReleaseBuffer(first, 0));
  EXPECT_EQ(0, t.queue.RemoveBufferAtHead(nullptr));
  EXPECT_EQ(1, t.queue.UnlockBuffer(first));
  EXPECT_EQ(0, t.queue.UnlockBufferByIndex(0));
  EXPECT_EQ(0, t.queue.UnlockBufferByIndex(9));

  // Wild and foreign pointers are refused, not followed.
  uint8_t outside[80] = {};
  EXPECT_EQ(0, t.queue.ReleaseBuffer(outside + 70, 0));
  EXPECT_EQ(0, t.queue.ReleaseBuffer(first + 1, 0));
  EXPECT_EQ(nullptr, t.queue.GetBuffer(outside + 70, &size, nullptr));
  EXPECT_EQ(nullptr, t.queue.FindBuffer(outside, &state));
  EXPECT_EQ(1, t.queue.IsInBuffer(t.B(), 1000));
  EXPECT_EQ(0, t.queue.IsInBuffer(t.B(), 1001));
  EXPECT_EQ(0, t.queue.IsInBuffer(t.B(), -1));
}

TEST(VBufferQueueHolds, FindBufferTellsReservations) {
  QueueOnBuffer t;
  ASSERT_NE(nullptr, t.Push(20));
  uint8_t* tail = t.queue.PrepareNewBufferAtTail(20, 0, nullptr);
  uint8_t* head = t.queue.PrepareNewBufferAtHead(20, 0, nullptr);
  int32_t state = 0;
  EXPECT_EQ(tail, t.queue.FindBuffer(tail + 19, &state));
  EXPECT_EQ(1, state);
  EXPECT_EQ(head, t.queue.FindBuffer(head, &state));
  EXPECT_EQ(-1, state);
  EXPECT_EQ(nullptr, t.queue.FindBuffer(tail + 20, &state));
}

TEST(VBufferQueueHolds, ReleaseAndRemoveAtHeadRemovesOnlyTheHeadItHeld) {
  QueueOnBuffer t;
  ASSERT_NE(nullptr, t.Push(10));
  ASSERT_NE(nullptr, t.Push(20));
  int32_t size = 0;
  uint8_t* first = t.queue.GetBuffer(nullptr, &size, nullptr);
  uint8_t* second = t.queue.GetBuffer(first, &size, nullptr);
  ASSERT_NE(nullptr, second);
  int32_t removed = -1;
  EXPECT_EQ(0, t.queue.ReleaseAndRemoveAtHead(second, 0, &removed));  // released, not the head
  EXPECT_EQ(0, removed);
  EXPECT_EQ(2, t.queue.GetBufferCount());
  EXPECT_EQ(1, t.queue.ReleaseAndRemoveAtHead(first, 0, &removed));
  EXPECT_EQ(10, removed);
  EXPECT_EQ(0, t.queue.ReleaseAndRemoveAtHead(first, 0, &removed));  // no hold any more
  // Two holders: the first to let go leaves the block.
  uint8_t* a = t.queue.GetBuffer(nullptr, &size, nullptr);
  uint8_t* b = t.queue.GetBuffer(nullptr, &size, nullptr);
  EXPECT_EQ(0, t.queue.ReleaseAndRemoveAtHead(a, 0, nullptr));
  EXPECT_EQ(1, t.queue.ReleaseAndRemoveAtHead(b, 0, nullptr));
  EXPECT_EQ(0, t.queue.GetBufferCount());
  // A lone tail reservation is never taken for the head block.
  uint8_t* r = t.queue.PrepareNewBufferAtTail(8, 0, nullptr);
  EXPECT_EQ(0, t.queue.ReleaseAndRemoveAtHead(r, 0, nullptr));
  EXPECT_EQ(1, t.queue.NewBufferAtTail(r, -1, 0, 0, 0));
}

TEST(VBufferQueueLifecycle, CloseWaitsForAHolderOnAnotherThread) {
  VBufferQueue q(1, 0);
  ASSERT_EQ(1, q.Open(1000, nullptr, nullptr, 4));
  uint8_t* p = q.PrepareNewBufferAtTail(10, 0, nullptr);
  ASSERT_EQ(1, q.NewBufferAtTail(p, -1, 0, 0, 0));
  int32_t size = 0;
  ASSERT_EQ(p, q.GetBuffer(nullptr, &size, nullptr));
  std::atomic<bool> released{false};
  std::thread holder([&] {
    Sleep(50);
    released = true;
    q.ReleaseBuffer(p, 0);
  });
  q.Close();
  EXPECT_TRUE(released.load());
  EXPECT_EQ(0, q.IsOpen());
  holder.join();
}

TEST(VBufferQueueNotify, OrderKeysAndSurvivalAcrossClose) {
  EventLog::Lines().clear();
  VBufferQueue q(1, 0);
  ASSERT_EQ(1, q.AddNotify(20, EventLog::Record));
  ASSERT_EQ(1, q.AddNotify(10, EventLog::Record));
  ASSERT_EQ(1, q.AddNotify(30, nullptr));  // kept, never called
  EXPECT_EQ(0, q.AddNotify(10, nullptr));  // the first function stays
  ASSERT_EQ(1, q.Open(1000, nullptr, nullptr, 4));
  for (uint32_t user = 1; user <= 2; ++user) {
    uint8_t* p = q.PrepareNewBufferAtTail(5, 0, nullptr);
    ASSERT_EQ(1, q.NewBufferAtTail(p, -1, user, 0, 0));
  }
  ASSERT_EQ(1, q.RemoveBufferAtHead(nullptr));
  ASSERT_EQ(1, q.RemoveNotify(20));
  EXPECT_EQ(0, q.RemoveNotify(20));
  uint8_t* p = q.PrepareNewBufferAtTail(6, 0, nullptr);
  ASSERT_EQ(1, q.NewBufferAtTail(p, -1, 3, 0, 0));
  q.Clear();
  p = q.PrepareNewBufferAtTail(7, 0, nullptr);
  ASSERT_EQ(1, q.NewBufferAtTail(p, -1, 4, 0, 0));
  ASSERT_EQ(1, q.RemoveBufferAtTail(nullptr));
  q.Close();
  ASSERT_EQ(1, q.Open(100, nullptr, nullptr, 4));
  const std::vector<std::string> expected = {
      "10:0:0:0",  "20:0:0:0",                // open
      "10:4:5:1",  "20:4:5:1",                // commits
      "10:4:5:2",  "20:4:5:2",
      "10:5:5:1",  "20:5:5:1",                // removal, then free
      "10:7:5:1",  "20:7:5:1",
      "10:4:6:3",                             // 20 is gone
      "10:2:0:0",  "10:7:6:3",  "10:7:5:2",   // clear, blocks from the tail
      "10:4:7:4",  "10:6:7:4",  "10:7:7:4",   // commit, removal at the tail
      "10:1:0:0",                             // close of an empty queue
      "10:0:0:0"};                            // the next open
  EXPECT_EQ(expected, EventLog::Lines());
}

TEST(VBufferQueueNotify, SignalEventOnCommitWakesAWaiter) {
  VBufferQueue q(1, 0);
  ASSERT_EQ(1, q.Open(1000, nullptr, nullptr, 4));
  HANDLE ready = CreateEventA(nullptr, 0, 0, nullptr);
  ASSERT_NE(nullptr, ready);
  ASSERT_EQ(1, q.AddNotify(reinterpret_cast<VBufNotifyKey>(ready), VBufSignalEventOnCommit));
  EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(ready, 0));
  std::thread writer([&] {
    uint8_t* p = q.PrepareNewBufferAtTail(10, 1, nullptr);
    q.NewBufferAtTail(p, -1, 0, 0, 0);
  });
  EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(ready, 10000));
  writer.join();
  EXPECT_EQ(1, q.GetBufferCount());
  ASSERT_EQ(1, q.RemoveBufferAtHead(nullptr));
  EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(ready, 0));  // removal does not signal
  ASSERT_EQ(1, q.RemoveNotify(reinterpret_cast<VBufNotifyKey>(ready)));
  CloseHandle(ready);
}

TEST(VBufferQueueSerial, CommitsAtTheTailTakeSerialsAcrossTheWrap) {
  QueueOnBuffer t;
  g_nextSerial = 0xFFFFFFFEu;
  ASSERT_NE(nullptr, t.Push(4));
  ASSERT_NE(nullptr, t.Push(4));
  ASSERT_NE(nullptr, t.Push(4));
  int32_t size = 0;
  uint8_t* p = t.queue.GetBuffer(nullptr, &size, nullptr);
  const VBufHeader* h = reinterpret_cast<const VBufHeader*>(p - VBUF_HEADER_SIZE);
  EXPECT_EQ(0xFFFFFFFFu, h->serial);
  uint8_t* q = t.queue.GetBuffer(p, &size, nullptr);
  EXPECT_EQ(0u, reinterpret_cast<const VBufHeader*>(q - VBUF_HEADER_SIZE)->serial);
  EXPECT_EQ(1u, g_nextSerial.load() - 0u);
  t.queue.ReleaseBuffer(p, 0);
  t.queue.ReleaseBuffer(q, 0);
  EXPECT_TRUE(VBufSeq(static_cast<int32_t>(0x80000000u)) > VBufSeq(INT32_MAX));
}

TEST(VBufferQueuePerformance, ReservingAndCommittingAreCountedSites) {
  QueueOnBuffer t;
  ASSERT_NE(nullptr, t.Push(4));
  ASSERT_NE(nullptr, t.PushHead(4));
  for (const char* name : {"VBufQ_PrepareNewBufferAtTail()", "VBufQ_NewBufferAtTail()",
                           "VBufQ_PrepareNewBufferAtHead()", "VBufQ_NewBufferAtHead()"}) {
    PerformanceSite* site = FindPerformanceSite(name, "codelib");
    ASSERT_NE(nullptr, site) << name;
    EXPECT_GE(site->calls.load(), 1u) << name;
  }
}

TEST(InlineArrayTest, KeepsEightInsideThenFollowsTheCapacityRule) {
  struct Twelve {
    int32_t a, b, c;
  };
  InlineArray<Twelve, 8> array;
  for (int32_t i = 0; i < 8; ++i) ASSERT_TRUE(array.Append(Twelve{i, 0, 0}));
  EXPECT_TRUE(array.IsInline());
  ASSERT_TRUE(array.Insert(0, Twelve{-1, 0, 0}));
  EXPECT_FALSE(array.IsInline());
  EXPECT_EQ(512, array.Capacity());  // 9 + 341 - 1 rounds up to 512
  EXPECT_EQ(-1, array[0].a);
  EXPECT_EQ(7, array[8].a);
  array.Erase(0);
  EXPECT_TRUE(array.IsInline());
  EXPECT_EQ(0, array[0].a);
  EXPECT_EQ(512, (InlineArray<uint64_t, 4>::CapacityFor(1)));
  EXPECT_EQ(2048, (InlineArray<uint64_t, 4>::CapacityFor(600)));  // 600 + 511
  EXPECT_EQ(0x2000000, (InlineArray<uint64_t, 4>::CapacityFor(0x1000000 + 1)));
}

}  // namespace
