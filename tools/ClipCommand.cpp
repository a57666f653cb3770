// tqfplay clip: the frames of a range copied as they are. A TQF clip keeps
// the header block, the video frames of the range and the audio frames whose
// time falls within the range's pictures, in file order, stamps unchanged (a
// recorder may write audio after the video of its time, so the file's order
// alone does not cut the audio to match); an MP4 or MKV clip is an export of
// the range (ExportMedia), its audio cut to the pictures.
#include "ClipCommand.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "ExactStart.h"
#include "ExportCommand.h"
#include "Options.h"
#include "OutputFile.h"
#include "TQFWriter.h"
#include "VideoTimeline.h"

namespace {

constexpr const char NAME[] = "clip";
constexpr int64_t AUDIO_SAMPLES_PER_MS = G726_SAMPLE_RATE / 1000;

struct ClipOptions {
  const char* paths[2] = {};  // input, output
  uint32_t fromMs = UINT32_MAX;
  uint32_t toMs = UINT32_MAX;
  bool exact = false;
};

// What a clip is made of: the frames copied, after the head re-encoded (none
// unless --exact starts the clip after a key frame).
struct ClipPlan {
  ClipRange range;
  std::vector<EncodedFrame> head;
};

bool ParseClipOptions(int argc, char** argv, ClipOptions* o) {
  const OptionSpec specs[] = {
      {"--from", OptionKind::TIME, &o->fromMs},
      {"--to", OptionKind::TIME, &o->toMs},
      {"--exact", OptionKind::FLAG, &o->exact},
  };
  if (!ParseOptions(NAME, argc, argv, specs, std::size(specs), o->paths, 2, 2)) return false;
  if (o->fromMs == UINT32_MAX || o->toMs == UINT32_MAX) return StepFailed(NAME, "--from and --to are needed");
  if (o->fromMs >= o->toMs) return StepFailed(NAME, "--from must come before --to");
  return true;
}

// Frames of both streams in file order: the head, the video of the range and
// the audio of its time.
class TqfClipWriter {
 public:
  TqfClipWriter(MediaSource& source, const ClipPlan& plan) : source_(source), plan_(plan), range_(plan.range) {}

  bool Write(const char* path, std::string* error) {
    std::vector<uint8_t> header;
    if (!source_.HeaderBlock(&header)) return Fail(error, "the header block cannot be read");
    if (!WriteHeader(path, header, error)) return false;
    if (!writer_.Create(path, /*append=*/1)) return Fail(error, std::string("cannot write ") + path);
    FindAudio();
    if (!WriteHead(error)) return false;
    for (uint32_t frame = range_.first; frame < range_.end; ++frame) {
      if (!CopyAudioBefore(source_.FrameOffset(TQF_STREAM_VIDEO, frame), error) ||
          !Copy(TQF_STREAM_VIDEO, frame, error))
        return false;
      ++videoFrames_;
    }
    if (!CopyAudioBefore(UINT64_MAX, error)) return false;
    return writer_.Close() || Fail(error, std::string("writing ") + path + " failed");
  }

  uint32_t VideoFrames() const { return videoFrames_; }
  uint32_t AudioFrames() const { return audioFrames_; }

 private:
  static bool Fail(std::string* error, const std::string& message) {
    *error = message;
    return false;
  }

  static bool WriteHeader(const char* path, const std::vector<uint8_t>& header, std::string* error) {
    FILE* file = std::fopen(path, "wb");
    if (file == nullptr) return Fail(error, std::string("cannot write ") + path);
    const bool written = std::fwrite(header.data(), 1, header.size(), file) == header.size();
    return (std::fclose(file) == 0 && written) || Fail(error, std::string("writing ") + path + " failed");
  }

  // The audio frames that start within the range's time: [nextAudio_,
  // endAudio_). An audio frame's time is its stamp, or the samples before it
  // (two a byte at 8 kHz) when the video goes 40 ms a frame.
  void FindAudio() {
    int64_t samples = 0;
    const uint32_t frames = source_.HasAudio() ? source_.AudioFrames() : 0;
    nextAudio_ = endAudio_ = frames;
    for (uint32_t frame = 0; frame < frames; ++frame) {
      const int64_t ms = range_.timedByStamps ? source_.AudioStamp(frame) : samples / AUDIO_SAMPLES_PER_MS;
      samples += int64_t{source_.AudioLength(frame)} * 2;
      if (ms < range_.startMs) continue;
      if (ms >= range_.endMs) break;
      nextAudio_ = std::min(nextAudio_, frame);
      endAudio_ = frame + 1;
    }
    if (nextAudio_ == frames) endAudio_ = frames;
  }

  bool WriteHead(std::string* error) {
    for (const EncodedFrame& frame : plan_.head) {
      const auto length = static_cast<uint32_t>(frame.payload.size());
      if (length > TQF_MAX_FRAME_PAYLOAD)
        return Fail(error, "a re-encoded frame of " + std::to_string(length) + " bytes is too large for TQF");
      const TQFFrameHeader header{MakeFrameInfo(length, frame.keyFrame, TQF_STREAM_VIDEO), frame.stamp};
      if (!writer_.WriteFrame(&header, frame.payload.data(), length))
        return Fail(error, "writing " + writer_.path + " failed");
      ++videoFrames_;
    }
    return true;
  }

  bool CopyAudioBefore(uint64_t offset, std::string* error) {
    for (; nextAudio_ < endAudio_ && source_.FrameOffset(TQF_STREAM_AUDIO, nextAudio_) < offset;
         ++nextAudio_, ++audioFrames_)
      if (!Copy(TQF_STREAM_AUDIO, nextAudio_, error)) return false;
    return true;
  }

  bool Copy(uint32_t stream, uint32_t frame, std::string* error) {
    TQFFrameHeader header;
    const uint8_t* payload;
    if (!source_.ReadFrame(stream, frame, &header, &payload))
      return Fail(error, "frame " + std::to_string(frame) + " of stream " + std::to_string(stream) +
                             " cannot be read");
    return writer_.WriteFrame(&header, payload, FramePayloadLength(header.info)) ||
           Fail(error, "writing " + writer_.path + " failed");
  }

  MediaSource& source_;
  const ClipPlan& plan_;
  const ClipRange& range_;
  TQFWriter writer_;
  uint32_t nextAudio_ = 0;
  uint32_t endAudio_ = 0;
  uint32_t videoFrames_ = 0;
  uint32_t audioFrames_ = 0;
};

// Re-encodes the head of the range's first group when the picture at its
// start is not a key frame: the frames copied then begin with the next key
// frame, and the audio with that picture.
bool StartExactly(MediaSource& source, ClipPlan* plan, std::string* error) {
  ClipRange& range = plan->range;
  if (range.shown == range.first) return true;
  uint32_t next = range.first + 1;
  while (next < range.end && !source.IsKeyFrame(next)) ++next;
  if (!EncodeExactStart(source, range.first, range.shown, next, &plan->head, error)) return false;
  range.first = next;
  range.startMs = range.shownMs;
  return true;
}

// Where the clip's pictures start, for the summary.
std::string StartText(const ClipPlan& plan) {
  const uint32_t start = plan.head.empty() ? plan.range.first : plan.range.shown;
  return "from frame " + std::to_string(start) +
         (plan.head.empty() ? "" : " (" + Count(plan.head.size(), "frame") + " re-encoded)");
}

bool ClipToTqf(MediaSource& source, const ClipOptions& o, const ClipPlan& plan, std::string* error) {
  OutputFile output;
  if (!output.Prepare(o.paths[1], {o.paths[0]}, WriteAccess::SEEKING, error)) return false;
  TqfClipWriter writer(source, plan);
  if (!writer.Write(output.WritePath(), error) || !output.Commit(error)) return false;
  std::fprintf(stderr, "%s: %s: %s %s, %s\n", NAME, o.paths[1], Count(writer.VideoFrames(), "video frame").c_str(),
               StartText(plan).c_str(), Count(writer.AudioFrames(), "audio frame").c_str());
  return true;
}

// A file of our own in TMPDIR, removed with its owner.
struct TemporaryFile {
  std::string path;
  ~TemporaryFile() {
    if (!path.empty()) std::remove(path.c_str());
  }
  bool Make(const char* suffix, std::string* error) {
    const char* folder = std::getenv("TMPDIR");
    std::string name = std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") + "/tqfclipXXXXXX" + suffix;
    const int fd = mkstemps(name.data(), static_cast<int>(std::strlen(suffix)));
    if (fd < 0) {
      *error = "cannot make a temporary file in " + name.substr(0, name.rfind('/')) + ": " + std::strerror(errno);
      return false;
    }
    close(fd);
    path = name;
    return true;
  }
};

// An MP4 or MKV clip: the range exported as it is; with a re-encoded head,
// the export of a TQF clip made first in a temporary file.
bool ClipToMedia(MediaSource& source, const ClipOptions& o, const ClipPlan& plan, std::string* error) {
  ExportSummary summary;
  const std::optional<ExportFormat> format = ExportFormatOf(o.paths[1]);
  if (plan.head.empty()) {
    if (!ExportMedia(source, o.paths[1], {o.paths[0]}, format, &summary, error,
                     ExportRange{plan.range.first, plan.range.end}))
      return false;
  } else {
    TemporaryFile tqf;
    TqfClipWriter writer(source, plan);
    MediaSource clip;
    if (!tqf.Make(".tqf", error) || !writer.Write(tqf.path.c_str(), error) || !clip.Open(tqf.path.c_str(), error) ||
        !ExportMedia(clip, o.paths[1], {o.paths[0]}, format, &summary, error))
      return false;
  }
  std::fprintf(stderr, "%s: %s: %s %s (%.2f s), %.2f s of audio\n", NAME, o.paths[1],
               Count(summary.videoPackets, "video frame").c_str(), StartText(plan).c_str(),
               summary.videoSeconds, summary.audioSamples / static_cast<double>(G726_SAMPLE_RATE));
  return true;
}

int RunClip(int argc, char** argv) {
  ClipOptions o;
  if (!ParseClipOptions(argc, argv, &o)) return EXIT_USAGE;
  MediaSource source;
  std::string error;
  if (!source.Open(o.paths[0], &error)) return CommandError(NAME, "%s", error.c_str());
  if (!source.HasVideo()) return CommandError(NAME, "%s has no video frames", o.paths[0]);
  ClipPlan plan;
  if (!FindClipRange(source, o.fromMs, o.toMs, &plan.range, &error) ||
      (o.exact && !StartExactly(source, &plan, &error)))
    return CommandError(NAME, "%s", error.c_str());
  const bool cut = HasExtension(o.paths[1], ".tqf") ? ClipToTqf(source, o, plan, &error)
                                                    : ClipToMedia(source, o, plan, &error);
  return cut ? 0 : CommandError(NAME, "%s", error.c_str());
}

}  // namespace

bool FindClipRange(const MediaSource& source, uint32_t fromMs, uint32_t toMs, ClipRange* range,
                   std::string* error) {
  std::vector<uint32_t> stamps(source.VideoFrames());
  for (uint32_t frame = 0; frame < stamps.size(); ++frame) stamps[frame] = source.VideoStamp(frame);
  const VideoTimeline timeline(stamps, 0);
  const size_t n = stamps.size();
  // The picture shown at fromMs: the latest that starts by then.
  size_t shown = n;
  for (size_t i = 0; i < n; ++i)
    if (timeline.Pts(i) <= fromMs && (shown == n || timeline.Pts(i) > timeline.Pts(shown))) shown = i;
  char at[32];
  std::snprintf(at, sizeof at, "%.3f s", fromMs / 1000.0);
  if (fromMs >= toMs) {
    *error = "--from must come before --to";
    return false;
  }
  if (shown == n || timeline.Pts(shown) + timeline.Duration(shown) <= fromMs) {
    *error = std::string("--from ") + at + " is past the last picture";
    return false;
  }
  size_t first = shown;
  while (first > 0 && !source.IsKeyFrame(static_cast<uint32_t>(first))) --first;
  if (!source.IsKeyFrame(static_cast<uint32_t>(first))) {
    *error = std::string("no key frame at or before ") + at;
    return false;
  }
  // The end: the first frame from which on no picture is shown before toMs
  // (with B-frames, a later frame in the file may be shown earlier).
  size_t end = n;
  while (end > first + 1 && timeline.Pts(end - 1) >= toMs) --end;
  range->first = static_cast<uint32_t>(first);
  range->end = static_cast<uint32_t>(end);
  range->shown = static_cast<uint32_t>(shown);
  range->shownMs = timeline.OriginMs() + timeline.Pts(shown);
  range->startMs = INT64_MAX;
  range->endMs = 0;
  for (size_t i = first; i < end; ++i) {
    range->startMs = std::min(range->startMs, timeline.Pts(i));
    range->endMs = std::max(range->endMs, timeline.Pts(i) + timeline.Duration(i));
  }
  range->startMs += timeline.OriginMs();
  range->endMs += timeline.OriginMs();
  range->timedByStamps = timeline.FromStamps();
  return true;
}

extern const Command CLIP_COMMAND = {
    NAME, "cut a time range without re-encoding, to TQF, MP4 or MKV",
    "clip FILE OUT.tqf|OUT.mp4|OUT.mkv --from TIME --to TIME [--exact]",
    "Copies the frames of a time range as they are. The clip starts at the key frame\n"
    "at or before --from (a decoder can start nowhere else) and ends with the last\n"
    "picture before --to. Times are seconds (12.5), MM:SS or HH:MM:SS.mmm, from the\n"
    "first picture: 40 ms a frame, or the frames' stamps when those are milliseconds\n"
    "(as import writes them).\n"
    "\n"
    "OUT.tqf keeps the header block, the video frames of the range and the audio\n"
    "frames of its time, stamps unchanged. OUT.mp4 and OUT.mkv are written as\n"
    "export writes them, the audio cut to the pictures.\n"
    "\n"
    "  --exact   start on the picture at --from: the pictures from there up to the\n"
    "            next key frame are decoded and encoded again, losslessly (libx264\n"
    "            for H.264, libx265 for H.265), the rest copied as it is\n",
    RunClip,
};
