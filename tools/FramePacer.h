// FramePacer: holds its caller to 25 pictures a second, the rate every time
// of the library counts with, or to a multiple of it for fast forward.
// Wait() returns at start + n * 40 ms / speed for its n-th call since the
// last Restart(). A caller that falls more than a few frames behind (a slow
// disk, a stopped debugger) starts a new schedule instead of rushing to
// catch up.
#pragma once

#include <chrono>
#include <cstdint>

class FramePacer {
 public:
  // The next Wait() returns at once and starts a schedule at `speed` times
  // 25 pictures a second (at least 1) from there.
  void Restart(int speed = 1) {
    started_ = false;
    speed_ = speed < 1 ? 1 : speed;
  }
  void Wait();

 private:
  std::chrono::steady_clock::time_point start_;
  int64_t frames_ = 0;
  int speed_ = 1;
  bool started_ = false;
};
