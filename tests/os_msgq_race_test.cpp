#include "OSMsgQ.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "OSTime.h"

namespace {

constexpr MsgWord kDone = 0xD0DE;

// Receivers answer each message with its first word plus one until they see
// a kDone message each.
void Receive(COSMsgQ& q, std::atomic<uint64_t>& sum, std::atomic<int>& count) {
  for (;;) {
    MsgWord words[MSG_WORDS];
    MsgRecord* record = q.PopRecord(INFINITE, 0);
    ASSERT_NE(record, nullptr);
    for (int w = 0; w < MSG_WORDS; ++w) words[w] = record->words[w];
    q.Answer(record, static_cast<uint32_t>(words[0] + 1));
    if (words[0] == kDone) return;
    EXPECT_EQ(words[4], words[0] * 3);
    sum += words[0];
    ++count;
  }
}

TEST(OSMsgQRace, EveryMessageDeliveredOnceWithItsReply) {
  constexpr int kSenders = 3;
  constexpr int kReceivers = 2;
  constexpr int kPerSender = 2000;
  COSMsgQ q;
  ASSERT_EQ(q.Create(4, 1, 0), 1);
  std::atomic<uint64_t> sum{0};
  std::atomic<int> count{0};
  std::atomic<int> badReplies{0};
  std::vector<std::thread> receivers;
  for (int r = 0; r < kReceivers; ++r) receivers.emplace_back(Receive, std::ref(q), std::ref(sum), std::ref(count));
  std::vector<std::thread> senders;
  for (int s = 0; s < kSenders; ++s) {
    senders.emplace_back([&, s] {
      for (int i = 0; i < kPerSender; ++i) {
        const MsgWord value = static_cast<MsgWord>(s * kPerSender + i + 1);
        const MsgWord words[MSG_WORDS] = {value, 0, 0, 0, value * 3};
        if (i % 2) {
          ASSERT_EQ(q.SendMsg(words, nullptr, INFINITE, 0), 1);
        } else {
          uint32_t reply = 0;
          ASSERT_EQ(q.SendMsg(words, &reply, INFINITE, 1), 1);
          if (reply != value + 1) ++badReplies;
        }
      }
    });
  }
  for (std::thread& t : senders) t.join();
  for (int r = 0; r < kReceivers; ++r) {
    const MsgWord done[MSG_WORDS] = {kDone, 0, 0, 0, 0};
    ASSERT_EQ(q.SendMsg(done, nullptr, INFINITE, 0), 1);
  }
  for (std::thread& t : receivers) t.join();
  const uint64_t n = kSenders * kPerSender;
  EXPECT_EQ(count.load(), static_cast<int>(n));
  EXPECT_EQ(sum.load(), n * (n + 1) / 2);
  EXPECT_EQ(badReplies.load(), 0);
}

// Senders that give up on their reply free the reply word at once: a late
// answer written into it would be caught by the sanitizers.
TEST(OSMsgQRace, GivenUpRepliesAreNeverWritten) {
  constexpr int kSenders = 3;
  constexpr int kPerSender = 1000;
  COSMsgQ q;
  ASSERT_EQ(q.Create(4, 1, 0), 1);
  std::atomic<uint64_t> sum{0};
  std::atomic<int> count{0};
  std::atomic<int> answered{0};
  std::thread receiver(Receive, std::ref(q), std::ref(sum), std::ref(count));
  std::vector<std::thread> senders;
  for (int s = 0; s < kSenders; ++s) {
    senders.emplace_back([&, s] {
      for (int i = 0; i < kPerSender; ++i) {
        const MsgWord value = static_cast<MsgWord>(s * kPerSender + i + 1);
        const MsgWord words[MSG_WORDS] = {value, 0, 0, 0, value * 3};
        auto reply = std::make_unique<uint32_t>(0);
        if (q.SendMsg(words, reply.get(), 1, 0)) {
          EXPECT_EQ(*reply, value + 1);
          ++answered;
        }
      }
    });
  }
  for (std::thread& t : senders) t.join();
  const MsgWord done[MSG_WORDS] = {kDone, 0, 0, 0, 0};
  ASSERT_EQ(q.SendMsg(done, nullptr, INFINITE, 0), 1);
  receiver.join();
  // Sends that timed out getting a record or a slot never queued anything;
  // every one that was queued was delivered once.
  EXPECT_GE(count.load(), answered.load());
  EXPECT_LE(count.load(), kSenders * kPerSender);
  RecordProperty("answered", answered.load());
  q.Close();
}

TEST(OSMsgQRace, CloseReleasesWaitingSenders) {
  for (int round = 0; round < 20; ++round) {
    COSMsgQ q;
    ASSERT_EQ(q.Create(4, 1, 0), 1);
    std::atomic<int> released{0};
    std::vector<std::thread> senders;
    std::vector<uint32_t> replies(3, 77);
    for (int s = 0; s < 3; ++s) {
      senders.emplace_back([&, s] {
        const MsgWord words[MSG_WORDS] = {1, 2, 3, 4, 5};
        if (q.SendMsg(words, &replies[static_cast<size_t>(s)], INFINITE, 1)) ++released;
      });
    }
    while (q.Count() < 3) Sleep(1);
    q.Close();
    for (std::thread& t : senders) t.join();
    EXPECT_EQ(released.load(), 3);
    EXPECT_EQ(replies, std::vector<uint32_t>(3, 0));
  }
}

}  // namespace
