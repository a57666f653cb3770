// A PNG file decoded with libavcodec into packed RGB24, for the tests of the
// tool's stills and of the viewer's window snapshot.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libswscale/swscale.h>
}

#include "TempFolder.h"

struct RgbImage {
  int width = 0;  // 0 if the file does not decode
  int height = 0;
  std::vector<uint8_t> rgb;
};

inline RgbImage DecodePng(const std::string& path) {
  RgbImage image;
  std::vector<uint8_t> bytes = ReadWholeFile(path);
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_PNG);
  AVCodecContext* decoder = avcodec_alloc_context3(codec);
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  if (!bytes.empty() && avcodec_open2(decoder, codec, nullptr) == 0 &&
      av_new_packet(packet, static_cast<int>(bytes.size())) == 0) {
    std::memcpy(packet->data, bytes.data(), bytes.size());
    if (avcodec_send_packet(decoder, packet) == 0 && avcodec_receive_frame(decoder, frame) == 0) {
      SwsContext* scale = sws_getContext(frame->width, frame->height,
                                         static_cast<AVPixelFormat>(frame->format), frame->width,
                                         frame->height, AV_PIX_FMT_RGB24, SWS_POINT, nullptr,
                                         nullptr, nullptr);
      if (scale != nullptr) {
        image.rgb.resize(static_cast<size_t>(frame->width) * frame->height * 3);
        uint8_t* planes[4] = {image.rgb.data(), nullptr, nullptr, nullptr};
        int strides[4] = {frame->width * 3, 0, 0, 0};
        sws_scale(scale, frame->data, frame->linesize, 0, frame->height, planes, strides);
        sws_freeContext(scale);
        image.width = frame->width;
        image.height = frame->height;
      }
    }
  }
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&decoder);
  return image;
}

// An I420 picture in RGB24 by the same conversion the tool's stills use.
inline std::vector<uint8_t> I420ToRgb(const std::vector<uint8_t>& picture, int width, int height) {
  std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3);
  const size_t luma = static_cast<size_t>(width) * height;
  const uint8_t* in[4] = {picture.data(), picture.data() + luma, picture.data() + luma + luma / 4,
                          nullptr};
  const int inStrides[4] = {width, width / 2, width / 2, 0};
  uint8_t* out[4] = {rgb.data(), nullptr, nullptr, nullptr};
  const int outStrides[4] = {width * 3, 0, 0, 0};
  SwsContext* scale = sws_getContext(width, height, AV_PIX_FMT_YUV420P, width, height,
                                     AV_PIX_FMT_RGB24, SWS_BICUBIC, nullptr, nullptr, nullptr);
  sws_scale(scale, in, inStrides, 0, height, out, outStrides);
  sws_freeContext(scale);
  return rgb;
}

// The mean absolute difference of two images' bytes (255 if sizes differ).
inline double MeanDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  if (a.size() != b.size() || a.empty()) return 255;
  uint64_t sum = 0;
  for (size_t i = 0; i < a.size(); ++i) sum += a[i] > b[i] ? a[i] - b[i] : b[i] - a[i];
  return static_cast<double>(sum) / static_cast<double>(a.size());
}

// The standard deviation of the bytes: near 0 for a blank image.
inline double Spread(const std::vector<uint8_t>& bytes) {
  double sum = 0, squares = 0;
  for (uint8_t b : bytes) {
    sum += b;
    squares += static_cast<double>(b) * b;
  }
  double mean = sum / static_cast<double>(bytes.size());
  return std::sqrt(squares / static_cast<double>(bytes.size()) - mean * mean);
}
