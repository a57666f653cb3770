#include "EventThreadEx.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "wait_test_support.h"

namespace {

struct Counts {
  std::atomic<int> calls{0}, badEvents{0};
  std::atomic<int> perKey[3] = {};
};

int32_t Count(void* context, HandleObj key, uint32_t events) {
  Counts* c = static_cast<Counts*>(context);
  ++c->calls;
  if (events != 3) ++c->badEvents;
  if (key >= 1 && key <= 3) ++c->perKey[key - 1];
  return 1;
}

// Three threads add, signal and delete their own key over and over: each
// signal given while the key is in is served exactly once, and only then.
TEST(EventThreadRace, CommandsAndSignalsFromManyThreads) {
  constexpr int kRounds = 200;
  Counts counts;
  CCallbackEventThread thread(nullptr, nullptr, nullptr, nullptr);
  ASSERT_EQ(thread.OpenWithCallback(Count, &counts, 1, 0x100000, INFINITE, 0), 1);
  std::atomic<int> failures{0};
  std::vector<std::thread> users;
  for (int u = 0; u < 3; ++u) {
    users.emplace_back([&, u] {
      HANDLE event = CreateEventA(nullptr, 0, 0, nullptr);
      const HandleObj key = static_cast<HandleObj>(u + 1);
      for (int round = 0; round < kRounds; ++round) {
        failures += thread.AddHandle(key, event, -1, round % 2, 3) != 1;
        SetEvent(event);
        failures += !WaitUntil([&] { return counts.perKey[u].load() == round + 1; });
        failures += thread.DelHandle(key, 1) != 1;
      }
      CloseHandle(event);
    });
  }
  for (std::thread& t : users) t.join();
  thread.Close(INFINITE);
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(counts.calls.load(), 3 * kRounds);  // nothing served twice or for another key
  EXPECT_EQ(counts.badEvents.load(), 0);
}

}  // namespace
