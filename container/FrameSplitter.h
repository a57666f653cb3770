// FrameSplitter: cuts a live TQF byte stream into frames by its sync rules.
//
// In sync, the bytes must begin with a sync word and a frame head whose
// payload length is at most TQF_STREAM_MAX_FRAME_PAYLOAD; anything else loses
// sync ("TQF Frame sync lost." or "TQF Frame length too big." to the debug
// sink). Out of sync, a sync word counts as a frame start only when the next
// sync word lies exactly where its length says the frame ends ("TQF resync.").
// Bytes with no sync word in them are dropped whole.
//
// The splitter holds only the sync state; the caller keeps the bytes. No lock:
// one feeder at a time.
#pragma once

#include <cstdint>

#include "TQFFormat.h"

struct FrameSplitter {
  enum class Step {
    FRAME,  // a whole frame (sync, info, stamp, payload) starts at bytes + *skip
    MORE,   // no whole frame yet: drop *skip bytes, keep the rest, feed more
  };

  // Looks at the `length` unparsed bytes at `bytes` (length >= 0). Sets
  // `*skip` to the bytes before the frame, or to those that can be dropped.
  Step Next(const uint8_t* bytes, int32_t length, int32_t* skip);

  // Whether a payload of this frame's length is allowed on a live stream.
  static bool LengthAllowed(uint32_t info) {
    return FramePayloadLength(info) <= TQF_STREAM_MAX_FRAME_PAYLOAD;
  }

  bool lostSync = false;

 private:
  Step Resynchronise(const uint8_t* bytes, int32_t length, int32_t* skip);
};
