// Small libav* helpers of the tool: the text of an error code for one-line
// messages, and owners that free the libraries' objects on every path.
#pragma once

#include <memory>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
}

inline std::string AvError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof text);
  return text;
}

struct CodecContextFree {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameFree {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketFree {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct BsfFree {
  void operator()(AVBSFContext* b) const { av_bsf_free(&b); }
};
struct ResamplerFree {
  void operator()(SwrContext* s) const { swr_free(&s); }
};
struct AudioFifoFree {
  void operator()(AVAudioFifo* f) const { av_audio_fifo_free(f); }
};
struct InputFree {
  void operator()(AVFormatContext* f) const { avformat_close_input(&f); }
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextFree>;
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;
using BsfPtr = std::unique_ptr<AVBSFContext, BsfFree>;
using ResamplerPtr = std::unique_ptr<SwrContext, ResamplerFree>;
using AudioFifoPtr = std::unique_ptr<AVAudioFifo, AudioFifoFree>;
using InputPtr = std::unique_ptr<AVFormatContext, InputFree>;
