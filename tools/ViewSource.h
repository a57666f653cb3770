// ViewSource: one source of `tqfplay view` and what its tile shows.
//
// A source is a TQF file, played by the library's file player and paced at
// 25 pictures a second in its callback; or a live source, read by a
// StreamFeeder on a feeder thread of its own and fed in real time to a
// stream player through TQ_InputData: a file fed as a stream (--stream), a
// pipe ("-", a FIFO) or a camera server's channel (tcp:// or http://). A
// channel whose connection drops is connected again by the feeder thread,
// after 0.5 s, then twice as long each time up to 5 s; the tile says
// "reconnecting" meanwhile. Files and pipes end.
//
// Each source has its own picture slot on its own route of the session: the
// library's thread stores the newest picture there, the window's thread
// takes it. Every method but the slot's Store is for the window's thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "FramePacer.h"
#include "LibrarySession.h"
#include "StreamFeeder.h"

// The newest picture of one source, handed from the library's thread to the
// window's, and when the pictures came.
class PictureSlot {
 public:
  explicit PictureSlot(bool pace) : pace_(pace) {}

  // The LibrarySession handler; `context` is the PictureSlot.
  static void Handle(void* context, const Picture& picture);

  // Waits for a picture since the last Forget; false if none comes by `deadline`.
  bool WaitForPicture(std::chrono::steady_clock::time_point deadline);
  // Whether a picture came since the last Forget.
  bool HasPicture() const;
  // Forgets that pictures came: a dropped connection shows none until the
  // next one's first key frame.
  void Forget();
  // Hands a picture that arrived since the last call to `upload(pixels,
  // width, height)` (planar I420, valid during the call); false if none did.
  template <typename Upload>
  bool TakeFresh(Upload upload) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (!fresh_) return false;
    fresh_ = false;
    upload(pixels_.data(), width_, height_);
    return true;
  }
  // The size of the last picture; 0 before any.
  int32_t Width() const;
  int32_t Height() const;
  // Pictures that arrived in the last second.
  int PicturesLastSecond() const;
  std::chrono::steady_clock::time_point LastArrival() const;
  void RestartPacing() { restartPacing_.store(true); }

 private:
  void Store(const Picture& picture);

  const bool pace_;
  FramePacer pacer_;  // the library's thread only
  std::atomic<bool> restartPacing_{false};
  mutable std::mutex mutex_;
  std::condition_variable stored_;
  std::vector<uint8_t> pixels_;
  int32_t width_ = 0;
  int32_t height_ = 0;
  bool fresh_ = false;
  bool hasPicture_ = false;
  std::chrono::steady_clock::time_point lastArrival_;
  std::deque<std::chrono::steady_clock::time_point> arrivals_;  // within a second of the newest
};

class ViewSource {
 public:
  // A source of `path` on a route of its own in `session`; `live` feeds a
  // file as a stream ("-", FIFOs, character devices and channel URLs are
  // always live). Check Route() >= 0 (the session has routes for 16).
  ViewSource(const char* path, bool live, LibrarySession& session);
  ~ViewSource() { Close(); }
  ViewSource(const ViewSource&) = delete;
  ViewSource& operator=(const ViewSource&) = delete;

  int Route() const { return route_; }
  // Opens the source and starts its pictures; a file from `startSeconds`.
  // False with a message for a source that cannot be opened or played.
  bool Open(uint32_t startSeconds, std::string* error);
  // Stops the feeder thread and closes the player; does nothing twice.
  void Close();

  const char* Path() const { return path_; }
  // What the tile calls the source: a file's name without its folder, a URL whole.
  std::string Name() const;
  PictureSlot& Slot() { return slot_; }

  // Pause holds a file player and a live tile's picture; a live stream is
  // fed and decoded on, so that resuming shows the live picture at once
  // (stopping its player would drop frames and break the picture up to the
  // next key frame). Resume after the end plays a file again.
  void Pause();
  void Resume();
  bool Paused() const { return paused_.load(); }
  // Not paused and not ended.
  bool Running() const { return !Paused() && !Ended(); }
  // Seeks a file by `step` seconds (a live source has no position to move).
  void Seek(int32_t step);
  // The file played its last frame, or the live source's bytes are all shown.
  bool Ended() const;
  // The window's title for this source alone: "PATH - 00:03 / 00:10",
  // "PATH - live 00:07", with " (paused)" or " (end)".
  std::string Title();
  // The tile's caption under its name: "paused", "ended", "reconnecting",
  // "waiting for a key frame", or the pictures of the last second
  // ("connected 25 fps" live, "00:03 / 00:10 25 fps" for a file).
  std::string Status();

 private:
  bool OpenLive(std::string* error);
  // Opens the feeder on path_ and a stream player on its header, and plays it.
  bool Connect(std::string* error);
  // The feeder thread: feeds each connection to its end, then reconnects a
  // channel or ends.
  void FeedLive();
  void FeedConnection();
  // Waits `wait` or until Close; false on Close.
  bool Backoff(std::chrono::milliseconds wait);
  uint32_t Position();

  const char* const path_;
  const bool live_;
  const bool reconnects_;
  LibrarySession& session_;
  PictureSlot slot_;
  const int route_;
  int32_t handle_ = -1;  // a live source's belongs to the feeder thread while it runs
  uint32_t length_ = 0;
  uint32_t lastPosition_ = 0;
  std::atomic<bool> paused_{false};
  std::unique_ptr<StreamFeeder> feeder_;
  std::thread feederThread_;
  std::atomic<bool> stop_{false};  // set under stopMutex_, for stopRequested_
  std::mutex stopMutex_;
  std::condition_variable stopRequested_;
  std::atomic<bool> reconnecting_{false};
  std::atomic<bool> feedDone_{false};
  std::atomic<uint32_t> framesFed_{0};  // over all connections
};
