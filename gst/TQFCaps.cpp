#include "TQFCaps.h"

#include <string>

namespace {

struct CodecCaps {
  uint32_t fourcc;
  const char* media;
  bool accessUnits;  // byte-stream, one access unit a buffer
};

// The first row of a media type is the FourCC the muxer writes.
constexpr CodecCaps CODECS[] = {
    {FOURCC_H264, "video/x-h264", true},  {FOURCC_G264, "video/x-h264", true},
    {FOURCC_H265, "video/x-h265", true},  {FOURCC_HEVC, "video/x-h265", true},
    {FOURCC_JPEG, "image/jpeg", false},   {FOURCC_AVS0, "video/x-cavs", false},
};

GstStructure* CodecStructure(const CodecCaps& codec) {
  GstStructure* s = gst_structure_new_empty(codec.media);
  if (codec.accessUnits)
    gst_structure_set(s, "stream-format", G_TYPE_STRING, "byte-stream", "alignment", G_TYPE_STRING,
                      "au", nullptr);
  return s;
}

}  // namespace

GstCaps* TQFVideoTemplateCaps() {
  GstCaps* caps = gst_caps_new_empty();
  for (const CodecCaps& codec : CODECS) caps = gst_caps_merge_structure(caps, CodecStructure(codec));
  return caps;
}

GstCaps* TQFVideoCaps(const MediaDescriptor& descriptor, int rateNumerator, int rateDenominator) {
  for (const CodecCaps& codec : CODECS) {
    if (codec.fourcc != descriptor.compression) continue;
    GstStructure* s = CodecStructure(codec);
    gst_structure_set(s, "width", G_TYPE_INT, descriptor.width, "height", G_TYPE_INT,
                      descriptor.height, "framerate", GST_TYPE_FRACTION, rateNumerator,
                      rateDenominator, nullptr);
    return gst_caps_new_full(s, nullptr);
  }
  return nullptr;
}

uint32_t TQFFourCCForCaps(const GstStructure* caps) {
  for (const CodecCaps& codec : CODECS)
    if (gst_structure_has_name(caps, codec.media)) return codec.fourcc;
  return 0;
}
