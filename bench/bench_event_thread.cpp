// Figures for the event thread's building blocks: the block pool against
// malloc/free, the message queue with and without reply, the event thread's
// command round trip, and the many-object wait at 64 and 4032 objects.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "EventThreadEx.h"
#include "OSMsgQ.h"
#include "PerformanceSite.h"
#include "RecursiveLock.h"
#include "SameSizeMemPool.h"
#include "WaitForMultipleObjectsExpand.h"

namespace {

using Clock = std::chrono::steady_clock;

// Keeps the compiler from dropping an allocation it can see through.
void Keep(void* p) { asm volatile("" : : "g"(p) : "memory"); }

template <class F>
double NsPer(int n, F body) {
  const auto start = Clock::now();
  for (int i = 0; i < n; ++i) body(i);
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / n;
}

struct Block {
  char bytes[36];
};

void BenchPool() {
  constexpr int kN = 2000000;
  SameSizeMemPool<Block> pool(64, 1, 0);
  const double pooled = NsPer(kN, [&](int) {
    Block* b = pool.Alloc();
    Keep(b);
    pool.Free(b);
  });
  const double heap = NsPer(kN, [&](int) {
    void* b = malloc(sizeof(Block));
    Keep(b);
    free(b);
  });
  printf("pool Alloc+Free        %8.1f ns   malloc+free %8.1f ns   ratio %.2f\n", pooled, heap,
         pooled / heap);
  // What a pair is made of: two lock round trips (popLock, and the chunk
  // check never takes growLock here) and two performance sites.
  CRecursiveLock lock;
  const double locked = NsPer(kN, [&](int) {
    lock.Lock();
    lock.Unlock();
  });
  const double site = NsPer(kN, [&](int) { PERFORMANCE_SITE("bench_event_thread::Site()"); });
  printf("  of which: CRecursiveLock Lock+Unlock %.1f ns, performance site %.1f ns\n", locked, site);
}

void BenchQueue() {
  constexpr int kN = 100000;
  COSMsgQ q;
  q.Create(4, 1, 0);
  std::thread receiver([&] {
    MsgWord words[MSG_WORDS];
    for (int i = 0; i < 2 * kN; ++i) q.ReceiveMsg(words, 1, INFINITE);
  });
  const MsgWord words[MSG_WORDS] = {1, 2, 3, 4, 5};
  const double posted = NsPer(kN, [&](int) { q.SendMsg(words, nullptr, INFINITE, 0); });
  uint32_t reply = 0;
  const double replied = NsPer(kN, [&](int) { q.SendMsg(words, &reply, INFINITE, 1); });
  receiver.join();
  printf("COSMsgQ post           %8.1f ns   round trip with reply %8.1f ns   ratio %.2f\n", posted,
         replied, replied / posted);
}

void BenchEventThread() {
  constexpr int kN = 20000;
  auto thread = std::make_unique<CCallbackEventThread>(nullptr, nullptr, nullptr, nullptr);
  thread->OpenWithCallback([](void*, HandleObj, uint32_t) { return 1; }, nullptr, 1, 0x100000,
                           INFINITE, 0);
  HANDLE event = CreateEventA(nullptr, 0, 0, nullptr);
  const double command = NsPer(kN, [&](int) {
    thread->AddHandle(1, event, -1, 1, 3);
    thread->DelHandle(1, 1);
  });
  constexpr int kCycles = 500;
  const double cycle = NsPer(kCycles, [&](int) {
    thread->Close(INFINITE);
    thread->OpenWithCallback([](void*, HandleObj, uint32_t) { return 1; }, nullptr, 1, 0x100000,
                             INFINITE, 0);
  });
  thread->Close(INFINITE);
  CloseHandle(event);
  printf("CEventThread add+del   %8.1f us   close+open %8.1f us\n", command / 1000.0,
         cycle / 1000.0);
}

void BenchWait() {
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur < 9000 && (limit.rlim_max == RLIM_INFINITY || limit.rlim_max >= 9000)) {
    limit.rlim_cur = 9000;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  double perSize[2];
  const int sizes[2] = {64, WAIT_SET_MAX_HANDLES};
  for (int s = 0; s < 2; ++s) {
    const int n = sizes[s];
    std::vector<HANDLE> handles;
    for (int i = 0; i < n; ++i) handles.push_back(CreateEventA(nullptr, 0, 0, nullptr));
    auto set = std::make_unique<WaitHandleSet>();
    std::vector<int32_t> out(static_cast<size_t>(n));
    int32_t count = 0;
    set->WaitAnySignaled(handles.data(), n, 0, out.data(), &count, 1);
    perSize[s] = NsPer(2000, [&](int i) {
      SetEvent(handles[static_cast<size_t>((i * 37) % n)]);
      set->WaitAnySignaled(handles.data(), n, INFINITE, out.data(), &count, 0);
    });
    set.reset();
    for (HANDLE h : handles) CloseHandle(h);
  }
  printf("WaitAnySignaled 64     %8.1f us   4032 %8.1f us   ratio %.1f\n", perSize[0] / 1000.0,
         perSize[1] / 1000.0, perSize[1] / perSize[0]);
}

}  // namespace

int main() {
  BenchPool();
  BenchQueue();
  BenchEventThread();
  BenchWait();
  return 0;
}
