#include "KeyFrameFeed.h"

#include <algorithm>
#include <cstring>

#include "TQFFormat.h"
#include "TQFPlay.h"

namespace {

// How long the end waits for held pictures before it feeds the last frame
// again; one more picture than needed is ignored, so a short wait costs nothing.
constexpr std::chrono::milliseconds HELD_PICTURE_WAIT{200};

void PutU32(uint8_t* to, uint32_t value) {
  for (int i = 0; i < 4; ++i) to[i] = static_cast<uint8_t>(value >> (8 * i));
}

}  // namespace

void StreamHandle::Close() {
  if (handle >= 0) TQ_CloseStream(handle);
  handle = -1;
}

bool KeyFrameFeed::Open(const char* path, std::string* error) {
  if (!source_.Open(path, error)) return false;
  if (!source_.HasVideo()) {
    *error = std::string(path) + " has no video frames";
    return false;
  }
  keys_ = source_.KeyFrames();
  return true;
}

bool KeyFrameFeed::KeyFrameAtOrBefore(uint32_t frame, uint32_t* key) const {
  auto after = std::upper_bound(keys_.begin(), keys_.end(), frame);
  if (after == keys_.begin()) return false;
  *key = *(after - 1);
  return true;
}

bool KeyFrameFeed::OpenStream(const LibrarySession& session, int route, StreamHandle* stream,
                              std::string* error) {
  std::vector<uint8_t> header;
  stream->Close();
  if (!source_.HeaderBlock(&header) ||
      TQ_OpenStream(header.data(), static_cast<uint32_t>(header.size()), &stream->handle) != 0) {
    *error = "the library refused the file's header block";
    return false;
  }
  if (session.Play(stream->handle, route) != 0) {
    *error = "TQ_Play failed";
    return false;
  }
  return true;
}

bool KeyFrameFeed::FeedFrame(const StreamHandle& stream, uint32_t frame, std::string* error) {
  TQFFrameHeader header;
  const uint8_t* payload;
  if (!source_.ReadFrame(TQF_STREAM_VIDEO, frame, &header, &payload)) {
    *error = "video frame " + std::to_string(frame) + " cannot be read";
    return false;
  }
  const uint32_t length = FramePayloadLength(header.info);
  if (length > TQF_STREAM_MAX_FRAME_PAYLOAD) {
    *error = "video frame " + std::to_string(frame) + " (" + std::to_string(length) +
             " bytes) is larger than a stream carries";
    return false;
  }
  bytes_.resize(TQF_FRAME_HEAD_SIZE + length);
  PutU32(&bytes_[0], TQF_FRAME_SYNC);
  PutU32(&bytes_[4], header.info);
  PutU32(&bytes_[8], header.stamp);
  std::memcpy(&bytes_[TQF_FRAME_HEAD_SIZE], payload, length);
  if (TQ_InputData(stream.handle, bytes_.data(), static_cast<int32_t>(bytes_.size())) == 0) return true;
  *error = "the library refused the stream's bytes";
  return false;
}

bool KeyFrameFeed::FlushHeld(const StreamHandle& stream, uint32_t frame, PictureCounter& counter,
                             uint32_t count, std::string* error) {
  for (uint32_t again = 0; !counter.WaitForPictures(count, HELD_PICTURE_WAIT); ++again) {
    if (again == MAX_HELD_PICTURES) {
      *error = "the decoder kept " + std::to_string(count - counter.Pictures()) + " pictures back";
      return false;
    }
    if (!FeedFrame(stream, frame, error)) return false;
  }
  return true;
}

bool KeyFrameFeed::Play(const LibrarySession& session, int route, PictureCounter& counter,
                        const std::vector<uint32_t>& frames, std::chrono::seconds timeout,
                        std::string* error) {
  StreamHandle stream;
  if (!OpenStream(session, route, &stream, error)) return false;
  const uint32_t count = static_cast<uint32_t>(frames.size());
  const uint32_t start = counter.Pictures();
  for (uint32_t i = 0; i < count; ++i) {
    if (LibrarySession::Interrupted()) {
      *error = "interrupted";
      return false;
    }
    if (i >= WINDOW_FRAMES && !counter.WaitForPictures(start + i + 1 - WINDOW_FRAMES, timeout)) {
      *error = "no picture for " + std::to_string(timeout.count()) + " s";
      return false;
    }
    if (!FeedFrame(stream, frames[i], error)) return false;
  }
  return count == 0 || FlushHeld(stream, frames.back(), counter, start + count, error);
}
