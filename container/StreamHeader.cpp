#include "StreamHeader.h"

#include <cstring>

bool StreamHeader::Parse(const uint8_t* header, uint32_t size) {
  hasVideo = false;
  video = MediaDescriptor{};
  if (size < TQF_FILE_HEADER_SIZE || LoadU32(header) != TQF_FILE_MAGIC) return false;
  if (static_cast<uint64_t>(LoadU32(header + 4)) + 8 != size) return false;
  const uint32_t recordCount = LoadU32(header + 12);
  if (recordCount < 1 || recordCount > TQF_READER_MAX_RECORDS) return false;

  uint32_t offset = TQF_FILE_HEADER_SIZE;
  uint32_t remaining = size - TQF_FILE_HEADER_SIZE;
  for (uint32_t i = 0; i < recordCount; ++i) {
    if (remaining < TQF_RECORD_HEAD_SIZE) return false;
    remaining -= TQF_RECORD_HEAD_SIZE;
    const uint32_t length = LoadU32(header + offset + 4);
    if (remaining < length || length > TQF_STREAM_MAX_RECORD_PAYLOAD) return false;
    remaining -= length;
    if (IsFourCCRecordType(LoadU32(header + offset))) {
      const uint32_t payload = offset + TQF_RECORD_HEAD_SIZE;
      const uint32_t available = size - payload;
      std::memcpy(&video, header + payload, available < sizeof video ? available : sizeof video);
      hasVideo = true;
      return true;
    }
    offset += TQF_RECORD_HEAD_SIZE + length;
  }
  return true;
}
