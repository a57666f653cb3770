// HeaderBlock: the header block of a TQF file or live stream, laid out in
// memory, for writers that send bytes rather than write a file (TQFWriter
// lays out the same bytes in its file).
//
//   HeaderBlock block;
//   block.AddRecord(descriptor.compression, &descriptor, sizeof descriptor);
//   send(block.bytes.data(), block.bytes.size());
#pragma once

#include <cstdint>
#include <vector>

#include "TQFFormat.h"

struct HeaderBlock {
  // A block with no records: magic, headerLength 8, 0, a record count of 0.
  HeaderBlock();

  // Appends record `type` with the `length` bytes at `data` and counts it.
  // False, with the block unchanged, once it holds TQF_WRITER_MAX_RECORDS
  // records, for a payload above TQF_STREAM_MAX_RECORD_PAYLOAD bytes, or for
  // a null `data` of non-zero length.
  bool AddRecord(uint32_t type, const void* data, uint32_t length);

  std::vector<uint8_t> bytes;
};

// Appends a frame's head (sync, info, stamp) and the `length` bytes of
// `payload` to `out`; a writer that sends the payload apart gives 0 and null.
// `header.info` must give the payload's length.
void AppendFrame(std::vector<uint8_t>& out, const TQFFrameHeader& header, const uint8_t* payload,
                 uint32_t length);
