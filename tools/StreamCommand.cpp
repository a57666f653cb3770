// tqfplay stream: TQ_OpenStream on the file's header block, TQ_Play, then
// TQ_InputData chunk by chunk as the StreamFeeder paces it, with a recording
// by TQ_StartRecord / TQ_StopRecord on the side.
#include "StreamCommand.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "LibrarySession.h"
#include "Options.h"
#include "PictureSink.h"
#include "ProgressMeter.h"
#include "OutputFile.h"
#include "StreamFeeder.h"
#include "TQFReader.h"
#include "TQFFormat.h"

namespace {

constexpr const char NAME[] = "stream";
constexpr uint32_t DEFAULT_TIMEOUT_SECONDS = 10;
// The most pictures an H.264 decoder holds back to put them in display order.
constexpr uint32_t MAX_REORDER_HELD_PICTURES = 16;

struct StreamOptions {
  const char* path = nullptr;
  FeedOptions feed;
  bool chunkGiven = false;
  const char* recordPath = nullptr;
  uint32_t recordAfterMs = 0;
  PictureSinkOptions sink;
  uint32_t timeout = DEFAULT_TIMEOUT_SECONDS;
};

bool ParseStreamOptions(int argc, char** argv, StreamOptions* o) {
  uint32_t chunk = 0;
  const OptionSpec specs[] = {
      {"--chunk", OptionKind::COUNT, &chunk},
      {"--random-chunks", OptionKind::FLAG, &o->feed.randomChunks},
      {"--seed", OptionKind::NUMBER, &o->feed.seed},
      {"--record", OptionKind::TEXT, &o->recordPath},
      {"--record-after", OptionKind::TIME, &o->recordAfterMs},
      {"--y4m", OptionKind::TEXT, &o->sink.y4mPath},
      {"--png", OptionKind::TEXT, &o->sink.pngFolder},
      {"--every", OptionKind::COUNT, &o->sink.pngEvery},
      {"--realtime", OptionKind::FLAG, &o->feed.realtime},
      {"--timeout", OptionKind::COUNT, &o->timeout},
  };
  if (!ParseOptions(NAME, argc, argv, specs, std::size(specs), &o->path, 1, 1)) return false;
  if (chunk != 0 && o->feed.randomChunks) {
    return StepFailed(NAME, "--chunk and --random-chunks exclude each other");
  }
  if (chunk > StreamFeeder::MAX_CHUNK_BYTES) {
    return StepFailed(NAME, "--chunk is at most %u bytes", StreamFeeder::MAX_CHUNK_BYTES);
  }
  if (chunk != 0) o->feed.chunkBytes = chunk;
  if (o->recordAfterMs != 0 && o->recordPath == nullptr) {
    return StepFailed(NAME, "--record-after needs --record");
  }
  if (o->sink.pngEvery != PictureSinkOptions().pngEvery && o->sink.pngFolder == nullptr) {
    return StepFailed(NAME, "--every needs --png");
  }
  return true;
}

// One run: the player, its feeding and its recording.
class StreamRun {
 public:
  // `recordPath`: where the library writes the recording (null: none).
  StreamRun(const StreamOptions& o, StreamFeeder& feeder, PictureSink& sink, const char* recordPath)
      : o_(o), feeder_(feeder), sink_(sink), recordPath_(recordPath) {}

  // Feeds the whole file and waits for its pictures. 0, or a failure's exit code.
  int Feed(int32_t handle, ProgressMeter& progress) {
    const std::chrono::seconds timeout(o_.timeout);
    feeder_.RestartClock();
    while (!feeder_.Done()) {
      StreamFeeder::Chunk chunk = feeder_.NextChunk(o_.feed);
      if (o_.feed.realtime) {
        std::this_thread::sleep_until(chunk.due);
      } else if (chunk.picturesNeeded > missing_ &&
                 !sink_.WaitForPictures(chunk.picturesNeeded - missing_, timeout)) {
        if (sink_.Pictures() == 0)
          return CommandError(NAME, "no picture for %u s: the stream's video does not decode",
                              o_.timeout);
        missing_ = chunk.picturesNeeded - sink_.Pictures();  // frames the decoder kept
      }
      if (LibrarySession::Interrupted()) {
        CommandError(NAME, "interrupted");
        return LibrarySession::InterruptedExitCode();
      }
      if (sink_.Failed()) return 1;  // Close tells why
      StartRecordWhenDue(handle, chunk);
      if (TQ_InputData(handle, chunk.data, static_cast<int32_t>(chunk.size)) != 0)
        return CommandError(NAME, "TQ_InputData refused %u bytes", chunk.size);
      feeder_.Advance(chunk);
      progress.Show(feeder_.FramesFed() * (TQF_FRAME_DURATION_MS / 1000.0), feeder_.Length());
    }
    // The last frames are queued; wait until they are shown, or until the
    // last one is decoded when the decoder holds pictures back for reordering.
    uint32_t expected = feeder_.DeliverableFed();
    if (expected > missing_)
      sink_.WaitForLastFrame(expected - missing_, feeder_.LastDeliverableStamp(),
                             MAX_REORDER_HELD_PICTURES, timeout);
    return 0;
  }

  void StopRecord(int32_t handle) {
    if (recording_) TQ_StopRecord(handle);
  }

 private:
  // The library records the frames fed after TQ_StartRecord: start before
  // the chunk that completes the frame at `recordAfterMs`.
  void StartRecordWhenDue(int32_t handle, const StreamFeeder::Chunk& chunk) {
    if (recordPath_ == nullptr || recording_ ||
        chunk.framesFedAfter <= o_.recordAfterMs / TQF_FRAME_DURATION_MS)
      return;
    TQ_StartRecord(handle, recordPath_);
    recording_ = true;
  }

  const StreamOptions& o_;
  StreamFeeder& feeder_;
  PictureSink& sink_;
  const char* recordPath_;
  uint32_t missing_ = 0;  // deliverable frames that the decoder gave no picture for
  bool recording_ = false;
};

// Checks the recording at `path` (written to `writePath`): it holds frames,
// and none was lost to the disk. Prints its size, or gives a failure's message.
bool CheckRecording(const char* path, const char* writePath, uint32_t losses, std::string* error) {
  // The reader does not index the last frame of a file: it is there when
  // bytes follow the header block.
  TQFReader reader;
  int32_t headerSize = INT32_MAX;
  const bool opened = reader.Open(writePath) && reader.GetHeader(nullptr, &headerSize);
  const uint32_t frames = opened && reader.fileSize > static_cast<uint64_t>(headerSize)
                              ? reader.index[TQF_STREAM_VIDEO].count + 1
                              : 0;
  if (losses != 0) {
    *error = "the recording " + std::string(path) + " lost " + std::to_string(losses) +
             " frames (write failed or disk too slow); " + std::to_string(frames) + " frames written";
    return false;
  }
  if (frames == 0) {
    *error = std::string("the recording ") + path + " holds no frame (no key frame after its start?)";
    return false;
  }
  std::fprintf(stderr, "%s: recorded %u frames (%llu bytes) to %s\n", NAME, frames,
              static_cast<unsigned long long>(reader.fileSize), path);
  return true;
}

int RunStream(int argc, char** argv) {
  StreamOptions o;
  if (!ParseStreamOptions(argc, argv, &o)) return EXIT_USAGE;
  StreamFeeder feeder;
  PictureSink sink;
  std::string error;
  OutputFile recording;
  if (!feeder.Open(o.path, &error) || !sink.Open(o.sink, o.path, &error) ||
      (o.recordPath != nullptr && !recording.Prepare(o.recordPath, {o.path}, WriteAccess::SEEKING, &error)))
    return CommandError(NAME, "%s", error.c_str());

  LibrarySession session(PictureSink::Handle, &sink);
  int32_t handle = -1;
  if (TQ_OpenStream(feeder.Header(), feeder.HeaderSize(), &handle) != 0)
    return CommandError(NAME, "the library refused the stream header of %s", o.path);
  ProgressMeter progress;
  session.Play(handle);
  StreamRun run(o, feeder, sink, o.recordPath != nullptr ? recording.WritePath() : nullptr);
  int result = run.Feed(handle, progress);
  run.StopRecord(handle);
  TQ_CloseStream(handle);
  progress.Clear();

  if (!sink.Close(&error)) return CommandError(NAME, "%s", error.c_str());
  if (result != 0) return result;
  if (sink.Pictures() == 0) return CommandError(NAME, "%s gave no picture", o.path);
  progress.PrintSummary(NAME, sink.Pictures());
  if (sink.Pictures() < feeder.DeliverableFed())
    std::fprintf(stderr, "tqfplay %s: %u of %u video frames gave no picture\n", NAME,
                 feeder.DeliverableFed() - sink.Pictures(), feeder.DeliverableFed());
  if (o.recordPath != nullptr &&
      (!CheckRecording(o.recordPath, recording.WritePath(), session.RecordLosses(), &error) ||
       !recording.Commit(&error)))
    return CommandError(NAME, "%s", error.c_str());
  if (!sink.Keep(&error)) return CommandError(NAME, "%s", error.c_str());
  return 0;
}

}  // namespace

extern const Command STREAM_COMMAND = {
    NAME, "feed a file as a live stream, optionally recording it",
    "stream FILE|- [--chunk BYTES | --random-chunks [--seed N]] [--record OUT.tqf "
    "[--record-after SECONDS]] [--y4m OUT.y4m] [--png DIR [--every N]] [--realtime] "
    "[--timeout SECONDS]",
    "Feeds TQF bytes to the library as a live source: the header block to\n"
    "TQ_OpenStream, the rest to TQ_InputData in chunks cut anywhere. FILE is a\n"
    "TQF file, or a pipe read as its bytes arrive: '-' (standard input) or a FIFO.\n"
    "\n"
    "  --chunk BYTES     feed chunks of this size (default 4096, at most 4194304)\n"
    "  --random-chunks   feed chunks of random sizes from 1 to 65536 bytes, as a\n"
    "                    network delivers them; the frame parser must reassemble\n"
    "  --seed N          seed of the random sizes (default 0), to repeat a run\n"
    "  --record OUT      record the stream's video with TQ_StartRecord to a new TQF\n"
    "                    file; the recording begins at a key frame\n"
    "  --record-after S  start recording after S seconds of video\n"
    "  --y4m, --png, --every   as for play\n"
    "  --realtime        feed at 25 video frames a second, as a camera would; without\n"
    "                    it the feed waits for the pictures (the library has no\n"
    "                    back-pressure and drops the oldest frames when its queue is\n"
    "                    full), so no frame is lost\n"
    "  --timeout SECS    give up when no picture comes for this long (default 10)\n",
    RunStream,
};
