#include "StreamFeeder.h"

#include <algorithm>
#include <cstring>

#include "InputProblem.h"

namespace {

constexpr std::chrono::milliseconds FRAME_TIME{TQF_FRAME_DURATION_MS};

}  // namespace

// A payload the player counts as empty: its last eight bytes are zero.
bool StreamFeeder::EndsInEightZeros(uint64_t payloadEnd) {
  static const uint8_t ZEROS[8] = {};
  uint8_t last[8];
  return reader_.Read(payloadEnd - 8, last, sizeof last) && std::memcmp(last, ZEROS, 8) == 0;
}

bool StreamFeeder::Open(const char* path, std::string* error) {
  if (!reader_.Open(path) || reader_.view == nullptr) {
    *error = DescribeInputProblem(path);
    return false;
  }
  size_ = reader_.fileSize;
  // The reader has checked the header block; its length word gives the size.
  int32_t headerSize = INT32_MAX;
  if (!reader_.GetHeader(nullptr, &headerSize)) {
    *error = std::string(path) + ": the header block runs past the end of the file";
    return false;
  }
  header_.resize(static_cast<size_t>(headerSize));
  if (!reader_.GetHeader(header_.data(), &headerSize)) {
    *error = std::string(path) + ": the file was cut short while it was read";
    return false;
  }
  offset_ = header_.size();
  const FrameIndex& video = reader_.index[TQF_STREAM_VIDEO];
  bool sawKey = false;
  uint32_t deliverable = 0;
  for (uint32_t i = 0; i < video.count; ++i) {
    const FrameIndexEntry& entry = video.entries[i];
    const uint64_t end = entry.payloadOffset + FramePayloadLength(entry.info);
    sawKey = sawKey || IsKeyFrameInfo(entry.info);
    // The eight bytes may reach back into the frame head, as the player's test does.
    if (sawKey && FramePayloadLength(entry.info) > 0 && !EndsInEightZeros(end)) {
      ++deliverable;
      lastDeliverableStamp_ = entry.stamp;
    }
    frameEnds_.push_back(end);
    deliverable_.push_back(deliverable);
  }
  *error = DescribeNothingToPlay(reader_, path, CodecField::DESCRIPTOR_COMPRESSION);
  return error->empty();
}

StreamFeeder::Chunk StreamFeeder::NextChunk(const FeedOptions& options) {
  uint32_t size = options.chunkBytes;
  if (options.randomChunks) {
    if (!seeded_) {
      random_.seed(options.seed);
      seeded_ = true;
    }
    size = std::uniform_int_distribution<uint32_t>(1, RANDOM_CHUNK_MAX)(random_);
  }
  size = static_cast<uint32_t>(std::min<uint64_t>(size, size_ - offset_));
  chunk_.resize(size);
  if (!reader_.Read(offset_, chunk_.data(), size)) {
    truncated_ = true;
    size = 0;
  }
  const uint64_t end = offset_ + size;
  // The video frames this chunk completes: framesFed_ up to `completed`.
  uint32_t completed = static_cast<uint32_t>(
      std::upper_bound(frameEnds_.begin(), frameEnds_.end(), end) - frameEnds_.begin());
  uint32_t before = DeliverableFed();
  uint32_t after = completed == 0 ? 0 : deliverable_[completed - 1];
  Chunk chunk{chunk_.data(), size, 0, clockStart_, completed};
  // All but WINDOW_FRAMES delivered, and everything before a chunk that alone
  // completes more than the window.
  chunk.picturesNeeded = after > WINDOW_FRAMES ? std::min(before, after - WINDOW_FRAMES) : 0;
  if (completed > framesFed_)
    chunk.due = clockStart_ + (framesFed_ - clockFrame_) * FRAME_TIME;
  return chunk;
}

void StreamFeeder::Advance(const Chunk& chunk) {
  offset_ = chunk.size == 0 ? size_ : offset_ + chunk.size;
  framesFed_ = static_cast<uint32_t>(
      std::upper_bound(frameEnds_.begin(), frameEnds_.end(), offset_) - frameEnds_.begin());
}

void StreamFeeder::RestartClock() {
  clockStart_ = std::chrono::steady_clock::now();
  clockFrame_ = framesFed_;
}
