// The fault guard on several threads at once: each thread's faults are caught
// by its own guard, and a member whose library faults keeps decoding.
#include <gtest/gtest.h>

#include <atomic>
#include <sys/mman.h>
#include <thread>
#include <vector>

#include "AVSDecoder.h"
#include "FaultGuard.h"

TEST(FaultGuardRace, ThreadsFaultAtTheSameTimeEachInItsOwnGuard) {
  constexpr int THREADS = 4, ROUNDS = 2000;
  static auto* page = static_cast<volatile uint8_t*>(
      mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  std::atomic<int> ready{0};
  std::vector<int> caught(THREADS, 0), completed(THREADS, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < THREADS; ++t)
    threads.emplace_back([&, t] {
      ready.fetch_add(1);
      while (ready.load() < THREADS) std::this_thread::yield();
      for (int i = 0; i < ROUNDS; ++i) {
        int progress = 0;
        auto body = [&] {
          progress = 1;
          if ((i + t) % 2 == 0) (void)page[i % 4096];
          progress = 2;
        };
        const bool finished = RunGuarded(body);
        ++(finished ? completed : caught)[t];
        EXPECT_EQ(progress, finished ? 2 : 1);
      }
    });
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < THREADS; ++t) {
    EXPECT_EQ(caught[t], ROUNDS / 2) << "thread " << t;
    EXPECT_EQ(completed[t], ROUNDS / 2) << "thread " << t;
  }
}

TEST(FaultGuardRace, DecodersOnSeveralThreadsSurviveTheirLibrarysFaults) {
  constexpr int THREADS = 3, FRAMES = 600;
  std::vector<int> pictures(THREADS, 0), lost(THREADS, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < THREADS; ++t)
    threads.emplace_back([&, t] {
      AVSDecoder decoder("avsprobe.dll");
      if (!decoder.Open(16, 16)) return;
      for (int i = 0; i < FRAMES; ++i) {
        // The probe library faults on a 0xFF byte and echoes any other.
        const uint8_t value = i % 3 == 0 ? 0xFF : uint8_t(t + 1);
        uint8_t* picture = decoder.Decode(&value, 1, nullptr);
        if (picture == nullptr)
          ++lost[t];
        else if (picture[16 * 16 * 3 / 2 - 1] == value)
          ++pictures[t];
      }
    });
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < THREADS; ++t) {
    EXPECT_EQ(lost[t], FRAMES / 3) << "thread " << t;
    EXPECT_EQ(pictures[t], FRAMES - FRAMES / 3) << "thread " << t;
  }
}
