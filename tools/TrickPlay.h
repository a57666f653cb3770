// TrickPlay: a file's frames shown out of the file player's course, for the
// viewer's fast forward beyond 4x and its frame steps. The tool feeds the
// frames it picks to a stream player of the library (KeyFrameFeed) on the
// route of the source's tile:
//   - a run shows the key frames from a frame on, each when its time comes
//     at a speed (8x: a frame stamped 8 s later shows 1 s later), on a
//     thread of its own; no other frame is decoded;
//   - Show decodes one frame from the key frame at or before it, and the
//     tile shows that picture alone (PictureSlot::ShowOnly).
// The file is mapped and indexed at the first Open. The window's thread
// calls every method.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "KeyFrameFeed.h"
#include "LibrarySession.h"
#include "PictureSlot.h"

class TrickPlay {
 public:
  TrickPlay(const LibrarySession& session, int route, PictureSlot& slot)
      : session_(session), route_(route), slot_(slot) {}
  ~TrickPlay() { Stop(); }
  TrickPlay(const TrickPlay&) = delete;
  TrickPlay& operator=(const TrickPlay&) = delete;

  // Maps and indexes `path` once; later calls give the first call's result.
  // False with a message for a file without video or key frames.
  bool Open(const char* path, std::string* error);

  // Whether Open succeeded; the calls below need it.
  bool Ready() const { return opened_ && openError_.empty(); }
  // The file's video frames and the first and last frame a picture can show.
  uint32_t Frames() const { return feed_.Source().VideoFrames(); }
  uint32_t FirstKeyFrame() const { return feed_.KeyFrames().front(); }
  uint32_t LastFrame() const { return Frames() - 1; }
  uint32_t Stamp(uint32_t frame) const { return feed_.Source().VideoStamp(frame); }
  // The frame a picture stamped `stamp` shows: of the frames with that
  // stamp, the nearest to `near`; `near` itself when none has it.
  uint32_t FrameOfStamp(uint32_t stamp, uint32_t near) const;

  // Starts a run from the first key frame at or after `from`, at `speed`
  // times real time; a run already going is stopped first.
  void Run(uint32_t from, int speed);
  // Changes the speed of a run from its last frame on.
  void SetSpeed(int speed) { speed_.store(speed); }
  // Stops a run (doing nothing without one) and gives the last frame it
  // fed: `from` of Run before the first.
  uint32_t Stop();
  // A run fed its last key frame and its pictures are out.
  bool Ended() const { return ended_.load(); }
  // The last frame a run fed.
  uint32_t Fed() const { return fed_.load(); }

  // Shows frame `frame` alone, decoded from the key frame at or before it;
  // returns once its picture has arrived. False with a message when it
  // cannot be decoded (no key frame before it, an unreadable frame, no
  // picture in time).
  bool Show(uint32_t frame, std::string* error);

 private:
  void RunKeyFrames(uint32_t from);
  // Waits until `due` or a Stop; false on Stop.
  bool WaitUntil(std::chrono::steady_clock::time_point due);

  const LibrarySession& session_;
  const int route_;
  PictureSlot& slot_;
  KeyFrameFeed feed_;
  // The last FrameOfStamp, which the window's title asks for again and again.
  struct StampLookup {
    uint32_t stamp, near, frame;
  };
  mutable StampLookup lookup_{0, UINT32_MAX, 0};
  bool opened_ = false;
  std::string openError_;
  std::thread run_;
  std::atomic<int> speed_{1};
  std::atomic<uint32_t> fed_{0};
  std::atomic<bool> ended_{false};
  std::mutex stopMutex_;  // guards stop_, and pairs with stopRequested_
  std::condition_variable stopRequested_;
  bool stop_ = false;
};
