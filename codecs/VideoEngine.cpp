#include "VideoEngine.h"

#include <cstdlib>
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

namespace {

size_t PackedSize(int32_t width, int32_t height) { return size_t(width) * height * 3 / 2; }

// What a packed picture has after its last plane for the decoder to read,
// never write: its rows up to libavcodec's aligned height (a multiple of 32
// at most, plus two rows the chroma motion compensation may touch), and the
// bytes its SIMD may read past a row's end. Only the last plane's overrun
// leaves the picture; the others fall into the next plane.
constexpr size_t SIMD_OVERREAD = 128;
size_t PackedPadding(int32_t width) { return size_t(width) * 20 + SIMD_OVERREAD; }

}  // namespace

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
  picture = static_cast<uint8_t*>(malloc(PackedSize(w, h)));
  packet = av_packet_alloc();
  frame = av_frame_alloc();
  shown = av_frame_alloc();
  // Zeroed once, when the pool makes a buffer, so that the padding the
  // decoder reads is never uninitialised.
  packed = av_buffer_pool_init(PackedSize(w, h) + PackedPadding(w), av_buffer_allocz);
  if (picture == nullptr || packet == nullptr || frame == nullptr || shown == nullptr ||
      packed == nullptr || !OpenCodec()) {
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
  codec->opaque = this;
  codec->get_buffer2 = GetBuffer;
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
  av_frame_free(&shown);
  av_buffer_pool_uninit(&packed);  // frees each buffer as its last reference goes
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
  uint8_t* result = nullptr;
  while (avcodec_receive_frame(codec, frame) == 0) result = Deliver(frame);
  return result;
}

bool VideoEngine::TakesPacked(AVCodecContext* context, const AVFrame* target) const {
  if (!(context->codec->capabilities & AV_CODEC_CAP_DR1) || target->width != width ||
      target->height != height ||
      (target->format != AV_PIX_FMT_YUV420P && target->format != AV_PIX_FMT_YUVJ420P))
    return false;
  int alignedWidth = width, alignedHeight = height;
  int strideAlign[AV_NUM_DATA_POINTERS];
  avcodec_align_dimensions2(context, &alignedWidth, &alignedHeight, strideAlign);
  const int lumaSize = width * height;
  const size_t lastPlaneOverrun = size_t(alignedHeight - height + 4) * (width / 2) + SIMD_OVERREAD;
  return alignedWidth == width && width % strideAlign[0] == 0 && (width / 2) % strideAlign[1] == 0 &&
         (width / 2) % strideAlign[2] == 0 && (lumaSize / 4) % strideAlign[0] == 0 &&
         lastPlaneOverrun <= PackedPadding(width);
}

int VideoEngine::GetBuffer(AVCodecContext* context, AVFrame* target, int flags) {
  VideoEngine* engine = static_cast<VideoEngine*>(context->opaque);
  if (!engine->TakesPacked(context, target)) return avcodec_default_get_buffer2(context, target, flags);
  AVBufferRef* buffer = av_buffer_pool_get(engine->packed);
  if (buffer == nullptr) return AVERROR(ENOMEM);
  const int lumaSize = engine->width * engine->height;
  target->buf[0] = buffer;
  target->data[0] = buffer->data;
  target->data[1] = buffer->data + lumaSize;
  target->data[2] = buffer->data + lumaSize + lumaSize / 4;
  target->linesize[0] = engine->width;
  target->linesize[1] = target->linesize[2] = engine->width / 2;
  target->extended_data = target->data;
  return 0;
}

uint8_t* VideoEngine::Deliver(AVFrame* decoded) {
  const int lumaSize = width * height;
  const bool isPacked = decoded->width == width && decoded->height == height &&
                        (decoded->format == AV_PIX_FMT_YUV420P || decoded->format == AV_PIX_FMT_YUVJ420P) &&
                        decoded->linesize[0] == width && decoded->linesize[1] == width / 2 &&
                        decoded->linesize[2] == width / 2 && decoded->data[1] == decoded->data[0] + lumaSize &&
                        decoded->data[2] == decoded->data[1] + lumaSize / 4;
  if (isPacked) {
    // The frame is the picture: hold it (the decoder may keep it as a
    // reference too, but never writes to it again) until the next one.
    av_frame_unref(shown);
    av_frame_move_ref(shown, decoded);
    return shown->data[0];
  }
  const bool converted = Convert(decoded);
  av_frame_unref(decoded);
  return converted ? picture : nullptr;
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
