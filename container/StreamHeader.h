// StreamHeader: the header block of a live stream, checked as a stream
// player opens it, and the video descriptor in it.
#pragma once

#include <cstdint>

#include "TQFFormat.h"

struct StreamHeader {
  // Checks the `size` bytes at `header`: the "TQF0" magic, a length word that
  // gives `size`, 1 to 16 records, and each record up to the first with a
  // FourCC type inside the block and at most 65536 bytes long. False if any
  // of that fails. On success `hasVideo` tells whether a FourCC record was
  // found, and `video` holds the 40 bytes from where its payload starts,
  // whatever its length, with bytes past the end of the block read as zero.
  bool Parse(const uint8_t* header, uint32_t size);

  bool hasVideo = false;
  MediaDescriptor video{};
};
