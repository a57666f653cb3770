#include "VideoEngine.h"

#include <cstdlib>
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

VideoEngine::~VideoEngine() { Close(); }

bool VideoEngine::SizeIsUsable(int32_t w, int32_t h) {
  return w > 0 && h > 0 && w % 2 == 0 && h % 2 == 0 && w <= MAX_SIDE && h <= MAX_SIDE;
}

bool VideoEngine::Open(AVCodecID id, int32_t w, int32_t h) {
  Close();
  if (!SizeIsUsable(w, h)) return false;
  codecId = id;
  width = w;
  height = h;
  picture = static_cast<uint8_t*>(malloc(static_cast<size_t>(w) * h * 3 / 2));
  packet = av_packet_alloc();
  frame = av_frame_alloc();
  if (picture == nullptr || packet == nullptr || frame == nullptr || !OpenCodec()) {
    Close();
    return false;
  }
  return true;
}

bool VideoEngine::OpenCodec() {
  const AVCodec* decoder = avcodec_find_decoder(codecId);
  if (decoder == nullptr) return false;
  codec = avcodec_alloc_context3(decoder);
  if (codec == nullptr) return false;
  // One payload in, its picture out at once: no frame threads, no reordering
  // delay.
  codec->thread_count = 1;
  codec->flags |= AV_CODEC_FLAG_LOW_DELAY;
  if (avcodec_open2(codec, decoder, nullptr) < 0) {
    avcodec_free_context(&codec);
    return false;
  }
  return true;
}

bool VideoEngine::Restart() {
  if (picture == nullptr) return false;
  // A decode cut short may have left a packet or frame holding buffers.
  av_packet_unref(packet);
  av_frame_unref(frame);
  avcodec_free_context(&codec);
  return OpenCodec();
}

void VideoEngine::Close() {
  avcodec_free_context(&codec);
  av_packet_free(&packet);
  av_frame_free(&frame);
  sws_freeContext(scaler);
  scaler = nullptr;
  free(picture);
  picture = nullptr;
  width = height = 0;
}

uint8_t* VideoEngine::Decode(const uint8_t* data, int32_t length) {
  if (codec == nullptr || data == nullptr || length <= 0) return nullptr;
  if (av_new_packet(packet, length) < 0) return nullptr;  // zeroed padding included
  memcpy(packet->data, data, static_cast<size_t>(length));
  int sent = avcodec_send_packet(codec, packet);
  av_packet_unref(packet);
  if (sent < 0) return nullptr;
  bool produced = false;
  while (avcodec_receive_frame(codec, frame) == 0) {
    produced = Convert(frame);
    av_frame_unref(frame);
  }
  return produced ? picture : nullptr;
}

namespace {

void CopyPlane(uint8_t* to, int toStride, const uint8_t* from, int fromStride, int rowBytes, int rows) {
  for (int row = 0; row < rows; ++row) memcpy(to + row * toStride, from + row * fromStride, rowBytes);
}

}  // namespace

bool VideoEngine::Convert(const AVFrame* decoded) {
  if (decoded->width <= 0 || decoded->height <= 0 || decoded->data[0] == nullptr) return false;
  const int lumaSize = width * height;
  uint8_t* planes[4] = {picture, picture + lumaSize, picture + lumaSize + lumaSize / 4, nullptr};
  int strides[4] = {width, width / 2, width / 2, 0};
  const AVPixelFormat format = static_cast<AVPixelFormat>(decoded->format);
  if (decoded->width == width && decoded->height == height &&
      (format == AV_PIX_FMT_YUV420P || format == AV_PIX_FMT_YUVJ420P)) {
    CopyPlane(planes[0], strides[0], decoded->data[0], decoded->linesize[0], width, height);
    for (int plane = 1; plane < 3; ++plane)
      CopyPlane(planes[plane], strides[plane], decoded->data[plane], decoded->linesize[plane],
                width / 2, height / 2);
    return true;
  }
  scaler = sws_getCachedContext(scaler, decoded->width, decoded->height, format, width, height,
                                AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr);
  if (scaler == nullptr) return false;
  return sws_scale(scaler, decoded->data, decoded->linesize, 0, decoded->height, planes, strides) ==
         height;
}
