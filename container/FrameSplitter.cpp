#include "FrameSplitter.h"

#include "Diagnostics.h"

namespace {

constexpr int32_t FRAME_HEAD_SIZE = static_cast<int32_t>(TQF_FRAME_HEAD_SIZE);

// The offset of the first sync word at an offset from `from` up to `length`
// minus 4, or -1.
int32_t FindSync(const uint8_t* bytes, int32_t from, int32_t length) {
  if (from >= length) return -1;
  const uint64_t at = FindFrameSync(bytes, static_cast<uint64_t>(from), static_cast<uint64_t>(length));
  return at == static_cast<uint64_t>(length) ? -1 : static_cast<int32_t>(at);
}

}  // namespace

FrameSplitter::Step FrameSplitter::Next(const uint8_t* bytes, int32_t length, int32_t* skip) {
  *skip = 0;
  if (!lostSync) {
    if (length < FRAME_HEAD_SIZE) return Step::MORE;
    const uint32_t info = LoadU32(bytes + 4);
    if (LoadU32(bytes) != TQF_FRAME_SYNC) {
      lostSync = true;
      OutputDebugStringA("TQF Frame sync lost.\n");
    } else if (!LengthAllowed(info)) {
      lostSync = true;
      OutputDebugStringA("TQF Frame length too big.\n");
    } else {
      const bool complete = FramePayloadLength(info) <= static_cast<uint32_t>(length - FRAME_HEAD_SIZE);
      return complete ? Step::FRAME : Step::MORE;
    }
  }
  return Resynchronise(bytes, length, skip);
}

FrameSplitter::Step FrameSplitter::Resynchronise(const uint8_t* bytes, int32_t length, int32_t* skip) {
  int32_t at = FindSync(bytes, 0, length);
  if (at < 0) {
    *skip = length;
    return Step::MORE;
  }
  for (;;) {
    *skip = at;
    // A candidate counts only when the next sync word confirms its length.
    const int32_t next = FindSync(bytes + at, 4, length - at);
    if (next < 0) return Step::MORE;
    const uint32_t info = LoadU32(bytes + at + 4);
    if (next >= FRAME_HEAD_SIZE && LengthAllowed(info) &&
        FramePayloadLength(info) == static_cast<uint32_t>(next - FRAME_HEAD_SIZE)) {
      OutputDebugStringA("TQF resync.\n");
      lostSync = false;
      return Step::FRAME;
    }
    at += next;
  }
}
