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
    MsgRecord* record = q.PopRecord(INFINITE, 0);
    ASSERT_NE(record, nullptr);
    const MsgWord first = record->words[0], last = record->words[4];
    q.Answer(record, static_cast<uint32_t>(first + 1));
    if (first == kDone) return;
    EXPECT_EQ(last, first * 3);
    sum += first;
    ++count;
  }
}

// Three senders through a queue of 4 slots and 1 record. Waiting without
// limit, every message arrives once and every reply is right. Giving up after
// 1 ms, a sender frees its reply word at once (a late answer written into it
// would be caught by the sanitizers): only sends that got a record and a slot
// were queued, and those arrived once.
TEST(OSMsgQRace, EveryMessageDeliveredOnceWithItsReply) {
  constexpr int kSenders = 3;
  for (uint32_t timeoutMs : {INFINITE, 1u}) {
    const bool giveUp = timeoutMs != INFINITE;
    const int perSender = giveUp ? 1000 : 2000, receivers = giveUp ? 1 : 2;
    COSMsgQ q;
    ASSERT_EQ(q.Create(4, 1, 0), 1);
    std::atomic<uint64_t> sum{0};
    std::atomic<int> count{0}, answered{0}, badReplies{0};
    std::vector<std::thread> threads, senders;
    for (int r = 0; r < receivers; ++r) threads.emplace_back(Receive, std::ref(q), std::ref(sum), std::ref(count));
    for (int s = 0; s < kSenders; ++s) {
      senders.emplace_back([&, s] {
        for (int i = 0; i < perSender; ++i) {
          const MsgWord value = static_cast<MsgWord>(s * perSender + i + 1);
          const MsgWord words[MSG_WORDS] = {value, 0, 0, 0, value * 3};
          auto reply = std::make_unique<uint32_t>(0);
          const bool wantReply = giveUp || i % 2 == 0;
          if (q.SendMsg(words, wantReply ? reply.get() : nullptr, timeoutMs, !giveUp)) {
            ++answered;
            badReplies += wantReply && *reply != value + 1;
          }
        }
      });
    }
    for (std::thread& t : senders) t.join();
    const MsgWord done[MSG_WORDS] = {kDone, 0, 0, 0, 0};
    for (int r = 0; r < receivers; ++r) ASSERT_EQ(q.SendMsg(done, nullptr, INFINITE, 0), 1);
    for (std::thread& t : threads) t.join();
    const int n = kSenders * perSender;
    EXPECT_EQ(badReplies.load(), 0) << timeoutMs;
    EXPECT_GE(count.load(), answered.load());
    EXPECT_LE(count.load(), n);
    if (!giveUp) {
      EXPECT_EQ(answered.load(), n);
      EXPECT_EQ(sum.load(), uint64_t(n) * (n + 1) / 2);
    }
  }
}

TEST(OSMsgQRace, CloseReleasesWaitingSenders) {
  for (int round = 0; round < 20; ++round) {
    COSMsgQ q;
    ASSERT_EQ(q.Create(4, 1, 0), 1);
    std::atomic<int> released{0};
    std::vector<uint32_t> replies(3, 77);
    std::vector<std::thread> senders;
    const MsgWord words[MSG_WORDS] = {1, 2, 3, 4, 5};
    for (uint32_t& reply : replies) senders.emplace_back([&] { released += q.SendMsg(words, &reply, INFINITE, 1); });
    while (q.Count() < 3) Sleep(1);
    q.Close();
    for (std::thread& t : senders) t.join();
    EXPECT_EQ(released.load(), 3);
    EXPECT_EQ(replies, std::vector<uint32_t>(3, 0));
  }
}

}  // namespace
