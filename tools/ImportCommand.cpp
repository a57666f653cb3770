// tqfplay import: reads H.264, H.265 or Motion JPEG video (and optionally
// the first audio track) with libavformat and writes a TQF file. Video
// packets become stream-0 frames as they are, H.264 and H.265 in Annex B form
// (MP4-style streams pass through the h264_ or hevc_mp4toannexb filter, which
// also puts the parameter sets before each key frame). Audio is decoded,
// resampled to 8 kHz mono and encoded with libavcodec's g726le encoder at 32
// kbit/s, then cut into stream-1 frames of 320 bytes (80 ms).
#include "ImportCommand.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include "AvError.h"
#include "G726.h"
#include "Options.h"
#include "OutputFile.h"
#include "TQFFormat.h"
#include "TQFWriter.h"
#include "VideoCodec.h"

namespace {

constexpr const char NAME[] = "import";

// The audio the player's G.726 decoder takes: 32 kbit/s, 8 kHz mono, four
// bits a sample, low nibble first (g726le), 320 bytes a frame.
constexpr int AUDIO_BIT_RATE = 32000;
constexpr size_t AUDIO_FRAME_BYTES = G726_FRAME_BYTES;
constexpr uint32_t AUDIO_FRAME_MS = AUDIO_FRAME_BYTES * 2 * 1000 / G726_SAMPLE_RATE;  // 80
constexpr int AUDIO_ENCODER_FRAME_SAMPLES = 640;  // used when the encoder names no size


// Everything one import holds; its owners release what was made.
struct ImportContext {
  const char* inputPath = nullptr;
  const char* outputPath = nullptr;
  bool withAudio = false;
  OutputFile output;

  InputPtr format;
  int videoStream = -1;
  const VideoCodec* codec = nullptr;
  BsfPtr annexB;  // null when the packets are Annex B already
  uint32_t lastVideoStamp = 0;
  bool warnedOfReordering = false;
  uint32_t videoFrames = 0;
  uint32_t keyFrames = 0;

  int audioStream = -1;
  CodecContextPtr audioDecoder;
  ResamplerPtr resampler;
  CodecContextPtr audioEncoder;
  AudioFifoPtr samples;
  std::vector<uint8_t> coded;  // G.726 bytes not yet cut into frames
  bool audioStampSet = false;
  uint32_t audioStamp = 0;  // stamp of the next audio frame
  uint32_t audioFrames = 0;

  PacketPtr packet;
  PacketPtr filtered;
  FramePtr decoded;
  FramePtr toEncode;
  TQFWriter writer;
};

// The packet time in milliseconds: pts, else dts; else 40 ms after `last`.
uint32_t PacketStampMs(const AVPacket* packet, AVRational timeBase, uint32_t last, bool first) {
  int64_t time = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
  if (time == AV_NOPTS_VALUE) return first ? 0 : last + TQF_FRAME_DURATION_MS;
  int64_t ms = av_rescale_q(time, timeBase, AVRational{1, 1000});
  return ms < 0 ? 0 : static_cast<uint32_t>(ms);
}

bool WriteFrame(ImportContext& c, uint32_t stream, bool key, uint32_t stamp, const uint8_t* data,
                size_t size) {
  if (size > TQF_MAX_FRAME_PAYLOAD) {
    return StepFailed(NAME, "%s: a frame of %zu bytes is larger than TQF allows (%u bytes)",
                 c.inputPath, size, TQF_MAX_FRAME_PAYLOAD);
  }
  TQFFrameHeader header{MakeFrameInfo(static_cast<uint32_t>(size), key, stream), stamp};
  if (!c.writer.WriteFrame(&header, data, static_cast<uint32_t>(size))) {
    return StepFailed(NAME, "%s: write failed", c.outputPath);
  }
  return true;
}

// ---- video ------------------------------------------------------------------

// TQF players show every frame for 40 ms: other rates play at the wrong speed.
void WarnOfFrameRate(const ImportContext& c) {
  AVStream* stream = c.format->streams[c.videoStream];
  const AVRational rate = av_guess_frame_rate(c.format.get(), stream, nullptr);
  if (rate.num <= 0 || rate.den <= 0) return;
  const double fps = av_q2d(rate);
  if (std::fabs(fps - TQF_FRAMES_PER_SECOND) < 0.01) return;
  std::fprintf(stderr,
               "tqfplay import: warning: the video runs at %.3g frames a second; TQF players show "
               "25 (40 ms a frame), so it will play %.2f times as long (export keeps its rate)\n",
               fps, fps / TQF_FRAMES_PER_SECOND);
}

bool OpenVideo(ImportContext& c) {
  c.videoStream = av_find_best_stream(c.format.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (c.videoStream < 0) {
    return StepFailed(NAME, "%s: no video track", c.inputPath);
  }
  const AVCodecParameters* parameters = c.format->streams[c.videoStream]->codecpar;
  c.codec = FindVideoCodecById(parameters->codec_id);
  if (c.codec == nullptr) {
    return StepFailed(NAME, "%s: unsupported video codec '%s' (%s only)", c.inputPath,
                      avcodec_get_name(parameters->codec_id), VideoCodecNames().c_str());
  }
  WarnOfFrameRate(c);
  // avcC and hvcC extradata (configuration version 1) mark the
  // length-prefixed MP4 form; Annex B extradata begins with a start code.
  bool lengthPrefixed = c.codec->annexBFilter != nullptr && parameters->extradata_size > 0 &&
                        parameters->extradata[0] == 1;
  if (!lengthPrefixed) return true;
  const AVBitStreamFilter* filter = av_bsf_get_by_name(c.codec->annexBFilter);
  AVBSFContext* annexB = nullptr;
  int result = filter == nullptr ? AVERROR_BSF_NOT_FOUND : av_bsf_alloc(filter, &annexB);
  c.annexB.reset(annexB);
  if (result >= 0) result = avcodec_parameters_copy(c.annexB->par_in, parameters);
  if (result >= 0) {
    c.annexB->time_base_in = c.format->streams[c.videoStream]->time_base;
    result = av_bsf_init(c.annexB.get());
  }
  if (result < 0) {
    return StepFailed(NAME, "%s: %s", c.codec->annexBFilter, AvError(result).c_str());
  }
  return true;
}

bool WriteVideoPacket(ImportContext& c, const AVPacket* packet) {
  if (packet->size <= 0) return true;
  AVRational timeBase = c.format->streams[c.videoStream]->time_base;
  uint32_t stamp = PacketStampMs(packet, timeBase, c.lastVideoStamp, c.videoFrames == 0);
  bool key = (packet->flags & AV_PKT_FLAG_KEY) != 0;
  if (!WriteFrame(c, TQF_STREAM_VIDEO, key, stamp, packet->data, static_cast<size_t>(packet->size)))
    return false;
  // A frame shown before one decoded earlier: B-frames.
  if (c.videoFrames > 0 && stamp < c.lastVideoStamp && !c.warnedOfReordering) {
    c.warnedOfReordering = true;
    std::fprintf(stderr, "tqfplay import: warning: the video has B-frames; TQF players show "
                 "frames in file order, so pictures come late and the last ones are lost "
                 "(export keeps their order)\n");
  }
  c.lastVideoStamp = stamp;
  ++c.videoFrames;
  if (key) ++c.keyFrames;
  return true;
}

// Passes `packet` (null: the end) through the Annex B filter, if any.
bool ImportVideo(ImportContext& c, AVPacket* packet) {
  if (!c.annexB) return packet == nullptr || WriteVideoPacket(c, packet);
  int result = av_bsf_send_packet(c.annexB.get(), packet);
  while (result >= 0) {
    result = av_bsf_receive_packet(c.annexB.get(), c.filtered.get());
    if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return true;
    if (result < 0) break;
    bool written = WriteVideoPacket(c, c.filtered.get());
    av_packet_unref(c.filtered.get());
    if (!written) return false;
  }
  return StepFailed(NAME, "%s: %s", c.codec->annexBFilter, AvError(result).c_str());
}

// ---- audio ------------------------------------------------------------------

bool OpenAudio(ImportContext& c) {
  for (unsigned i = 0; i < c.format->nb_streams && c.audioStream < 0; ++i)
    if (c.format->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO)
      c.audioStream = static_cast<int>(i);
  if (c.audioStream < 0) {
    return StepFailed(NAME, "%s: --audio given, but there is no audio track", c.inputPath);
  }
  const AVCodecParameters* parameters = c.format->streams[c.audioStream]->codecpar;
  const AVCodec* decoder = avcodec_find_decoder(parameters->codec_id);
  const AVCodec* encoder = avcodec_find_encoder(AV_CODEC_ID_ADPCM_G726LE);
  if (decoder == nullptr || encoder == nullptr) {
    return StepFailed(NAME, "no %s", decoder == nullptr ? "decoder for the audio track" : "g726le encoder");
  }
  c.audioDecoder.reset(avcodec_alloc_context3(decoder));
  c.audioEncoder.reset(avcodec_alloc_context3(encoder));
  if (!c.audioDecoder || !c.audioEncoder) return false;
  int result = avcodec_parameters_to_context(c.audioDecoder.get(), parameters);
  if (result >= 0) result = avcodec_open2(c.audioDecoder.get(), decoder, nullptr);
  if (result >= 0) {
    c.audioEncoder->sample_rate = G726_SAMPLE_RATE;
    c.audioEncoder->sample_fmt = AV_SAMPLE_FMT_S16;
    c.audioEncoder->bit_rate = AUDIO_BIT_RATE;
    c.audioEncoder->time_base = AVRational{1, G726_SAMPLE_RATE};
    av_channel_layout_default(&c.audioEncoder->ch_layout, 1);
    result = avcodec_open2(c.audioEncoder.get(), encoder, nullptr);
  }
  SwrContext* resampler = nullptr;
  if (result >= 0)
    result = swr_alloc_set_opts2(&resampler, &c.audioEncoder->ch_layout, AV_SAMPLE_FMT_S16,
                                 G726_SAMPLE_RATE, &c.audioDecoder->ch_layout,
                                 c.audioDecoder->sample_fmt, c.audioDecoder->sample_rate, 0, nullptr);
  c.resampler.reset(resampler);
  if (result >= 0) result = swr_init(c.resampler.get());
  if (result < 0) {
    return StepFailed(NAME, "audio: %s", AvError(result).c_str());
  }
  c.samples.reset(av_audio_fifo_alloc(AV_SAMPLE_FMT_S16, 1, G726_SAMPLE_RATE));
  return c.samples != nullptr;
}

// Cuts the coded bytes into 320-byte frames; what is left waits for more.
bool WriteAudioFrames(ImportContext& c) {
  size_t used = 0;
  for (; c.coded.size() - used >= AUDIO_FRAME_BYTES; used += AUDIO_FRAME_BYTES) {
    if (!WriteFrame(c, TQF_STREAM_AUDIO, true, c.audioStamp, c.coded.data() + used,
                    AUDIO_FRAME_BYTES))
      return false;
    c.audioStamp += AUDIO_FRAME_MS;
    ++c.audioFrames;
  }
  c.coded.erase(c.coded.begin(), c.coded.begin() + static_cast<std::ptrdiff_t>(used));
  return true;
}

// Sends `frame` (null: the end) to the encoder and collects its output.
bool Encode(ImportContext& c, AVFrame* frame) {
  int result = avcodec_send_frame(c.audioEncoder.get(), frame);
  while (result >= 0) {
    result = avcodec_receive_packet(c.audioEncoder.get(), c.filtered.get());
    if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return WriteAudioFrames(c);
    if (result < 0) break;
    c.coded.insert(c.coded.end(), c.filtered->data, c.filtered->data + c.filtered->size);
    av_packet_unref(c.filtered.get());
  }
  return StepFailed(NAME, "g726le: %s", AvError(result).c_str());
}

// Encodes whole encoder frames from the sample queue; at the end also the rest.
bool EncodeQueued(ImportContext& c, bool atEnd) {
  int frameSamples = c.audioEncoder->frame_size > 0 ? c.audioEncoder->frame_size
                                                    : AUDIO_ENCODER_FRAME_SAMPLES;
  while (av_audio_fifo_size(c.samples.get()) >= frameSamples ||
         (atEnd && av_audio_fifo_size(c.samples.get()) > 0)) {
    int count = std::min(frameSamples, av_audio_fifo_size(c.samples.get()));
    av_frame_unref(c.toEncode.get());
    c.toEncode->nb_samples = count;
    c.toEncode->format = AV_SAMPLE_FMT_S16;
    c.toEncode->sample_rate = G726_SAMPLE_RATE;
    if (av_channel_layout_copy(&c.toEncode->ch_layout, &c.audioEncoder->ch_layout) < 0 ||
        av_frame_get_buffer(c.toEncode.get(), 0) < 0 ||
        av_audio_fifo_read(c.samples.get(), reinterpret_cast<void**>(c.toEncode->data), count) != count)
      return StepFailed(NAME, "audio: out of memory");
    if (!Encode(c, c.toEncode.get())) return false;
  }
  return !atEnd || Encode(c, nullptr);
}

// Resamples `frame` (null: drains the resampler) into the sample queue.
bool QueueSamples(ImportContext& c, const AVFrame* frame) {
  int inputCount = frame != nullptr ? frame->nb_samples : 0;
  int room = swr_get_out_samples(c.resampler.get(), inputCount);
  if (room < 0) return StepFailed(NAME, "audio: resampling failed");
  if (room == 0) return true;  // a resampler that holds nothing back (same rate) at the end
  if (av_audio_fifo_realloc(c.samples.get(), av_audio_fifo_size(c.samples.get()) + room) < 0)
    return StepFailed(NAME, "audio: out of memory");
  std::vector<int16_t> out(static_cast<size_t>(room) + 1);
  uint8_t* outPlanes[1] = {reinterpret_cast<uint8_t*>(out.data())};
  int made = swr_convert(c.resampler.get(), outPlanes, room,
                         frame != nullptr ? const_cast<const uint8_t**>(frame->extended_data) : nullptr,
                         inputCount);
  if (made < 0) return StepFailed(NAME, "audio: resampling failed");
  return av_audio_fifo_write(c.samples.get(), reinterpret_cast<void**>(outPlanes), made) == made;
}

// Decodes `packet` (null: the end) and passes the samples on.
bool ImportAudio(ImportContext& c, const AVPacket* packet) {
  if (!c.audioStampSet && packet != nullptr) {
    c.audioStamp = PacketStampMs(packet, c.format->streams[c.audioStream]->time_base, 0, true);
    c.audioStampSet = true;
  }
  int result = avcodec_send_packet(c.audioDecoder.get(), packet);
  if (result < 0 && result != AVERROR_EOF) return true;  // a damaged packet costs itself
  for (;;) {
    result = avcodec_receive_frame(c.audioDecoder.get(), c.decoded.get());
    if (result == AVERROR(EAGAIN)) return EncodeQueued(c, false);
    if (result == AVERROR_EOF) break;
    if (result < 0) return StepFailed(NAME, "audio: %s", AvError(result).c_str());
    bool queued = QueueSamples(c, c.decoded.get());
    av_frame_unref(c.decoded.get());
    if (!queued) return false;
  }
  return QueueSamples(c, nullptr) && EncodeQueued(c, true);
}

// ---- the import -------------------------------------------------------------

bool OpenInput(ImportContext& c) {
  AVFormatContext* format = nullptr;  // freed by avformat_open_input on failure
  int result = avformat_open_input(&format, c.inputPath, nullptr, nullptr);
  c.format.reset(format);
  if (result >= 0) result = avformat_find_stream_info(c.format.get(), nullptr);
  if (result < 0) {
    return StepFailed(NAME, "%s: %s", c.inputPath, AvError(result).c_str());
  }
  c.packet.reset(av_packet_alloc());
  c.filtered.reset(av_packet_alloc());
  c.decoded.reset(av_frame_alloc());
  c.toEncode.reset(av_frame_alloc());
  if (!c.packet || !c.filtered || !c.decoded || !c.toEncode)
    return StepFailed(NAME, "out of memory");
  return OpenVideo(c) && (!c.withAudio || OpenAudio(c));
}

bool CreateOutput(ImportContext& c) {
  std::string error;
  if (!c.output.Prepare(c.outputPath, {c.inputPath}, WriteAccess::SEEKING, &error)) {
    return StepFailed(NAME, "%s", error.c_str());
  }
  if (!c.writer.Create(c.output.WritePath(), 0)) {
    return StepFailed(NAME, "%s: cannot create: %s", c.outputPath, std::strerror(errno));
  }
  const AVCodecParameters* video = c.format->streams[c.videoStream]->codecpar;
  const MediaDescriptor descriptor = MakeMediaDescriptor(c.codec->fourcc, video->width, video->height);
  if (!IsPlayablePictureSize(video->width, video->height))
    std::fprintf(stderr, "tqfplay import: warning: %dx%d is a picture size players refuse "
                 "(width a multiple of 16, even height)\n", video->width, video->height);
  bool added = c.writer.AddRecord(c.codec->fourcc, &descriptor, sizeof descriptor) == 0;
  if (added && c.withAudio) {
    added = c.writer.AddRecord(G726_RECORD_TYPE, &G726_WAVE_FORMAT, sizeof G726_WAVE_FORMAT) == 1;
  }
  if (!added) CommandError(NAME, "%s: write failed", c.outputPath);
  return added;
}

bool CopyPackets(ImportContext& c) {
  int result;
  while ((result = av_read_frame(c.format.get(), c.packet.get())) >= 0) {
    bool ok = true;
    if (c.packet->stream_index == c.videoStream)
      ok = ImportVideo(c, c.packet.get());
    else if (c.packet->stream_index == c.audioStream)
      ok = ImportAudio(c, c.packet.get());
    av_packet_unref(c.packet.get());
    if (!ok) return false;
  }
  if (result != AVERROR_EOF) {
    return StepFailed(NAME, "%s: %s", c.inputPath, AvError(result).c_str());
  }
  return ImportVideo(c, nullptr) && (c.audioStream < 0 || ImportAudio(c, nullptr));
}

bool CloseOutput(ImportContext& c) {
  bool flushed = fflush(c.writer.file) == 0 && ferror(c.writer.file) == 0;
  c.writer.Close();
  if (!flushed) CommandError(NAME, "%s: write failed", c.outputPath);
  return flushed;
}

int RunImport(int argc, char** argv) {
  ImportContext c;
  const OptionSpec specs[] = {{"--audio", OptionKind::FLAG, &c.withAudio}};
  const char* paths[2] = {};
  if (!ParseOptions(NAME, argc, argv, specs, std::size(specs), paths, 2, 2)) return EXIT_USAGE;
  c.inputPath = paths[0];
  c.outputPath = paths[1];
  // The failures that matter come back as results and are reported as one
  // line; libav's own messages (a stream cut mid-GOP, say) are left out.
  av_log_set_level(AV_LOG_FATAL);
  if (!OpenInput(c) || !CreateOutput(c)) return 1;
  if (!CopyPackets(c) || !CloseOutput(c)) return 1;
  if (c.videoFrames == 0) return CommandError(NAME, "%s: no video packets", c.inputPath);
  std::string error;
  if (!c.output.Commit(&error)) return CommandError(NAME, "%s", error.c_str());
  std::fprintf(stderr, "%s: %s (%s), %s\n", c.outputPath, Count(c.videoFrames, "video frame").c_str(),
               Count(c.keyFrames, "key frame").c_str(), Count(c.audioFrames, "audio frame").c_str());
  return 0;
}

}  // namespace

const Command IMPORT_COMMAND = {
    "import",
    "write the H.264, H.265 or Motion JPEG video of a media file as TQF",
    "import INPUT OUTPUT.tqf|- [--audio]",
    "Reads INPUT (raw .h264 or .h265/.hevc, MP4, MKV, AVI, ... with H.264, H.265\n"
    "or Motion JPEG video) and writes OUTPUT.tqf: a 40-byte video record (FourCC\n"
    "\"H264\", \"H265\" or \"JPEG\") and one stream-0 frame per video packet, H.264\n"
    "and H.265 in Annex B form, the key flag from the packet, the stamp from the\n"
    "packet time in milliseconds.\n"
    "\n"
    "  --audio  also encode the first audio track as G.726 at 32 kbit/s, 8 kHz\n"
    "           mono: stream-1 frames of 320 bytes (80 ms), after a second record\n"
    "           (type 100, an 18-byte WAVEFORMATEX)\n",
    RunImport,
};
