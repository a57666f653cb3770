#include "ExactStart.h"

#include <cstring>

extern "C" {
#include <libavutil/opt.h>
}

#include "AvError.h"
#include "VideoCodec.h"
#include "VideoTimeline.h"

namespace {

// The encoder of each codec, set for lossless pictures and no B-frames (so
// that the packets come out in the order the pictures go in).
struct HeadEncoder {
  AVCodecID codec;
  const char* name;
  const char* option;  // a private option and its value
  const char* value;
};
constexpr HeadEncoder ENCODERS[] = {
    {AV_CODEC_ID_H264, "libx264", "qp", "0"},
    {AV_CODEC_ID_HEVC, "libx265", "x265-params", "lossless=1:log-level=error"},
};

bool Fail(std::string* error, const std::string& what, int code) {
  *error = what + ": " + AvError(code);
  return false;
}

// Decodes a group from its key frame and encodes the pictures shown from a
// time on.
class HeadCoder {
 public:
  // `timeline`: of the group's frames from `key` on; pictures shown before
  // `firstPts` (in its milliseconds) are dropped.
  HeadCoder(MediaSource& source, const VideoTimeline& timeline, uint32_t key, int64_t firstPts,
            std::vector<EncodedFrame>* frames)
      : source_(source), timeline_(timeline), key_(key), firstPts_(firstPts), frames_(frames) {}

  bool Open(const HeadEncoder& encoder, std::string* error) {
    encoder_ = &encoder;
    const AVCodec* codec = avcodec_find_decoder(encoder.codec);
    decoder_.reset(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
    packet_.reset(av_packet_alloc());
    picture_.reset(av_frame_alloc());
    if (!decoder_ || !packet_ || !picture_) return Fail(error, "decoder", AVERROR_DECODER_NOT_FOUND);
    decoder_->thread_count = 1;
    const int result = avcodec_open2(decoder_.get(), codec, nullptr);
    return result >= 0 || Fail(error, "decoder", result);
  }

  // Decodes frame `frame` (null at the end, to drain the decoder) and encodes
  // the pictures it gives that are shown from `firstPts` on.
  bool Decode(const uint32_t* frame, std::string* error) {
    int result = 0;
    if (frame != nullptr) {
      const uint8_t* payload;
      uint32_t length;
      bool key;
      if (!source_.ReadVideo(*frame, &payload, &length, &key)) {
        *error = "video frame " + std::to_string(*frame) + " cannot be read";
        return false;
      }
      av_packet_unref(packet_.get());
      result = av_new_packet(packet_.get(), static_cast<int>(length));
      if (result < 0) return Fail(error, "packet", result);
      std::memcpy(packet_->data, payload, length);
      packet_->pts = *frame;  // the frame number rides along to the picture
      result = avcodec_send_packet(decoder_.get(), packet_.get());
    } else {
      result = avcodec_send_packet(decoder_.get(), nullptr);
    }
    if (result < 0) return Fail(error, "decoding", result);
    for (;;) {
      result = avcodec_receive_frame(decoder_.get(), picture_.get());
      if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return true;
      if (result < 0) return Fail(error, "decoding", result);
      if (Shown(picture_->pts) && !Encode(picture_.get(), error)) return false;
      av_frame_unref(picture_.get());
    }
  }

  // The encoder's last packets.
  bool Finish(std::string* error) { return !encoderOpen_ || Send(nullptr, error); }

 private:
  bool Shown(int64_t frame) const {
    return frame >= key_ && timeline_.Pts(static_cast<size_t>(frame - key_)) >= firstPts_;
  }

  bool OpenEncoder(const AVFrame* picture, std::string* error) {
    const AVCodec* codec = avcodec_find_encoder_by_name(encoder_->name);
    if (codec == nullptr) return Fail(error, encoder_->name, AVERROR_ENCODER_NOT_FOUND);
    encoder_context_.reset(avcodec_alloc_context3(codec));
    if (!encoder_context_) return Fail(error, encoder_->name, AVERROR(ENOMEM));
    AVCodecContext* c = encoder_context_.get();
    c->width = picture->width;
    c->height = picture->height;
    c->pix_fmt = static_cast<AVPixelFormat>(picture->format);
    c->time_base = AVRational{1, 25};
    c->max_b_frames = 0;
    c->gop_size = INT32_MAX / 2;  // one key frame: the head is shorter than a group
    c->thread_count = 1;
    av_opt_set(c->priv_data, encoder_->option, encoder_->value, 0);
    av_opt_set(c->priv_data, "preset", "ultrafast", 0);
    const int result = avcodec_open2(c, codec, nullptr);
    if (result < 0) return Fail(error, encoder_->name, result);
    encoderOpen_ = true;
    return true;
  }

  bool Encode(AVFrame* picture, std::string* error) {
    if (!encoderOpen_ && !OpenEncoder(picture, error)) return false;
    // The encoder wants rising times; the stamp goes by the picture's place.
    stamps_.push_back(source_.VideoStamp(static_cast<uint32_t>(picture->pts)));
    picture->pts = static_cast<int64_t>(stamps_.size() - 1);
    picture->pict_type = AV_PICTURE_TYPE_NONE;
    return Send(picture, error);
  }

  bool Send(const AVFrame* picture, std::string* error) {
    int result = avcodec_send_frame(encoder_context_.get(), picture);
    if (result < 0) return Fail(error, encoder_->name, result);
    for (;;) {
      av_packet_unref(packet_.get());
      result = avcodec_receive_packet(encoder_context_.get(), packet_.get());
      if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return true;
      if (result < 0) return Fail(error, encoder_->name, result);
      frames_->push_back(EncodedFrame{{packet_->data, packet_->data + packet_->size},
                                      stamps_[static_cast<size_t>(packet_->pts)],
                                      (packet_->flags & AV_PKT_FLAG_KEY) != 0});
    }
  }

  MediaSource& source_;
  const VideoTimeline& timeline_;
  uint32_t key_;
  int64_t firstPts_;
  std::vector<EncodedFrame>* frames_;
  std::vector<uint32_t> stamps_;  // of the pictures encoded, by their place
  const HeadEncoder* encoder_ = nullptr;
  CodecContextPtr decoder_;
  CodecContextPtr encoder_context_;
  bool encoderOpen_ = false;
  PacketPtr packet_;
  FramePtr picture_;
};

}  // namespace

bool EncodeExactStart(MediaSource& source, uint32_t key, uint32_t first, uint32_t next,
                      std::vector<EncodedFrame>* frames, std::string* error) {
  const VideoCodec* codec = FindVideoCodec(source.Video().compression);
  const HeadEncoder* encoder = nullptr;
  for (const HeadEncoder& candidate : ENCODERS)
    if (codec != nullptr && candidate.codec == codec->id) encoder = &candidate;
  if (encoder == nullptr) {
    *error = "--exact re-encodes H.264 and H.265 only";
    return false;
  }
  av_log_set_level(AV_LOG_ERROR);  // the encoder's statistics are no message
  std::vector<uint32_t> stamps;
  for (uint32_t frame = key; frame < next; ++frame) stamps.push_back(source.VideoStamp(frame));
  const VideoTimeline timeline(stamps, key);
  HeadCoder coder(source, timeline, key, timeline.Pts(first - key), frames);
  if (!coder.Open(*encoder, error)) return false;
  for (uint32_t frame = key; frame < next; ++frame)
    if (!coder.Decode(&frame, error)) return false;
  if (!coder.Decode(nullptr, error) || !coder.Finish(error)) return false;
  if (frames->empty()) {
    *error = "the group from frame " + std::to_string(key) + " gave no picture to encode";
    return false;
  }
  return true;
}
