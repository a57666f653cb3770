#include "MediaSource.h"

#include <cstring>

#include "InputProblem.h"

bool MediaSource::Open(const char* path, std::string* error) {
  if (!reader_.Open(path)) {
    *error = DescribeInputProblem(path);
    return false;
  }
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

bool MediaSource::ReadVideo(uint32_t frame, const uint8_t** payload, uint32_t* length,
                            bool* keyFrame) {
  TQFFrameHeader header;
  *length = static_cast<uint32_t>(buffer_.size());
  if (!reader_.ReadFrame(TQF_STREAM_VIDEO, static_cast<int32_t>(frame), &header, buffer_.data(),
                         length))
    return false;
  *payload = buffer_.data();
  *keyFrame = IsKeyFrameInfo(header.info);
  return true;
}

bool MediaSource::NextAudio(std::vector<int16_t>* samples) {
  TQFFrameHeader header;
  uint32_t length = static_cast<uint32_t>(buffer_.size());
  if (!hasAudio_ || !reader_.ReadFrame(TQF_STREAM_AUDIO, static_cast<int32_t>(nextAudio_),
                                       &header, buffer_.data(), &length))
    return false;
  ++nextAudio_;
  samples->resize(size_t{length} * 2);
  G726DecodeBlock(&audioState_, buffer_.data(), static_cast<int32_t>(length), samples->data());
  return true;
}
