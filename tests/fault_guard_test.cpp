#include <gtest/gtest.h>

#include <csignal>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

#include "FaultGuard.h"

// A page that faults on any access, as a broken library's pointer would.
volatile uint8_t* FaultingPage() {
  static void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return static_cast<volatile uint8_t*>(page);
}

void ReadFault() { (void)FaultingPage()[12]; }

// A fault ends the guarded body at once with false; the thread goes on and
// the next guarded run works. The innermost guard catches; once it has, a
// fault in the outer body is the outer guard's.
TEST(FaultGuard, FaultEndsTheInnermostBodyAndLeavesTheThreadUsable) {
  void (*const faults[])() = {ReadFault, [] { FaultingPage()[100] = 1; }, [] { raise(SIGBUS); },
                              [] { raise(SIGFPE); }, [] { raise(SIGILL); }};
  for (auto& fault : faults) {
    int reached = 0;
    auto faulting = [&] { reached = 1, fault(), reached = 2; };
    auto fine = [&] { reached += 10; };
    EXPECT_TRUE(!RunGuarded(faulting) && RunGuarded(fine) && reached == 11) << "fault " << &fault - faults;
  }
  bool inner = true, outerReachedEnd = false;
  auto faulting = ReadFault;
  auto outer = [&] {
    inner = RunGuarded(faulting);
    outerReachedEnd = true;
    ReadFault();
  };
  EXPECT_FALSE(RunGuarded(outer));
  EXPECT_FALSE(inner);
  EXPECT_TRUE(outerReachedEnd);
}

// A runaway recursion exhausts the stack; the handler still runs, on the
// thread's alternate stack, and the guard catches it, on a fresh thread too.
int Recurse(int depth) {
  volatile char ballast[1024];
  ballast[0] = char(depth);
  return depth > 1000000000 ? ballast[0] : Recurse(depth + 1) + ballast[0];
}

TEST(FaultGuard, StackExhaustionOnAFreshThread) {
  int caught = 0;
  auto runaway = [] { Recurse(0); };
  std::thread([&] { caught = !RunGuarded(runaway) + !RunGuarded(runaway); }).join();
  EXPECT_EQ(caught, 2);
}

// Outside any guard a fault is not ours: the handler that was there before
// the guard's gets it, or else the default action. Each case runs in a fresh
// process so that the guard's handler is installed after the host's.
void HostHandler(int) { _exit(42); }

void FaultOutsideAGuard(int signal, void (*host)(int), bool sent) {
  ::signal(signal, host);
  auto faulting = ReadFault;
  RunGuarded(faulting);
  sent ? (void)raise(signal) : ReadFault();
}

TEST(FaultGuardDeathTest, FaultOutsideAGuardReachesTheHostOrTheDefault) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(FaultOutsideAGuard(SIGSEGV, HostHandler, false), testing::ExitedWithCode(42), "");
  EXPECT_EXIT(FaultOutsideAGuard(SIGSEGV, SIG_DFL, false), testing::KilledBySignal(SIGSEGV), "");
  EXPECT_EXIT(FaultOutsideAGuard(SIGFPE, SIG_DFL, true), testing::KilledBySignal(SIGFPE), "");
}
