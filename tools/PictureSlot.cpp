#include "PictureSlot.h"

#include <algorithm>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds ONE_SECOND{1};

}  // namespace

void PictureSlot::Handle(void* context, const Picture& picture) {
  static_cast<PictureSlot*>(context)->Store(picture);
}

void PictureSlot::SetPace(int speed) {
  speed_.store(speed);
  RestartPacing();
}

void PictureSlot::ShowWindow(uint32_t skip, uint32_t count, int64_t stamp) {
  std::lock_guard<std::mutex> guard(mutex_);
  showFrom_ = pictures_ + skip;
  showCount_ = count;
  showStamp_ = stamp;
}

void PictureSlot::Store(const Picture& picture) {
  bool shown;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    const uint32_t number = pictures_++;
    if (number < showFrom_ && showStamp_ == int64_t{picture.stamp}) showFrom_ = number;
    shown = number >= showFrom_ && (showCount_ == SHOW_ALL || number - showFrom_ < showCount_);
  }
  const int speed = speed_.load();
  if (shown && speed != UNPACED) {
    if (restartPacing_.exchange(false)) pacer_.Restart(speed);
    pacer_.Wait();
  }
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (shown && picture.width > 0 && picture.height > 0 &&
        picture.size == picture.width * picture.height * 3 / 2) {
      width_ = picture.width;
      height_ = picture.height;
      pixels_.assign(picture.data, picture.data + picture.size);
      stamp_ = picture.stamp;
      fresh_ = true;
      hasPicture_ = true;
    }
    if (shown) {
      lastArrival_ = Clock::now();
      arrivals_.push_back(lastArrival_);
      while (lastArrival_ - arrivals_.front() > ONE_SECOND) arrivals_.pop_front();
    }
  }
  stored_.notify_all();
}

uint32_t PictureSlot::Pictures() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return pictures_;
}

bool PictureSlot::WaitForPictures(uint32_t count, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  while (pictures_ < count) {
    const uint32_t before = pictures_;
    if (!stored_.wait_for(lock, timeout, [&] { return pictures_ != before; })) return false;
  }
  return true;
}

bool PictureSlot::WaitForPicture(Clock::time_point deadline) {
  std::unique_lock<std::mutex> lock(mutex_);
  return stored_.wait_until(lock, deadline, [this] { return hasPicture_; });
}

bool PictureSlot::HasPicture() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return hasPicture_;
}

void PictureSlot::Forget() {
  std::lock_guard<std::mutex> guard(mutex_);
  hasPicture_ = false;
  arrivals_.clear();
}

int32_t PictureSlot::Width() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return width_;
}

int32_t PictureSlot::Height() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return height_;
}

uint32_t PictureSlot::LastStamp() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return stamp_;
}

int PictureSlot::PicturesLastSecond() const {
  std::lock_guard<std::mutex> guard(mutex_);
  const Clock::time_point now = Clock::now();
  return static_cast<int>(std::count_if(arrivals_.begin(), arrivals_.end(),
                                        [now](Clock::time_point t) { return now - t <= ONE_SECOND; }));
}

Clock::time_point PictureSlot::LastArrival() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return lastArrival_;
}
