// PictureSlot: the newest picture of one source of `tqfplay view`, handed
// from the library's thread to the window's, and when the pictures came.
//
// The slot counts every picture delivered to it, and shows those of a
// window of that count: all of them, all from the n-th on (a seek by
// frames skips those before its target), or the n-th alone (a frame step
// decodes the frames before it to reach it). It paces the pictures it
// shows at 25 a second times a speed, or not at all when something else
// paces them (a live feed, a run of key frames).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <limits>
#include <mutex>
#include <vector>

#include "FramePacer.h"
#include "LibrarySession.h"
#include "PictureCounter.h"

class PictureSlot : public PictureCounter {
 public:
  // Speed 0: pictures are not paced.
  static constexpr int UNPACED = 0;
  explicit PictureSlot(int speed) : speed_(speed) {}

  // The LibrarySession handler; `context` is the PictureSlot.
  static void Handle(void* context, const Picture& picture);

  // Paces the next pictures shown at `speed` times 25 a second (UNPACED:
  // not at all), on a new schedule from the next one.
  void SetPace(int speed);
  // Starts a new schedule at the next picture (after a seek or a pause).
  void RestartPacing() { restartPacing_.store(true); }

  // Which of the pictures delivered from now on are shown: all of them; all
  // from the `skip`-th on (0: the next), or from an earlier one stamped
  // `stamp`; or the `index`-th alone, none after.
  void ShowAll() { ShowWindow(0, SHOW_ALL, NO_STAMP); }
  void ShowFrom(uint32_t skip, uint32_t stamp) { ShowWindow(skip, SHOW_ALL, stamp); }
  void ShowOnly(uint32_t index) { ShowWindow(index, 1, NO_STAMP); }

  // Pictures delivered, shown or not.
  uint32_t Pictures() const override;
  bool WaitForPictures(uint32_t count, std::chrono::milliseconds timeout) override;

  // Waits for a picture shown since the last Forget; false if none comes by `deadline`.
  bool WaitForPicture(std::chrono::steady_clock::time_point deadline);
  // Whether a picture was shown since the last Forget.
  bool HasPicture() const;
  // Forgets that pictures came: a dropped connection shows none until the
  // next one's first key frame.
  void Forget();
  // Hands a picture shown since the last call to `upload(pixels, width,
  // height)` (planar I420, valid during the call); false if none was.
  template <typename Upload>
  bool TakeFresh(Upload upload) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (!fresh_) return false;
    fresh_ = false;
    upload(pixels_.data(), width_, height_);
    return true;
  }
  // The size of the last picture shown; 0 before any.
  int32_t Width() const;
  int32_t Height() const;
  // The stamp word of the last picture shown.
  uint32_t LastStamp() const;
  // Pictures shown in the last second.
  int PicturesLastSecond() const;
  std::chrono::steady_clock::time_point LastArrival() const;

 private:
  static constexpr uint32_t SHOW_ALL = std::numeric_limits<uint32_t>::max();
  static constexpr int64_t NO_STAMP = -1;

  void ShowWindow(uint32_t skip, uint32_t count, int64_t stamp);
  void Store(const Picture& picture);

  std::atomic<int> speed_;
  std::atomic<bool> restartPacing_{true};
  FramePacer pacer_;  // the delivering thread only
  mutable std::mutex mutex_;  // guards everything below, and pairs with stored_
  std::condition_variable stored_;
  uint32_t pictures_ = 0;
  uint32_t showFrom_ = 0;           // the window of picture numbers shown
  uint32_t showCount_ = SHOW_ALL;
  int64_t showStamp_ = NO_STAMP;    // a stamp that opens the window early
  std::vector<uint8_t> pixels_;
  int32_t width_ = 0;
  int32_t height_ = 0;
  uint32_t stamp_ = 0;
  bool fresh_ = false;
  bool hasPicture_ = false;
  std::chrono::steady_clock::time_point lastArrival_;
  std::deque<std::chrono::steady_clock::time_point> arrivals_;  // within a second of the newest
};
