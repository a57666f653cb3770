// KeyFrameFeed: chosen frames of a file fed to the library's stream player
// on their own, so that a run decodes those frames and no others: key
// frames (a key frame decodes without the frames before it), or a run of
// frames from a key frame. The file player has no such path (a seek
// decodes its target and shows the frame after it), so this goes through
// TQ_OpenStream and TQ_InputData: the file's header block, then each
// chosen frame as a stream carries it.
//
// Play waits on the pictures (a PictureCounter) so that the player never
// falls more than WINDOW_FRAMES behind and its queue never drops a frame. A
// decoder that holds pictures back to reorder them gives the last ones only
// when more data comes, so at the end the last frame is fed again until
// every picture is out (FlushHeld); the counter's owner must ignore pictures
// past the count (PictureSinkOptions::maxPictures, PictureSlot::ShowOnly).
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "LibrarySession.h"
#include "MediaSource.h"
#include "PictureCounter.h"

// A stream player, closed when this goes.
struct StreamHandle {
  int32_t handle = -1;
  StreamHandle() = default;
  StreamHandle(const StreamHandle&) = delete;
  StreamHandle& operator=(const StreamHandle&) = delete;
  ~StreamHandle() { Close(); }
  void Close();
};

class KeyFrameFeed {
 public:
  static constexpr uint32_t WINDOW_FRAMES = 25;
  // The most pictures an H.264 or H.265 decoder holds back.
  static constexpr uint32_t MAX_HELD_PICTURES = 16;

  // Maps and indexes `path`. False with a message for a file that is missing,
  // not TQF or without video.
  bool Open(const char* path, std::string* error);
  MediaSource& Source() { return source_; }
  const MediaSource& Source() const { return source_; }
  const std::vector<uint32_t>& KeyFrames() const { return keys_; }

  // The key frame at or before `frame`; false when there is none.
  bool KeyFrameAtOrBefore(uint32_t frame, uint32_t* key) const;

  // Plays `frames` (video frame numbers a decoder can take in this order on
  // their own) through a new stream player of `session` on `route`, whose
  // handler must count each picture in `counter`: one picture each, in
  // order. Returns once `counter` has them all. False with a message when a
  // frame cannot be read or is too large for a stream, the library refuses
  // the stream, no picture comes for `timeout`, or the run is interrupted
  // (LibrarySession::Interrupted).
  bool Play(const LibrarySession& session, int route, PictureCounter& counter,
            const std::vector<uint32_t>& frames, std::chrono::seconds timeout, std::string* error);

  // The steps of Play, for a caller that paces its own feed:
  // a stream player on the file's header block, playing to `route`;
  bool OpenStream(const LibrarySession& session, int route, StreamHandle* stream, std::string* error);
  // frame `frame` fed to it as a stream carries it (sync word, header, payload);
  bool FeedFrame(const StreamHandle& stream, uint32_t frame, std::string* error);
  // and, once `frame` was fed last, fed again until `counter` reaches `count`.
  bool FlushHeld(const StreamHandle& stream, uint32_t frame, PictureCounter& counter, uint32_t count,
                 std::string* error);

 private:
  MediaSource source_;
  std::vector<uint32_t> keys_;
  std::vector<uint8_t> bytes_;
};
