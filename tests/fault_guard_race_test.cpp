// The fault guard on several threads at once: each thread's faults are caught
// by its own guard, while the others' bodies run on.
#include <gtest/gtest.h>

#include <atomic>
#include <sys/mman.h>
#include <thread>
#include <vector>

#include "FaultGuard.h"

TEST(FaultGuardRace, ThreadsFaultAtTheSameTimeEachInItsOwnGuard) {
  constexpr int THREADS = 4, ROUNDS = 2000;
  static auto* page = static_cast<volatile uint8_t*>(
      mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  std::atomic<int> ready{0};
  std::vector<int> caught(THREADS, 0), wrong(THREADS, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < THREADS; ++t)
    threads.emplace_back([&, t] {
      for (++ready; ready.load() < THREADS;) std::this_thread::yield();
      for (int i = 0; i < ROUNDS; ++i) {
        int progress = 0;
        auto body = [&] {
          progress = 1;
          if ((i + t) % 2 == 0) (void)page[i % 4096];
          progress = 2;
        };
        const bool finished = RunGuarded(body);
        caught[t] += !finished;
        wrong[t] += progress != (finished ? 2 : 1) || finished != ((i + t) % 2 == 1);
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(caught, std::vector<int>(THREADS, ROUNDS / 2));
  EXPECT_EQ(wrong, std::vector<int>(THREADS, 0));
}
