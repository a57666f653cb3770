#include "TrickPlay.h"

#include <algorithm>
#include <numeric>
#include <vector>

#include "TQFFormat.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::microseconds FRAME_TIME{TQF_FRAME_DURATION_MS * 1000};
// The longest a step may wait for the decoder's next picture.
constexpr std::chrono::seconds SHOW_TIMEOUT{5};

uint32_t Distance(uint32_t a, uint32_t b) { return a > b ? a - b : b - a; }

}  // namespace

bool TrickPlay::Open(const char* path, std::string* error) {
  if (!opened_) {
    opened_ = true;
    if (feed_.Open(path, &openError_) && feed_.KeyFrames().empty())
      openError_ = std::string(path) + " has no key frame";
  }
  *error = openError_;
  return openError_.empty();
}

uint32_t TrickPlay::FrameOfStamp(uint32_t stamp, uint32_t near) const {
  if (stamp == lookup_.stamp && near == lookup_.near) return lookup_.frame;
  const MediaSource& source = feed_.Source();
  uint32_t best = near;
  bool found = false;
  for (uint32_t frame = 0; frame < source.VideoFrames(); ++frame) {
    if (source.VideoStamp(frame) != stamp) continue;
    if (!found || Distance(frame, near) < Distance(best, near)) best = frame;
    found = true;
  }
  lookup_ = {stamp, near, best};
  return best;
}

void TrickPlay::Run(uint32_t from, int speed) {
  Stop();
  speed_.store(speed);
  fed_.store(from);
  ended_.store(false);
  stop_ = false;
  slot_.SetPace(PictureSlot::UNPACED);  // the run paces itself
  slot_.ShowAll();
  run_ = std::thread(&TrickPlay::RunKeyFrames, this, from);
}

uint32_t TrickPlay::Stop() {
  if (run_.joinable()) {
    {
      std::lock_guard<std::mutex> guard(stopMutex_);
      stop_ = true;
    }
    stopRequested_.notify_all();
    run_.join();
  }
  return fed_.load();
}

bool TrickPlay::WaitUntil(Clock::time_point due) {
  std::unique_lock<std::mutex> lock(stopMutex_);
  return !stopRequested_.wait_until(lock, due, [this] { return stop_; });
}

// Frame k shows at base + (k - baseFrame) * 40 ms / speed; a new speed
// starts a new schedule at the last frame fed.
void TrickPlay::RunKeyFrames(uint32_t from) {
  std::string error;  // a run that fails just ends: the tile keeps its picture
  StreamHandle stream;
  const std::vector<uint32_t>& keys = feed_.KeyFrames();
  auto key = std::lower_bound(keys.begin(), keys.end(), from);
  if (key == keys.end() || !feed_.OpenStream(session_, route_, &stream, &error)) {
    ended_.store(true);
    return;
  }
  const uint32_t before = slot_.Pictures();
  uint32_t count = 0;
  int speed = speed_.load();
  Clock::time_point base = Clock::now();
  uint32_t baseFrame = *key;
  for (; key != keys.end(); ++key) {
    if (speed_.load() != speed) {
      speed = speed_.load();
      base = Clock::now();
      baseFrame = fed_.load();
    }
    if (!WaitUntil(base + (*key - baseFrame) * FRAME_TIME / speed)) return;
    if (!feed_.FeedFrame(stream, *key, &error)) break;
    fed_.store(*key);
    ++count;
  }
  if (count > 0) feed_.FlushHeld(stream, fed_.load(), slot_, before + count, &error);
  ended_.store(true);
}

bool TrickPlay::Show(uint32_t frame, std::string* error) {
  Stop();
  uint32_t key;
  if (!feed_.KeyFrameAtOrBefore(frame, &key)) {
    *error = "no key frame at or before frame " + std::to_string(frame);
    return false;
  }
  std::vector<uint32_t> frames(frame - key + 1);
  std::iota(frames.begin(), frames.end(), key);
  slot_.SetPace(PictureSlot::UNPACED);
  slot_.ShowOnly(frame - key);
  return feed_.Play(session_, route_, slot_, frames, SHOW_TIMEOUT, error);
}
