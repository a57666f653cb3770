#include <gtest/gtest.h>

#include <csignal>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

#include "FaultGuard.h"

namespace {

// A page that faults on any access, as a broken library's pointer would.
volatile uint8_t* FaultingPage() {
  static void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return static_cast<volatile uint8_t*>(page);
}

struct FaultCase {
  const char* name;
  void (*raiseFault)();
};

void ReadFault() { (void)FaultingPage()[12]; }
void WriteFault() { FaultingPage()[100] = 1; }
void Bus() { raise(SIGBUS); }
void FloatingPoint() { raise(SIGFPE); }
void Illegal() { raise(SIGILL); }

class GuardedFault : public testing::TestWithParam<FaultCase> {};

// A fault ends the guarded body at once with false; the thread goes on and
// the next guarded run works.
TEST_P(GuardedFault, EndsTheBodyAndLeavesTheThreadUsable) {
  int reached = 0;
  auto faulting = [&] {
    reached = 1;
    GetParam().raiseFault();
    reached = 2;
  };
  EXPECT_FALSE(RunGuarded(faulting));
  EXPECT_EQ(reached, 1);
  int ran = 0;
  auto fine = [&] { ran = 7; };
  EXPECT_TRUE(RunGuarded(fine));
  EXPECT_EQ(ran, 7);
}

INSTANTIATE_TEST_SUITE_P(Signals, GuardedFault,
                         testing::Values(FaultCase{"read", ReadFault}, FaultCase{"write", WriteFault},
                                         FaultCase{"bus", Bus}, FaultCase{"fpe", FloatingPoint},
                                         FaultCase{"ill", Illegal}),
                         [](const testing::TestParamInfo<FaultCase>& param) { return param.param.name; });

TEST(FaultGuard, InnermostGuardCatches) {
  bool inner = true, outerReachedEnd = false;
  auto outer = [&] {
    auto faulting = [] { ReadFault(); };
    inner = RunGuarded(faulting);
    outerReachedEnd = true;
  };
  EXPECT_TRUE(RunGuarded(outer));
  EXPECT_FALSE(inner);
  EXPECT_TRUE(outerReachedEnd);
  // Once the nested runs are over, a fault in the outer body is the outer's.
  auto faulting = [] { WriteFault(); };
  EXPECT_FALSE(RunGuarded(faulting));
}

TEST(FaultGuard, ManyFaultsInARowOnFreshThreads) {
  for (int round = 0; round < 3; ++round) {
    int caught = 0;
    std::thread worker([&] {
      for (int i = 0; i < 500; ++i) {
        auto faulting = [] { ReadFault(); };
        if (!RunGuarded(faulting)) ++caught;
      }
    });
    worker.join();
    EXPECT_EQ(caught, 500);
  }
}

// A runaway recursion exhausts the stack; the handler still runs, on the
// thread's alternate stack, and the guard catches it.
int Recurse(int depth) {
  volatile char ballast[1024];
  ballast[0] = char(depth);
  return depth > 1000000000 ? ballast[0] : Recurse(depth + 1) + ballast[0];
}

TEST(FaultGuard, CatchesStackExhaustion) {
  bool caught = false;
  std::thread worker([&] {
    auto runaway = [] { Recurse(0); };
    caught = !RunGuarded(runaway);
  });
  worker.join();
  EXPECT_TRUE(caught);
}

// Outside any guard a fault is not ours: the handler that was there before
// the guard's gets it. Each case runs in a fresh process so that the guard's
// handler is installed after the host's.
void HostHandler(int) { _exit(42); }

TEST(FaultGuardDeathTest, FaultOutsideAGuardReachesTheHostsHandler) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        signal(SIGSEGV, HostHandler);
        auto nothing = [] {};
        RunGuarded(nothing);
        ReadFault();
      },
      testing::ExitedWithCode(42), "");
}

TEST(FaultGuardDeathTest, FaultOutsideAGuardGetsTheDefaultAction) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        signal(SIGSEGV, SIG_DFL);
        auto faulting = [] { ReadFault(); };
        RunGuarded(faulting);
        ReadFault();
      },
      testing::KilledBySignal(SIGSEGV), "");
}

TEST(FaultGuardDeathTest, SentSignalOutsideAGuardGetsTheDefaultAction) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        signal(SIGFPE, SIG_DFL);
        auto nothing = [] {};
        RunGuarded(nothing);
        raise(SIGFPE);
      },
      testing::KilledBySignal(SIGFPE), "");
}

}  // namespace
