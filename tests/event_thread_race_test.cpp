#include "EventThreadEx.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "wait_test_support.h"

namespace {

struct Counts {
  std::atomic<int> calls{0}, badEvents{0}, begins{0}, ends{0};
  std::atomic<int> perKey[3] = {};
};

int32_t Count(void* context, HandleObj key, uint32_t events) {
  Counts* c = static_cast<Counts*>(context);
  ++c->calls;
  if (events != 3) ++c->badEvents;
  if (key >= 1 && key <= 3) ++c->perKey[key - 1];
  return 1;
}

void Begin(void* context) { ++static_cast<Counts*>(context)->begins; }
void End(void* context) { ++static_cast<Counts*>(context)->ends; }

// Three threads add, signal and delete their own key over and over: each
// signal given while the key is in is served exactly once, and only then.
TEST(EventThreadRace, CommandsAndSignalsFromManyThreads) {
  constexpr int kRounds = 200;
  Counts counts;
  auto thread = std::make_unique<CCallbackEventThread>(nullptr, nullptr, nullptr, nullptr);
  ASSERT_EQ(thread->OpenWithCallback(Count, &counts, 1, 0x100000, INFINITE, 0), 1);
  std::atomic<int> failures{0}, undelivered{0};
  std::vector<std::thread> users;
  for (int u = 0; u < 3; ++u) {
    users.emplace_back([&, u] {
      HANDLE event = CreateEventA(nullptr, 0, 0, nullptr);
      const HandleObj key = static_cast<HandleObj>(u + 1);
      for (int round = 0; round < kRounds; ++round) {
        if (thread->AddHandle(key, event, -1, round % 2, 3) != 1) ++failures;
        SetEvent(event);
        if (!WaitUntil([&] { return counts.perKey[u].load() == round + 1; })) ++undelivered;
        if (thread->DelHandle(key, 1) != 1) ++failures;
      }
      CloseHandle(event);
    });
  }
  for (std::thread& t : users) t.join();
  thread->Close(INFINITE);
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(undelivered.load(), 0);
  for (auto& n : counts.perKey) EXPECT_EQ(n.load(), kRounds);
  EXPECT_EQ(counts.calls.load(), 3 * kRounds);  // nothing served twice or for another key
  EXPECT_EQ(counts.badEvents.load(), 0);
}

// Start and stop are handled in every cycle although a handle keeps firing.
TEST(EventThreadRace, OpenAndCloseWhileAnotherThreadSignals) {
  Counts counts;
  auto thread = std::make_unique<CCallbackEventThread>(Begin, &counts, End, &counts);
  HANDLE event = CreateEventA(nullptr, 0, 0, nullptr);
  std::atomic<bool> stop{false};
  std::thread signaller([&] {
    while (!stop.load()) {
      SetEvent(event);
      Sleep(0);
    }
  });
  for (int cycle = 0; cycle < 100; ++cycle) {
    ASSERT_EQ(thread->OpenWithCallback(Count, &counts, cycle % 4, 0, INFINITE, 0), 1);
    ASSERT_EQ(thread->AddHandle(1, event, -1, 1, 3), 1);
    thread->Close(INFINITE);
    ASSERT_EQ(counts.ends.load(), cycle + 1);
  }
  stop = true;
  signaller.join();
  EXPECT_EQ(counts.begins.load(), 100);
  EXPECT_GT(counts.perKey[0].load(), 0);
  EXPECT_EQ(counts.calls.load(), counts.perKey[0].load());
  CloseHandle(event);
}

}  // namespace
