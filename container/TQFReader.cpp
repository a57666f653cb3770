#include "TQFReader.h"

#include <unistd.h>

#include <bit>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "FaultGuard.h"
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

// Walks the records by their lengths, in 64-bit sums, up to record `number`.
// Both the index scan and GetRecord stand on this one check.
bool TQFReader::FindRecord(const uint8_t* data, uint64_t size, uint32_t number, RecordSpan* span) {
  if (data == nullptr || size < TQF_FILE_HEADER_SIZE) return false;
  const uint32_t recordCount = LoadU32(data + offsetof(TQFFileHeader, recordCount));
  if (recordCount == 0 || recordCount > TQF_READER_MAX_RECORDS || number >= recordCount)
    return false;
  uint64_t position = TQF_FILE_HEADER_SIZE;
  for (uint32_t i = 0;; ++i) {
    if (size - position < TQF_RECORD_HEAD_SIZE) return false;
    const uint32_t length = LoadU32(data + position + offsetof(TQFRecord, recordLength));
    if (size - position - TQF_RECORD_HEAD_SIZE < length) return false;
    if (i == number) {
      *span = RecordSpan{position, LoadU32(data + position), length};
      return true;
    }
    position += uint64_t{TQF_RECORD_HEAD_SIZE} + length;
  }
}

uint64_t TQFReader::RecordsEnd(const uint8_t* data, uint64_t size) {
  if (data == nullptr || size < TQF_FILE_HEADER_SIZE) return 0;
  RecordSpan last;
  const uint32_t recordCount = LoadU32(data + offsetof(TQFFileHeader, recordCount));
  if (recordCount == 0 || !FindRecord(data, size, recordCount - 1, &last)) return 0;
  return last.head + TQF_RECORD_HEAD_SIZE + last.length;
}


FrameWalk TQFReader::WalkWindow(const uint8_t* window, uint64_t base, uint64_t length,
                                uint64_t fileSize, uint64_t position, FrameVisitor visit,
                                void* context, FrameScanSummary* summary) {
  const uint64_t end = base + length;
  const FrameWalk done{fileSize, true};
  auto skipped = [&](uint64_t to) {
    if (summary != nullptr) summary->skippedBytes += to - position;
  };
  while (position < fileSize) {
    if (position >= end) return FrameWalk{position, false};
    const uint64_t sync = base + FindFrameSync(window, position - base, length);
    if (sync >= end) {
      if (end >= fileSize) break;
      // A sync word may straddle the window's end: go on from its last bytes.
      const uint64_t resume = end - position > 3 ? end - 3 : position;
      skipped(resume);
      return FrameWalk{resume, false};
    }
    skipped(sync);
    position = sync + 4;
    // The frame head counts only if it lies wholly inside the file.
    if (fileSize - position < sizeof(TQFFrameHeader)) return done;
    if (end - position < sizeof(TQFFrameHeader)) return FrameWalk{sync, false};
    ScannedFrame frame;
    frame.syncOffset = sync;
    frame.entry.info = LoadU32(window + (position - base));
    frame.entry.stamp = LoadU32(window + (position - base) + 4);
    frame.entry.payloadOffset = position + sizeof(TQFFrameHeader);
    position += sizeof(TQFFrameHeader) + FramePayloadLength(frame.entry.info);
    // A frame is kept only if at least one byte of the file follows it.
    if (position >= fileSize || !visit(frame, context)) return done;
  }
  skipped(position < fileSize ? fileSize : position);
  return done;
}

bool TQFReader::ScanFrames(const uint8_t* data, uint64_t size, FrameVisitor visit, void* context,
                           FrameScanSummary* summary) {
  uint64_t position = 0;
  auto findRecordsEnd = [&] { position = RecordsEnd(data, size); };
  if (!RunGuarded(findRecordsEnd) || position == 0) return false;
  if (summary != nullptr) *summary = FrameScanSummary{position, 0};
  // A fault means the file ends earlier than it did when mapped: what was
  // walked stands, as at any other end.
  auto walk = [&] { WalkWindow(data, 0, size, size, position, visit, context, summary); };
  RunGuarded(walk);
  return true;
}

// ---- TQFReader -------------------------------------------------------------

TQFReader::~TQFReader() { Close(); }

bool TQFReader::Open(const char* path) {
  if (view != nullptr || path == nullptr) return false;
  if (!MappedFile::Open(path, MAPPED_READ, /*offset=*/0, MAPPED_WHOLE_FILE, MAPPED_PRIVATE,
                        /*mappingName=*/nullptr, /*readOnly=*/0)) return false;
  if (!BuildIndex()) {
    Close();
    return false;
  }
  return true;
}

void TQFReader::Close() {
  MappedFile::Close();
  recordCount_ = 0;
  if (!sidePath.empty()) {
    if (IsFileExist(sidePath.c_str())) unlink(sidePath.c_str());
    sidePath.clear();
  }
}

bool TQFReader::BuildIndex() {
  index[0].Clear();
  index[1].Clear();
  recordCount_ = 0;
  auto addToIndex = [](const ScannedFrame& frame, void* context) {
    uint32_t stream = FrameStreamNumber(frame.entry.info);
    // Streams 2 to 15 are outside the format and have no index.
    if (stream <= TQF_STREAM_AUDIO)
      static_cast<TQFReader*>(context)->index[stream].Append(frame.entry);  // a failure skips one
    return true;
  };
  if (!ScanFrames(static_cast<const uint8_t*>(view), fileSize, addToIndex, this, nullptr))
    return false;
  TQFFileHeader header;
  if (!Read(0, &header, sizeof header)) return false;
  recordCount_ = header.recordCount;
  return true;
}

bool TQFReader::GetRecord(int32_t number, uint32_t* type, uint8_t* buffer, int32_t* length) {
  if (number < 0 || number > TQF_MAX_RECORD_INDEX || length == nullptr) return false;
  if (static_cast<uint32_t>(number) >= RecordCount()) return false;
  RecordSpan span{};
  bool found = false;
  auto find = [&] {
    found = FindRecord(static_cast<const uint8_t*>(view), fileSize, static_cast<uint32_t>(number),
                       &span);
  };
  if (!RunGuarded(find) || !found) return false;
  if (span.length > static_cast<uint32_t>(INT32_MAX) || static_cast<int32_t>(span.length) > *length)
    return false;
  if (buffer != nullptr && !Read(span.head + TQF_RECORD_HEAD_SIZE, buffer, span.length))
    return false;
  *length = static_cast<int32_t>(span.length);
  if (type != nullptr) *type = span.type;
  return true;
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
  if (buffer != nullptr && !Read(entry->payloadOffset, buffer, payloadLength)) return false;
  *length = payloadLength;
  if (header != nullptr) *header = TQFFrameHeader{entry->info, entry->stamp};
  return true;
}

bool TQFReader::IsKeyFrame(int32_t stream, int32_t frame) {
  const FrameIndexEntry* entry = FindEntry(stream, frame);
  return entry != nullptr && IsKeyFrameInfo(entry->info);
}

bool TQFReader::GetHeader(uint8_t* buffer, int32_t* length) {
  if (view == nullptr || length == nullptr || *length < 0) return false;
  TQFFileHeader header;
  if (!Read(0, &header, sizeof header)) return false;
  const uint64_t blockLength = uint64_t{header.headerLength} + TQF_RECORD_HEAD_SIZE;
  if (blockLength > static_cast<uint64_t>(*length) || blockLength > fileSize) return false;
  if (buffer != nullptr && !Read(0, buffer, blockLength)) return false;
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
  const uint64_t entryCount64 = (side.fileSize - sizeof sideHeader) / sizeof(FrameIndexEntry);
  if (entryCount64 > UINT32_MAX) return false;
  const uint32_t entryCount = static_cast<uint32_t>(entryCount64);
  sideIndex.Clear();
  if (entryCount != 0 && !sideIndex.Grow(entryCount)) return false;
  if (!side.Read(0, sideHeader, sizeof sideHeader)) return false;
  if (entryCount != 0 &&
      !side.Read(sizeof sideHeader, sideIndex.entries, side.fileSize - sizeof sideHeader))
    return false;
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
