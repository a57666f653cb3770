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

// A scan consumer that keeps what it saw and answers from a script.
struct Consumer {
  std::vector<std::pair<int32_t, int32_t>> runs;  // (position, length)
  std::vector<uint8_t> bytes;
  int32_t answerExtra = 0;   // added to length in the answer
  int32_t takeAtMost = -1;   // cut the answer to this
  VBufferQueue* queue = nullptr;
  int32_t removeTailAtRun = -1;
  int32_t removeHeadAtRun = -1;

  static int32_t Scan(void* context, const uint8_t* data, VBufSeq position, int32_t length) {
    Consumer* c = static_cast<Consumer*>(context);
    const int32_t run = static_cast<int32_t>(c->runs.size());
    c->runs.emplace_back(position.Value(), length);
    c->bytes.insert(c->bytes.end(), data, data + length);
    if (run == c->removeTailAtRun) {
      EXPECT_EQ(1, c->queue->RemoveBufferAtTail(nullptr));
    }
    if (run == c->removeHeadAtRun) {
      EXPECT_EQ(1, c->queue->RemoveBufferAtHead(nullptr));
    }
    int32_t answer = length + c->answerExtra;
    if (c->takeAtMost >= 0 && answer > c->takeAtMost) answer = c->takeAtMost;
    return answer;
  }
};

std::vector<uint8_t> Range(int first, int count) {
  std::vector<uint8_t> v;
  for (int i = 0; i < count; ++i) v.push_back(static_cast<uint8_t>(first + i));
  return v;
}

TEST(VBufferQueueBytes, ReadsAcrossBlocksOneRunPerBlock) {
  Stream s;
  Consumer c;
  VBufSeq position = 5;
  int32_t count = 20;
  EXPECT_EQ(1, s.queue.ScanBytes(Consumer::Scan, &c, &position, &count, 0));
  EXPECT_EQ(20, count);
  EXPECT_EQ(25, position.Value());
  const std::vector<std::pair<int32_t, int32_t>> runs = {{5, 5}, {10, 10}, {20, 5}};
  EXPECT_EQ(runs, c.runs);
  EXPECT_EQ(Range(5, 20), c.bytes);
  // Asking for more than there is gives what there is.
  std::vector<uint8_t> out(100);
  position = 0;
  count = 100;
  EXPECT_EQ(1, s.queue.ReadBytes(&position, out.data(), &count, 0));
  EXPECT_EQ(40, count);
  EXPECT_EQ(40, position.Value());
  out.resize(40);
  EXPECT_EQ(Range(0, 40), out);
}

TEST(VBufferQueueBytes, EvictedStartKeepsTheEndOfTheRequest) {
  Stream s;
  ASSERT_EQ(1, s.queue.RemoveBufferAtHead(nullptr));  // the stream starts at 10
  struct Case {
    int32_t position;
    int32_t count;
    int32_t result;
    int32_t gotCount;
    int32_t endPosition;
  };
  const Case cases[] = {
      {0, 30, 1, 20, 30},    // 10 bytes older: 20 delivered
      {-20, 30, 1, 0, 10},   // 30 older: nothing, position at the first offset
      {-100, 30, 1, 0, 10},
      {40, 1, 0, 0, 40},     // just past the last byte
      {39, 5, 1, 1, 40},
      {15, 0, 1, 0, 15},
      {15, -1, 0, -1, 15},
  };
  for (const Case& k : cases) {
    std::vector<uint8_t> out(64);
    VBufSeq position = k.position;
    int32_t count = k.count;
    EXPECT_EQ(k.result, s.queue.ReadBytes(&position, out.data(), &count, 0)) << k.position;
    EXPECT_EQ(k.gotCount, count) << k.position;
    EXPECT_EQ(k.endPosition, position.Value()) << k.position;
  }
  std::vector<uint8_t> out(20);
  VBufSeq position = 0;
  int32_t count = 30;
  ASSERT_EQ(1, s.queue.ReadBytes(&position, out.data(), &count, 0));
  EXPECT_EQ(Range(10, 20), out);
}

TEST(VBufferQueueBytes, StopsAtWriteHeldBlocks) {
  Stream s;
  ASSERT_NE(nullptr, s.queue.LockBufferByIndex(2, nullptr, nullptr));
  std::vector<uint8_t> out(64);
  VBufSeq position = 12;
  int32_t count = 30;
  EXPECT_EQ(1, s.queue.ReadBytes(&position, out.data(), &count, 0));
  EXPECT_EQ(8, count);
  EXPECT_EQ(20, position.Value());
  // Starting inside the held block: nothing, position as it was.
  position = 22;
  count = 5;
  EXPECT_EQ(1, s.queue.ReadBytes(&position, out.data(), &count, 0));
  EXPECT_EQ(0, count);
  EXPECT_EQ(22, position.Value());
  // ReadByte does not look at write holds.
  uint8_t byte = 0;
  EXPECT_EQ(1, s.queue.ReadByte(22, &byte));
  EXPECT_EQ(22, byte);
  EXPECT_EQ(1, s.queue.UnlockBufferByIndex(2));
}

TEST(VBufferQueueBytes, ConsumerAnswersOutOfRangeOrShort) {
  Stream s;
  Consumer greedy;
  greedy.answerExtra = 1;
  VBufSeq position = 12;
  int32_t count = 20;
  EXPECT_EQ(0, s.queue.ScanBytes(Consumer::Scan, &greedy, &position, &count, 0));
  EXPECT_EQ(0, count);
  EXPECT_EQ(12, position.Value());

  Consumer shortOne;
  shortOne.takeAtMost = 3;
  position = 12;
  count = 20;
  EXPECT_EQ(1, s.queue.ScanBytes(Consumer::Scan, &shortOne, &position, &count, 0));
  EXPECT_EQ(3, count);
  EXPECT_EQ(15, position.Value());
  EXPECT_EQ(1u, shortOne.runs.size());
  EXPECT_EQ(0, s.queue.IsBusy());  // the pin was let go
}

TEST(VBufferQueueBytes, BlocksMayGoWhileTheConsumerRuns) {
  Stream s;
  Consumer c;
  c.queue = &s.queue;
  c.removeHeadAtRun = 1;  // while block 1 is pinned, block 0 goes
  c.removeTailAtRun = 2;  // while block 2 is pinned, block 3 goes
  VBufSeq position = 5;
  int32_t count = 40;
  EXPECT_EQ(1, s.queue.ScanBytes(Consumer::Scan, &c, &position, &count, 0));
  EXPECT_EQ(25, count);
  EXPECT_EQ(30, position.Value());
  EXPECT_EQ(Range(5, 25), c.bytes);
  EXPECT_EQ(2, s.queue.GetBufferCount());
}

TEST(VBufferQueueBytes, FixedWidthReads) {
  Stream s;
  uint8_t out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
  EXPECT_EQ(1, s.queue.ReadU32(8, out));
  EXPECT_EQ(Range(8, 4), std::vector<uint8_t>(out, out + 4));
  EXPECT_EQ(1, s.queue.ReadU16(19, out));
  EXPECT_EQ(19, out[0]);
  EXPECT_EQ(20, out[1]);
  out[3] = 0xEE;
  EXPECT_EQ(0, s.queue.ReadU32(37, out));  // 3 bytes before the end: copied, but 0
  EXPECT_EQ(37, out[0]);
  EXPECT_EQ(39, out[2]);
  EXPECT_EQ(0xEE, out[3]);
}

TEST(VBufferQueueBytes, EmptyBlocksAreSteppedOver) {
  QueueOnBuffer t;
  ASSERT_NE(nullptr, t.Push(0));
  ASSERT_NE(nullptr, t.Push(3, 1));
  ASSERT_NE(nullptr, t.Push(0));
  ASSERT_NE(nullptr, t.Push(0));
  ASSERT_NE(nullptr, t.Push(2, 2));
  Consumer c;
  VBufSeq position = 0;
  int32_t count = 5;
  EXPECT_EQ(1, t.queue.ScanBytes(Consumer::Scan, &c, &position, &count, 0));
  EXPECT_EQ(5, count);
  EXPECT_EQ(2u, c.runs.size());
  for (int32_t at = 0; at < 5; ++at) {
    uint8_t byte = 0;
    EXPECT_EQ(1, t.queue.ReadByte(at, &byte));
    EXPECT_EQ(at < 3 ? 1 : 2, byte);
  }
}

TEST(VBufferQueueReaders, MarkedBlocksWaitForTheirReader) {
  Stream s(1);
  ASSERT_EQ(1, s.queue.RemoveBufferAtHead(nullptr));  // not pending yet
  ASSERT_EQ(1, s.queue.AddReader(7, 1));
  ASSERT_EQ(1, s.queue.AddReader(8, 0));
  EXPECT_EQ(2, s.queue.GetReaderCount());
  EXPECT_EQ(1, s.queue.HasPending(7));
  EXPECT_EQ(0, s.queue.HasPending(8));
  EXPECT_EQ(1, s.queue.HasPending(0));
  EXPECT_EQ(0, s.queue.HasPending(9));
  EXPECT_EQ(0, s.queue.RemoveBufferAtHead(nullptr));
  int32_t pending = 0;
  ASSERT_EQ(1, s.queue.GetBufferInfo(1, nullptr, nullptr, nullptr, &pending, nullptr));
  EXPECT_EQ(1, pending);
  // Releasing with the reader finishes the block for it; without, nothing.
  int32_t size = 0;
  uint8_t* p = s.queue.GetBuffer(nullptr, &size, nullptr);
  ASSERT_EQ(1, s.queue.ReleaseBuffer(p, 0));
  EXPECT_EQ(0, s.queue.RemoveBufferAtHead(nullptr));
  p = s.queue.GetBufferByIndex(1, &size, nullptr);
  ASSERT_EQ(1, s.queue.ReleaseBufferByIndex(1, 7));
  EXPECT_EQ(1, s.queue.RemoveBufferAtHead(nullptr));
  // A scan that takes a whole block finishes it; one that stops inside does not.
  std::vector<uint8_t> out(16);
  VBufSeq position = 20;
  int32_t count = 15;
  ASSERT_EQ(1, s.queue.ReadBytes(&position, out.data(), &count, 7));
  EXPECT_EQ(1, s.queue.RemoveBufferAtHead(nullptr));
  EXPECT_EQ(0, s.queue.RemoveBufferAtHead(nullptr));
  // A block committed now waits for both readers; RemoveReader frees it.
  ASSERT_NE(nullptr, s.Push(5));
  ASSERT_EQ(1, s.queue.GetBufferInfo(4, nullptr, nullptr, nullptr, &pending, nullptr));
  EXPECT_EQ(2, pending);
  EXPECT_EQ(1, s.queue.RemoveReader(7));
  EXPECT_EQ(0, s.queue.RemoveReader(7));
  EXPECT_EQ(1, s.queue.HasPending(8));
  EXPECT_EQ(1, s.queue.CleanReaderSizeLimited(8));
  EXPECT_EQ(0, s.queue.HasPending(0));
  EXPECT_EQ(1, s.queue.RemoveBufferAtHead(nullptr));
  EXPECT_EQ(1, s.queue.RemoveBufferAtHead(nullptr));
}

TEST(VBufferQueueReaders, UntrackedQueueNeverWaits) {
  Stream s(0);
  ASSERT_EQ(1, s.queue.AddReader(7, 1));
  EXPECT_EQ(0, s.queue.HasPending(7));
  ASSERT_NE(nullptr, s.Push(5));
  EXPECT_EQ(1, s.queue.RemoveBufferAtHead(nullptr));
  EXPECT_EQ(0, s.queue.AddReader(0, 0));
  EXPECT_EQ(0, s.queue.RemoveReader(0));
}

TEST(VBufferQueueReaders, ReportsOfDuplicateUnknownAndSecondLimit) {
  ReportCatcher catcher;
  QueueOnBuffer t;
  ASSERT_EQ(1, t.queue.AddReader(3, 0));
  EXPECT_EQ(0, t.queue.AddReader(3, 0));
  EXPECT_EQ(0, t.queue.SetReaderSizeLimited(4, VBUF_LIMIT_COUNT, 1));
  EXPECT_EQ(0, t.queue.SetReaderSizeLimited(0, VBUF_LIMIT_COUNT, 1));
  ASSERT_EQ(1, t.queue.SetReaderSizeLimited(3, VBUF_LIMIT_COUNT, 1));
  EXPECT_EQ(0, t.queue.SetReaderSizeLimited(3, VBUF_LIMIT_BYTES, 1));
  EXPECT_EQ(1, t.queue.GetReaderCount());
  const struct {
    const char* text;
    const char* where;
  } expected[] = {
      {"重复添加reader", "codelib/brisk/source/VBufferQueue(2055)"},
      {"reader不存在", "codelib/brisk/source/VBufferQueue(2262)"},
      {"reader不存在", "codelib/brisk/source/VBufferQueue(2262)"},
      {"该reader设置的限制已经存在，请先调用CleanReaderSizeLimited()",
       "codelib/brisk/source/VBufferQueue(2270)"},
  };
  ASSERT_EQ(4u, catcher.reports.size());
  for (size_t i = 0; i < 4; ++i) {
    const std::string& r = catcher.reports[i];
    EXPECT_NE(std::string::npos, r.find(std::string("Failed(") + expected[i].text + ")!")) << r;
    EXPECT_NE(std::string::npos, r.find(expected[i].where)) << r;
    EXPECT_NE(std::string::npos, r.find("Expression: (false)")) << r;
  }
}

TEST(VBufferQueueReaders, CloseEmptiesReadersButLimitsSurvive) {
  ReportCatcher catcher;
  QueueOnBuffer t;
  ASSERT_EQ(1, t.queue.AddReader(3, 0));
  ASSERT_EQ(1, t.queue.SetReaderSizeLimited(3, VBUF_LIMIT_COUNT, 1));
  t.queue.Close();
  EXPECT_EQ(0, t.queue.GetReaderCount());
  ASSERT_EQ(1, t.queue.Open(1000, nullptr, t.B(), 4));
  int32_t value = 0;
  EXPECT_EQ(1, t.queue.GetReaderSizeLimited(nullptr, &value));
  EXPECT_EQ(1, value);
  ASSERT_NE(nullptr, t.Push(1));
  EXPECT_EQ(nullptr, t.queue.PrepareNewBufferAtTail(1, 0, nullptr));  // still in force
  // A new reader in the same slot owns the old record.
  ASSERT_EQ(1, t.queue.AddReader(9, 0));
  EXPECT_EQ(0, t.queue.SetReaderSizeLimited(9, VBUF_LIMIT_COUNT, 5));
  EXPECT_EQ(1, t.queue.RemoveReader(9));
  EXPECT_EQ(0, t.queue.GetReaderSizeLimited(nullptr, nullptr));
  EXPECT_EQ(1u, catcher.reports.size());
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
