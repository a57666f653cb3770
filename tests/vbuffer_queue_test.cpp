// VBufferQueue; placement and eviction under load are checked by the race test.
#include <gtest/gtest.h>

#include <atomic>
#include <numeric>
#include <thread>

#include "OSTime.h"
#include "VBufferQueue.h"
#include "vbuffer_queue_test_util.h"

namespace {

// A notification that records "key:event:size:user".
std::vector<std::string> g_events;
void Record(VBufferQueue*, VBufNotifyKey key, int32_t event, uint8_t*, int32_t size, uint32_t user) {
  g_events.push_back(std::to_string(key) + ":" + std::to_string(event) + ":" + std::to_string(size) +
                     ":" + std::to_string(user));
}

TEST(VBufferQueueOpen, SizeAlignmentAndBuffer) {
  const struct { int32_t size, align, result; } cases[] = {
      {100, 4, 1}, {100, 68, 1}, {100, 8, 0}, {100, 0, 0}, {100, -4, 0}, {100, 6, 0}, {0, 4, 0}, {-1, 4, 0}};
  for (const auto& c : cases) {
    VBufferQueue q(1, 0);
    EXPECT_EQ(V({c.result, c.result}), V({q.Open(c.size, nullptr, nullptr, c.align), q.IsOpen()})) << c.align;
  }
  std::vector<uint8_t> buffer(100);
  VBufferQueue own(0, 0);
  ASSERT_EQ(1, own.Open(100, "video", nullptr, 68));
  EXPECT_EQ(V({1, 136, 0}), V({std::string(own.GetName()) == "video", own.GetCapacity(),
                               own.Open(100, nullptr, nullptr, 4)}));  // the capacity rounded up; already open
  EXPECT_EQ(nullptr, own.PrepareNewBufferAtTail(69, 0, nullptr));  // one byte past the end
  uint8_t* p = own.PrepareNewBufferAtTail(68, 0, nullptr);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(p - VBUF_HEADER_SIZE) % 68);
  EXPECT_EQ(1, own.NewBufferAtTail(p, 0, 0, 0, 0));  // cancel, or closing would wait
  own.Close();
  // A caller's buffer stands as it is.
  EXPECT_EQ(V({0, 1, 100}), V({own.IsOpen(), own.Open(100, nullptr, buffer.data(), 68), own.GetCapacity()}));
}

TEST(VBufferQueueCommit, CancelEmptyOversizeSkipOneReservationPerEndAndTheEvents) {
  QueueOnBuffer t;
  VBufferQueue& q = t.queue;
  g_events.clear();
  // Keys stay unique and keep their function; a key without one is never called.
  EXPECT_EQ(V({1, 1, 1, 0, 1, 0, 0}), V({q.AddNotify(2, {}), q.AddNotify(1, Record), q.AddNotify(3, {}),
                                         q.AddNotify(1, {}), q.RemoveNotify(3), q.RemoveNotify(3), q.RemoveNotify(0)}));
  // Size 0 without allowEmpty cancels: result 1, no event, the space again.
  uint8_t* p = q.PrepareNewBufferAtTail(50, 0, nullptr);
  EXPECT_EQ(V({1, 1, 0, 0}), V({q.IsBusy(), q.NewBufferAtTail(p, 0, 0, 0, 0), q.IsBusy(), q.GetBufferCount()}));
  EXPECT_EQ(p, q.PrepareNewBufferAtTail(50, 0, nullptr));
  // skip == size is refused (the reservation stands) unless allowEmpty.
  EXPECT_EQ(V({0, 1, 1, 1, 0}), V({q.NewBufferAtTail(p, 10, 0, 0, 10), q.IsBusy(), q.NewBufferAtTail(p, 10, 7, 1, 10),
                                   q.GetBufferCount(), q.GetDataSize()}));
  // More than reserved gives the block up; wrong pointers change nothing.
  uint8_t* r = q.PrepareNewBufferAtTail(20, 0, nullptr);
  ASSERT_NE(nullptr, r);
  EXPECT_EQ(V({0, 0}), V({q.NewBufferAtTail(r, 21, 0, 0, 0), q.IsBusy()}));
  EXPECT_EQ(r, q.PrepareNewBufferAtTail(20, 0, nullptr));
  EXPECT_EQ(V({0, 0, 0}), V({q.NewBufferAtTail(r + 4, -1, 0, 0, 0), q.NewBufferAtTail(nullptr, -1, 0, 0, 0),
                             q.NewBufferAtHead(r, -1, 0, 0, 0)}));
  // A second reservation at the same end is refused; the other end has its own.
  EXPECT_EQ(nullptr, q.PrepareNewBufferAtTail(10, 0, nullptr));
  uint8_t* head = q.PrepareNewBufferAtHead(10, 0, nullptr);
  ASSERT_NE(nullptr, head);
  EXPECT_EQ(V({0, 1}), V({q.NewBufferAtTail(head, -1, 0, 0, 0), q.NewBufferAtHead(head, -1, 5, 0, 0)}));
  // A skip of 3 moves the header: the data starts 3 bytes later, 17 long.
  for (int i = 0; i < 20; ++i) r[i] = static_cast<uint8_t>(i);
  EXPECT_EQ(1, q.NewBufferAtTail(r, -1, 9, 0, 3));
  int32_t size = 0;
  uint32_t user = 0;
  uint8_t* got = q.GetBufferByIndex(1, &size, &user);
  ASSERT_EQ(r + 3, got);
  EXPECT_EQ(V({17, 9, 3, 1, 1, 5}), V({size, user, got[0], q.ReleaseBuffer(got, 0), q.GetHeadUser(&user), user}));
  for (int32_t result : {1, 1, 1, 0}) EXPECT_EQ(result, q.RemoveBufferAtHead(nullptr));  // still linked
  // Commits at the tail (4) and the head (3); each removal at the head (5) followed by its free (7).
  EXPECT_EQ(std::vector<std::string>({"1:4:0:7", "1:3:10:5", "1:4:17:9", "1:5:10:5", "1:7:10:5", "1:5:0:7", "1:7:0:7",
                                      "1:5:17:9", "1:7:17:9"}),
            g_events);
}

TEST(VBufferQueueLimits, EachTypeCapsBothEndsTheLastSetRulesAndRefusalsAreReported) {
  ReportCatcher reports;
  struct Case { int32_t type, value; std::vector<int32_t> fill; int32_t refused, accepted, evict; };
  const Case cases[] = {
      {VBUF_LIMIT_COUNT, 2, {1, 1}, 1, 1, 1},  // room only by evicting
      {VBUF_LIMIT_BYTES, 100, {60}, 41, 40, 0},
      {VBUF_LIMIT_PERCENT, 50, {}, 433, 432, 0},
  };
  for (const Case& c : cases) {
    QueueOnBuffer t;
    ASSERT_EQ(1, t.queue.AddReader(5, 0));
    ASSERT_EQ(1, t.queue.SetReaderSizeLimited(5, c.type, c.value));
    for (int32_t size : c.fill) ASSERT_NE(nullptr, t.Push(size));
    EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtTail(c.refused, 0, nullptr)) << c.type;
    EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtHead(c.refused, 0, nullptr)) << c.type;
    EXPECT_NE(nullptr, t.Push(c.accepted, 0, 0, c.evict)) << c.type;
    EXPECT_EQ(static_cast<int32_t>(c.fill.size()) + 1 - c.evict, t.queue.GetBufferCount());
  }
  QueueOnBuffer t;
  VBufferQueue& q = t.queue;
  int32_t type = -1, value = -1;
  // Refused: a reader added twice, limits for unknown readers and a second
  // limit for one reader, each reported; a limit of an unknown type (4), silently.
  EXPECT_EQ(V({1, 1, 0, 0, 0, 0, 1, 1, 0, 2}),
            V({q.AddReader(1, 0), q.AddReader(2, 0), q.AddReader(1, 0), q.SetReaderSizeLimited(4, VBUF_LIMIT_COUNT, 1),
               q.SetReaderSizeLimited(0, VBUF_LIMIT_COUNT, 1), q.SetReaderSizeLimited(1, 4, 10),
               q.SetReaderSizeLimited(1, VBUF_LIMIT_COUNT, 1), q.SetReaderSizeLimited(2, VBUF_LIMIT_COUNT, 3),
               q.SetReaderSizeLimited(1, VBUF_LIMIT_BYTES, 1), q.GetReaderCount()}));
  EXPECT_EQ(V({4, 1, VBUF_LIMIT_COUNT, 3}), V({static_cast<int64_t>(reports.reports.size()),
                                               q.GetReaderSizeLimited(&type, &value), type, value}));
  for (int i = 0; i < 3; ++i) EXPECT_NE(nullptr, t.Push(1));  // the last limit set, 3, rules
  EXPECT_EQ(nullptr, q.PrepareNewBufferAtTail(1, 0, nullptr));
  // The limit goes with its reader; CleanReaderSizeLimited removes the reader too.
  EXPECT_EQ(V({1, 1, 1, 1, 0, 0, 0}), V({q.RemoveReader(2), q.GetReaderSizeLimited(nullptr, &value), value,
                                         q.CleanReaderSizeLimited(1), q.GetReaderCount(),
                                         q.GetReaderSizeLimited(nullptr, nullptr), q.CleanReaderSizeLimited(1)}));
}

TEST(VBufferQueueIndexes, FollowTheirBlocksAcrossRemovalsTheWrapOf32BitsAndClear) {
  QueueOnBuffer t;
  VBufferQueue& q = t.queue;
  q.SetFirstIndex(INT32_MAX);
  q.SetFirstOffset(INT32_MAX - 15);
  for (int i = 0; i < 3; ++i) ASSERT_NE(nullptr, t.Push(10 + i, static_cast<uint8_t>(i), 100 + i));
  auto ends = [&] { return V({q.GetFirstIndex().Value(), q.GetLastIndex().Value(), q.GetFirstOffset().Value(),
                              q.GetLastOffset().Value()}); };
  EXPECT_EQ(1, q.RemoveBufferAtHead(nullptr));
  EXPECT_EQ(V({INT32_MIN, INT32_MIN + 1, INT32_MAX - 5, INT32_MIN + 16}), ends());  // across the wrap
  EXPECT_TRUE(q.GetLastIndex() > q.GetFirstIndex());
  int32_t size = 0, readCount = -1, pending = -1, removed = 0;
  uint32_t user = 0;
  uint8_t byte = 0;
  VBufSeq offset;
  EXPECT_EQ(V({0, 1, 12, 102, 0, 0, INT32_MIN + 5, 1, 2}),  // the removed block's index is gone
            V({q.GetBufferInfo(INT32_MAX, &size, &user, &readCount, &pending, &offset),
               q.GetBufferInfo(INT32_MIN + 1, &size, &user, &readCount, &pending, &offset), size, user, readCount,
               pending, offset.Value(), q.ReadByte(INT32_MIN + 5, &byte), byte}));
  EXPECT_EQ(V({1, 12}), V({q.RemoveBufferAtTail(&removed), removed}));
  EXPECT_EQ(V({INT32_MIN, INT32_MIN, INT32_MAX - 5, INT32_MIN + 4}), ends());
  q.SetFirstOffset(1000);  // renumbers the stream
  q.SetFirstIndex(40);
  EXPECT_EQ(V({40, 40, 1000, 1010}), ends());
  EXPECT_EQ(V({1, 1, 0, 0}), V({q.ReadByte(1005, &byte), byte, q.ReadByte(1011, &byte), q.ReadByte(999, &byte)}));
  EXPECT_EQ(V({1, 11}), V({q.GetBufferInfo(40, &size, nullptr, nullptr, nullptr, nullptr), size}));
  q.Clear();  // goes on from where the queue was, and starts again at the base
  EXPECT_EQ(V({41, 40, 1011, 1010, 0}), V({q.GetFirstIndex().Value(), q.GetLastIndex().Value(),
                                          q.GetFirstOffset().Value(), q.GetLastOffset().Value(), q.GetBufferCount()}));
  EXPECT_EQ(t.B() + 68, t.Push(4));
}

TEST(VBufferQueueHolds, ReadAndWriteHoldsExcludeEachOther) {
  QueueOnBuffer t;
  VBufferQueue& q = t.queue;
  int32_t size = -1, state = 0;
  uint32_t user = 5;
  // FindBuffer's state for the block holding `p` (-9 for another block): -1/1
  // a reservation at the head/tail, 0 read-held, 2 write-held, -2 none.
  auto find = [&](const uint8_t* p, const uint8_t* block) { return q.FindBuffer(p, &state) == block ? state : -9; };
  uint8_t* first = q.PrepareNewBufferAtTail(8, 0, nullptr);
  EXPECT_EQ(nullptr, q.GetBuffer(nullptr, &size, nullptr));  // only a reservation
  ASSERT_EQ(1, q.NewBufferAtTail(first, -1, 11, 0, 0));
  uint8_t* tail = q.PrepareNewBufferAtTail(8, 0, nullptr);
  uint8_t* head = q.PrepareNewBufferAtHead(8, 0, nullptr);
  EXPECT_EQ(V({1, -1, -2, 1}), V({find(tail + 7, tail), find(head, head), find(tail + 8, nullptr),
                                  q.NewBufferAtHead(head, 0, 0, 0, 0)}));
  EXPECT_EQ(V({1, 8, 11}), V({q.GetBuffer(nullptr, &size, &user) == first, size, user}));
  // Nothing after `first` but a reservation; size is required.
  EXPECT_EQ(V({0, 0}), V({q.GetBuffer(first, &size, &user) != nullptr, q.GetBuffer(first, nullptr, &user) != nullptr}));
  // Read-held twice: no write hold; released twice, then nothing to release.
  EXPECT_EQ(V({1, 0, 0, 1, 1, 0, -2}),
            V({q.GetBufferByIndex(0, &size, nullptr) == first, q.LockBufferByIndex(0, &size, nullptr) != nullptr,
               find(first + 3, first), q.ReleaseBuffer(first, 0), q.ReleaseBufferByIndex(0, 0),
               q.ReleaseBuffer(first, 0), find(first, nullptr)}));
  // Write-held: no read by any route, no second write hold, no removal.
  EXPECT_EQ(V({1, 0, 0, 0, 2}), V({q.LockBufferByIndex(0, &size, &user) == first,
                                   q.GetBuffer(nullptr, &size, nullptr) != nullptr,
                                   q.GetBufferByIndex(0, &size, nullptr) != nullptr,
                                   q.LockBufferByIndex(0, &size, nullptr) != nullptr, find(first, first)}));
  EXPECT_EQ(V({0, 0, 1, 0, 0}), V({q.ReleaseBuffer(first, 0), q.RemoveBufferAtHead(nullptr), q.UnlockBuffer(first),
                                   q.UnlockBufferByIndex(0), q.UnlockBufferByIndex(9)}));
  // Wild and foreign pointers are refused, not followed.
  uint8_t outside[80] = {};
  EXPECT_EQ(V({0, 0, 0, -2}), V({q.ReleaseBuffer(outside + 70, 0), q.ReleaseBuffer(first + 1, 0),
                                 q.GetBuffer(outside + 70, &size, nullptr) != nullptr, find(outside, nullptr)}));
  EXPECT_EQ(V({1, 0, 0}), V({q.IsInBuffer(t.B(), 1000), q.IsInBuffer(t.B(), 1001), q.IsInBuffer(t.B(), -1)}));
  // ReleaseAndRemoveAtHead only releases a block behind the head, and the
  // head goes with the last of its holders.
  ASSERT_EQ(1, q.NewBufferAtTail(tail, -1, 0, 0, 0));
  EXPECT_EQ(V({1, 1, 1}), V({q.GetBuffer(nullptr, &size, &user) == first, q.GetBuffer(nullptr, &size, &user) == first,
                             q.GetBuffer(first, &size, &user) == tail}));
  EXPECT_EQ(V({0, 0, 0, 1, 1}), V({q.ReleaseAndRemoveAtHead(tail, 0, nullptr), q.ReleaseBuffer(tail, 0),
                                   q.ReleaseAndRemoveAtHead(first, 0, nullptr),
                                   q.ReleaseAndRemoveAtHead(first, 0, nullptr), q.GetBufferCount()}));
}

TEST(VBufferQueueThreads, CloseWaitsForAHolder) {
  QueueOnBuffer t;
  uint8_t* p = t.Push(10);
  int32_t size = 0;
  ASSERT_EQ(p, t.queue.GetBuffer(nullptr, &size, nullptr));
  std::atomic<bool> released{false};
  std::thread holder([&] {
    Sleep(50);  // lets Close start waiting; the check below holds either way
    released = true;
    t.queue.ReleaseBuffer(p, 0);
  });
  t.queue.Close();
  EXPECT_TRUE(released.load());
  EXPECT_EQ(0, t.queue.IsOpen());
  holder.join();
}

// Four blocks of 10 bytes; byte n of the stream holds n.
struct Stream : QueueOnBuffer {
  explicit Stream(int32_t track = 0) : QueueOnBuffer(1000, track) {
    for (int b = 0; b < 4; ++b) {
      uint8_t* p = Push(10);
      std::iota(p, p + 10, static_cast<uint8_t>(b * 10));
    }
  }
};

// A scan consumer that keeps the runs it was given; it may answer out of
// range, take less than it was given, or remove blocks while a run is pinned.
struct Consumer {
  std::vector<int64_t> runs;  // position, length, ...
  int32_t extra = 0, most = -1, rmHead = -1, rmTail = -1, removed = 0;
  VBufferQueue* queue = nullptr;
  static int32_t Scan(void* context, const uint8_t*, VBufSeq position, int32_t length) {
    Consumer* c = static_cast<Consumer*>(context);
    const int32_t run = static_cast<int32_t>(c->runs.size() / 2);
    c->runs.insert(c->runs.end(), {position.Value(), length});
    if (run == c->rmHead) c->removed += c->queue->RemoveBufferAtHead(nullptr);
    if (run == c->rmTail) c->removed += c->queue->RemoveBufferAtTail(nullptr);
    const int32_t answer = length + c->extra;
    return c->most >= 0 && answer > c->most ? c->most : answer;
  }
};

TEST(VBufferQueueBytes, ScanDeliversWhatIsThereRunByRunAndStopsWhenTheConsumerDoes) {
  // The stream starts at 10 when `dropHead`; block 2 (bytes 20..29) is write-held when `lock`; the consumer
  // answers `extra` more than it was given, takes at most `most`, and removes the head block during run `rmHead`
  // and the tail block during run `rmTail`. A start already gone keeps the request's end.
  struct Case { bool dropHead, lock; int32_t extra, most, rmHead, rmTail, position, count, result, got, end;
                std::vector<int64_t> runs; };
  const Case cases[] = {
      {0, 0, 0, -1, -1, -1, 0, 100, 1, 40, 40, {0, 10, 10, 10, 20, 10, 30, 10}},  // more than there is
      {1, 0, 0, -1, -1, -1, 0, 30, 1, 20, 30, {10, 10, 20, 10}},
      {1, 0, 0, -1, -1, -1, -20, 30, 1, 0, 10, {}},
      {1, 0, 0, -1, -1, -1, 40, 1, 0, 0, 40, {}},  // just past the end
      {1, 0, 0, -1, -1, -1, 39, 5, 1, 1, 40, {39, 1}},
      {1, 0, 0, -1, -1, -1, 15, 0, 1, 0, 15, {}},
      {1, 0, 0, -1, -1, -1, 15, -1, 0, -1, 15, {}},
      {0, 1, 0, -1, -1, -1, 12, 30, 1, 8, 20, {12, 8}},  // stops at the write-held block
      {0, 1, 0, -1, -1, -1, 22, 5, 1, 0, 22, {}},        // starts inside it
      {0, 0, 1, -1, -1, -1, 12, 20, 0, 0, 12, {12, 8}},  // answered more than given
      {0, 0, 0, 3, -1, -1, 12, 20, 1, 3, 15, {12, 8}},   // took less
      {0, 0, 0, -1, 1, 2, 5, 40, 1, 25, 30, {5, 5, 10, 10, 20, 10}},  // blocks 0 and 3 go while 1 and 2 are pinned
  };
  for (const Case& k : cases) {
    Stream s;
    ASSERT_EQ(k.dropHead, k.dropHead && s.queue.RemoveBufferAtHead(nullptr) == 1);
    ASSERT_EQ(k.lock, k.lock && s.queue.LockBufferByIndex(2, nullptr, nullptr) != nullptr);
    Consumer c{{}, k.extra, k.most, k.rmHead, k.rmTail, 0, &s.queue};
    VBufSeq position = k.position;
    int32_t count = k.count;
    EXPECT_EQ(V({k.result, k.got, k.end}),
              V({s.queue.ScanBytes(Consumer::Scan, &c, &position, &count, 0), count, position.Value()}))
        << k.position << "+" << k.count;
    EXPECT_EQ(k.runs, c.runs) << k.position << "+" << k.count;
    uint8_t byte = 0;  // ReadByte does not look at write holds; the scan leaves no hold
    EXPECT_EQ(V({1, 22, k.lock, (k.rmHead >= 0) + (k.rmTail >= 0)}),
              V({s.queue.ReadByte(22, &byte), byte, s.queue.IsBusy(), c.removed}));
  }
  Stream s;  // ReadBytes copies the runs; fixed widths are read whole, across blocks, or not at all
  uint8_t out[4] = {};
  EXPECT_EQ(V({1, 8, 11, 1, 19, 20, 0}), V({s.queue.ReadU32(8, out), out[0], out[3], s.queue.ReadU16(19, out), out[0],
                                            out[1], s.queue.ReadU32(37, out)}));
  // Empty blocks hold no stream bytes: a byte is never looked for in one.
  QueueOnBuffer t;
  for (int32_t size : {0, 3, 0, 0, 2}) ASSERT_NE(nullptr, t.Push(size, size == 3 ? 1 : 2));
  uint8_t byte = 0;
  for (int32_t at = 0; at < 5; ++at) EXPECT_EQ(V({1, at < 3 ? 1 : 2}), V({t.queue.ReadByte(at, &byte), byte}));
}

TEST(VBufferQueueReaders, MarkedBlocksWaitForTheirReader) {
  Stream s(1);
  VBufferQueue& q = s.queue;
  int32_t pending = 0, size = 0;
  // Reader 7 marks the blocks already there, reader 8 does not; 0 is no reader.
  EXPECT_EQ(V({1, 1, 1, 0, 2, 1, 0, 1, 0}),
            V({q.RemoveBufferAtHead(nullptr), q.AddReader(7, 1), q.AddReader(8, 0), q.AddReader(0, 0),
               q.GetReaderCount(), q.HasPending(7), q.HasPending(8), q.HasPending(0), q.RemoveBufferAtHead(nullptr)}));
  // Releasing with the reader finishes the block for it; without, nothing.
  EXPECT_EQ(V({1, 0, 1, 1, 1}), V({q.ReleaseBuffer(q.GetBuffer(nullptr, &size, nullptr), 0),
                                   q.RemoveBufferAtHead(nullptr), q.GetBufferByIndex(1, &size, nullptr) != nullptr,
                                   q.ReleaseBufferByIndex(1, 7), q.RemoveBufferAtHead(nullptr)}));
  // A scan that takes a whole block finishes it; one that stops inside does not.
  std::vector<uint8_t> out(16);
  VBufSeq position = 20;
  int32_t count = 15;
  ASSERT_EQ(1, q.ReadBytes(&position, out.data(), &count, 7));
  EXPECT_EQ(V({1, 0}), V({q.RemoveBufferAtHead(nullptr), q.RemoveBufferAtHead(nullptr)}));
  // A block committed now waits for both readers; removing them frees it.
  ASSERT_NE(nullptr, s.Push(5));
  ASSERT_EQ(1, q.GetBufferInfo(4, nullptr, nullptr, nullptr, &pending, nullptr));
  EXPECT_EQ(V({2, 1, 0, 1, 1, 0, 1, 1}), V({pending, q.RemoveReader(7), q.RemoveReader(7), q.HasPending(8),
                                            q.CleanReaderSizeLimited(8), q.HasPending(0), q.RemoveBufferAtHead(nullptr),
                                            q.RemoveBufferAtHead(nullptr)}));
}

TEST(VBufferQueueReadersDeathTest, The257thReaderEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  QueueOnBuffer t;
  for (uint32_t r = 1; r <= MAX_READER_COUNT; ++r) ASSERT_EQ(1, t.queue.AddReader(r, 0));
  EXPECT_EXIT(t.queue.AddReader(1000, 0), testing::ExitedWithCode(255),
              "reader 太多，超过MAX_READER_COUNT=256个了");
}

}  // namespace
