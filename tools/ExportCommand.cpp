// tqfplay export: TQF to MP4 or Matroska with libavformat.
//
// Video: the frames' payloads become packets as they are, from the first key
// frame on (nothing before it decodes), timed by VideoTimeline: from the
// stamps when they are milliseconds, else 40 ms apart. H.264 and H.265 go in
// Annex B form with the first key frame's parameter sets as extradata, which
// both muxers turn into their own form (H.265 as hvc1 in MP4); Motion JPEG
// goes into Matroska only.
// Audio: stream 1's G.726 decoded by the library's module to 16-bit PCM at
// 8 kHz mono, kept as PCM in Matroska and WAV and encoded to AAC
// (libavcodec's native encoder) in MP4. With video, the audio starts with the
// first picture: what comes before it is cut, and audio that starts later is
// delayed to its time. Packets of both streams go out in time order. A WAV
// (tqfplay audio) holds the audio alone, all of it.
#include "ExportCommand.h"

#include <cstdio>
#include <cstring>
#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}

#include "AvError.h"
#include "MediaSource.h"
#include "Options.h"
#include "OutputFile.h"
#include "VideoCodec.h"
#include "VideoTimeline.h"

namespace {

constexpr const char NAME[] = "export";
constexpr AVRational VIDEO_TIME_BASE{1, 1000};  // milliseconds
constexpr int64_t AUDIO_SAMPLES_PER_MS = G726_SAMPLE_RATE / 1000;
constexpr AVRational AUDIO_TIME_BASE{1, G726_SAMPLE_RATE};
constexpr int64_t AAC_BIT_RATE = 32000;

// The parameter sets of a key frame of `codec`, which a muxer needs as
// extradata, as libavcodec's extract_extradata filter finds them. Empty if
// none.
std::vector<uint8_t> ParameterSets(AVCodecID codec, const uint8_t* data, uint32_t length) {
  const AVBitStreamFilter* filter = av_bsf_get_by_name("extract_extradata");
  AVBSFContext* raw = nullptr;
  if (filter == nullptr || av_bsf_alloc(filter, &raw) < 0) return {};
  BsfPtr bsf(raw);
  PacketPtr packet(av_packet_alloc());
  bsf->par_in->codec_type = AVMEDIA_TYPE_VIDEO;
  bsf->par_in->codec_id = codec;
  if (!packet || av_bsf_init(bsf.get()) < 0 || av_new_packet(packet.get(), static_cast<int>(length)) < 0)
    return {};
  std::memcpy(packet->data, data, length);
  packet->flags = AV_PKT_FLAG_KEY;
  if (av_bsf_send_packet(bsf.get(), packet.get()) < 0 ||
      av_bsf_receive_packet(bsf.get(), packet.get()) < 0)
    return {};
  size_t size = 0;
  const uint8_t* sets = av_packet_get_side_data(packet.get(), AV_PKT_DATA_NEW_EXTRADATA, &size);
  return sets != nullptr ? std::vector<uint8_t>(sets, sets + size) : std::vector<uint8_t>{};
}

struct FormatContextFree {
  void operator()(AVFormatContext* f) const {
    if (f->pb != nullptr) avio_closep(&f->pb);
    avformat_free_context(f);
  }
};

// One export: the source, the muxer and, for MP4, the AAC encoder.
class Exporter {
 public:
  Exporter(MediaSource& source, const char* outPath, ExportFormat format, ExportRange range)
      : source_(source),
        outPath_(outPath),
        format_(format),
        mp4_(format == ExportFormat::MP4),
        firstFrame_(range.first),
        endFrame_(std::min(range.end, source.VideoFrames())) {}

  // The whole export; after a failure, no part of the output file is left.
  bool Run(std::string* error) {
    bool done = OpenMuxer(error) && AddVideo(error) && AddAudio(error) && WriteHeader(error) &&
                WritePackets(error) && Finish(error);
    if (!done && created_) {
      muxer_.reset();
      std::remove(outPath_.c_str());
    }
    return done;
  }

  ExportSummary Summary() const {
    return {videoWritten_, videoEndMs_ / 1000.0, audioWritten_,
            timeline_.has_value() && timeline_->FromStamps()};
  }

 private:
  bool Fail(std::string* error, const std::string& what, int code) {
    *error = what + ": " + AvError(code);
    return false;
  }

  bool OpenMuxer(std::string* error) {
    static const char* const MUXERS[] = {"mp4", "matroska", "wav"};  // by ExportFormat
    AVFormatContext* muxer = nullptr;
    int result = avformat_alloc_output_context2(
        &muxer, nullptr, MUXERS[static_cast<int>(format_)], outPath_.c_str());
    if (result < 0) return Fail(error, "muxer", result);
    muxer_.reset(muxer);
    muxer_->flags |= AVFMT_FLAG_BITEXACT;  // no writer's tag: a plain 44-byte WAV header
    return true;
  }

  bool AddVideo(std::string* error) {
    if (format_ == ExportFormat::WAV) return true;
    if (!source_.HasVideo()) {
      *error = "the file has no video frames";
      return false;
    }
    const MediaDescriptor& video = source_.Video();
    codec_ = FindVideoCodec(video.compression);
    if (codec_ == nullptr) {
      *error = "only " + VideoCodecNames() + " video can be exported";
      return false;
    }
    if (mp4_ && codec_->mp4Tag == 0) {
      *error = std::string(codec_->name) + " goes into .mkv only";
      return false;
    }
    while (firstFrame_ < endFrame_ && !source_.IsKeyFrame(firstFrame_)) ++firstFrame_;
    if (firstFrame_ >= endFrame_) {
      *error = "the video has no key frame";
      return false;
    }
    videoStream_ = avformat_new_stream(muxer_.get(), nullptr);
    if (videoStream_ == nullptr) return Fail(error, "video stream", AVERROR(ENOMEM));
    AVCodecParameters* p = videoStream_->codecpar;
    p->codec_type = AVMEDIA_TYPE_VIDEO;
    p->codec_id = codec_->id;
    p->codec_tag = mp4_ ? codec_->mp4Tag : 0;
    p->width = video.width;
    p->height = video.height;
    p->format = codec_->format;
    videoStream_->time_base = VIDEO_TIME_BASE;
    std::vector<uint32_t> stamps;
    for (uint32_t frame = firstFrame_; frame < endFrame_; ++frame)
      stamps.push_back(source_.VideoStamp(frame));
    timeline_.emplace(stamps, firstFrame_);
    if (endFrame_ < source_.VideoFrames()) audioEnd_ = PicturesEndMs() * AUDIO_SAMPLES_PER_MS;
    av_reduce(&videoStream_->avg_frame_rate.num, &videoStream_->avg_frame_rate.den,
              timeline_->RateNumerator(), timeline_->RateDenominator(), INT32_MAX);
    return codec_->parameterSets == nullptr || SetParameterSets(p, error);
  }

  // When the last picture ends, against the first picture.
  int64_t PicturesEndMs() const {
    int64_t end = 0;
    for (size_t i = 0; i < endFrame_ - firstFrame_; ++i)
      end = std::max(end, timeline_->Pts(i) + timeline_->Duration(i));
    return end;
  }

  bool SetParameterSets(AVCodecParameters* p, std::string* error) {
    const uint8_t* payload;
    uint32_t length;
    bool key;
    source_.ReadVideo(firstFrame_, &payload, &length, &key);
    std::vector<uint8_t> sets = ParameterSets(codec_->id, payload, length);
    if (sets.empty()) {
      *error = std::string("the first ") + codec_->name + " key frame carries no " + codec_->parameterSets;
      return false;
    }
    p->extradata = static_cast<uint8_t*>(av_mallocz(sets.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (p->extradata == nullptr) return Fail(error, "extradata", AVERROR(ENOMEM));
    std::memcpy(p->extradata, sets.data(), sets.size());
    p->extradata_size = static_cast<int>(sets.size());
    return true;
  }

  bool AddAudio(std::string* error) {
    if (!source_.HasAudio()) return true;
    // Where the audio's first sample falls against the first picture: the
    // audio's stamp (milliseconds too) when the video is timed by stamps,
    // else the start of the file.
    if (timeline_.has_value()) {
      const int64_t audioStartMs = timeline_->FromStamps() ? source_.AudioStamp(0) : 0;
      audioSamples_ = (audioStartMs - timeline_->OriginMs()) * AUDIO_SAMPLES_PER_MS;
    }
    aacPts_ = std::max<int64_t>(audioSamples_, 0);
    audioStream_ = avformat_new_stream(muxer_.get(), nullptr);
    if (audioStream_ == nullptr) return Fail(error, "audio stream", AVERROR(ENOMEM));
    audioStream_->time_base = AUDIO_TIME_BASE;
    AVCodecParameters* p = audioStream_->codecpar;
    if (!mp4_) {
      p->codec_type = AVMEDIA_TYPE_AUDIO;
      p->codec_id = AV_CODEC_ID_PCM_S16LE;
      p->sample_rate = G726_SAMPLE_RATE;
      p->ch_layout = AV_CHANNEL_LAYOUT_MONO;
      p->bits_per_coded_sample = 16;
      p->format = AV_SAMPLE_FMT_S16;
      return true;
    }
    return OpenAac(p, error);
  }

  bool OpenAac(AVCodecParameters* p, std::string* error) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (codec == nullptr) return Fail(error, "aac encoder", AVERROR_ENCODER_NOT_FOUND);
    aac_.reset(avcodec_alloc_context3(codec));
    if (!aac_) return Fail(error, "aac encoder", AVERROR(ENOMEM));
    aac_->sample_fmt = AV_SAMPLE_FMT_FLTP;
    aac_->sample_rate = G726_SAMPLE_RATE;
    aac_->ch_layout = AV_CHANNEL_LAYOUT_MONO;
    aac_->bit_rate = AAC_BIT_RATE;
    aac_->time_base = AUDIO_TIME_BASE;
    if (muxer_->oformat->flags & AVFMT_GLOBALHEADER) aac_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    int result = avcodec_open2(aac_.get(), codec, nullptr);
    if (result < 0) return Fail(error, "aac encoder", result);
    result = avcodec_parameters_from_context(p, aac_.get());
    if (result < 0) return Fail(error, "aac parameters", result);
    return true;
  }

  bool WriteHeader(std::string* error) {
    int result = avio_open(&muxer_->pb, outPath_.c_str(), AVIO_FLAG_WRITE);
    if (result < 0) return Fail(error, "cannot write " + outPath_, result);
    created_ = true;
    result = avformat_write_header(muxer_.get(), nullptr);
    if (result < 0) return Fail(error, "header of " + outPath_, result);
    packet_.reset(av_packet_alloc());
    if (!packet_) return Fail(error, "packet", AVERROR(ENOMEM));
    return true;
  }

  // Video frames in order, each after the audio that comes before it.
  bool WritePackets(std::string* error) {
    for (uint32_t frame = firstFrame_; timeline_.has_value() && frame < endFrame_; ++frame) {
      const size_t i = frame - firstFrame_;
      // Audio up to this frame's decode time, in samples.
      if (!WriteAudioUntil(timeline_->Dts(i) * AUDIO_SAMPLES_PER_MS, error) ||
          !WriteVideo(frame, i, error))
        return false;
    }
    return WriteAudioUntil(INT64_MAX, error) && FlushAac(error);
  }

  bool WriteVideo(uint32_t frame, size_t i, std::string* error) {
    const uint8_t* payload;
    uint32_t length;
    bool key;
    if (!source_.ReadVideo(frame, &payload, &length, &key) || length == 0) return true;
    av_packet_unref(packet_.get());
    int result = av_new_packet(packet_.get(), static_cast<int>(length));
    if (result < 0) return Fail(error, "packet", result);
    std::memcpy(packet_->data, payload, length);
    packet_->pts = timeline_->Pts(i);
    packet_->dts = timeline_->Dts(i);
    packet_->duration = timeline_->Duration(i);
    videoEndMs_ = std::max(videoEndMs_, packet_->pts + packet_->duration);
    packet_->flags = key ? AV_PKT_FLAG_KEY : 0;
    packet_->stream_index = videoStream_->index;
    ++videoWritten_;
    return Write(VIDEO_TIME_BASE, error);
  }

  // Sends packet_ (in `timeBase`) to the muxer.
  bool Write(AVRational timeBase, std::string* error) {
    AVStream* stream = muxer_->streams[packet_->stream_index];
    av_packet_rescale_ts(packet_.get(), timeBase, stream->time_base);
    int result = av_interleaved_write_frame(muxer_.get(), packet_.get());
    if (result < 0) return Fail(error, "writing " + outPath_, result);
    return true;
  }

  bool WriteAudioUntil(int64_t due, std::string* error) {
    if (audioStream_ == nullptr) return true;
    while (audioSamples_ < std::min(due, audioEnd_) && !audioDone_) {
      if (!source_.NextAudio(&pcm_)) {
        audioDone_ = true;
        break;
      }
      // Samples before the first picture are cut.
      const int64_t cut = std::min(std::max<int64_t>(-audioSamples_, 0), static_cast<int64_t>(pcm_.size()));
      pcm_.erase(pcm_.begin(), pcm_.begin() + cut);
      audioSamples_ += cut;
      if (pcm_.empty()) continue;  // all before the first picture: the count is still negative
      // ...and so are those after the last picture of a range.
      pcm_.resize(static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(pcm_.size()),
                                                        std::max<int64_t>(audioEnd_ - audioSamples_, 0))));
      if (pcm_.empty()) continue;
      bool written = mp4_ ? EncodeAac(pcm_.data(), pcm_.size(), error) : WritePcm(error);
      if (!written) return false;
      audioSamples_ += static_cast<int64_t>(pcm_.size());
      audioWritten_ += static_cast<int64_t>(pcm_.size());
    }
    return true;
  }

  bool WritePcm(std::string* error) {
    av_packet_unref(packet_.get());
    int bytes = static_cast<int>(pcm_.size() * sizeof(int16_t));
    int result = av_new_packet(packet_.get(), bytes);
    if (result < 0) return Fail(error, "packet", result);
    std::memcpy(packet_->data, pcm_.data(), static_cast<size_t>(bytes));
    packet_->pts = packet_->dts = audioSamples_;
    packet_->duration = static_cast<int64_t>(pcm_.size());
    packet_->stream_index = audioStream_->index;
    return Write(AUDIO_TIME_BASE, error);
  }

  // Collects samples into encoder frames of the encoder's size.
  bool EncodeAac(const int16_t* samples, size_t count, std::string* error) {
    for (size_t i = 0; i < count; ++i) {
      pending_.push_back(samples[i] / 32768.0f);
      if (pending_.size() == static_cast<size_t>(aac_->frame_size) && !SendAac(error)) return false;
    }
    return true;
  }

  bool SendAac(std::string* error) {
    FramePtr frame(av_frame_alloc());
    if (!frame) return Fail(error, "audio frame", AVERROR(ENOMEM));
    frame->format = AV_SAMPLE_FMT_FLTP;
    frame->sample_rate = G726_SAMPLE_RATE;
    frame->ch_layout = AV_CHANNEL_LAYOUT_MONO;
    frame->nb_samples = static_cast<int>(pending_.size());
    int result = av_frame_get_buffer(frame.get(), 0);
    if (result < 0) return Fail(error, "audio frame", result);
    std::memcpy(frame->data[0], pending_.data(), pending_.size() * sizeof(float));
    frame->pts = aacPts_;
    aacPts_ += frame->nb_samples;
    pending_.clear();
    return SendToAac(frame.get(), error);
  }

  // Gives the encoder a frame (null: the end) and writes what it returns.
  bool SendToAac(const AVFrame* frame, std::string* error) {
    int result = avcodec_send_frame(aac_.get(), frame);
    if (result < 0) return Fail(error, "aac encoder", result);
    for (;;) {
      av_packet_unref(packet_.get());
      result = avcodec_receive_packet(aac_.get(), packet_.get());
      if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return true;
      if (result < 0) return Fail(error, "aac encoder", result);
      packet_->stream_index = audioStream_->index;
      if (!Write(aac_->time_base, error)) return false;
    }
  }

  bool FlushAac(std::string* error) {
    if (!aac_) return true;
    if (!pending_.empty() && !SendAac(error)) return false;
    return SendToAac(nullptr, error);
  }

  bool Finish(std::string* error) {
    int result = av_write_trailer(muxer_.get());
    if (result < 0) return Fail(error, "finishing " + outPath_, result);
    result = avio_closep(&muxer_->pb);
    if (result < 0) return Fail(error, "closing " + outPath_, result);
    return true;
  }

  MediaSource& source_;
  std::string outPath_;
  ExportFormat format_;
  bool mp4_;
  bool created_ = false;
  const VideoCodec* codec_ = nullptr;  // set by AddVideo
  std::unique_ptr<AVFormatContext, FormatContextFree> muxer_;
  CodecContextPtr aac_;
  PacketPtr packet_;
  AVStream* videoStream_ = nullptr;
  AVStream* audioStream_ = nullptr;
  uint32_t firstFrame_;
  uint32_t endFrame_;  // one past the last video frame to write
  uint32_t videoWritten_ = 0;
  int64_t videoEndMs_ = 0;
  std::optional<VideoTimeline> timeline_;  // set by AddVideo; none in a WAV
  std::vector<int16_t> pcm_;
  std::vector<float> pending_;
  int64_t audioSamples_ = 0;  // the time of the next sample against the first picture
  int64_t audioEnd_ = INT64_MAX;  // in samples against the first picture: the end of a range
  int64_t audioWritten_ = 0;
  int64_t aacPts_ = 0;
  bool audioDone_ = false;
};

int RunExport(int argc, char** argv) {
  const char* paths[2] = {};
  if (!ParseOptions(NAME, argc, argv, nullptr, 0, paths, 2, 2)) return EXIT_USAGE;
  MediaSource source;
  std::string error;
  if (!source.Open(paths[0], &error)) return CommandError(NAME, "%s", error.c_str());
  ExportSummary summary;
  if (!ExportMedia(source, paths[1], {paths[0]}, ExportFormatOf(paths[1]), &summary, &error))
    return CommandError(NAME, "%s", error.c_str());
  std::fprintf(stderr, "%s: %s: %s (%.2f s, %s), %.2f s of audio\n", NAME, paths[1],
               Count(summary.videoPackets, "video frame").c_str(), summary.videoSeconds,
               summary.timedByStamps ? "timed by their stamps" : "40 ms a frame",
               summary.audioSamples / static_cast<double>(G726_SAMPLE_RATE));
  return 0;
}

}  // namespace

std::optional<ExportFormat> ExportFormatOf(const char* path) {
  if (HasExtension(path, ".mp4")) return ExportFormat::MP4;
  if (HasExtension(path, ".mkv")) return ExportFormat::MKV;
  return std::nullopt;
}

bool ExportMedia(MediaSource& source, const char* path, std::initializer_list<const char*> inputs,
                 std::optional<ExportFormat> format, ExportSummary* summary, std::string* error,
                 ExportRange range) {
  av_log_set_level(AV_LOG_ERROR);  // the encoder's statistics are no message
  OutputFile output;
  if (!output.Prepare(path, inputs, WriteAccess::SEEKING, error)) return false;
  if (!format.has_value()) {  // checked after the output, whose refusals come first
    *error = "the output must end in .mp4 or .mkv";
    return false;
  }
  Exporter exporter(source, output.WritePath(), *format, range);
  if (!exporter.Run(error) || !output.Commit(error)) return false;
  *summary = exporter.Summary();
  return true;
}

extern const Command EXPORT_COMMAND = {
    NAME, "remux to MP4 or MKV, the audio decoded (AAC or PCM)",
    "export FILE OUT.mp4|OUT.mkv",
    "Copies the video without re-encoding (H.264 and H.265 into MP4 or MKV, H.265\n"
    "as hvc1 in MP4; Motion JPEG into MKV) from the first key frame on, and decodes\n"
    "the G.726 audio with the library's decoder: AAC in MP4, 16-bit PCM in MKV.\n"
    "Any player opens and seeks the result.\n"
    "\n"
    "Frames are timed by their stamps when those are milliseconds, as import\n"
    "writes them (B-frames and other frame rates keep their order and rate);\n"
    "otherwise 40 ms a frame. The audio starts with the first picture.\n",
    RunExport,
};
