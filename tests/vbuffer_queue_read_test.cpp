// VBufferQueue: the byte stream, readers, pending bits and the reports.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "VBufferQueue.h"
#include "vbuffer_queue_test_util.h"

namespace {

// Four blocks of 10 bytes; byte n of the stream holds n.
struct Stream : QueueOnBuffer {
  explicit Stream(int32_t track = 0) : QueueOnBuffer(1000, track) {
    for (int b = 0; b < 4; ++b) {
      uint8_t* p = queue.PrepareNewBufferAtTail(10, 0, nullptr);
      for (int i = 0; i < 10; ++i) p[i] = static_cast<uint8_t>(b * 10 + i);
      EXPECT_EQ(1, queue.NewBufferAtTail(p, -1, 0, 0, 0));
    }
  }
};

std::vector<uint8_t> Range(int first, int count) {
  std::vector<uint8_t> v;
  for (int i = 0; i < count; ++i) v.push_back(static_cast<uint8_t>(first + i));
  return v;
}

// A scan consumer that keeps what it saw; it may answer out of range, take
// less than it was given, or remove blocks while a run is pinned.
struct Consumer {
  std::vector<int64_t> runs;  // position, length, ...
  std::vector<uint8_t> bytes;
  int32_t extra = 0, takeAtMost = -1, removeHeadAtRun = -1, removeTailAtRun = -1, removed = 0;
  VBufferQueue* queue = nullptr;
  static int32_t Scan(void* context, const uint8_t* data, VBufSeq position, int32_t length) {
    Consumer* c = static_cast<Consumer*>(context);
    const int32_t run = static_cast<int32_t>(c->runs.size() / 2);
    c->runs.insert(c->runs.end(), {position.Value(), length});
    c->bytes.insert(c->bytes.end(), data, data + length);
    if (run == c->removeHeadAtRun) c->removed += c->queue->RemoveBufferAtHead(nullptr);
    if (run == c->removeTailAtRun) c->removed += c->queue->RemoveBufferAtTail(nullptr);
    const int32_t answer = length + c->extra;
    return c->takeAtMost >= 0 && answer > c->takeAtMost ? c->takeAtMost : answer;
  }
};

TEST(VBufferQueueBytes, ReadBytesDeliversWhatIsThereAndKeepsTheEnd) {
  // The stream starts at 10 when `dropHead`; block 2 (bytes 20..29) is
  // write-held when `lock`. A start already gone keeps the request's end.
  struct Case { bool dropHead, lock; int32_t position, count, result, got, end; };
  const Case cases[] = {
      {false, false, 0, 100, 1, 40, 40},  // more than there is
      {true, false, 0, 30, 1, 20, 30},    {true, false, -20, 30, 1, 0, 10},
      {true, false, -100, 30, 1, 0, 10},  {true, false, 40, 1, 0, 0, 40},  // just past the end
      {true, false, 39, 5, 1, 1, 40},     {true, false, 15, 0, 1, 0, 15},
      {true, false, 15, -1, 0, -1, 15},
      {false, true, 12, 30, 1, 8, 20},  // stops at the write-held block
      {false, true, 22, 5, 1, 0, 22},   // starts inside it
  };
  for (const Case& k : cases) {
    Stream s;
    ASSERT_EQ(k.dropHead, k.dropHead && s.queue.RemoveBufferAtHead(nullptr) == 1);
    ASSERT_EQ(k.lock, k.lock && s.queue.LockBufferByIndex(2, nullptr, nullptr) != nullptr);
    std::vector<uint8_t> out(128, 0xEE);
    VBufSeq position = k.position;
    int32_t count = k.count;
    EXPECT_EQ(V({k.result, k.got, k.end}),
              V({s.queue.ReadBytes(&position, out.data(), &count, 0), count, position.Value()}))
        << k.position << "+" << k.count;
    out.resize(static_cast<size_t>(count > 0 ? count : 0));
    EXPECT_EQ(Range(k.end - count, static_cast<int>(out.size())), out) << k.position;
    uint8_t byte = 0;  // ReadByte does not look at write holds
    EXPECT_EQ(V({1, 22}), V({s.queue.ReadByte(22, &byte), byte}));
  }
}

TEST(VBufferQueueBytes, ScanRunsPerBlockAndStopsWhenTheConsumerDoes) {
  struct Case { int32_t extra, takeAtMost, removeHead, removeTail, position, count, result, got, end; std::vector<int64_t> runs; };
  const Case cases[] = {
      {0, -1, -1, -1, 5, 20, 1, 20, 25, {5, 5, 10, 10, 20, 5}},
      {1, -1, -1, -1, 12, 20, 0, 0, 12, {12, 8}},  // answered more than given
      {0, 3, -1, -1, 12, 20, 1, 3, 15, {12, 8}},   // took less
      // block 0 goes while block 1 is pinned, block 3 while block 2 is
      {0, -1, 1, 2, 5, 40, 1, 25, 30, {5, 5, 10, 10, 20, 10}},
  };
  for (const Case& k : cases) {
    Stream s;
    Consumer c{{}, {}, k.extra, k.takeAtMost, k.removeHead, k.removeTail, 0, &s.queue};
    VBufSeq position = k.position;
    int32_t count = k.count;
    EXPECT_EQ(V({k.result, k.got, k.end}),
              V({s.queue.ScanBytes(Consumer::Scan, &c, &position, &count, 0), count, position.Value()}));
    EXPECT_EQ(k.runs, c.runs);
    EXPECT_EQ(Range(k.position, static_cast<int>(c.bytes.size())), c.bytes);
    EXPECT_EQ(V({0, (k.removeHead >= 0) + (k.removeTail >= 0)}), V({s.queue.IsBusy(), c.removed}));
  }
}

TEST(VBufferQueueBytes, FixedWidthReadsAndEmptyBlocks) {
  Stream s;
  uint8_t out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
  EXPECT_EQ(1, s.queue.ReadU32(8, out));
  EXPECT_EQ(Range(8, 4), std::vector<uint8_t>(out, out + 4));
  EXPECT_EQ(1, s.queue.ReadU16(19, out));
  EXPECT_EQ(V({19, 20}), V({out[0], out[1]}));
  out[3] = 0xEE;
  EXPECT_EQ(0, s.queue.ReadU32(37, out));  // 3 bytes before the end: copied, but 0
  EXPECT_EQ(V({37, 39, 0xEE}), V({out[0], out[2], out[3]}));

  QueueOnBuffer t;
  for (int32_t size : {0, 3, 0, 0, 2}) ASSERT_NE(nullptr, t.Push(size, size == 3 ? 1 : 2));
  Consumer c;
  VBufSeq position = 0;
  int32_t count = 5;
  EXPECT_EQ(1, t.queue.ScanBytes(Consumer::Scan, &c, &position, &count, 0));
  EXPECT_EQ(V({5, 0, 3, 3, 2}), V({count, c.runs[0], c.runs[1], c.runs[2], c.runs[3]}));
  EXPECT_EQ(std::vector<uint8_t>({1, 1, 1, 2, 2}), c.bytes);
  for (int32_t at = 0; at < 5; ++at) EXPECT_EQ(V({1, at < 3 ? 1 : 2}), V({t.queue.ReadByte(at, out), out[0]}));
}

TEST(VBufferQueueReaders, MarkedBlocksWaitForTheirReader) {
  Stream s(1);
  VBufferQueue& q = s.queue;
  ASSERT_EQ(1, q.RemoveBufferAtHead(nullptr));  // not pending yet
  ASSERT_EQ(1, q.AddReader(7, 1));
  ASSERT_EQ(1, q.AddReader(8, 0));
  EXPECT_EQ(V({2, 1, 0, 1, 0, 0}), V({q.GetReaderCount(), q.HasPending(7), q.HasPending(8), q.HasPending(0),
                                      q.HasPending(9), q.RemoveBufferAtHead(nullptr)}));
  int32_t pending = 0, size = 0;
  ASSERT_EQ(1, q.GetBufferInfo(1, nullptr, nullptr, nullptr, &pending, nullptr));
  EXPECT_EQ(1, pending);
  // Releasing with the reader finishes the block for it; without, nothing.
  ASSERT_EQ(1, q.ReleaseBuffer(q.GetBuffer(nullptr, &size, nullptr), 0));
  EXPECT_EQ(0, q.RemoveBufferAtHead(nullptr));
  ASSERT_NE(nullptr, q.GetBufferByIndex(1, &size, nullptr));
  ASSERT_EQ(1, q.ReleaseBufferByIndex(1, 7));
  EXPECT_EQ(1, q.RemoveBufferAtHead(nullptr));
  // A scan that takes a whole block finishes it; one that stops inside does not.
  std::vector<uint8_t> out(16);
  VBufSeq position = 20;
  int32_t count = 15;
  ASSERT_EQ(1, q.ReadBytes(&position, out.data(), &count, 7));
  EXPECT_EQ(V({1, 0}), V({q.RemoveBufferAtHead(nullptr), q.RemoveBufferAtHead(nullptr)}));
  // A block committed now waits for both readers; removing them frees it.
  ASSERT_NE(nullptr, s.Push(5));
  ASSERT_EQ(1, q.GetBufferInfo(4, nullptr, nullptr, nullptr, &pending, nullptr));
  EXPECT_EQ(2, pending);
  EXPECT_EQ(V({1, 0, 1, 1, 0, 1, 1}), V({q.RemoveReader(7), q.RemoveReader(7), q.HasPending(8),
                                         q.CleanReaderSizeLimited(8), q.HasPending(0),
                                         q.RemoveBufferAtHead(nullptr), q.RemoveBufferAtHead(nullptr)}));
}

TEST(VBufferQueueReaders, UntrackedQueueNeverWaits) {
  Stream s(0);
  ASSERT_EQ(1, s.queue.AddReader(7, 1));
  EXPECT_EQ(0, s.queue.HasPending(7));
  ASSERT_NE(nullptr, s.Push(5));
  EXPECT_EQ(V({1, 0, 0}), V({s.queue.RemoveBufferAtHead(nullptr), s.queue.AddReader(0, 0), s.queue.RemoveReader(0)}));
}

TEST(VBufferQueueReaders, ReportsAndLimitsThatOutliveClose) {
  ReportCatcher catcher;
  QueueOnBuffer t;
  VBufferQueue& q = t.queue;
  ASSERT_EQ(1, q.AddReader(3, 0));
  // A duplicate, two unknown readers and a second limit: refused and reported.
  EXPECT_EQ(V({0, 0, 0, 1, 0, 1}),
            V({q.AddReader(3, 0), q.SetReaderSizeLimited(4, VBUF_LIMIT_COUNT, 1),
               q.SetReaderSizeLimited(0, VBUF_LIMIT_COUNT, 1), q.SetReaderSizeLimited(3, VBUF_LIMIT_COUNT, 1),
               q.SetReaderSizeLimited(3, VBUF_LIMIT_BYTES, 1), q.GetReaderCount()}));
  const char* const where[] = {"VBufferQueue(2055)", "VBufferQueue(2262)", "VBufferQueue(2262)", "VBufferQueue(2270)"};
  ASSERT_EQ(4u, catcher.reports.size());
  for (size_t i = 0; i < 4; ++i) EXPECT_NE(std::string::npos, catcher.reports[i].find(where[i])) << catcher.reports[i];
  EXPECT_NE(std::string::npos, catcher.reports[0].find("Failed(重复添加reader)!"));
  // Close empties the readers; the limit stays in force.
  q.Close();
  EXPECT_EQ(0, q.GetReaderCount());
  ASSERT_EQ(1, q.Open(1000, nullptr, t.B(), 4));
  int32_t value = 0;
  EXPECT_EQ(V({1, 1}), V({q.GetReaderSizeLimited(nullptr, &value), value}));
  ASSERT_NE(nullptr, t.Push(1));
  EXPECT_EQ(nullptr, q.PrepareNewBufferAtTail(1, 0, nullptr));
  // A new reader in the same slot owns the old record.
  ASSERT_EQ(1, q.AddReader(9, 0));
  EXPECT_EQ(V({0, 1, 0, 5}), V({q.SetReaderSizeLimited(9, VBUF_LIMIT_COUNT, 5), q.RemoveReader(9),
                                q.GetReaderSizeLimited(nullptr, nullptr), static_cast<int64_t>(catcher.reports.size())}));
}

TEST(VBufferQueueReadersDeathTest, The257thReaderEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  QueueOnBuffer t;
  for (uint32_t r = 1; r <= MAX_READER_COUNT; ++r) ASSERT_EQ(1, t.queue.AddReader(r, 0));
  EXPECT_EQ(MAX_READER_COUNT, t.queue.GetReaderCount());
  EXPECT_EXIT(t.queue.AddReader(1000, 0), testing::ExitedWithCode(255),
              "reader 太多，超过MAX_READER_COUNT=256个了");
  EXPECT_EQ(1, t.queue.RemoveReader(1));
  EXPECT_EQ(1, t.queue.AddReader(1000, 0));  // a freed slot is taken again
}

}  // namespace
