#include "PictureSink.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "PngWriter.h"

namespace {

int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Makes `path` if it is missing; false unless it ends up a writable folder.
bool MakeWritableFolder(const char* path, std::string* error) {
  if (mkdir(path, 0777) != 0 && errno != EEXIST) {
    *error = std::string("cannot make folder ") + path + ": " + std::strerror(errno);
    return false;
  }
  struct stat info;
  if (stat(path, &info) != 0 || !S_ISDIR(info.st_mode) || access(path, W_OK | X_OK) != 0) {
    *error = std::string(path) + " is not a writable folder";
    return false;
  }
  return true;
}

}  // namespace

bool PictureSink::Open(const PictureSinkOptions& options, const char* input, std::string* error) {
  options_ = options;
  lastPictureNs_.store(NowNs());
  if (options.y4mPath != nullptr && (!y4mOutput_.Prepare(options.y4mPath, {input}, WriteAccess::SEQUENTIAL, error) ||
                                     !y4m_.Open(y4mOutput_.WritePath(), error)))
    return false;
  return options.pngFolder == nullptr || MakeWritableFolder(options.pngFolder, error);
}

void PictureSink::Handle(void* context, const Picture& picture) {
  static_cast<PictureSink*>(context)->Deliver(picture);
}

void PictureSink::Deliver(const Picture& picture) {
  uint32_t number = pictures_.load();
  if (options_.maxPictures != 0 && number >= options_.maxPictures) return;
  if (options_.realtime) pacer_.Wait();
  if (!failed_.load()) {
    if (picture.size != picture.width * picture.height * 3 / 2) {
      Fail("the library delivered a picture of " + std::to_string(picture.size) + " bytes for " +
           std::to_string(picture.width) + "x" + std::to_string(picture.height));
    } else if (y4m_.is_open() && !y4m_.Write(picture.data, picture.width, picture.height)) {
      Fail("writing " + std::string(options_.y4mPath) + " failed");
    } else if (options_.pngFolder != nullptr && number % options_.pngEvery == 0) {
      char path[4096];
      std::snprintf(path, sizeof path, "%s/%06u.png", options_.pngFolder, number);
      std::string error;
      if (!WriteI420Png(path, picture.data, picture.width, picture.height, &error)) Fail(error);
    }
  }
  lastPictureNs_.store(NowNs());
  {
    std::lock_guard<std::mutex> guard(mutex_);
    lastStamp_ = picture.stamp;
    pictures_.store(number + 1);
  }
  arrived_.notify_all();
}

void PictureSink::Fail(const std::string& message) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (failed_.exchange(true)) return;
  error_ = message;
}

template <typename Done>
bool PictureSink::WaitUntil(Done done, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!done()) {
    uint32_t before = pictures_.load();
    if (!arrived_.wait_for(lock, timeout, [&] { return pictures_.load() != before; }))
      return false;
  }
  return true;
}

bool PictureSink::WaitForPictures(uint32_t count, std::chrono::milliseconds timeout) {
  return WaitUntil([&] { return pictures_.load() >= count; }, timeout);
}

bool PictureSink::WaitForLastFrame(uint32_t count, uint32_t lastStamp, uint32_t held,
                                   std::chrono::milliseconds timeout) {
  return WaitUntil(
      [&] {
        const uint32_t pictures = pictures_.load();
        return pictures >= count || (lastStamp_ == lastStamp && pictures + held >= count);
      },
      timeout);
}

std::chrono::milliseconds PictureSink::SinceLastPicture() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::nanoseconds(NowNs() - lastPictureNs_.load()));
}

bool PictureSink::Close(std::string* error) {
  std::string closeError;
  bool closed = y4m_.Close(&closeError);
  std::lock_guard<std::mutex> guard(mutex_);
  if (failed_.load()) {
    *error = error_;
    return false;
  }
  if (!closed) *error = closeError;
  return closed;
}
