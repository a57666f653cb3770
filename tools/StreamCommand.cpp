// tqfplay stream: TQ_OpenStream on the file's header block, TQ_Play, then
// TQ_InputData chunk by chunk as the StreamFeeder paces it, with a recording
// by TQ_StartRecord / TQ_StopRecord on the side.
#include "StreamCommand.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "ChannelProtocol.h"
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
// The most pictures an H.264 or H.265 decoder holds back to put them in display order.
constexpr uint32_t MAX_REORDER_HELD_PICTURES = 16;

struct StreamOptions {
  const char* path = nullptr;
  FeedOptions feed;
  bool chunkGiven = false;
  const char* recordPath = nullptr;
  uint32_t recordAfterMs = 0;
  PictureSinkOptions sink;
  uint32_t timeout = DEFAULT_TIMEOUT_SECONDS;
  bool reconnect = false;
  uint32_t durationMs = 0;  // 0: until the source ends
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
      {"--reconnect", OptionKind::FLAG, &o->reconnect},
      {"--duration", OptionKind::TIME, &o->durationMs},
      {"--frames", OptionKind::COUNT, &o->sink.maxPictures},
  };
  if (!ParseOptions(NAME, argc, argv, specs, std::size(specs), &o->path, 1, 1)) return false;
  if (o->reconnect && !IsChannelUrl(o->path)) {
    return StepFailed(NAME, "--reconnect needs a tcp:// or http:// source");
  }
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
  // `recordPath`: where the library writes the recording (null: none). The
  // sink's earlier pictures (of earlier connections) are not this run's.
  StreamRun(const StreamOptions& o, StreamFeeder& feeder, PictureSink& sink, const char* recordPath)
      : o_(o), feeder_(feeder), sink_(sink), recordPath_(recordPath), before_(sink.Pictures()) {}

  // Feeds the whole source and waits for its pictures. 0, or a failure's exit code.
  int Feed(int32_t handle, ProgressMeter& progress) {
    const std::chrono::seconds timeout(o_.timeout);
    feeder_.RestartClock();
    while (!feeder_.Done() && !Finished(o_, sink_)) {
      StreamFeeder::Chunk chunk = feeder_.NextChunk(o_.feed);
      if (o_.feed.realtime) {
        std::this_thread::sleep_until(chunk.due);
      } else if (chunk.picturesNeeded > missing_ &&
                 !sink_.WaitForPictures(before_ + chunk.picturesNeeded - missing_, timeout)) {
        if (Pictures() == 0)
          return CommandError(NAME, "no picture for %u s: the stream's video does not decode",
                              o_.timeout);
        missing_ = chunk.picturesNeeded - Pictures();  // frames the decoder kept
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
    if (expected > missing_ && !Finished(o_, sink_))
      sink_.WaitForLastFrame(before_ + expected - missing_, feeder_.LastDeliverableStamp(),
                             MAX_REORDER_HELD_PICTURES, timeout);
    return 0;
  }

  // This run's pictures.
  uint32_t Pictures() const { return sink_.Pictures() - before_; }

  // Whether the whole run has what it asked for: --frames or --duration.
  static bool Finished(const StreamOptions& o, const PictureSink& sink) {
    return (o.sink.maxPictures != 0 && sink.Pictures() >= o.sink.maxPictures) ||
           std::chrono::steady_clock::now() >= o.feed.deadline;
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
  const uint32_t before_;
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

// The file a connection records to: OUT for the first, then OUT with "-2",
// "-3"... before its extension.
std::string ConnectionRecordPath(const char* path, int connection) {
  const std::string out = path;
  if (connection == 1) return out;
  const size_t slash = out.rfind('/'), dot = out.rfind('.');
  const size_t at = dot == std::string::npos || (slash != std::string::npos && dot < slash) ? out.size() : dot;
  return out.substr(0, at) + "-" + std::to_string(connection) + out.substr(at);
}

// The wait before a dropped or refused connection is tried again: 0.5 s,
// doubling up to 5 s, and 0.5 s again after a connection that worked.
class Backoff {
 public:
  // Says why and for how long in one line, then waits. False when a Ctrl-C
  // or the run's deadline comes first.
  bool Wait(const std::string& why, std::chrono::steady_clock::time_point deadline) {
    std::fprintf(stderr, "tqfplay %s: %s; trying again in %.1f s\n", NAME, why.c_str(), next_.count() / 1000.0);
    const auto until = std::min(std::chrono::steady_clock::now() + next_, deadline);
    next_ = std::min(next_ * 2, MAX_WAIT);
    for (auto now = std::chrono::steady_clock::now(); now < until; now = std::chrono::steady_clock::now()) {
      if (LibrarySession::Interrupted()) return false;
      std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(until - now, LOOK_EVERY));
    }
    return until < deadline;
  }
  void Reset() { next_ = FIRST_WAIT; }

 private:
  static constexpr std::chrono::milliseconds FIRST_WAIT{500}, MAX_WAIT{5000}, LOOK_EVERY{100};
  std::chrono::milliseconds next_ = FIRST_WAIT;
};

// One connection of a live source, or the whole run of a file or pipe: a
// player on its header block, the feed and the recording. 0, or a failure's
// exit code; `deliverable` grows by the frames that should have given a picture.
int RunConnection(const StreamOptions& o, StreamFeeder& feeder, PictureSink& sink, LibrarySession& session,
                  int connection, ProgressMeter& progress, uint32_t* deliverable) {
  std::string error;
  OutputFile recording;
  const std::string recordPath = o.recordPath != nullptr ? ConnectionRecordPath(o.recordPath, connection) : "";
  if (o.recordPath != nullptr &&
      !recording.Prepare(recordPath.c_str(), {o.path}, WriteAccess::SEEKING, &error))
    return CommandError(NAME, "%s", error.c_str());
  int32_t handle = -1;
  if (TQ_OpenStream(feeder.Header(), feeder.HeaderSize(), &handle) != 0)
    return CommandError(NAME, "the library refused the stream header of %s", o.path);
  session.Play(handle);
  const uint32_t lossesBefore = session.RecordLosses();
  StreamRun run(o, feeder, sink, o.recordPath != nullptr ? recording.WritePath() : nullptr);
  const int result = run.Feed(handle, progress);
  run.StopRecord(handle);
  TQ_CloseStream(handle);
  progress.Clear();
  *deliverable += feeder.DeliverableFed();
  if (result != 0 || o.recordPath == nullptr) return result;
  if (!CheckRecording(recordPath.c_str(), recording.WritePath(), session.RecordLosses() - lossesBefore, &error) ||
      !recording.Commit(&error))
    return CommandError(NAME, "%s", error.c_str());
  return 0;
}

int RunStream(int argc, char** argv) {
  StreamOptions o;
  if (!ParseStreamOptions(argc, argv, &o)) return EXIT_USAGE;
  if (o.durationMs != 0)
    o.feed.deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(o.durationMs);
  if (IsChannelUrl(o.path)) o.feed.silence = std::chrono::seconds(o.timeout);
  auto feeder = std::make_unique<StreamFeeder>();
  std::string error;
  bool connected = feeder->Open(o.path, &error);
  PictureSink sink;
  if ((!connected && !o.reconnect) || !sink.Open(o.sink, o.path, &error))
    return CommandError(NAME, "%s", error.c_str());

  LibrarySession session(PictureSink::Handle, &sink);
  ProgressMeter progress;
  Backoff backoff;
  uint32_t deliverable = 0;
  int result = 0;
  for (int connection = 1;;) {
    if (!connected) {
      if (!backoff.Wait(error, o.feed.deadline)) break;
      feeder = std::make_unique<StreamFeeder>();
      if (!(connected = feeder->Open(o.path, &error))) continue;
      if (connection > 1) std::fprintf(stderr, "tqfplay %s: %s: connected again\n", NAME, o.path);
    }
    backoff.Reset();
    result = RunConnection(o, *feeder, sink, session, connection, progress, &deliverable);
    if (result != 0 || !o.reconnect || StreamRun::Finished(o, sink) || LibrarySession::Interrupted()) break;
    error = std::string(o.path) + ": " + (feeder->EndReason().empty() ? "the connection closed" : feeder->EndReason());
    connected = false;
    ++connection;
  }
  if (result == 0 && LibrarySession::Interrupted()) {
    CommandError(NAME, "interrupted");
    result = LibrarySession::InterruptedExitCode();
  }

  if (!sink.Close(&error)) return CommandError(NAME, "%s", error.c_str());
  if (result != 0) return result;
  if (sink.Pictures() == 0) return CommandError(NAME, "%s gave no picture", o.path);
  progress.PrintSummary(NAME, sink.Pictures());
  if (!StreamRun::Finished(o, sink) && sink.Pictures() < deliverable)
    std::fprintf(stderr, "tqfplay %s: %u of %u video frames gave no picture\n", NAME,
                 deliverable - sink.Pictures(), deliverable);
  if (!sink.Keep(&error)) return CommandError(NAME, "%s", error.c_str());
  return 0;
}

}  // namespace

extern const Command STREAM_COMMAND = {
    NAME, "feed a file as a live stream, optionally recording it",
    "stream FILE|-|tcp://HOST:PORT[/N] [--chunk BYTES | --random-chunks [--seed N]] "
    "[--record OUT.tqf [--record-after SECONDS]] [--y4m OUT.y4m] [--png DIR [--every N]] "
    "[--realtime] [--timeout SECONDS] [--reconnect] [--duration SECONDS] [--frames N]",
    "Feeds TQF bytes to the library as a live source: the header block to\n"
    "TQ_OpenStream, the rest to TQ_InputData in chunks cut anywhere. The source is\n"
    "a TQF file, or a live source read as its bytes arrive: '-' (standard input), a\n"
    "FIFO, or channel N (a number or a name; 1 by default) of a camera server such\n"
    "as 'tqfplay serve', as tcp://HOST:PORT/N or http://HOST:PORT/N.\n"
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
    "  --timeout SECS    give up when no picture comes for this long (default 10); a\n"
    "                    connection that brings nothing for this long has dropped\n"
    "  --reconnect       when the connection drops or is refused, say so and try\n"
    "                    again, after 0.5 s doubling up to 5 s. Each connection\n"
    "                    plays from its first key frame, and records to its own\n"
    "                    file: OUT, then OUT with -2, -3... before its extension\n"
    "  --duration SECS   end the run after this long\n"
    "  --frames N        end the run after N pictures (the outputs hold exactly N)\n",
    RunStream,
};
