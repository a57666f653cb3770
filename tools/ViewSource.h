// ViewSource: one source of `tqfplay view` and what its tile shows.
//
// A source is a TQF file, played by the library's file player and paced at
// 25 pictures a second in its callback (or 2 or 4 times that); or a live source, read by a
// StreamFeeder on a feeder thread of its own and fed in real time to a
// stream player through TQ_InputData: a file fed as a stream (--stream), a
// pipe ("-", a FIFO) or a camera server's channel (tcp:// or http://). A
// channel that is down at the start, or whose connection drops, is
// connected by the feeder thread after 0.5 s, then twice as long each time
// up to 5 s; the tile says "reconnecting" meanwhile. Files and pipes end.
//
// A file also fast-forwards at 2x to 16x and steps by frames while paused:
// up to 4x the file player shows every frame, paced faster; beyond that, and
// for a step, the tool feeds frames it picks to a stream player (TrickPlay).
// The file then plays on from the frame shown, the file player skipping the
// pictures of its seek (whole seconds) before that frame.
//
// Each source has its own picture slot on its own route of the session: the
// library's thread stores the newest picture there, the window's thread
// takes it. Every method is for the window's thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "LibrarySession.h"
#include "PictureSlot.h"
#include "StreamFeeder.h"
#include "TrickPlay.h"

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
  // A paused live tile holds its picture while the stream runs on behind
  // it; a paused file shows what its steps and seeks decode.
  bool HoldsPicture() const { return live_ && Paused(); }
  // Not paused and not ended.
  bool Running() const { return !Paused() && !Ended(); }
  // Seeks a file by `step` seconds (a live source has no position to move);
  // a paused file shows the frame it seeks to.
  void Seek(int32_t step);
  // Doubles or halves a file's speed, from 1x to 16x: up to 4x every frame
  // is shown, beyond that key frames alone. A paused file takes the speed
  // when it resumes.
  void Faster() { SetSpeed(speed_ * 2); }
  void Slower() { SetSpeed(speed_ / 2); }
  int Speed() const { return speed_; }
  // Shows the file's frame `frames` after (or before) the one shown, while
  // it is paused or ended, and holds it.
  void Step(int32_t frames);
  // The file played its last frame, or the live source's bytes are all shown.
  bool Ended() const;
  // The window's title for this source alone: "PATH - 00:03 / 00:10",
  // "PATH - live 00:07", then the speed when it is not 1x (" 8x") and
  // " (end)", or when paused the frame shown and " (paused)":
  // "PATH - 00:05 / 00:10 frame 126 (paused)".
  std::string Title();
  // The tile's caption under its name: "paused", "ended", "reconnecting",
  // "waiting for a key frame", or the pictures of the last second
  // ("connected 25 fps" live, "00:03 / 00:10 25 fps" for a file).
  std::string Status();

 private:
  bool OpenLive(std::string* error);
  // Opens the feeder on path_ and a stream player on its header, and plays it.
  bool Connect(std::string* error);
  // The feeder thread: feeds each connection to its end (the first when
  // `connected`), then reconnects a channel or ends.
  void FeedLive(bool connected);
  void FeedConnection();
  // Waits `wait` or until Close; false on Close.
  bool Backoff(std::chrono::milliseconds wait);
  uint32_t Position();

  // How a file shows its pictures: its player plays; a run of key frames
  // plays (beyond 4x); or one frame is held, decoded on its own (a step).
  enum class Mode { PLAYER, KEY_FRAMES, HELD };
  // Maps and indexes the file for TrickPlay at its first use; false after
  // telling the user why it cannot be.
  bool OpenTrick();
  void SetSpeed(int speed);
  // The frame whose picture the tile shows.
  uint32_t ShownFrame();
  // Plays on from `frame` at the speed: the file player, or a run of key frames.
  void PlayOnFrom(uint32_t frame);
  void PlayFileFrom(uint32_t frame);
  // Shows `frame` (clamped into the file) alone, paused.
  void Hold(int64_t frame);

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
  TrickPlay trick_;
  Mode mode_ = Mode::PLAYER;
  int speed_ = 1;
  uint32_t heldFrame_ = 0;
  std::unique_ptr<StreamFeeder> feeder_;
  std::thread feederThread_;
  std::atomic<bool> stop_{false};  // set under stopMutex_, for stopRequested_
  std::mutex stopMutex_;
  std::condition_variable stopRequested_;
  std::atomic<bool> reconnecting_{false};
  std::atomic<bool> feedDone_{false};
  std::atomic<uint32_t> framesFed_{0};  // over all connections
};
