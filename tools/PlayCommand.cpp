// tqfplay play: TQ_OpenFile, TQ_SetPlayTime, TQ_Play, then wait for the
// library's end-of-file line while the pictures go to the PictureSink.
#include "PlayCommand.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "InputProblem.h"
#include "KeyFrameFeed.h"
#include "LibrarySession.h"
#include "Options.h"
#include "PictureSink.h"
#include "ProgressMeter.h"
#include "TQFFormat.h"

namespace {

constexpr const char NAME[] = "play";
constexpr uint32_t DEFAULT_TIMEOUT_SECONDS = 10;
constexpr std::chrono::milliseconds POLL_INTERVAL{20};

struct PlayOptions {
  const char* path = nullptr;
  PictureSinkOptions sink;
  uint32_t startMs = 0;  // the library seeks to whole seconds: the fraction is dropped
  uint32_t timeout = DEFAULT_TIMEOUT_SECONDS;
  bool keyFrames = false;
};

bool ParsePlayOptions(int argc, char** argv, PlayOptions* o) {
  const OptionSpec specs[] = {
      {"--y4m", OptionKind::TEXT, &o->sink.y4mPath},
      {"--png", OptionKind::TEXT, &o->sink.pngFolder},
      {"--every", OptionKind::COUNT, &o->sink.pngEvery},
      {"--start", OptionKind::TIME, &o->startMs},
      {"--realtime", OptionKind::FLAG, &o->sink.realtime},
      {"--timeout", OptionKind::COUNT, &o->timeout},
      {"--keyframes", OptionKind::FLAG, &o->keyFrames},
  };
  if (!ParseOptions(NAME, argc, argv, specs, std::size(specs), &o->path, 1, 1)) return false;
  if (o->sink.pngEvery != PictureSinkOptions().pngEvery && o->sink.pngFolder == nullptr) {
    return StepFailed(NAME, "--every needs --png");
  }
  return true;
}

// Why the wait for the end stopped.
enum class PlayEnd { END_OF_FILE, NO_PICTURES, OUTPUT_FAILED, INTERRUPTED };

PlayEnd WaitForEnd(const LibrarySession& session, const PictureSink& sink, const PlayOptions& o,
                   uint32_t length, ProgressMeter& progress) {
  const std::chrono::seconds timeout(o.timeout);
  for (;;) {
    if (session.FileEnded()) return PlayEnd::END_OF_FILE;
    if (sink.Failed()) return PlayEnd::OUTPUT_FAILED;
    if (LibrarySession::Interrupted()) return PlayEnd::INTERRUPTED;
    if (sink.SinceLastPicture() > timeout) return PlayEnd::NO_PICTURES;
    progress.Show(o.startMs / 1000 + sink.Pictures() * (TQF_FRAME_DURATION_MS / 1000.0), length);
    std::this_thread::sleep_for(POLL_INTERVAL);
  }
}

// Closes the sink's outputs at the end of a run, and keeps them when it
// succeeded; the exit code.
int FinishPlay(const PlayOptions& o, PictureSink& sink, const ProgressMeter& progress) {
  std::string error;
  if (!sink.Close(&error)) return CommandError(NAME, "%s", error.c_str());
  if (sink.Pictures() == 0) return CommandError(NAME, "%s played to its end without a picture", o.path);
  progress.PrintSummary(NAME, sink.Pictures());
  if (!sink.Keep(&error)) return CommandError(NAME, "%s", error.c_str());
  return 0;
}

// --keyframes: the key frames from the one at or before --start on, fed
// alone to a stream player (KeyFrameFeed).
int PlayKeyFrames(PlayOptions& o) {
  KeyFrameFeed feed;
  std::string error;
  if (!feed.Open(o.path, &error)) return CommandError(NAME, "%s", error.c_str());
  const uint32_t startFrame = o.startMs / TQF_FRAME_DURATION_MS;
  if (startFrame >= feed.Source().VideoFrames())
    return CommandError(NAME, "--start is past the end of %s", o.path);
  uint32_t first = 0;
  if (!feed.KeyFrameAtOrBefore(startFrame, &first) && !feed.KeyFrameAtOrBefore(UINT32_MAX, &first))
    return CommandError(NAME, "%s has no key frame", o.path);
  std::vector<uint32_t> frames = feed.Source().KeyFrames();
  frames.erase(frames.begin(), std::lower_bound(frames.begin(), frames.end(), first));
  o.sink.maxPictures = static_cast<uint32_t>(frames.size());
  PictureSink sink;
  if (!sink.Open(o.sink, o.path, &error)) return CommandError(NAME, "%s", error.c_str());
  LibrarySession session(PictureSink::Handle, &sink);
  const ProgressMeter progress;  // its clock times the summary
  const bool played = feed.Play(session, /*route=*/0, sink, frames, std::chrono::seconds(o.timeout), &error);
  if (!played && LibrarySession::Interrupted()) {
    CommandError(NAME, "interrupted");
    return LibrarySession::InterruptedExitCode();
  }
  if (!played) return CommandError(NAME, "%s: %s", o.path, error.c_str());
  return FinishPlay(o, sink, progress);
}

int RunPlay(int argc, char** argv) {
  PlayOptions o;
  if (!ParsePlayOptions(argc, argv, &o)) return EXIT_USAGE;
  if (o.keyFrames) return PlayKeyFrames(o);
  PictureSink sink;
  std::string error;
  if (!sink.Open(o.sink, o.path, &error)) return CommandError(NAME, "%s", error.c_str());

  LibrarySession session(PictureSink::Handle, &sink);
  int32_t handle = -1;
  if (TQ_OpenFile(o.path, &handle) != 0)
    return CommandError(NAME, "%s", DescribeInputProblem(o.path).c_str());
  const std::string nothing = DescribeNothingToPlay(o.path);
  if (!nothing.empty()) {
    TQ_CloseFile(handle);
    return CommandError(NAME, "%s", nothing.c_str());
  }
  uint32_t length = 0;
  TQ_GetFileTime(handle, &length);
  const uint32_t start = o.startMs / 1000;
  if (start > 0 && start >= length) {
    TQ_CloseFile(handle);
    return CommandError(NAME, "--start %u is past the end of %s (%u s)", start, o.path, length);
  }
  ProgressMeter progress;
  session.PlayFrom(handle, start);
  PlayEnd end = WaitForEnd(session, sink, o, length, progress);
  TQ_CloseFile(handle);  // no picture arrives after this
  progress.Clear();

  switch (end) {
    case PlayEnd::INTERRUPTED:
      if (!sink.Close(&error)) return CommandError(NAME, "%s", error.c_str());
      progress.PrintSummary(NAME, sink.Pictures());
      CommandError(NAME, "interrupted");
      return LibrarySession::InterruptedExitCode();
    case PlayEnd::NO_PICTURES:
      if (!sink.Close(&error)) return CommandError(NAME, "%s", error.c_str());
      return CommandError(NAME, "no picture for %u s: %s has no playable key frame here", o.timeout,
                          o.path);
    case PlayEnd::OUTPUT_FAILED:  // Close reports it
    case PlayEnd::END_OF_FILE:
      break;
  }
  return FinishPlay(o, sink, progress);
}

}  // namespace

extern const Command PLAY_COMMAND = {
    NAME, "play a file through the library: Y4M, PNG stills, progress",
    "play FILE [--y4m OUT.y4m] [--png DIR [--every N]] [--start SECONDS] [--realtime] [--keyframes] [--timeout SECONDS]",
    "Plays a TQF file with TQ_OpenFile and TQ_Play, as fast as the library decodes.\n"
    "\n"
    "  --y4m OUT        write every picture to a YUV4MPEG2 video (ffplay, mpv play it)\n"
    "  --png DIR        write PNG stills to DIR (made if missing), named by picture number\n"
    "  --every N        a still every N pictures (default 25: one a second)\n"
    "  --start SECONDS  seek there with TQ_SetPlayTime once the first key frame is met;\n"
    "                   the pictures begin with the frame after that time\n"
    "  --keyframes      decode the key frames alone, from the one at or before --start:\n"
    "                   they are fed to a stream player (TQ_OpenStream, TQ_InputData)\n"
    "                   without the frames between them, to skim hours in seconds\n"
    "  --realtime       deliver 25 pictures a second, paced in the picture callback\n"
    "  --timeout SECS   give up when no picture comes for this long (default 10)\n"
    "\n"
    "A progress bar shows on a terminal; the last line sums up the run.\n",
    RunPlay,
};
