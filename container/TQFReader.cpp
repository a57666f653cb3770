#include "TQFReader.h"

#include <unistd.h>

#include <bit>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Paths.h"

// ---- FrameIndex ----------------------------------------------------------

uint32_t FrameIndex::GrownCapacity(uint32_t count, uint32_t wanted) {
  if (wanted < MIN_GROWTH_ENTRIES) wanted = MIN_GROWTH_ENTRIES;
  uint64_t needed = uint64_t{count} + wanted;
  uint64_t grown;
  if (uint64_t{count} * sizeof(FrameIndexEntry) < DOUBLING_LIMIT_BYTES)
    grown = std::bit_ceil(needed);
  else
    grown = uint64_t{count} + (wanted > FIXED_STEP_ENTRIES ? wanted : FIXED_STEP_ENTRIES);
  return grown > UINT32_MAX ? 0 : static_cast<uint32_t>(grown);
}

bool FrameIndex::Grow(uint32_t wanted) {
  uint32_t newCapacity = GrownCapacity(count, wanted);
  if (newCapacity == 0) return false;
  auto* grown = static_cast<FrameIndexEntry*>(
      std::malloc(size_t{newCapacity} * sizeof(FrameIndexEntry)));
  if (grown == nullptr) return false;
  if (count != 0) std::memcpy(grown, entries, size_t{count} * sizeof(FrameIndexEntry));
  std::free(entries);
  entries = grown;
  capacity = newCapacity;
  return true;
}

bool FrameIndex::Append(const FrameIndexEntry& entry) {
  if (count == capacity && !Grow(1)) return false;
  entries[count++] = entry;
  return true;
}

void FrameIndex::Clear() {
  std::free(entries);
  entries = nullptr;
  count = 0;
  capacity = 0;
}

// ---- The scan --------------------------------------------------------------

namespace {

// The offset just past the records, or 0 if the count or the lengths do not
// fit the file.
uint64_t RecordsEnd(const uint8_t* data, uint64_t size) {
  if (data == nullptr || size < TQF_FILE_HEADER_SIZE) return 0;
  uint32_t recordCount = LoadU32(data + offsetof(TQFFileHeader, recordCount));
  if (recordCount == 0 || recordCount > TQF_READER_MAX_RECORDS) return 0;
  uint64_t position = TQF_FILE_HEADER_SIZE;
  for (uint32_t i = 0; i < recordCount; ++i) {
    if (size - position < TQF_RECORD_HEAD_SIZE) return 0;
    position += TQF_RECORD_HEAD_SIZE + LoadU32(data + position + offsetof(TQFRecord, recordLength));
    if (position > size) return 0;
  }
  return position;
}

}  // namespace

bool TQFReader::ScanFrames(const uint8_t* data, uint32_t size, FrameVisitor visit, void* context,
                           FrameScanSummary* summary) {
  uint64_t position = RecordsEnd(data, size);
  if (position == 0) return false;
  if (summary != nullptr) *summary = FrameScanSummary{static_cast<uint32_t>(position), 0};
  // Positions are held against the size as signed 32-bit numbers: from
  // 2 GiB on the size is negative and no position lies below it.
  const uint64_t end = static_cast<int32_t>(size) < 0 ? 0 : size;
  while (position < end) {
    uint64_t sync = FindFrameSync(data, position, end);
    if (summary != nullptr) summary->skippedBytes += (sync < end ? sync : end) - position;
    if (sync >= end) break;
    position = sync + 4;
    // The frame head counts only if it lies wholly inside the file.
    if (end - position < sizeof(TQFFrameHeader)) break;
    ScannedFrame frame;
    frame.syncOffset = static_cast<uint32_t>(sync);
    frame.entry.info = LoadU32(data + position);
    frame.entry.stamp = LoadU32(data + position + 4);
    frame.entry.payloadOffset = static_cast<uint32_t>(position + sizeof(TQFFrameHeader));
    frame.entry.reserved = 0;
    position += sizeof(TQFFrameHeader) + FramePayloadLength(frame.entry.info);
    // A frame is kept only if at least one byte of the file follows it.
    if (position >= end) break;
    if (!visit(frame, context)) break;
  }
  return true;
}

// ---- TQFReader -------------------------------------------------------------

TQFReader::~TQFReader() { Close(); }

bool TQFReader::Open(const char* path) {
  if (view != nullptr || path == nullptr) return false;
  if (!MappedFile::Open(path, 0, 0, 0, 0, nullptr, 0)) return false;
  if (!BuildIndex()) {
    Close();
    return false;
  }
  return true;
}

void TQFReader::Close() {
  MappedFile::Close();
  if (!sidePath.empty()) {
    if (IsFileExist(sidePath.c_str())) unlink(sidePath.c_str());
    sidePath.clear();
  }
}

bool TQFReader::BuildIndex() {
  index[0].Clear();
  index[1].Clear();
  auto addToIndex = [](const ScannedFrame& frame, void* context) {
    uint32_t stream = FrameStreamNumber(frame.entry.info);
    // Streams 2 to 15 are outside the format and have no index.
    if (stream <= TQF_STREAM_AUDIO)
      static_cast<TQFReader*>(context)->index[stream].Append(frame.entry);  // a failure skips one
    return true;
  };
  return ScanFrames(static_cast<const uint8_t*>(view), fileSize, addToIndex, this, nullptr);
}

uint32_t TQFReader::RecordCount() const {
  if (view == nullptr || fileSize < TQF_FILE_HEADER_SIZE) return 0;
  return LoadU32(static_cast<const uint8_t*>(view) + offsetof(TQFFileHeader, recordCount));
}

bool TQFReader::GetRecord(int32_t number, uint32_t* type, uint8_t* buffer, int32_t* length) {
  if (number < 0 || number > TQF_MAX_RECORD_INDEX || length == nullptr) return false;
  if (static_cast<uint32_t>(number) >= RecordCount()) return false;
  const auto* data = static_cast<const uint8_t*>(view);
  uint64_t position = TQF_FILE_HEADER_SIZE;
  for (int32_t i = 0;; ++i) {
    if (fileSize - position < TQF_RECORD_HEAD_SIZE) return false;
    uint32_t recordLength = LoadU32(data + position + offsetof(TQFRecord, recordLength));
    if (fileSize - position - TQF_RECORD_HEAD_SIZE < recordLength) return false;
    if (i == number) {
      if (static_cast<int32_t>(recordLength) > *length) return false;
      *length = static_cast<int32_t>(recordLength);
      if (buffer != nullptr)
        std::memcpy(buffer, data + position + TQF_RECORD_HEAD_SIZE, recordLength);
      if (type != nullptr) *type = LoadU32(data + position);
      return true;
    }
    position += TQF_RECORD_HEAD_SIZE + recordLength;
  }
}

const FrameIndexEntry* TQFReader::FindEntry(int32_t stream, int32_t frame) const {
  if (stream < 0 || stream > TQF_MAX_RECORD_INDEX) return nullptr;
  if (static_cast<uint32_t>(stream) >= RecordCount()) return nullptr;
  if (stream > static_cast<int32_t>(TQF_STREAM_AUDIO)) return nullptr;  // never indexed
  const FrameIndex& frames = index[stream];
  if (frame < 0 || static_cast<uint32_t>(frame) >= frames.count) return nullptr;
  return &frames.entries[frame];
}

bool TQFReader::ReadFrame(int32_t stream, int32_t frame, TQFFrameHeader* header, uint8_t* buffer,
                          uint32_t* length) {
  const FrameIndexEntry* entry = FindEntry(stream, frame);
  if (entry == nullptr || length == nullptr) return false;
  uint32_t payloadLength = FramePayloadLength(entry->info);
  if (payloadLength > *length) return false;
  *length = payloadLength;
  if (buffer != nullptr)
    std::memcpy(buffer, static_cast<const uint8_t*>(view) + entry->payloadOffset, payloadLength);
  if (header != nullptr) *header = TQFFrameHeader{entry->info, entry->stamp};
  return true;
}

bool TQFReader::IsKeyFrame(int32_t stream, int32_t frame) {
  const FrameIndexEntry* entry = FindEntry(stream, frame);
  return entry != nullptr && IsKeyFrameInfo(entry->info);
}

bool TQFReader::GetHeader(uint8_t* buffer, int32_t* length) {
  if (view == nullptr || fileSize < TQF_FILE_HEADER_SIZE || length == nullptr) return false;
  const auto* data = static_cast<const uint8_t*>(view);
  uint64_t blockLength =
      uint64_t{LoadU32(data + offsetof(TQFFileHeader, headerLength))} + TQF_RECORD_HEAD_SIZE;
  if (*length < 0 || blockLength > static_cast<uint64_t>(*length) || blockLength > fileSize)
    return false;
  if (buffer != nullptr) std::memcpy(buffer, data, blockLength);
  *length = static_cast<int32_t>(blockLength);
  return true;
}

// ---- Side index ------------------------------------------------------------

namespace {

constexpr uint32_t SIDE_INDEX_MAGIC = MakeFourCC('S', 'X', '0', '0');

struct SideIndexWriter {
  FILE* file;
  uint32_t header[4];  // magic, 8 + 16 per frame, largest payload length, 0
  bool failed;
};

bool WriteSideEntry(const ScannedFrame& frame, void* context) {
  auto* writer = static_cast<SideIndexWriter*>(context);
  if (fwrite(&frame.entry, sizeof frame.entry, 1, writer->file) != 1) {
    writer->failed = true;
    return false;
  }
  writer->header[1] += sizeof(FrameIndexEntry);
  uint32_t payloadLength = FramePayloadLength(frame.entry.info);
  if (payloadLength > writer->header[2]) writer->header[2] = payloadLength;
  return true;
}

}  // namespace

bool TQFReader::WriteSideIndexFile(int fd) {
  FILE* file = fdopen(fd, "wb");
  if (file == nullptr) {
    close(fd);
    return false;
  }
  SideIndexWriter writer{file, {SIDE_INDEX_MAGIC, TQF_EMPTY_HEADER_LENGTH, 0, 0}, false};
  bool written = fwrite(writer.header, sizeof writer.header, 1, file) == 1 &&
                 ScanFrames(static_cast<const uint8_t*>(view), fileSize, WriteSideEntry, &writer,
                            nullptr) &&
                 !writer.failed && fseek(file, 0, SEEK_SET) == 0 &&
                 fwrite(writer.header, sizeof writer.header, 1, file) == 1;
  return fclose(file) == 0 && written;
}

bool TQFReader::LoadSideIndexFile() {
  MappedFile side;
  if (!side.Open(sidePath.c_str(), 0, 0, 0, 0, nullptr, 0) || side.view == nullptr) return false;
  if (side.fileSize < sizeof sideHeader || side.fileSize % sizeof(FrameIndexEntry) != 0)
    return false;
  uint32_t entryCount = (side.fileSize - sizeof sideHeader) / sizeof(FrameIndexEntry);
  sideIndex.Clear();
  if (entryCount != 0 && !sideIndex.Grow(entryCount)) return false;
  const auto* data = static_cast<const uint8_t*>(side.view);
  std::memcpy(sideHeader, data, sizeof sideHeader);
  if (entryCount != 0)
    std::memcpy(sideIndex.entries, data + sizeof sideHeader, side.fileSize - sizeof sideHeader);
  sideIndex.count = entryCount;
  return true;
}

bool TQFReader::BuildSideIndex() {
  if (view == nullptr) return false;
  if (!sidePath.empty()) {  // a rebuild replaces the earlier file
    unlink(sidePath.c_str());
    sidePath.clear();
  }
  const char* folder = std::getenv("TMPDIR");
  std::string pattern = std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") +
                        "/idxXXXXXX";
  int fd = mkstemp(pattern.data());
  if (fd < 0) return false;
  sidePath = pattern;
  return WriteSideIndexFile(fd) && LoadSideIndexFile();
}
