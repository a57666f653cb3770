// ExactStart: the head of a group of pictures re-encoded, so that a clip can
// start on a picture that is not a key frame. The group is decoded from its
// key frame with libavcodec, and the pictures from the chosen one up to the
// next key frame are encoded again, losslessly (libx264 with qp 0 for H.264,
// libx265 with lossless=1 for H.265), the first as a key frame that carries
// its parameter sets, in Annex B form as TQF payloads are. The frames after
// the group are then copied as they are: each key frame carries its own
// parameter sets, which a decoder takes in place of the head's.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "MediaSource.h"

// One re-encoded frame: its payload, the stamp of the picture it holds, and
// whether it is a key frame.
struct EncodedFrame {
  std::vector<uint8_t> payload;
  uint32_t stamp;
  bool keyFrame;
};

// Decodes video frames [key, next) of `source` (`key` a key frame, `next`
// the frame after the group) and encodes the pictures shown from frame
// `first` on, in the order they are shown, into `frames`, each with the
// stamp of the frame it came from. False with a message when the codec is
// neither H.264 nor H.265, a frame cannot be read, libavcodec fails, or no
// picture comes out.
bool EncodeExactStart(MediaSource& source, uint32_t key, uint32_t first, uint32_t next,
                      std::vector<EncodedFrame>* frames, std::string* error);
