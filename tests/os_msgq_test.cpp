#include "OSMsgQ.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "OSTime.h"
#include "WaitableObject.h"

namespace {

struct Message {
  MsgWord words[MSG_WORDS];
  explicit Message(MsgWord first) : words{first, first + 1, first + 2, first + 3, first + 4} {}
};

TEST(OSMsgQTest, CreateRules) {
  COSMsgQ q;
  EXPECT_EQ(q.Create(5, 2, 0), 0);
  EXPECT_EQ(q.Create(0, 1, 0), 0);
  EXPECT_EQ(q.Create(4, 0, 0), 0);
  EXPECT_EQ(q.Create(4, 2, 0), 1);
  EXPECT_EQ(q.Create(4, 2, 0), 0);  // open already
  q.Close();
  q.Close();
  EXPECT_EQ(q.Create(2, 1, 0), 1);
}

TEST(OSMsgQTest, ClosedQueueRefusesEverything) {
  COSMsgQ q;
  Message m(1);
  MsgWord out[MSG_WORDS];
  uint32_t reply = 0;
  EXPECT_EQ(q.SendMsg(m.words, nullptr, 0, 0), 0);
  EXPECT_EQ(q.SendMsg(m.words, &reply, 10, 0), 0);
  EXPECT_EQ(q.ReceiveMsg(out, 0, 0), 0);
  EXPECT_EQ(q.TakeMsg(MsgTake{out, 0}, 0, 1), 0);
  EXPECT_EQ(q.DoAllocMsg(0, nullptr), nullptr);
}

TEST(OSMsgQTest, MessagesInOrderAcrossTheWrap) {
  COSMsgQ q;
  ASSERT_EQ(q.Create(4, 1, 0), 1);
  MsgWord next = 0;
  MsgWord expected = 0;
  for (int round = 0; round < 5; ++round) {
    for (int i = 0; i < 3; ++i) ASSERT_EQ(q.SendMsg(Message(next++ * 10).words, nullptr, 0, 0), 1);
    for (int i = 0; i < 3; ++i) {
      MsgWord out[MSG_WORDS];
      ASSERT_EQ(q.ReceiveMsg(out, 0, 0), 1);
      for (int w = 0; w < MSG_WORDS; ++w) EXPECT_EQ(out[w], expected * 10 + w);
      ++expected;
    }
  }
  MsgWord out[MSG_WORDS];
  EXPECT_EQ(q.TakeMsg(MsgTake{out, 0}, 0, 0), 0);  // empty
}

TEST(OSMsgQTest, FullQueueTimesOut) {
  COSMsgQ q;
  ASSERT_EQ(q.Create(4, 1, 0), 1);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(q.SendMsg(Message(i).words, nullptr, 0, 0), 1);
  EXPECT_EQ(q.SendMsg(Message(9).words, nullptr, 0, 0), 0);
  const uint32_t start = GetTickCount();
  EXPECT_EQ(q.SendMsg(Message(9).words, nullptr, 20, 0), 0);
  EXPECT_GE(GetTickCount() - start, 19u);
  EXPECT_EQ(q.Count(), 4);
}

TEST(OSMsgQTest, SynchronousReply) {
  COSMsgQ q;
  ASSERT_EQ(q.Create(4, 1, 0), 1);
  uint32_t reply = 0;
  std::atomic<int32_t> sent{-1};
  std::thread sender([&] { sent = q.SendMsg(Message(100).words, &reply, INFINITE, 1); });
  MsgWord out[MSG_WORDS] = {};
  ASSERT_EQ(q.TakeMsg(MsgTake{out, 7}, 5000, 0), 1);
  sender.join();
  EXPECT_EQ(sent.load(), 1);
  EXPECT_EQ(reply, 7u);
  EXPECT_EQ(out[0], 100u);
  // The record and its event are back for the next send.
  std::thread again([&] { sent = q.SendMsg(Message(200).words, &reply, 5000, 0); });
  ASSERT_EQ(q.ReceiveMsg(out, 8, 5000), 1);
  again.join();
  EXPECT_EQ(sent.load(), 1);
  EXPECT_EQ(reply, 8u);
}

TEST(OSMsgQTest, AbandonedReplyIsFreedByTheReceiver) {
  COSMsgQ q;
  ASSERT_EQ(q.Create(1, 1, 0), 1);
  uint32_t reply = 12345;
  EXPECT_EQ(q.SendMsg(Message(1).words, &reply, 10, 0), 0);
  EXPECT_EQ(reply, 12345u);
  // The one record is still out: with the receiver now.
  EXPECT_EQ(q.DoAllocMsg(0, nullptr), nullptr);
  MsgWord out[MSG_WORDS];
  ASSERT_EQ(q.ReceiveMsg(out, 5, 0), 1);  // the message is still delivered
  EXPECT_EQ(out[0], 1u);
  EXPECT_EQ(reply, 12345u);  // nobody writes to a sender that left
  MsgRecord* record = q.DoAllocMsg(0, nullptr);
  ASSERT_NE(record, nullptr);
  q.FreeRecord(record);
}

TEST(OSMsgQTest, CloseLetsAWaitingSenderGo) {
  COSMsgQ q;
  ASSERT_EQ(q.Create(4, 1, 0), 1);
  uint32_t reply = 99;
  std::atomic<int32_t> sent{-1};
  std::thread sender([&] { sent = q.SendMsg(Message(1).words, &reply, INFINITE, 1); });
  while (q.Count() == 0) Sleep(1);
  q.Close();
  sender.join();
  EXPECT_EQ(sent.load(), 1);
  EXPECT_EQ(reply, 0u);
}

TEST(OSMsgQTest, AlreadyCountedTake) {
  COSMsgQ q;
  ASSERT_EQ(q.Create(2, 1, 0), 1);
  MsgWord out[MSG_WORDS];
  ASSERT_EQ(q.SendMsg(Message(50).words, nullptr, 0, 0), 1);
  ASSERT_EQ(WaitForSingleObject(q.FilledSlots(), 0), WAIT_OBJECT_0);
  EXPECT_EQ(q.TakeMsg(MsgTake{out, 0}, 0, 1), 1);
  EXPECT_EQ(out[0], 50u);
  EXPECT_EQ(q.TakeMsg(MsgTake{out, 0}, 0, 1), 0);  // nothing behind the claim
}

TEST(OSMsgQTest, NewRecordHoldsTheDefaultPayload) {
  COSMsgQ q;
  ASSERT_EQ(q.Create(2, 1, 0), 1);
  MsgRecord* record = q.DoAllocMsg(0, nullptr);
  ASSERT_NE(record, nullptr);
  for (int w = 0; w < MSG_WORDS; ++w) EXPECT_EQ(record->words[w], MSG_DEFAULT_PAYLOAD[w]);
  EXPECT_EQ(static_cast<intptr_t>(record->words[0]), -100);
  EXPECT_EQ(static_cast<int32_t>(record->words[3]), -1);
  EXPECT_EQ(record->reply, nullptr);
  EXPECT_EQ(record->event, nullptr);
  EXPECT_EQ(record->AttachReplyEvent(), 1);  // no reply wanted: nothing to attach
  EXPECT_EQ(record->event, nullptr);
  uint32_t reply = 0;
  record->reply = &reply;
  EXPECT_EQ(record->AttachReplyEvent(), 1);
  ASSERT_NE(record->event, nullptr);
  EXPECT_EQ(record->WaitReply(0), 0);
  q.FreeRecord(record);
}

TEST(OSMsgQTest, CountSemaphores) {
  HANDLE s = nullptr;
  struct Case {
    HANDLE* out;
    int32_t initial;
    int32_t maximum;
    int32_t expected;
  } cases[] = {{nullptr, 0, 1, 0}, {&s, -1, 1, 0}, {&s, 0, 0, 0}, {&s, 2, 1, 0}, {&s, 1, 1, 1}};
  for (const Case& c : cases) {
    EXPECT_EQ(CreateCountSemaphore(c.out, c.initial, c.maximum), c.expected);
    if (c.expected) {
      // Full: the release goes on until a count is taken.
      std::thread taker([&] {
        Sleep(20);
        WaitForSingleObject(s, 0);
      });
      EXPECT_EQ(ReleaseCount(&s, 1), 1);
      taker.join();
      EXPECT_EQ(WaitForSingleObject(s, 0), WAIT_OBJECT_0);
      CloseHandle(s);
    }
  }
  HANDLE none = nullptr;
  EXPECT_EQ(ReleaseCount(&none, 1), 0);  // other failures come back
}

}  // namespace
