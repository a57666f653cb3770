// KeyFrameFeed: chosen frames of a file, in practice its key frames, fed to
// the library's stream player on their own, so that a run decodes those
// frames and no others: a key frame decodes without the frames before it.
// The file player has no such path (a seek decodes its target and shows the
// frame after it), so this goes through TQ_OpenStream and TQ_InputData:
// the file's header block, then each chosen frame as a stream carries it.
//
// The feed waits on the pictures (PictureSink's count) so that the player
// never falls more than WINDOW_FRAMES behind and its queue never drops a
// frame. A decoder that holds pictures back to reorder them gives the last
// ones only when more data comes, so at the end the last frame is fed again
// until every picture is out; the sink must ignore pictures past the count
// (PictureSinkOptions::maxPictures).
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "LibrarySession.h"
#include "MediaSource.h"
#include "PictureSink.h"

class KeyFrameFeed {
 public:
  static constexpr uint32_t WINDOW_FRAMES = 25;
  // The most pictures an H.264 or H.265 decoder holds back.
  static constexpr uint32_t MAX_HELD_PICTURES = 16;

  // Maps and indexes `path`. False with a message for a file that is missing,
  // not TQF or without video.
  bool Open(const char* path, std::string* error);
  MediaSource& Source() { return source_; }

  // The key frame at or before `frame`; false when there is none.
  bool KeyFrameAtOrBefore(uint32_t frame, uint32_t* key) const;

  // Plays `frames` (video frame numbers, each a key frame) through a new
  // stream player of `session`, whose handler must hand each picture on to
  // `sink`: one picture each, in order. Returns once `sink` has them all.
  // False with a message when a frame cannot be read or is too large for a
  // stream, the library refuses the stream, no picture comes for `timeout`,
  // or the run is interrupted (LibrarySession::Interrupted).
  bool Play(const LibrarySession& session, PictureSink& sink, const std::vector<uint32_t>& frames,
            std::chrono::seconds timeout, std::string* error);

 private:
  // Frame `frame` as a stream carries it (sync word, header, payload) into bytes_.
  bool StreamBytes(uint32_t frame, std::string* error);
  bool Feed(int32_t handle, std::string* error);

  MediaSource source_;
  std::vector<uint32_t> keys_;
  std::vector<uint8_t> bytes_;
};
