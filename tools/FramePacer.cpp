#include "FramePacer.h"

#include <thread>

#include "TQFFormat.h"

namespace {

constexpr std::chrono::milliseconds FRAME_TIME{TQF_FRAME_DURATION_MS};
constexpr int64_t MAX_LAG_FRAMES = 5;

}  // namespace

void FramePacer::Wait() {
  auto now = std::chrono::steady_clock::now();
  if (!started_ || now - (start_ + frames_ * FRAME_TIME) > MAX_LAG_FRAMES * FRAME_TIME) {
    started_ = true;
    start_ = now;
    frames_ = 1;
    return;
  }
  std::this_thread::sleep_until(start_ + frames_ * FRAME_TIME);
  ++frames_;
}
