// tqfplay snapshot: pictures decoded through the library and written as PNG
// (PngWriter) or JPEG (JpegWriter).
//
// The picture at a time T is that of frame T / 40 ms. The file player
// reaches it by TQ_SetPlayTime, which decodes from the key frame before its
// target (LibrarySession::PlayFrom); the pictures after the seek are counted
// to find the frame. A series (--every S) plays on from there and keeps every
// S-th second's picture; when S is at least the largest key-frame spacing,
// each picture is instead the key frame at or before its time, and only
// those key frames are decoded (KeyFrameFeed).
#include "SnapshotCommand.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "InputProblem.h"
#include "JpegWriter.h"
#include "KeyFrameFeed.h"
#include "LibrarySession.h"
#include "Options.h"
#include "OutputFile.h"
#include "PictureSink.h"
#include "PngWriter.h"
#include "TQFFormat.h"

namespace {

constexpr const char NAME[] = "snapshot";
constexpr uint32_t DEFAULT_TIMEOUT_SECONDS = 10;
constexpr std::chrono::milliseconds POLL_INTERVAL{20};
constexpr uint32_t FRAMES_PER_SECOND = 1000 / TQF_FRAME_DURATION_MS;

enum class ImageFormat { PNG, JPEG };

struct SnapshotOptions {
  const char* paths[2] = {};  // input, output
  uint32_t atMs = UINT32_MAX;
  uint32_t everyMs = 0;  // 0: one picture
  uint32_t timeout = DEFAULT_TIMEOUT_SECONDS;
  ImageFormat format = ImageFormat::PNG;
};

bool ParseSnapshotOptions(int argc, char** argv, SnapshotOptions* o) {
  uint32_t everyMs = UINT32_MAX;
  const OptionSpec specs[] = {
      {"--at", OptionKind::TIME, &o->atMs},
      {"--every", OptionKind::TIME, &everyMs},
      {"--timeout", OptionKind::COUNT, &o->timeout},
  };
  if (!ParseOptions(NAME, argc, argv, specs, std::size(specs), o->paths, 2, 2)) return false;
  if (o->atMs == UINT32_MAX) return StepFailed(NAME, "--at is needed");
  if (everyMs == 0) return StepFailed(NAME, "--every must be above 0");
  o->everyMs = everyMs == UINT32_MAX ? 0 : everyMs;
  if (HasExtension(o->paths[1], ".jpg") || HasExtension(o->paths[1], ".jpeg")) {
    o->format = ImageFormat::JPEG;
  } else if (!HasExtension(o->paths[1], ".png")) {
    return StepFailed(NAME, "the output must end in .png or .jpg");
  }
  return true;
}

// The name of picture `number` (from 1) of a series: OUT-0001.png for OUT.png.
std::string SeriesPath(const std::string& path, size_t number) {
  const size_t dot = path.rfind('.');
  char suffix[32];
  std::snprintf(suffix, sizeof suffix, "-%04zu", number);
  return path.substr(0, dot) + suffix + path.substr(dot);
}

// Which frames a run wants and how its pictures map to frames: picture n is
// frame firstFrame + n when the file player plays on, or frames[n] when only
// the wanted frames are fed.
struct SnapshotPlan {
  std::vector<uint32_t> frames;  // rising
  uint32_t firstFrame = 0;
  uint32_t seekSecond = 0;  // where the file player seeks first (0: it does not)
  bool keyFramesOnly = false;
};

// The largest spacing of the key frames, counting the end of the file.
uint32_t LargestKeySpacing(const std::vector<uint32_t>& keys, uint32_t frames) {
  uint32_t largest = 0;
  for (size_t i = 0; i < keys.size(); ++i)
    largest = std::max(largest, (i + 1 < keys.size() ? keys[i + 1] : frames) - keys[i]);
  return largest;
}

bool MakePlan(KeyFrameFeed& feed, const SnapshotOptions& o, SnapshotPlan* plan, std::string* error) {
  const uint32_t frames = feed.Source().VideoFrames();
  const std::vector<uint32_t> keys = feed.Source().KeyFrames();
  if (keys.empty()) {
    *error = std::string(o.paths[0]) + " has no key frame";
    return false;
  }
  const uint32_t at = o.atMs / TQF_FRAME_DURATION_MS;
  if (at >= frames) {
    *error = "--at is past the end of " + std::string(o.paths[0]) + " (" +
             std::to_string(frames / FRAMES_PER_SECOND) + " s)";
    return false;
  }
  plan->keyFramesOnly = o.everyMs != 0 &&
                        o.everyMs >= uint64_t{LargestKeySpacing(keys, frames)} * TQF_FRAME_DURATION_MS;
  for (uint64_t ms = o.atMs; ms / TQF_FRAME_DURATION_MS < frames; ms += o.everyMs) {
    uint32_t frame = static_cast<uint32_t>(ms / TQF_FRAME_DURATION_MS);
    if (plan->keyFramesOnly && !feed.KeyFrameAtOrBefore(frame, &frame)) break;
    plan->frames.push_back(frame);
    if (o.everyMs == 0) break;
  }
  // The file player: a seek to whole second S shows frame 25 S + 1 first;
  // with no seek the first key frame comes first.
  plan->seekSecond = at > 0 ? (at - 1) / FRAMES_PER_SECOND : 0;
  if (plan->seekSecond * FRAMES_PER_SECOND < keys[0]) plan->seekSecond = 0;
  plan->firstFrame = plan->seekSecond > 0 ? plan->seekSecond * FRAMES_PER_SECOND + 1 : keys[0];
  if (plan->frames.empty() || (!plan->keyFramesOnly && at < plan->firstFrame)) {
    *error = "no picture at --at: the first key frame is frame " + std::to_string(keys[0]);
    return false;
  }
  return true;
}

// The session's handler: writes the wanted pictures, then counts every one.
class SnapshotWriter {
 public:
  SnapshotWriter(const SnapshotOptions& o, const SnapshotPlan& plan)
      : options_(o), plan_(plan), outputs_(plan.frames.size()) {}

  // Makes the outputs' temporary files, so that a refused output fails before
  // anything is decoded; `counter` then ignores pictures past the need.
  bool Open(std::string* error) {
    for (size_t i = 0; i < outputs_.size(); ++i) {
      const std::string path = outputs_.size() == 1 && options_.everyMs == 0
                                   ? std::string(options_.paths[1]) : SeriesPath(options_.paths[1], i + 1);
      if (!outputs_[i].Prepare(path.c_str(), {options_.paths[0]}, WriteAccess::SEQUENTIAL, error))
        return false;
    }
    PictureSinkOptions counting;
    counting.maxPictures = PicturesNeeded();
    return counter_.Open(counting, options_.paths[0], error);
  }

  uint32_t PicturesNeeded() const {
    return plan_.keyFramesOnly ? static_cast<uint32_t>(plan_.frames.size())
                               : plan_.frames.back() - plan_.firstFrame + 1;
  }

  static void Handle(void* context, const Picture& picture) {
    static_cast<SnapshotWriter*>(context)->Deliver(picture);
  }

  PictureSink& Counter() { return counter_; }
  bool Failed() const { return failed_.load(); }

  // Puts the pictures in place after a run that delivered them all.
  bool Commit(std::string* error) {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      if (failed_.load()) {
        *error = error_;
        return false;
      }
    }
    for (OutputFile& output : outputs_)
      if (!output.Commit(error)) return false;
    return true;
  }

 private:
  void Deliver(const Picture& picture) {
    const uint32_t n = counter_.Pictures();
    const uint32_t frame = !plan_.keyFramesOnly ? plan_.firstFrame + n
                           : n < plan_.frames.size() ? plan_.frames[n] : UINT32_MAX;
    if (next_ < plan_.frames.size() && frame == plan_.frames[next_]) Write(outputs_[next_++], picture);
    PictureSink::Handle(&counter_, picture);
  }

  void Write(const OutputFile& output, const Picture& picture) {
    std::string error;
    const bool written =
        options_.format == ImageFormat::JPEG
            ? WriteI420Jpeg(output.WritePath(), picture.data, picture.width, picture.height,
                            JPEG_DEFAULT_QUALITY, &error)
            : WriteI420Png(output.WritePath(), picture.data, picture.width, picture.height, &error);
    std::lock_guard<std::mutex> guard(mutex_);
    if (!written && !failed_.exchange(true)) error_ = error;
  }

  const SnapshotOptions& options_;
  const SnapshotPlan& plan_;
  std::vector<OutputFile> outputs_;
  PictureSink counter_;
  size_t next_ = 0;  // the next wanted picture; the library's thread alone uses it
  std::atomic<bool> failed_{false};
  std::mutex mutex_;  // guards error_
  std::string error_;
};

// The file player from the planned second on, until the pictures needed came.
bool PlayFile(const SnapshotOptions& o, const SnapshotPlan& plan, SnapshotWriter& writer,
              LibrarySession& session, std::string* error) {
  int32_t handle = -1;
  if (TQ_OpenFile(o.paths[0], &handle) != 0) {
    *error = DescribeInputProblem(o.paths[0]);
    return false;
  }
  session.PlayFrom(handle, plan.seekSecond);
  PictureSink& counter = writer.Counter();
  const std::chrono::seconds timeout(o.timeout);
  while (counter.Pictures() < writer.PicturesNeeded() && !writer.Failed()) {
    if (session.FileEnded()) *error = "the file ended before the last picture asked for";
    if (LibrarySession::Interrupted()) *error = "interrupted";
    if (counter.SinceLastPicture() > timeout) *error = "no picture for " + std::to_string(o.timeout) + " s";
    if (!error->empty()) break;
    std::this_thread::sleep_for(POLL_INTERVAL);
  }
  TQ_CloseFile(handle);  // no picture arrives after this
  return error->empty();
}

int RunSnapshot(int argc, char** argv) {
  SnapshotOptions o;
  if (!ParseSnapshotOptions(argc, argv, &o)) return EXIT_USAGE;
  KeyFrameFeed feed;
  SnapshotPlan plan;
  std::string error;
  if (!feed.Open(o.paths[0], &error) || !MakePlan(feed, o, &plan, &error))
    return CommandError(NAME, "%s", error.c_str());
  const std::string nothing = DescribeNothingToPlay(o.paths[0]);
  if (!nothing.empty()) return CommandError(NAME, "%s", nothing.c_str());
  SnapshotWriter writer(o, plan);
  if (!writer.Open(&error)) return CommandError(NAME, "%s", error.c_str());
  LibrarySession session(SnapshotWriter::Handle, &writer);
  const bool played = plan.keyFramesOnly
                          ? feed.Play(session, /*route=*/0, writer.Counter(), plan.frames, std::chrono::seconds(o.timeout), &error)
                          : PlayFile(o, plan, writer, session, &error);
  if (!played && LibrarySession::Interrupted()) {
    CommandError(NAME, "interrupted");
    return LibrarySession::InterruptedExitCode();
  }
  if (!played) return CommandError(NAME, "%s: %s", o.paths[0], error.c_str());
  if (!writer.Commit(&error)) return CommandError(NAME, "%s", error.c_str());
  std::fprintf(stderr, "%s: %s of %s%s\n", NAME, Count(plan.frames.size(), "picture").c_str(), o.paths[0],
               plan.keyFramesOnly ? ", key frames alone decoded" : "");
  return 0;
}

}  // namespace

extern const Command SNAPSHOT_COMMAND = {
    NAME, "the library's picture at a time, as PNG or JPEG; or a series",
    "snapshot FILE --at TIME OUT.png|OUT.jpg [--every SECONDS] [--timeout SECONDS]",
    "Writes the picture the library gives for the frame at TIME (40 ms a frame):\n"
    "the file player seeks to it, decoding from the key frame before it. TIME is\n"
    "seconds (12.5), MM:SS or HH:MM:SS.mmm. PNG holds the picture in RGB; JPEG\n"
    "(TurboJPEG, quality 90) keeps its 4:2:0 planes, stretched to full range.\n"
    "\n"
    "  --every SECONDS  a series from TIME on, one picture each SECONDS (a time as\n"
    "                   for --at): OUT-0001.png, OUT-0002.png ... When SECONDS is at\n"
    "                   least the largest key-frame spacing, each picture is the key\n"
    "                   frame at or before its time, and only those are decoded\n"
    "  --timeout SECS   give up when no picture comes for this long (default 10)\n",
    RunSnapshot,
};
