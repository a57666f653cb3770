// PictureSink: where the pictures of play and stream go. On the library's
// thread it counts each picture, appends it to a Y4M file, writes every N-th
// as a PNG still and, when asked, holds delivery to 25 pictures a second (in
// the callback, the one place a host can pace the library). The run's own
// thread waits on the count and reads the first failure.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "FramePacer.h"
#include "LibrarySession.h"
#include "OutputFile.h"
#include "PictureCounter.h"
#include "Y4MWriter.h"

struct PictureSinkOptions {
  const char* y4mPath = nullptr;    // no Y4M when null
  const char* pngFolder = nullptr;  // no stills when null
  uint32_t pngEvery = 25;           // a still of pictures 0, N, 2N, ...
  bool realtime = false;            // pace delivery at 25 pictures a second
  uint32_t maxPictures = 0;         // pictures past this many are ignored (0: none)
};

class PictureSink : public PictureCounter {
 public:
  // Creates the Y4M file (a temporary one beside it, see OutputFile; never
  // over `input`) and the PNG folder now, so that an unwritable output fails
  // before anything plays. False with a message.
  bool Open(const PictureSinkOptions& options, const char* input, std::string* error);

  // The LibrarySession handler; `context` is the PictureSink.
  static void Handle(void* context, const Picture& picture);

  uint32_t Pictures() const override { return pictures_.load(); }
  bool WaitForPictures(uint32_t count, std::chrono::milliseconds timeout) override;
  // The same, but also true once the picture of the frame stamped `lastStamp`
  // has arrived with at most `held` of the `count` missing: a decoder that
  // reorders (B-frames) keeps its last pictures until more data comes, and a
  // stream that has ended brings none.
  bool WaitForLastFrame(uint32_t count, uint32_t lastStamp, uint32_t held,
                        std::chrono::milliseconds timeout);
  // Time since the last picture, or since Open when there was none.
  std::chrono::milliseconds SinceLastPicture() const;
  // Whether writing an output failed; the message is for Close.
  bool Failed() const { return failed_.load(); }
  // Closes the outputs. False with the first failure's message.
  bool Close(std::string* error);
  // After a run that succeeded: puts the Y4M file in place. Without this
  // call, it is removed.
  bool Keep(std::string* error) { return y4mOutput_.Commit(error); }

 private:
  void Deliver(const Picture& picture);
  // Waits while pictures arrive until `done` holds (under mutex_).
  template <typename Done>
  bool WaitUntil(Done done, std::chrono::milliseconds timeout);
  void Fail(const std::string& message);

  PictureSinkOptions options_;
  OutputFile y4mOutput_;
  Y4MWriter y4m_;
  FramePacer pacer_;
  std::atomic<uint32_t> pictures_{0};
  std::atomic<int64_t> lastPictureNs_{0};  // steady clock
  std::atomic<bool> failed_{false};
  std::mutex mutex_;  // guards error_ and lastStamp_, and pairs with arrived_
  uint32_t lastStamp_ = 0;
  std::condition_variable arrived_;
  std::string error_;
};
