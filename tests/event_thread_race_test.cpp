#include "EventThreadEx.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "OSTime.h"

namespace {

struct Counts {
  std::atomic<int> calls{0};
  std::atomic<int> perKey[4] = {};
};

int32_t Count(void* context, HandleObj key, uint32_t) {
  Counts* c = static_cast<Counts*>(context);
  ++c->calls;
  if (key >= 1 && key <= 4) ++c->perKey[key - 1];
  return 1;
}

TEST(EventThreadRace, CommandsAndSignalsFromManyThreads) {
  Counts counts;
  auto thread = std::make_unique<CCallbackEventThread>(nullptr, nullptr, nullptr, nullptr);
  ASSERT_EQ(thread->OpenWithCallback(Count, &counts, 1, 0x100000, INFINITE, 0), 1);
  std::atomic<int> failures{0};
  std::vector<std::thread> users;
  for (int u = 0; u < 3; ++u) {
    users.emplace_back([&, u] {
      HANDLE event = CreateEventA(nullptr, 0, 0, nullptr);
      const HandleObj key = static_cast<HandleObj>(u + 1);
      for (int round = 0; round < 200; ++round) {
        if (thread->AddHandle(key, event, -1, round % 2, 3) != 1) ++failures;
        SetEvent(event);
        if (thread->DelHandle(key, 1) != 1) ++failures;
      }
      CloseHandle(event);
    });
  }
  for (std::thread& t : users) t.join();
  thread->Close(INFINITE);
  EXPECT_EQ(failures.load(), 0);
  RecordProperty("calls", counts.calls.load());
}

TEST(EventThreadRace, OpenAndCloseWhileAnotherThreadSignals) {
  Counts counts;
  auto thread = std::make_unique<CCallbackEventThread>(nullptr, nullptr, nullptr, nullptr);
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
  }
  stop = true;
  signaller.join();
  EXPECT_GT(counts.perKey[0].load(), 0);
  CloseHandle(event);
}

}  // namespace
