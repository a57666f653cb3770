// FramePacer: holds its caller to 25 pictures a second, the rate every time
// of the library counts with. Wait() returns at start + n * 40 ms for its
// n-th call since the last Restart(). A caller that falls more than a few
// frames behind (a slow disk, a stopped debugger) starts a new schedule
// instead of rushing to catch up.
#pragma once

#include <chrono>
#include <cstdint>

class FramePacer {
 public:
  // The next Wait() returns at once and starts the schedule from there.
  void Restart() { started_ = false; }
  void Wait();

 private:
  std::chrono::steady_clock::time_point start_;
  int64_t frames_ = 0;
  bool started_ = false;
};
