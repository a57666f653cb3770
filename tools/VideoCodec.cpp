#include "VideoCodec.h"

#include <iterator>

extern "C" {
#include <libavutil/macros.h>
}

#include "TQFFormat.h"

namespace {

constexpr VideoCodec CODECS[] = {
    {FOURCC_H264, AV_CODEC_ID_H264, "H.264", "h264_mp4toannexb", "SPS and PPS",
     MKTAG('a', 'v', 'c', '1'), AV_PIX_FMT_YUV420P},
    // hvc1, not hev1: the parameter sets stand in the sample entry, as the
    // players that are strictest about H.265 in MP4 require.
    {FOURCC_H265, AV_CODEC_ID_HEVC, "H.265", "hevc_mp4toannexb", "VPS, SPS and PPS",
     MKTAG('h', 'v', 'c', '1'), AV_PIX_FMT_NONE},
    {FOURCC_HEVC, AV_CODEC_ID_HEVC, "H.265", "hevc_mp4toannexb", "VPS, SPS and PPS",
     MKTAG('h', 'v', 'c', '1'), AV_PIX_FMT_NONE},
    {FOURCC_JPEG, AV_CODEC_ID_MJPEG, "Motion JPEG", nullptr, nullptr, 0, AV_PIX_FMT_YUVJ422P},
};

}  // namespace

const VideoCodec* FindVideoCodec(uint32_t fourcc) {
  for (const VideoCodec& codec : CODECS)
    if (codec.fourcc == fourcc) return &codec;
  return nullptr;
}

const VideoCodec* FindVideoCodecById(AVCodecID id) {
  for (const VideoCodec& codec : CODECS)
    if (codec.id == id) return &codec;
  return nullptr;
}

std::string VideoCodecNames() {
  std::string names;
  for (const VideoCodec& codec : CODECS) {
    if (FindVideoCodecById(codec.id) != &codec) continue;  // a second FourCC of a codec
    if (!names.empty()) names += &codec == &CODECS[std::size(CODECS) - 1] ? " or " : ", ";
    names += codec.name;
  }
  return names;
}
