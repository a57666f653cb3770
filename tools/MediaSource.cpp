#include "MediaSource.h"

#include <algorithm>
#include <cstring>

#include "InputProblem.h"

bool MediaSource::Open(const char* path, std::string* error) {
  if (!reader_.Open(path)) {
    *error = DescribeInputProblem(path);
    return false;
  }
  FindLastFrame();
  uint32_t type = 0;
  uint8_t record[TQF_STREAM_MAX_RECORD_PAYLOAD];
  int32_t length = sizeof record;
  if (reader_.GetRecord(0, &type, record, &length) && IsFourCCRecordType(type) &&
      length >= static_cast<int32_t>(sizeof video_)) {
    std::memcpy(&video_, record, sizeof video_);
    hasVideo_ = VideoFrames() > 0 && video_.width > 0 && video_.height > 0;
  }
  length = sizeof record;
  hasAudio_ = reader_.GetRecord(1, &type, record, &length) && type == G726_RECORD_TYPE &&
              AudioFrames() > 0;
  G726Reset(&audioState_);
  buffer_.resize(TQF_FILE_READ_BUFFER_SIZE);
  return true;
}

void MediaSource::FindLastFrame() {
  int32_t headerSize = INT32_MAX;
  uint64_t end = reader_.GetHeader(nullptr, &headerSize) ? static_cast<uint64_t>(headerSize) : 0;
  for (const FrameIndex& frames : reader_.index)
    if (frames.count > 0) {
      const FrameIndexEntry& last = frames.entries[frames.count - 1];
      end = std::max(end, last.payloadOffset + FramePayloadLength(last.info));
    }
  uint8_t head[TQF_FRAME_HEAD_SIZE];
  if (end == 0 || !reader_.Read(end, head, sizeof head) || LoadU32(head) != TQF_FRAME_SYNC) return;
  const uint32_t info = LoadU32(head + 4);
  const uint64_t payload = end + TQF_FRAME_HEAD_SIZE;
  if (FrameStreamNumber(info) > TQF_STREAM_AUDIO ||
      payload + FramePayloadLength(info) > reader_.fileSize)
    return;
  lastFrame_ = FrameIndexEntry{info, LoadU32(head + 8), payload};
  lastFrameStream_ = FrameStreamNumber(info);
}

uint32_t MediaSource::Frames(uint32_t stream) const {
  return reader_.index[stream].count + (lastFrameStream_ == stream ? 1 : 0);
}

const FrameIndexEntry& MediaSource::Entry(uint32_t stream, uint32_t frame) const {
  const FrameIndex& frames = reader_.index[stream];
  return frame < frames.count ? frames.entries[frame] : lastFrame_;
}

bool MediaSource::Read(uint32_t stream, uint32_t frame, uint32_t* length, uint32_t* info) {
  if (frame >= Frames(stream)) return false;
  const FrameIndexEntry& entry = Entry(stream, frame);
  *info = entry.info;
  *length = FramePayloadLength(entry.info);
  return *length <= buffer_.size() && reader_.Read(entry.payloadOffset, buffer_.data(), *length);
}

bool MediaSource::ReadVideo(uint32_t frame, const uint8_t** payload, uint32_t* length,
                            bool* keyFrame) {
  uint32_t info = 0;
  if (!Read(TQF_STREAM_VIDEO, frame, length, &info)) return false;
  *payload = buffer_.data();
  *keyFrame = IsKeyFrameInfo(info);
  return true;
}

std::vector<uint32_t> MediaSource::KeyFrames() const {
  std::vector<uint32_t> keys;
  for (uint32_t frame = 0; frame < VideoFrames(); ++frame)
    if (IsKeyFrame(frame)) keys.push_back(frame);
  return keys;
}

bool MediaSource::ReadFrame(uint32_t stream, uint32_t frame, TQFFrameHeader* header,
                            const uint8_t** payload) {
  uint32_t length = 0;
  if (!Read(stream, frame, &length, &header->info)) return false;
  header->stamp = Entry(stream, frame).stamp;
  *payload = buffer_.data();
  return true;
}

bool MediaSource::HeaderBlock(std::vector<uint8_t>* block) {
  int32_t size = INT32_MAX;
  if (!reader_.GetHeader(nullptr, &size)) return false;
  block->resize(static_cast<size_t>(size));
  return reader_.GetHeader(block->data(), &size);
}

bool MediaSource::NextAudio(std::vector<int16_t>* samples) {
  uint32_t length = 0, info = 0;
  if (!hasAudio_ || !Read(TQF_STREAM_AUDIO, nextAudio_, &length, &info)) return false;
  ++nextAudio_;
  samples->resize(size_t{length} * 2);
  G726DecodeBlock(&audioState_, buffer_.data(), static_cast<int32_t>(length), samples->data());
  return true;
}
