// TQFCaps: the video codecs TQF carries and their GStreamer caps, one table
// for the demuxer (FourCC to caps) and the muxer (caps to FourCC).
#pragma once

#include <gst/gst.h>

#include <cstdint>

#include "TQFFormat.h"

// The caps of the TQF container itself.
constexpr const char TQF_CONTAINER_CAPS[] = "video/x-tqf";
// The decoded audio the demuxer gives and the raw audio the muxer takes.
constexpr const char TQF_AUDIO_CAPS[] =
    "audio/x-raw, format=(string)S16LE, layout=(string)interleaved, rate=(int)8000, channels=(int)1";

// Every video format of the table, without sizes: for pad templates. The
// caller owns the result.
GstCaps* TQFVideoTemplateCaps();

// The caps of the video that `descriptor` describes, with its size and the
// frame rate `rateNumerator`/`rateDenominator`; null for a FourCC the table
// does not know. The caller owns the result.
GstCaps* TQFVideoCaps(const MediaDescriptor& descriptor, int rateNumerator, int rateDenominator);

// The FourCC a muxer writes for video of these caps (the first row of their
// media type); 0 for caps of no row.
uint32_t TQFFourCCForCaps(const GstStructure* caps);
