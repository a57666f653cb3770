// VideoCodec: the video codecs that import, export and info carry between
// TQF and other containers, keyed by the FourCC of a TQF video record and by
// libavcodec's codec id: their name, and what MP4 and Matroska need of them.
//
// The table is constant and shared by all threads.
#pragma once

#include <cstdint>
#include <string>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/pixfmt.h>
}

struct VideoCodec {
  uint32_t fourcc;  // the FourCC import writes (a codec may have more; see FindVideoCodec)
  AVCodecID id;
  const char* name;  // "H.265": for reports and info
  // The bitstream filter that turns MP4's length-prefixed packets into the
  // Annex B form TQF payloads are in; null for a codec without that form.
  const char* annexBFilter;
  // The parameter sets a muxer needs as extradata, as a report names them
  // ("SPS and PPS"); null when the codec needs none.
  const char* parameterSets;
  uint32_t mp4Tag;  // the sample entry in MP4; 0: Matroska only
  AVPixelFormat format;  // what export declares; AV_PIX_FMT_NONE when the bitstream alone tells
};

// The codec of a TQF video record's FourCC ("H265" and "HEVC" give the same
// codec), or null for a FourCC the tool does not carry.
const VideoCodec* FindVideoCodec(uint32_t fourcc);

// The codec libavcodec calls `id`, or null. Its `fourcc` is what to write.
const VideoCodec* FindVideoCodecById(AVCodecID id);

// The names of the codecs for reports: "H.264, H.265 or Motion JPEG".
std::string VideoCodecNames();
