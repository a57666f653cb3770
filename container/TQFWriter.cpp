#include "TQFWriter.h"

#include <stdio_ext.h>
#include <unistd.h>

bool TQFWriter::Create(const char* newPath, int32_t append) {
  if (file != nullptr || newPath == nullptr) return false;
  if (append == 0) {
    file = fopen(newPath, "wb+");
    if (file == nullptr) return false;
    const TQFFileHeader header{TQF_FILE_MAGIC, TQF_EMPTY_HEADER_LENGTH, 0, 0};
    if (fwrite(&header, sizeof header, 1, file) != 1) {
      fclose(file);
      file = nullptr;
      return false;
    }
  } else {
    file = fopen(newPath, "ab+");
    if (file == nullptr) return false;
    if (fseek(file, 0, SEEK_END) != 0) return false;  // stays open, as Close expects
  }
  path = newPath;
  framesStarted = 0;
  return true;
}

int32_t TQFWriter::AddRecord(uint32_t type, const void* data, int32_t length) {
  if (file == nullptr || length < 0 || framesStarted != 0) return -1;
  if (length > 0 && data == nullptr) return -1;
  long position = ftell(file);
  if (position < 0) return -1;
  auto failAndSeekBack = [&] {
    fseek(file, position, SEEK_SET);
    return -1;
  };
  TQFFileHeader header;
  if (fseek(file, 0, SEEK_SET) != 0 || fread(&header, sizeof header, 1, file) != 1)
    return failAndSeekBack();
  if (header.recordCount >= TQF_WRITER_MAX_RECORDS) return failAndSeekBack();
  header.recordCount += 1;
  header.headerLength += static_cast<uint32_t>(length) + TQF_RECORD_HEAD_SIZE;
  if (fseek(file, 0, SEEK_SET) != 0 || fwrite(&header, sizeof header, 1, file) != 1)
    return failAndSeekBack();
  const TQFRecord record{type, static_cast<uint32_t>(length)};
  if (fseek(file, position, SEEK_SET) != 0 || fwrite(&record, sizeof record, 1, file) != 1)
    return -1;
  if (length > 0 && fwrite(data, static_cast<size_t>(length), 1, file) != 1) return -1;
  return static_cast<int32_t>(header.recordCount) - 1;
}

bool TQFWriter::WriteFrame(const TQFFrameHeader* header, const void* payload, uint32_t length) {
  if (file == nullptr || header == nullptr || (payload == nullptr && length != 0)) return false;
  if (FramePayloadLength(header->info) != length) return false;
  framesStarted = 1;
  const uint32_t sync = TQF_FRAME_SYNC;
  // A payload of no bytes counts as a short write, after sync and header.
  return fwrite(&sync, sizeof sync, 1, file) == 1 &&
         fwrite(header, sizeof *header, 1, file) == 1 && length != 0 &&
         fwrite(payload, length, 1, file) == 1;
}

bool TQFWriter::WriteFrameFlushed(const TQFFrameHeader* header, const void* payload,
                                  uint32_t length) {
  if (file == nullptr) return false;
  const long start = ftell(file);
  if (start >= 0 && WriteFrame(header, payload, length) && fflush(file) == 0) return true;
  // Drop what the stream still buffers, then cut the file back.
  __fpurge(file);
  clearerr(file);
  if (start >= 0 && ftruncate(fileno(file), start) == 0) fseek(file, start, SEEK_SET);
  return false;
}

bool TQFWriter::Close() {
  const bool written = file == nullptr || fclose(file) == 0;
  file = nullptr;
  path.clear();
  framesStarted = 0;
  return written;
}
