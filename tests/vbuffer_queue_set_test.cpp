// VBufferQueueSet: several queues read as one stream in commit order.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "VBufferQueueSet.h"
#include "vbuffer_queue_test_util.h"

namespace {

// Commits one block holding `tag` at the tail of `q`.
void Commit(VBufferQueue& q, uint8_t tag) {
  uint8_t* p = q.PrepareNewBufferAtTail(1, 1, nullptr);
  ASSERT_NE(nullptr, p);
  *p = tag;
  ASSERT_EQ(1, q.NewBufferAtTail(p, -1, tag, 0, 0));
}

// Two tracking queues in a set that lists b first, so that no order comes
// from the set.
struct TwoQueues {
  TwoQueues() : a(1, 1), b(1, 1), refA{&a}, refB{&b} {
    EXPECT_EQ(1, a.Open(1000, "a", nullptr, 4));
    EXPECT_EQ(1, b.Open(1000, "b", nullptr, 4));
  }
  // Commits one block per letter of `plan` to the queue it names, tagged
  // 'a', 'b', 'c'... in commit order.
  void Commit(const char* plan) {
    for (int i = 0; plan[i] != 0; ++i) ::Commit(plan[i] == 'a' ? a : b, static_cast<uint8_t>('a' + i));
  }
  // Reads the whole set from `cursor`, releasing each block; the tags in order.
  std::string Drain(VBufferQueueSetCursor* cursor) {
    std::string tags;
    for (;;) {
      int32_t size = 0;
      uint32_t user = 0;
      VBufferQueueSetItem item = set.GetNext(cursor, &size, &user);
      if (item.data == nullptr) return tags;
      EXPECT_EQ(1, size);
      EXPECT_EQ(*item.data, user);
      tags += static_cast<char>(*item.data);
      EXPECT_EQ(1, set.Release(item.data, 0));
    }
  }
  VBufferQueue a, b;
  VBufferQueueRef refA, refB;
  VBufferQueueRef* source[VBUF_SET_MAX_QUEUES] = {&refB, &refA};
  VBufferQueueSet set{source, 3};
};

TEST(VBufferQueueSetTest, MaskPicksQueuesInAscendingOrder) {
  VBufferQueue q1(1, 0), q3(1, 0);
  VBufferQueueRef r1{&q1}, r3{&q3};
  VBufferQueueRef* source[VBUF_SET_MAX_QUEUES] = {};
  source[1] = &r1;
  source[3] = &r3;
  VBufferQueueSet set(source, (1u << 1) | (1u << 3));
  EXPECT_EQ(2, set.GetValidCount());
  EXPECT_EQ(&r1, set.GetQueue(0));
  EXPECT_EQ(&r3, set.GetQueue(1));
  EXPECT_EQ(nullptr, set.GetQueue(2));
  EXPECT_EQ(nullptr, set.GetQueue(-1));
  set.SetUserWord(1, 42);
  EXPECT_EQ(42u, q3.GetUserWord());
  EXPECT_EQ(42u, set.GetUserWord(1));
  EXPECT_EQ(0u, set.GetUserWord(5));
}

TEST(VBufferQueueSetTest, GetNextFollowsCommitOrderAcrossQueues) {
  TwoQueues t;
  VBufferQueueSet& set = t.set;
  t.Commit("ababb");
  VBufferQueueSetCursor cursor = set.Begin();
  EXPECT_EQ(5, set.CountFrom(&cursor));
  EXPECT_EQ("abcde", t.Drain(&cursor));
  EXPECT_EQ(0, set.CountFrom(&cursor));
  EXPECT_EQ(0, t.a.IsBusy());
  EXPECT_EQ(0, t.b.IsBusy());
}

TEST(VBufferQueueSetTest, OrderHoldsAcrossTheWrapOfSerials) {
  TwoQueues t;
  VBufferQueueSet& set = t.set;
  g_nextSerial = 0xFFFFFFFDu;
  t.Commit("abab");  // serials 0xFFFFFFFE, 0xFFFFFFFF, 0, 1
  VBufferQueueSetCursor cursor = set.Begin();
  EXPECT_EQ("abcd", t.Drain(&cursor));
}

TEST(VBufferQueueSetTest, EvictedBlocksAreSkipped) {
  TwoQueues t;
  VBufferQueueSet& set = t.set;
  t.Commit("aba");
  VBufferQueueSetCursor cursor = set.Begin();
  ASSERT_EQ(1, t.a.RemoveBufferAtHead(nullptr));
  EXPECT_EQ(2, set.CountFrom(&cursor));  // a's position moved up
  EXPECT_EQ(1, cursor.entries[1].position.Value());
  EXPECT_EQ("bc", t.Drain(&cursor));
}

TEST(VBufferQueueSetTest, ItemCursorIsTheCallersBeforeTheStep) {
  TwoQueues t;
  VBufferQueueSet& set = t.set;
  t.Commit("ba");
  VBufferQueueSetCursor cursor = set.Begin();
  const VBufferQueueSetCursor before = cursor;
  int32_t size = 0;
  VBufferQueueSetItem item = set.GetNext(&cursor, &size, nullptr);
  ASSERT_NE(nullptr, item.data);
  EXPECT_EQ('a', *item.data);
  EXPECT_TRUE(item.cursor == before);
  EXPECT_FALSE(item.cursor == cursor);
  EXPECT_EQ(before.entries[0].position + 1, cursor.entries[0].position);
  EXPECT_EQ(before.entries[1].position, cursor.entries[1].position);
  // GetAt reads without advancing; the hold is the caller's to give back.
  uint8_t* at = set.GetAt(cursor, &size, nullptr);
  ASSERT_NE(nullptr, at);
  EXPECT_EQ('b', *at);
  EXPECT_EQ(1, t.a.IsBusy());
  EXPECT_EQ(1, set.Release(at, 0));
  EXPECT_EQ(1, set.Release(item.data, 0));
  uint8_t foreign[8] = {};
  EXPECT_EQ(0, set.Release(foreign, 0));
  EXPECT_EQ(0, t.a.IsBusy());
  EXPECT_EQ(0, t.b.IsBusy());
}

TEST(VBufferQueueSetTest, CursorAdvanceAndEnd) {
  TwoQueues t;
  VBufferQueueSet& set = t.set;
  t.Commit("aba");
  VBufferQueueSetCursor cursor = set.Begin();
  VBufferQueueSetCursor old = cursor++;
  EXPECT_TRUE(old == set.Begin());
  EXPECT_EQ(1, cursor.entries[1].position.Value());  // past a's first
  ++cursor;
  EXPECT_EQ(1, cursor.entries[0].position.Value());  // past b's first
  EXPECT_EQ(1, set.CountFrom(&cursor));
  ++cursor;
  const VBufferQueueSetCursor atEnd = cursor;
  ++cursor;  // nothing left: stays
  EXPECT_TRUE(cursor == atEnd);
  const VBufferQueueSetCursor end = set.End();
  EXPECT_EQ(0, end.entries[0].position.Value());
  EXPECT_EQ(1, end.entries[1].position.Value());
}

TEST(VBufferQueueSetTest, EmptyQueuesGiveNothing) {
  TwoQueues t;
  VBufferQueueSet& set = t.set;
  VBufferQueueSetCursor cursor = set.Begin();
  int32_t size = 7;
  VBufferQueueSetItem item = set.GetNext(&cursor, &size, nullptr);
  EXPECT_EQ(nullptr, item.data);
  EXPECT_EQ(0, item.cursor.entryCount);
  EXPECT_EQ(0, size);
  EXPECT_EQ(nullptr, set.GetAt(cursor, &size, nullptr));
}

TEST(VBufferQueueSetTest, ReadersAndLimitsAcrossTheSet) {
  ReportCatcher catcher;
  TwoQueues t;
  VBufferQueueSet& set = t.set;
  ASSERT_EQ(1, t.a.AddReader(5, 0));
  EXPECT_EQ(0, set.AddReader(5, 0));  // b took it, a refused: b keeps it
  EXPECT_EQ(1, t.b.GetReaderCount());
  EXPECT_EQ(1, set.SetReaderSizeLimited(5, VBUF_LIMIT_COUNT, 4));
  int32_t type = 0;
  int32_t value = 0;
  EXPECT_EQ(1, set.GetReaderSizeLimited(&type, &value));
  EXPECT_EQ(VBUF_LIMIT_COUNT, type);
  EXPECT_EQ(4, value);
  EXPECT_EQ(1, set.CleanReaderSizeLimited(5));
  EXPECT_EQ(0, t.a.GetReaderCount());
  EXPECT_EQ(0, t.b.GetReaderCount());
  EXPECT_EQ(0, set.RemoveReader(5));
  EXPECT_EQ(1, set.AddReader(6, 1));
  EXPECT_EQ(1u, catcher.reports.size());  // the duplicate in a
}

TEST(VBufferQueueSetTest, EmptySetReportsAndNullReferencesAreSafe) {
  ReportCatcher catcher;
  VBufferQueueRef* source[VBUF_SET_MAX_QUEUES] = {};
  VBufferQueueSet empty(source, 0);
  VBufferQueueSetCursor begin = empty.Begin();
  VBufferQueueSetCursor end = empty.End();
  EXPECT_EQ(0, begin.entryCount);
  EXPECT_TRUE(begin == end);
  ASSERT_EQ(3u, catcher.reports.size());
  EXPECT_NE(std::string::npos, catcher.reports[0].find("VBufferQueue(2529)"));
  EXPECT_NE(std::string::npos, catcher.reports[0].find("Expression: (false)"));
  EXPECT_NE(std::string::npos, catcher.reports[1].find("VBufferQueue(2560)"));
  EXPECT_NE(std::string::npos, catcher.reports[1].find("Expression: (m_validCount > 0)"));
  EXPECT_NE(std::string::npos, catcher.reports[2].find("VBufferQueue(2575)"));

  VBufferQueueRef none{nullptr};
  VBufSeq position = 3;
  int32_t size = 9;
  EXPECT_EQ(0, none.GetFirstIndex().Value());
  EXPECT_EQ(0, none.GetLastIndex().Value());
  EXPECT_EQ(nullptr, none.ReadAt(1, &position, &size, nullptr, 0).data);
  EXPECT_EQ(0, size);
  EXPECT_EQ(nullptr, none.GetByIndex(0, &size, nullptr));
  EXPECT_EQ(0, none.Release(1, nullptr, 0));
  EXPECT_EQ(0, none.CountFrom(&position));
  source[2] = &none;
  VBufferQueueSet withNull(source, 1u << 2);
  VBufferQueueSetCursor cursor = withNull.Begin();
  EXPECT_EQ(nullptr, withNull.GetNext(&cursor, &size, nullptr).data);
  EXPECT_EQ(0, withNull.AddReader(1, 0));
}

TEST(VBufferQueueSetTest, ReadAtMovesUpPeeksAndTakesWriteHolds) {
  VBufferQueue q(1, 0);
  ASSERT_EQ(1, q.Open(1000, nullptr, nullptr, 4));
  for (uint8_t tag = 1; tag <= 3; ++tag) Commit(q, tag);
  ASSERT_EQ(1, q.RemoveBufferAtHead(nullptr));
  VBufferQueueRef ref{&q};
  VBufSeq position = 0;
  VBufReadResult r = ref.ReadAt(1, &position, nullptr, nullptr, 1);
  EXPECT_EQ(nullptr, r.data);
  EXPECT_EQ(1, r.index.Value());
  EXPECT_EQ(1, position.Value());
  int32_t size = 0;
  r = ref.ReadAt(0, &position, &size, nullptr, 0);  // write hold
  uint8_t* written = r.data;
  ASSERT_NE(nullptr, written);
  EXPECT_EQ(2, *written);
  EXPECT_EQ(1, r.index.Value());
  EXPECT_EQ(2, position.Value());
  position = 1;
  r = ref.ReadAt(1, &position, &size, nullptr, 0);  // refused, still advanced
  EXPECT_EQ(nullptr, r.data);
  EXPECT_EQ(2, position.Value());
  EXPECT_EQ(0, ref.Release(1, written, 0));
  EXPECT_EQ(1, ref.Release(0, written, 0));
  position = 5;
  EXPECT_EQ(nullptr, ref.ReadAt(1, &position, &size, nullptr, 0).data);  // beyond the last
  EXPECT_EQ(5, position.Value());
  EXPECT_EQ(0, ref.CountFrom(&position));
  position = -3;
  EXPECT_EQ(2, ref.CountFrom(&position));
  EXPECT_EQ(1, position.Value());
}

}  // namespace
