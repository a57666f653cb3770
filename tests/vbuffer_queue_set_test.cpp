// VBufferQueueSet: several queues read as one stream in commit order. No
// player runs the set, so one contract test covers it.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "VBufferQueueSet.h"
#include "vbuffer_queue_test_util.h"

namespace {

void Commit(VBufferQueue& q, uint8_t tag) {
  uint8_t* p = q.PrepareNewBufferAtTail(1, 1, nullptr);
  ASSERT_NE(nullptr, p);
  *p = tag;
  ASSERT_EQ(1, q.NewBufferAtTail(p, -1, tag, 0, 0));
}

// Reads the set from `cursor` to its end, releasing each block; the tags.
std::string Drain(VBufferQueueSet& set, VBufferQueueSetCursor* cursor) {
  std::string tags;
  int32_t size = 0;
  uint32_t user = 0;
  for (VBufferQueueSetItem item; (item = set.GetNext(cursor, &size, &user)).data != nullptr;) {
    EXPECT_EQ(V({1, *item.data, 1}), V({size, user, set.Release(item.data, 0)}));
    tags += static_cast<char>(*item.data);
  }
  return tags;
}

TEST(VBufferQueueSetContract, ReadsItsQueuesAsOneStreamInCommitOrder) {
  ReportCatcher catcher;
  VBufferQueue a(1, 1), b(1, 1);
  ASSERT_EQ(V({1, 1}), V({a.Open(1000, "a", nullptr, 4), b.Open(1000, "b", nullptr, 4)}));
  VBufferQueueRef refA{&a}, refB{&b};
  VBufferQueueRef* source[VBUF_SET_MAX_QUEUES] = {nullptr, &refB, nullptr, &refA};  // b first: the set gives no order
  VBufferQueueSet set(source, 0xAu);
  EXPECT_EQ(V({2, 1, 1, 1}), V({set.GetValidCount(), set.GetQueue(0) == &refB, set.GetQueue(1) == &refA,
                               set.GetQueue(2) == nullptr && set.GetQueue(-1) == nullptr}));
  VBufferQueueSetCursor cursor = set.Begin();
  int32_t size = 7;
  VBufferQueueSetItem item = set.GetNext(&cursor, &size, nullptr);  // empty queues
  EXPECT_EQ(V({0, 0, 0}), V({item.data != nullptr, item.cursor.entryCount, size}));

  // Commit order holds across queues and across the wrap of serials; blocks
  // removed before the cursor reaches them are skipped.
  struct Case { const char* plan; uint32_t serial; bool dropA; const char* read; };
  const Case cases[] = {{"ababb", 100, false, "abcde"}, {"abab", 0xFFFFFFFDu, false, "abcd"}, {"aba", 100, true, "bc"}};
  for (const Case& c : cases) {
    a.Clear();
    b.Clear();
    g_nextSerial = c.serial;
    for (int i = 0; c.plan[i] != 0; ++i) Commit(c.plan[i] == 'a' ? a : b, static_cast<uint8_t>('a' + i));
    cursor = set.Begin();
    ASSERT_EQ(c.dropA, c.dropA && a.RemoveBufferAtHead(nullptr) == 1);
    EXPECT_EQ(static_cast<int32_t>(std::strlen(c.read)), set.CountFrom(&cursor)) << c.plan;
    EXPECT_EQ(a.GetFirstIndex(), cursor.entries[1].position);  // moved up by the count
    EXPECT_EQ(c.read, Drain(set, &cursor)) << c.plan;
    EXPECT_EQ(V({0, 0, 0}), V({set.CountFrom(&cursor), a.IsBusy(), b.IsBusy()}));
  }

  // An item carries the cursor as it stood before the step; GetAt reads
  // without stepping; Release finds the block's queue.
  a.Clear();
  b.Clear();
  for (char tag : {'a', 'b', 'c'}) Commit(tag == 'b' ? b : a, static_cast<uint8_t>(tag));
  const VBufferQueueSetCursor begin = set.Begin();
  cursor = begin;
  item = set.GetNext(&cursor, &size, nullptr);
  uint8_t* at = set.GetAt(cursor, &size, nullptr);
  ASSERT_TRUE(item.data != nullptr && at != nullptr);
  uint8_t foreign[8] = {};
  EXPECT_EQ(V({'a', 1, 0, 'b', 1, 1, 1, 0, 0, 0}),
            V({*item.data, item.cursor == begin, item.cursor == cursor, *at, b.IsBusy(), set.Release(at, 0),
               set.Release(item.data, 0), set.Release(foreign, 0), a.IsBusy(), b.IsBusy()}));
  // Stepping a cursor passes the oldest block each time, then stays.
  cursor = begin;
  EXPECT_EQ(V({1, 2}), V({cursor++ == begin, set.CountFrom(&cursor)}));
  EXPECT_EQ(V({0, 1, 2}), V({set.CountFrom(&++(++(++cursor))), cursor.entries[0].position - begin.entries[0].position,
                             cursor.entries[1].position - begin.entries[1].position}));
  const VBufferQueueSetCursor end = set.End();
  EXPECT_EQ(V({b.GetLastIndex().Value(), a.GetLastIndex().Value()}),
            V({end.entries[0].position.Value(), end.entries[1].position.Value()}));

  // Readers and limits: on each queue in turn, stopping at the first refusal.
  ASSERT_EQ(1, a.AddReader(5, 0));
  EXPECT_EQ(V({0, 1}), V({set.AddReader(5, 0), b.GetReaderCount()}));  // b took it, a refused
  EXPECT_EQ(1, set.SetReaderSizeLimited(5, VBUF_LIMIT_COUNT, 4));
  int32_t type = 0, value = 0;
  EXPECT_EQ(V({1, VBUF_LIMIT_COUNT, 4}), V({set.GetReaderSizeLimited(&type, &value), type, value}));
  EXPECT_EQ(V({1, 0, 0, 0, 1, 1}), V({set.CleanReaderSizeLimited(5), a.GetReaderCount(), b.GetReaderCount(),
                                      set.RemoveReader(5), set.AddReader(6, 1), set.RemoveReader(6)}));
  EXPECT_EQ(1u, catcher.reports.size());  // the duplicate in a

  // ReadAt: a write hold; a read of that block refused but stepped past; nothing past the last.
  a.Clear();
  for (uint8_t tag = 1; tag <= 2; ++tag) Commit(a, tag);
  const int32_t first = a.GetFirstIndex().Value();
  VBufSeq position = first;
  VBufReadResult r = refA.ReadAt(0, &position, &size, nullptr, 0);
  ASSERT_NE(nullptr, r.data);
  position = first;
  EXPECT_EQ(V({1, first, 0, first + 1, 0, 1}),
            V({*r.data, r.index.Value(), refA.ReadAt(1, &position, &size, nullptr, 0).data != nullptr,
               position.Value(), refA.Release(1, r.data, 0), refA.Release(0, r.data, 0)}));
  position = first + 2;
  EXPECT_EQ(V({0, first + 2, 0}), V({refA.ReadAt(1, &position, &size, nullptr, 0).data != nullptr, position.Value(),
                                     refA.CountFrom(&position)}));

}

}  // namespace
