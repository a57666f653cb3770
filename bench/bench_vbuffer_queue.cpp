// The live stream's queue cycle: the writer reserves a block at the tail,
// copies a frame in and commits (evicting when full); the reader takes the
// oldest block, holds it, and releases and removes it.
//
// Prints block cycles per second on one thread and with writer and reader on
// two threads, and the rate of 64 KiB blocks against plain memcpy of the same
// bytes, measured in the same run.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "VBufferQueue.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kSeconds = 1.0;
constexpr int32_t kVideoQueueSize = 0x2000000;

double Since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Runs `step` (which does `batch` cycles) until kSeconds have passed; cycles per second.
template <typename Step>
double Rate(int64_t batch, Step step) {
  int64_t done = 0;
  const Clock::time_point start = Clock::now();
  double elapsed = 0;
  do {
    step();
    done += batch;
    elapsed = Since(start);
  } while (elapsed < kSeconds);
  return static_cast<double>(done) / elapsed;
}

// One writer step: reserve, copy, commit. False when no room could be made.
bool Produce(VBufferQueue& q, const uint8_t* frame, int32_t size) {
  uint8_t* block = q.PrepareNewBufferAtTail(size, 1, nullptr);
  if (block == nullptr) return false;
  std::memcpy(block, frame, static_cast<size_t>(size));
  return q.NewBufferAtTail(block, -1, 0, 0, 0) == 1;
}

// One reader step: take the oldest block, touch it, release and remove it.
// `designed` uses the two calls ReleaseBuffer and RemoveBufferAtHead.
bool Consume(VBufferQueue& q, bool designed, uint64_t* sink) {
  int32_t size = 0;
  uint8_t* block = q.GetBuffer(nullptr, &size, nullptr);
  if (block == nullptr) return false;
  *sink += block[0] + block[size - 1];
  if (designed) {
    q.ReleaseBuffer(block, 0);
    q.RemoveBufferAtHead(nullptr);
  } else {
    q.ReleaseAndRemoveAtHead(block, 0, nullptr);
  }
  return true;
}

double OneThread(int32_t size, bool designed, uint64_t* sink) {
  VBufferQueue q(1, 0);
  q.Open(kVideoQueueSize, nullptr, nullptr, 4);
  std::vector<uint8_t> frame(static_cast<size_t>(size), 0x5A);
  return Rate(1000, [&] {
    for (int i = 0; i < 1000; ++i) {
      Produce(q, frame.data(), size);
      Consume(q, designed, sink);
    }
  });
}

// The peer: memcpy of the same frame to the very address where the queue puts
// its block, so that both copies meet the same alignment and cache.
double PlainMemcpy(int32_t size, uint64_t* sink) {
  VBufferQueue q(1, 0);
  q.Open(kVideoQueueSize, nullptr, nullptr, 4);
  std::vector<uint8_t> frame(static_cast<size_t>(size), 0x5A);
  uint8_t* dst = q.PrepareNewBufferAtTail(size, 0, nullptr);
  const double rate = Rate(1000, [&] {
    for (int i = 0; i < 1000; ++i) {
      std::memcpy(dst, frame.data(), static_cast<size_t>(size));
      asm volatile("" : : "r"(dst) : "memory");
      *sink += dst[size - 1];
    }
  });
  q.NewBufferAtTail(dst, 0, 0, 0, 0);  // cancel
  return rate;
}

struct TwoThreadResult {
  double consumed;  // blocks the reader took per second
  double produced;  // blocks committed per second
};

TwoThreadResult TwoThreads(int32_t size, uint64_t* sink) {
  VBufferQueue q(1, 0);
  q.Open(kVideoQueueSize, nullptr, nullptr, 4);
  std::vector<uint8_t> frame(static_cast<size_t>(size), 0x5A);
  std::atomic<bool> stop{false};
  int64_t produced = 0;
  std::thread writer([&] {
    while (!stop.load(std::memory_order_relaxed)) produced += Produce(q, frame.data(), size) ? 1 : 0;
  });
  int64_t consumed = 0;
  const Clock::time_point start = Clock::now();
  double elapsed = 0;
  do {
    for (int i = 0; i < 1000; ++i) consumed += Consume(q, false, sink) ? 1 : 0;
    elapsed = Since(start);
  } while (elapsed < kSeconds);
  stop = true;
  writer.join();
  const double total = Since(start);
  return {static_cast<double>(consumed) / elapsed, static_cast<double>(produced) / total};
}

}  // namespace

int main() {
  uint64_t sink = 0;
  std::printf("bench_vbuffer_queue: 32 MiB queue with its lock, no reader tracking\n");

  const double one = OneThread(1024, false, &sink);
  const double designed = OneThread(1024, true, &sink);
  std::printf("one thread, 1 KiB: %.2f M cycles/s (reserve, copy, commit, get, release+remove)\n",
              one / 1e6);
  std::printf("one thread, 1 KiB, ReleaseBuffer then RemoveBufferAtHead: %.2f M cycles/s\n",
              designed / 1e6);
  std::printf("  target 5 M cycles/s: %.2fx of target\n", one / 5e6);

  const TwoThreadResult two = TwoThreads(1024, &sink);
  std::printf("two threads, 1 KiB: reader %.2f M blocks/s, writer %.2f M commits/s\n",
              two.consumed / 1e6, two.produced / 1e6);

  constexpr int32_t kLarge = 64 * 1024;
  const double queue64 = OneThread(kLarge, false, &sink);
  const double memcpy64 = PlainMemcpy(kLarge, &sink);
  std::printf("64 KiB through the queue: %.2f GB/s; plain memcpy: %.2f GB/s; ratio %.1f%% "
              "(target at least 70%%)\n",
              queue64 * kLarge / 1e9, memcpy64 * kLarge / 1e9, 100.0 * queue64 / memcpy64);
  return sink == 42 ? 1 : 0;  // keeps the reads alive
}
