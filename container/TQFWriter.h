// TQFWriter: writes a TQF file through a buffered file stream.
//
// Calling order: Create, AddRecord any number of times (at most 15 records),
// WriteFrame any number of times, Close. The writer lays out bytes and knows
// nothing of codecs or key frames: what it takes is written unchanged. No
// write is flushed before Close. A writer can be used again after Close.
//
//   TQFWriter writer;
//   writer.Create(path, 0);
//   writer.AddRecord(descriptor.compression, &descriptor, sizeof descriptor);
//   writer.WriteFrame(&header, payload, FramePayloadLength(header.info));
//   writer.Close();
//
// No lock; the owner serialises its use.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "TQFFormat.h"

class TQFWriter {
 public:
  TQFWriter() = default;
  ~TQFWriter() { Close(); }
  TQFWriter(const TQFWriter&) = delete;
  TQFWriter& operator=(const TQFWriter&) = delete;

  // With `append` 0: creates or truncates `path` and writes the 16-byte
  // header of a file with no records. With `append` non-zero: opens `path`
  // for appending and writes nothing (records added then land at the end of
  // the file and spoil it). False if a file is open already, `path` is null,
  // or the file cannot be opened or written.
  bool Create(const char* path, int32_t append);

  // Adds record `type` with `length` bytes of `data` and counts it in the
  // header: the number of the new record, or -1 if no file is open, `length`
  // is negative, a frame was written already, the header counts 15 records,
  // or a read or write fails (a failed write of the record itself leaves it
  // counted in the header).
  int32_t AddRecord(uint32_t type, const void* data, int32_t length);

  // Writes sync, `header` and `length` bytes of `payload`. False with nothing
  // written if FramePayloadLength(header->info) differs from `length`; false
  // after a short write; false with nothing written for a null `payload` of
  // non-zero `length`. A `length` of 0 writes sync and header and reports
  // false. Closes the header for further records.
  bool WriteFrame(const TQFFrameHeader* header, const void* payload, uint32_t length);

  // WriteFrame, then hands the frame to the system at once, for a recording
  // that must learn of a full disk at the frame that met it. On any failure
  // the file is cut back to where the frame began, so that it never holds a
  // part of a frame, and false comes back.
  bool WriteFrameFlushed(const TQFFrameHeader* header, const void* payload, uint32_t length);

  // Closes the file: false if what was still buffered could not be written.
  // Harmless (true) when closed.
  bool Close();

  FILE* file = nullptr;
  std::string path;
  int32_t framesStarted = 0;
};
