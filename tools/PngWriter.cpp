#include "PngWriter.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include "AvError.h"

namespace {

struct SwsFree {
  void operator()(SwsContext* s) const { sws_freeContext(s); }
};

bool Fail(std::string* error, const char* what, const std::string& why) {
  *error = std::string(what) + ": " + why;
  return false;
}

// The picture as an RGB24 frame.
bool ToRgb(const uint8_t* const planes[4], const int strides[4], int32_t width, int32_t height,
           int format, AVFrame* rgb, std::string* error) {
  rgb->format = AV_PIX_FMT_RGB24;
  rgb->width = width;
  rgb->height = height;
  int result = av_frame_get_buffer(rgb, 0);
  if (result < 0) return Fail(error, "picture buffer", AvError(result));
  std::unique_ptr<SwsContext, SwsFree> scale(
      sws_getContext(width, height, static_cast<AVPixelFormat>(format), width, height,
                     AV_PIX_FMT_RGB24, SWS_BICUBIC, nullptr, nullptr, nullptr));
  if (!scale) return Fail(error, "colour conversion", "format not supported");
  sws_scale(scale.get(), planes, strides, 0, height, rgb->data, rgb->linesize);
  return true;
}

}  // namespace

bool WritePng(const char* path, const uint8_t* const planes[4], const int strides[4],
              int32_t width, int32_t height, int format, std::string* error) {
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
  if (codec == nullptr) return Fail(error, "png encoder", "missing from libavcodec");
  CodecContextPtr encoder(avcodec_alloc_context3(codec));
  FramePtr rgb(av_frame_alloc());
  PacketPtr packet(av_packet_alloc());
  if (!encoder || !rgb || !packet) return Fail(error, "png encoder", "out of memory");
  encoder->width = width;
  encoder->height = height;
  encoder->pix_fmt = AV_PIX_FMT_RGB24;
  encoder->time_base = AVRational{1, 25};
  int result = avcodec_open2(encoder.get(), codec, nullptr);
  if (result < 0) return Fail(error, "png encoder", AvError(result));
  if (!ToRgb(planes, strides, width, height, format, rgb.get(), error)) return false;
  result = avcodec_send_frame(encoder.get(), rgb.get());
  if (result >= 0) result = avcodec_receive_packet(encoder.get(), packet.get());
  if (result < 0) return Fail(error, "png encoder", AvError(result));

  FILE* file = std::fopen(path, "wb");
  if (file == nullptr) return Fail(error, path, std::strerror(errno));
  bool written = std::fwrite(packet->data, 1, static_cast<size_t>(packet->size), file) ==
                 static_cast<size_t>(packet->size);
  if (std::fclose(file) != 0 || !written) return Fail(error, path, "write failed");
  return true;
}

bool WriteI420Png(const char* path, const uint8_t* picture, int32_t width, int32_t height,
                  std::string* error) {
  const size_t luma = static_cast<size_t>(width) * static_cast<size_t>(height);
  const uint8_t* planes[4] = {picture, picture + luma, picture + luma + luma / 4, nullptr};
  const int strides[4] = {width, width / 2, width / 2, 0};
  return WritePng(path, planes, strides, width, height, AV_PIX_FMT_YUV420P, error);
}
