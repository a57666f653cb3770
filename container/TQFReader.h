// TQFReader: random access to the frames of a TQF file.
//
// Open maps the whole file read-only (a file still being recorded can be
// opened) and scans it once, keeping one FrameIndex per stream (0 video,
// 1 audio). Frames are then found by number and copied straight out of the
// mapping. A file that grows after Open is not noticed.
//
// The scan: step over `recordCount` records (1 to 16) by their lengths, then
// repeatedly find the next sync word one byte at a time, take the frame head,
// and step over the payload by its length (a payload is never searched). A
// frame is indexed only if at least one byte of the file follows it, so the
// last frame of a file is never indexed. Frames of streams 2 to 15 are
// dropped. Positions and sizes are 64-bit: a file of any size that can be
// mapped opens and indexes in full.
//
// Whatever the bytes say, no read leaves the mapping: records or frame heads
// that run past the end, and sync words cut by the end, end the scan. And no
// read may kill the process when another process shortens the file under the
// mapping: every copy out of it is guarded, a read that faults is a failed
// read, and a scan that faults ends where it was.
//
// No lock: after Open the index and the mapping do not change.
#pragma once

#include <cstdint>
#include <string>

#include "MappedFile.h"
#include "TQFFormat.h"

struct FrameIndexEntry {
  uint32_t info;
  uint32_t stamp;
  uint64_t payloadOffset;  // file offset of the first payload byte
};
static_assert(sizeof(FrameIndexEntry) == 16);

// A growable contiguous array of index entries, appended in file order and
// cleared all at once.
struct FrameIndex {
  // Beyond this many bytes the array grows by a fixed step, not by doubling.
  static constexpr uint64_t DOUBLING_LIMIT_BYTES = 0x8000000;
  static constexpr uint32_t FIXED_STEP_ENTRIES = 8388608;
  static constexpr uint32_t MIN_GROWTH_ENTRIES = 256;

  FrameIndex() = default;
  ~FrameIndex() { Clear(); }
  FrameIndex(const FrameIndex&) = delete;
  FrameIndex& operator=(const FrameIndex&) = delete;

  // Stores `entry` at the end, growing first if it is full. False, with the
  // array as it was, if the memory cannot be had.
  bool Append(const FrameIndexEntry& entry);
  // Makes room for `wanted` more entries by the growth rule: at least 256;
  // the smallest power of two at least count + wanted while the entries hold
  // less than 128 MiB; from there count + max(8,388,608, wanted).
  bool Grow(uint32_t wanted);
  // The capacity Grow(wanted) chooses for `count` entries (0 if it cannot be
  // counted in 32 bits).
  static uint32_t GrownCapacity(uint32_t count, uint32_t wanted);
  // Frees the block.
  void Clear();

  FrameIndexEntry* entries = nullptr;
  uint32_t count = 0;
  uint32_t capacity = 0;
};

// One frame the scan met, in file order, of any stream number.
struct ScannedFrame {
  uint64_t syncOffset;  // file offset of the frame's sync word
  FrameIndexEntry entry;
};

// Called for each frame the scan would index; false stops the scan.
typedef bool (*FrameVisitor)(const ScannedFrame& frame, void* context);

// What the scan saw besides the frames.
struct FrameScanSummary {
  uint64_t recordsEnd;    // offset just past the last record
  uint64_t skippedBytes;  // bytes stepped over one at a time looking for a sync word
};

// One record of the header block, as the walk over the records found it.
struct RecordSpan {
  uint64_t head;  // offset of the record's head
  uint32_t type;
  uint32_t length;
};

// Where a walk over a window of a file stopped.
struct FrameWalk {
  uint64_t position;  // the file offset to go on from with the next window
  bool finished;      // the file's end was reached, or the visitor stopped the walk
};

class TQFReader : public MappedFile {
 public:
  TQFReader() = default;
  ~TQFReader();

  // Maps `path` read-only and builds the index. False if a file is mapped
  // already, `path` is null, the mapping fails, or BuildIndex fails (the file
  // is empty, shorter than its header, has a record count of 0 or above 16,
  // or records running past its end), or `path` is not a regular file; the
  // reader is closed after a failure.
  bool Open(const char* path);

  // Ends the mapping and deletes the side index file if there is one. The
  // index arrays stay until the next BuildIndex or destruction.
  void Close();

  // Record `number` (0 to 15, below recordCount): its type into `*type`
  // (if not null), its payload into `buffer` and its length into `*length`.
  // False, with `*length` unchanged, if the payload is longer than `*length`
  // (a signed comparison), the record lies past the end of the file, or the
  // file was cut short under the mapping. A null `buffer` asks for type and
  // length only.
  bool GetRecord(int32_t number, uint32_t* type, uint8_t* buffer, int32_t* length);

  // Frame `frame` of stream `stream` (0 to 15, below recordCount): the payload
  // into `buffer` (if not null), its length into `*length`, info and stamp
  // into `*header`. False, with `*length` unchanged, if the payload is longer
  // than `*length`; false if the file was cut short under the payload (the
  // buffer then holds an unknown part of it). A null `buffer` asks for size
  // and header only.
  bool ReadFrame(int32_t stream, int32_t frame, TQFFrameHeader* header, uint8_t* buffer,
                 uint32_t* length);

  // Whether frame `frame` of `stream` has the key flag; false where ReadFrame
  // would refuse the numbers.
  bool IsKeyFrame(int32_t stream, int32_t frame);

  // The whole header block (headerLength + 8 bytes) into `buffer`, its size
  // into `*length`. False if no file is mapped, the block is longer than
  // `*length` or runs past the end of the file.
  bool GetHeader(uint8_t* buffer, int32_t* length);

  // Writes the entries of every frame of the mapped file, all streams in one
  // run, to a temporary file ("idx" prefix, in TMPDIR) named by `sidePath`:
  // a 16-byte header "SX00", 8 + 16 per frame, the largest payload length,
  // 0; then maps that file back into `sideHeader` and `sideIndex`. Close
  // deletes the file. False if no file is mapped or the file cannot be made.
  bool BuildSideIndex();

  // Walks the frames of the file image `data` of `size` bytes by the rules
  // above and hands each frame that would be indexed to `visit`. False if the
  // header block is unusable; `summary` (if not null) gets what was skipped.
  // The walk runs under the fault guard: if `data` is a mapping whose file
  // was cut short, it ends at the cut.
  static bool ScanFrames(const uint8_t* data, uint64_t size, FrameVisitor visit, void* context,
                         FrameScanSummary* summary);

  // Record `number` of the header block at `data` (`size` bytes, from the
  // file's start), found by walking the records by their lengths. False if
  // `data` is null, the count is 0 or above 16, `number` is not below it, or
  // any record up to `number` runs past `size`.
  static bool FindRecord(const uint8_t* data, uint64_t size, uint32_t number, RecordSpan* span);
  // The offset just past the records, or 0 if the count or the lengths do
  // not fit `size`.
  static uint64_t RecordsEnd(const uint8_t* data, uint64_t size);

  // The walk of ScanFrames over a window of the file, for readers that see
  // the file a piece at a time: `window` holds the bytes [base, base +
  // length) of a file of `fileSize` bytes, and the walk starts at `position`,
  // just past the records or where the last window's walk stopped. It stops
  // unfinished where it needs bytes past the window (a frame head, or a
  // sync word that may straddle the window's end, or a frame starting past
  // it); a window of at least 16 bytes from there makes progress. Windows
  // that cover the file give the frames ScanFrames gives. No fault guard.
  static FrameWalk WalkWindow(const uint8_t* window, uint64_t base, uint64_t length,
                              uint64_t fileSize, uint64_t position, FrameVisitor visit,
                              void* context, FrameScanSummary* summary);

  // The number of records the header block counts, read at Open; 0 when no
  // file is mapped.
  uint32_t RecordCount() const { return recordCount_; }

  uint8_t sideHeader[16] = {};
  FrameIndex sideIndex;
  std::string sidePath;
  FrameIndex index[2];  // stream 0 video, stream 1 audio

 private:
  bool BuildIndex();
  // The entry of a frame, or null where ReadFrame refuses the numbers.
  const FrameIndexEntry* FindEntry(int32_t stream, int32_t frame) const;
  bool WriteSideIndexFile(int fd);
  bool LoadSideIndexFile();

  uint32_t recordCount_ = 0;
};
