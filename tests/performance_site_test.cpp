#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "PerformanceSite.h"

int CountedWork(int n) {
  PERFORMANCE_SITE("CountedWork()");
  if (n < 0) throw std::runtime_error("leaves the function");
  volatile int sum = 0;
  for (int i = 0; i < n; ++i) sum = sum + i;
  return sum;
}

// One record per name and module, counting every call, from any thread and
// by any way out of the function.
TEST(PerformanceSite, CountsCallsFromSeveralThreadsAndExitsByException) {
  CountedWork(1);
  PerformanceSite* site = FindPerformanceSite("CountedWork()", "codelib");
  ASSERT_NE(site, nullptr);
  EXPECT_EQ(YCCRT_API_GetPerformanceSite("CountedWork()", "codelib"), site);
  EXPECT_NE(YCCRT_API_GetPerformanceSite("CountedWork()", "other"), site);
  EXPECT_EQ(FindPerformanceSite("NeverRequested()", "codelib"), nullptr);
  const uint64_t callsBefore = site->calls.load(), cyclesBefore = site->cycles.load();
  EXPECT_THROW(CountedWork(-1), std::runtime_error);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([] {
      for (int i = 0; i < 10000; ++i) CountedWork(100);
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(site->calls.load() - callsBefore, 40001u);
  EXPECT_GT(site->cycles.load(), cyclesBefore);
}
