#include "FramePacer.h"

#include <thread>

#include "TQFFormat.h"

namespace {

constexpr std::chrono::microseconds FRAME_TIME{TQF_FRAME_DURATION_MS * 1000};
constexpr int64_t MAX_LAG_FRAMES = 5;

}  // namespace

void FramePacer::Wait() {
  const auto now = std::chrono::steady_clock::now();
  const auto frameTime = FRAME_TIME / speed_;
  if (!started_ || now - (start_ + frames_ * frameTime) > MAX_LAG_FRAMES * frameTime) {
    started_ = true;
    start_ = now;
    frames_ = 1;
    return;
  }
  std::this_thread::sleep_until(start_ + frames_ * frameTime);
  ++frames_;
}
