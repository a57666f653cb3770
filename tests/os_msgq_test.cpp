#include "OSMsgQ.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "OSTime.h"
#include "WaitableObject.h"

namespace {

struct Message {
  MsgWord words[MSG_WORDS];
  explicit Message(MsgWord first) : words{first, first + 1, first + 2, first + 3, first + 4} {}
};

TEST(OSMsgQTest, CreateRulesAndClosedQueueRefusesEverything) {
  COSMsgQ q;
  MsgWord out[MSG_WORDS];
  uint32_t reply = 0;
  EXPECT_EQ(q.SendMsg(Message(1).words, &reply, 10, 0) + q.ReceiveMsg(out, 0, 0) + q.TakeMsg(MsgTake{out, 0}, 0, 1), 0);
  EXPECT_EQ(q.DoAllocMsg(0, nullptr), nullptr);
  struct Case {
    int32_t slots, records, expected;
  } cases[] = {{5, 2, 0}, {0, 1, 0}, {4, 0, 0}, {4, 2, 1}, {4, 2, 0 /* open already */}};
  for (const Case& c : cases) EXPECT_EQ(q.Create(c.slots, c.records, 0), c.expected) << c.slots << "/" << c.records;
  q.Close();
  q.Close();  // twice is harmless
  EXPECT_EQ(q.Create(2, 1, 0), 1);
  EXPECT_EQ(q.TakeMsg(MsgTake{out, 0}, 0, 1), 0);  // a claimed count with nothing behind it
  MsgRecord* record = q.DoAllocMsg(0, nullptr);
  ASSERT_NE(record, nullptr);
  EXPECT_TRUE(std::equal(record->words, record->words + MSG_WORDS, MSG_DEFAULT_PAYLOAD));  // a fresh record
  q.FreeRecord(record);
}

TEST(OSMsgQTest, MessagesInOrderAcrossTheWrapAndAFullQueueTimesOut) {
  COSMsgQ q;
  ASSERT_EQ(q.Create(4, 1, 0), 1);
  MsgWord out[MSG_WORDS];
  for (MsgWord sent = 0, got = 0; got < 15;) {  // three at a time through four slots
    for (int i = 0; i < 3; ++i) ASSERT_EQ(q.SendMsg(Message(sent++ * 10).words, nullptr, 0, 0), 1);
    for (int i = 0; i < 3; ++i, ++got) {
      ASSERT_EQ(q.ReceiveMsg(out, 0, 0), 1);
      for (int w = 0; w < MSG_WORDS; ++w) EXPECT_EQ(out[w], got * 10 + w);
    }
  }
  EXPECT_EQ(q.TakeMsg(MsgTake{out, 0}, 0, 0), 0);  // empty
  for (int i = 0; i < 4; ++i) EXPECT_EQ(q.SendMsg(Message(i).words, nullptr, 0, 0), 1);
  EXPECT_EQ(q.SendMsg(Message(9).words, nullptr, 0, 0) + q.SendMsg(Message(9).words, nullptr, 20, 0), 0);
  EXPECT_EQ(q.Count(), 4);
}

TEST(OSMsgQTest, RepliesSynchronousAndAbandoned) {
  COSMsgQ q;
  ASSERT_EQ(q.Create(1, 1, 0), 1);
  uint32_t reply = 0;
  std::atomic<int32_t> sent{-1};
  MsgWord out[MSG_WORDS] = {};
  for (int32_t answer : {7, 8}) {  // the record and its event come back for the next send
    std::thread sender([&] { sent = q.SendMsg(Message(100).words, &reply, answer == 7 ? INFINITE : 5000, 1); });
    ASSERT_EQ(answer == 7 ? q.TakeMsg(MsgTake{out, 7}, 5000, 0) : q.ReceiveMsg(out, 8, 5000), 1);
    sender.join();
    EXPECT_EQ(sent.load(), 1);
    EXPECT_EQ(reply, static_cast<uint32_t>(answer));
    EXPECT_EQ(out[0], 100u);
  }
  // A sender that gives up leaves the record with the receiver, which frees it.
  reply = 12345;
  EXPECT_EQ(q.SendMsg(Message(1).words, &reply, 10, 0), 0);
  EXPECT_EQ(q.DoAllocMsg(0, nullptr), nullptr);
  ASSERT_EQ(q.ReceiveMsg(out, 5, 0), 1);  // the message is still delivered
  EXPECT_EQ(out[0], 1u);
  EXPECT_EQ(reply, 12345u);  // nobody writes to a sender that left
  MsgRecord* record = q.DoAllocMsg(0, nullptr);
  ASSERT_NE(record, nullptr);
  q.FreeRecord(record);
}

TEST(OSMsgQTest, CountSemaphores) {
  HANDLE s = nullptr;
  struct Case {
    HANDLE* out;
    int32_t initial, maximum, expected;
  } cases[] = {{nullptr, 0, 1, 0}, {&s, -1, 1, 0}, {&s, 0, 0, 0}, {&s, 2, 1, 0}, {&s, 1, 1, 1}};
  for (const Case& c : cases) EXPECT_EQ(CreateCountSemaphore(c.out, c.initial, c.maximum), c.expected);
  // Full: the release (ReleaseSemaphoreRetry underneath) goes on until a count is taken.
  std::thread taker([&] {
    Sleep(20);
    WaitForSingleObject(s, 0);
  });
  EXPECT_EQ(ReleaseCount(&s, 1), 1);
  taker.join();
  EXPECT_EQ(WaitForSingleObject(s, 0), WAIT_OBJECT_0);
  CloseHandle(s);
  HANDLE none = nullptr;
  EXPECT_EQ(ReleaseCount(&none, 1), 0);  // other failures come back
}

}  // namespace
