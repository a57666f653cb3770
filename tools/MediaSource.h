// MediaSource: a TQF file opened for export and audio, which work on the
// engine's reader rather than on a player: the video stream's descriptor,
// its frames in order, and the G.726 audio of stream 1 decoded to 16-bit
// PCM by the library's own G.726 module.
//
// The reader's index leaves out the file's last frame (a player never plays
// it); a copy of the file keeps it: when a whole frame follows the last one
// indexed, it counts as the last frame of its stream.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "G726.h"
#include "TQFReader.h"

class MediaSource {
 public:
  // Maps and indexes `path`. False with a message for a file that is
  // missing or not TQF.
  bool Open(const char* path, std::string* error);

  // Record 0 is a picture descriptor with at least one video frame.
  bool HasVideo() const { return hasVideo_; }
  const MediaDescriptor& Video() const { return video_; }
  uint32_t VideoFrames() const { return Frames(TQF_STREAM_VIDEO); }
  uint32_t VideoStamp(uint32_t frame) const { return Entry(TQF_STREAM_VIDEO, frame).stamp; }
  // Video frame `frame`'s payload (valid until the next call) and whether it
  // is a key frame. False if the frame cannot be read.
  bool ReadVideo(uint32_t frame, const uint8_t** payload, uint32_t* length, bool* keyFrame);
  bool IsKeyFrame(uint32_t frame) const { return IsKeyFrameInfo(Entry(TQF_STREAM_VIDEO, frame).info); }
  // The video key frames, in file order.
  std::vector<uint32_t> KeyFrames() const;

  // Where frame `frame` of `stream` (video or audio) lies in the file: the
  // offset of its payload, which orders the frames of both streams.
  uint64_t FrameOffset(uint32_t stream, uint32_t frame) const {
    return Entry(stream, frame).payloadOffset;
  }
  // Frame `frame` of `stream` as the file holds it: its header words and its
  // payload (valid until the next read). False if it cannot be read.
  bool ReadFrame(uint32_t stream, uint32_t frame, TQFFrameHeader* header, const uint8_t** payload);
  // The file's header block, as TQ_OpenStream takes it and a copy of the
  // file begins with. False if it cannot be read.
  bool HeaderBlock(std::vector<uint8_t>* block);

  // Record 1 is G.726 audio with at least one audio frame.
  bool HasAudio() const { return hasAudio_; }
  uint32_t AudioFrames() const { return Frames(TQF_STREAM_AUDIO); }
  uint32_t AudioStamp(uint32_t frame) const { return Entry(TQF_STREAM_AUDIO, frame).stamp; }
  // Its payload's length in bytes (two samples a byte).
  uint32_t AudioLength(uint32_t frame) const { return FramePayloadLength(Entry(TQF_STREAM_AUDIO, frame).info); }
  // The PCM of the next audio frame, in file order, two samples a byte; the
  // decoder's state runs on from frame to frame. False after the last one.
  bool NextAudio(std::vector<int16_t>* samples);

 private:
  void FindLastFrame();
  uint32_t Frames(uint32_t stream) const;
  const FrameIndexEntry& Entry(uint32_t stream, uint32_t frame) const;
  // Frame `frame` of `stream` into buffer_; its length and info. False if it cannot be read.
  bool Read(uint32_t stream, uint32_t frame, uint32_t* length, uint32_t* info);

  TQFReader reader_;
  FrameIndexEntry lastFrame_{};  // the unindexed last frame, if lastFrameStream_ is 0 or 1
  uint32_t lastFrameStream_ = UINT32_MAX;
  MediaDescriptor video_{};
  bool hasVideo_ = false;
  bool hasAudio_ = false;
  std::vector<uint8_t> buffer_;
  G726State audioState_{};
  uint32_t nextAudio_ = 0;
};
