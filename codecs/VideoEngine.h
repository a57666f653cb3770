// VideoEngine: one libavcodec video decoder that turns one payload into at
// most one packed I420 picture of a fixed output size.
//
// It serves the libavcodec members (LibavVideoDecoder) inside the library
// and the AVS plugin outside it, so it depends on libavcodec and libswscale
// only.
//
// The output size is fixed at Open: a stream of another coded size or another
// pixel format is converted (libswscale) to it, so a returned picture always
// holds width * height * 3 / 2 bytes laid out as the decoder contract says.
// The payload is copied into a padded packet of the engine's own, since
// libavcodec may read past the end of its input.
//
// When the coded size is the output size and the planes of a packed picture
// meet libavcodec's alignment (720p and 1080p-wide streams coded without
// cropping, among others), the decoder writes straight into packed pictures
// from a pool of the engine's own and the returned picture is the decoded
// frame itself: no copy. Otherwise the frame is copied or converted into
// `picture`. Either way the returned memory stays valid until the next Decode
// that produces a picture, or Close.
#pragma once

#include <cstdint>

extern "C" {
#include <libavcodec/codec_id.h>
}

struct AVBufferPool;
struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct SwsContext;

struct VideoEngine {
  AVCodecID codecId = AV_CODEC_ID_NONE;
  AVCodecContext* codec = nullptr;
  AVPacket* packet = nullptr;
  AVFrame* frame = nullptr;
  AVFrame* shown = nullptr;       // the last picture decoded in place, held for the caller
  AVBufferPool* packed = nullptr;  // packed pictures with the decoder's padding
  SwsContext* scaler = nullptr;
  uint8_t* picture = nullptr;  // width * height * 3 / 2 bytes, for copied pictures
  int32_t width = 0;
  int32_t height = 0;

  VideoEngine() = default;
  VideoEngine(const VideoEngine&) = delete;
  VideoEngine& operator=(const VideoEngine&) = delete;
  ~VideoEngine();

  // Output sizes the engine accepts: positive, even, at most MAX_SIDE.
  static constexpr int32_t MAX_SIDE = 8192;
  static bool SizeIsUsable(int32_t width, int32_t height);

  // Creates a one-threaded, low-delay decoder for `id` with output pictures
  // of width x height. False (and nothing held) for an unusable size or when
  // libavcodec fails. Replaces whatever an earlier Open made.
  bool Open(AVCodecID id, int32_t width, int32_t height);

  // Sends one payload and gives the picture it produced, or null. Null before
  // Open, for a null or empty payload, and for data the decoder refuses.
  uint8_t* Decode(const uint8_t* data, int32_t length);

  // Throws the decoder's state away and starts a fresh one with the same
  // codec and size; the next key frame decodes as after Open. Used after a
  // fault left the decoder in an unknown state.
  bool Restart();

  void Close();

 private:
  bool OpenCodec();
  uint8_t* Deliver(AVFrame* decoded);
  bool Convert(const AVFrame* decoded);
  static int GetBuffer(AVCodecContext* codec, AVFrame* frame, int flags);
  bool TakesPacked(AVCodecContext* codec, const AVFrame* frame) const;
};
