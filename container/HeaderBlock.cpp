#include "HeaderBlock.h"

#include <cstddef>
#include <cstring>

namespace {

void PutU32(std::vector<uint8_t>& out, uint32_t value) {
  uint8_t bytes[4];
  std::memcpy(bytes, &value, sizeof bytes);
  out.insert(out.end(), bytes, bytes + sizeof bytes);
}

void StoreU32(uint8_t* at, uint32_t value) { std::memcpy(at, &value, sizeof value); }

}  // namespace

HeaderBlock::HeaderBlock() {
  for (uint32_t word : {TQF_FILE_MAGIC, TQF_EMPTY_HEADER_LENGTH, 0u, 0u}) PutU32(bytes, word);
}

bool HeaderBlock::AddRecord(uint32_t type, const void* data, uint32_t length) {
  const uint32_t count = LoadU32(bytes.data() + offsetof(TQFFileHeader, recordCount));
  if (count >= TQF_WRITER_MAX_RECORDS || length > TQF_STREAM_MAX_RECORD_PAYLOAD) return false;
  if (data == nullptr && length != 0) return false;
  PutU32(bytes, type);
  PutU32(bytes, length);
  const uint8_t* payload = static_cast<const uint8_t*>(data);
  if (length != 0) bytes.insert(bytes.end(), payload, payload + length);
  StoreU32(bytes.data() + offsetof(TQFFileHeader, headerLength), static_cast<uint32_t>(bytes.size() - 8));
  StoreU32(bytes.data() + offsetof(TQFFileHeader, recordCount), count + 1);
  return true;
}

void AppendFrame(std::vector<uint8_t>& out, const TQFFrameHeader& header, const uint8_t* payload,
                 uint32_t length) {
  PutU32(out, TQF_FRAME_SYNC);
  PutU32(out, header.info);
  PutU32(out, header.stamp);
  if (length != 0) out.insert(out.end(), payload, payload + length);
}
