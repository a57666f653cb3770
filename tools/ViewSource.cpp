#include "ViewSource.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "ChannelProtocol.h"
#include "Command.h"
#include "InputProblem.h"
#include "TQFFormat.h"

namespace {

using Clock = std::chrono::steady_clock;

// How long a live source's last pictures may take to come out after its
// bytes have all been fed.
constexpr std::chrono::seconds STREAM_DRAIN_TIME{1};
// The wait before a dropped channel is connected again: doubled after each
// failed attempt up to the most.
constexpr std::chrono::milliseconds FIRST_BACKOFF{500};
constexpr std::chrono::milliseconds MOST_BACKOFF{5000};
// A channel that sends nothing for this long has dropped.
constexpr std::chrono::seconds CHANNEL_SILENCE{5};
constexpr int FRAMES_PER_SECOND = 1000 / TQF_FRAME_DURATION_MS;
// The fastest speed that shows every frame, and the fastest of all.
constexpr int EVERY_FRAME_SPEED = 4;
constexpr int MOST_SPEED = 16;

// "MM:SS" of `seconds`.
std::string MinutesSeconds(uint32_t seconds) {
  char text[16];
  std::snprintf(text, sizeof text, "%02u:%02u", seconds / 60, seconds % 60);
  return text;
}

// Whether `path` names a live source whatever the options: "-", a FIFO or
// character device, or a channel's URL.
bool IsLivePath(const char* path) {
  if (std::strcmp(path, "-") == 0 || IsChannelUrl(path)) return true;
  struct stat info;
  return stat(path, &info) == 0 && (S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode));
}

}  // namespace

ViewSource::ViewSource(const char* path, bool live, LibrarySession& session)
    : path_(path),
      live_(live || IsLivePath(path)),
      reconnects_(IsChannelUrl(path)),
      session_(session),
      slot_(live_ ? PictureSlot::UNPACED : 1),
      route_(session.AddRoute(PictureSlot::Handle, &slot_)),
      trick_(session, route_, slot_) {}

bool ViewSource::Open(uint32_t startSeconds, std::string* error) {
  if (live_) return OpenLive(error);
  if (TQ_OpenFile(path_, &handle_) != 0) {
    *error = DescribeInputProblem(path_);
    return false;
  }
  *error = DescribeNothingToPlay(path_);
  if (!error->empty()) return false;
  TQ_GetFileTime(handle_, &length_);
  session_.PlayFrom(handle_, startSeconds, route_);
  return true;
}

// A channel that cannot be reached at start is a tile that reconnects, as
// one that drops later is; any other live source must open.
bool ViewSource::OpenLive(std::string* error) {
  const bool connected = Connect(error);
  if (!connected && !reconnects_) return false;
  if (!connected) {
    CommandError("view", "%s: %s; reconnecting", path_, error->c_str());
    reconnecting_.store(true);
  }
  feederThread_ = std::thread(&ViewSource::FeedLive, this, connected);
  return true;
}

bool ViewSource::Connect(std::string* error) {
  feeder_ = std::make_unique<StreamFeeder>();
  if (!feeder_->Open(path_, error)) return false;
  if (TQ_OpenStream(feeder_->Header(), feeder_->HeaderSize(), &handle_) != 0) {
    *error = std::string("the library refused the stream header of ") + path_;
    return false;
  }
  session_.Play(handle_, route_);
  return true;
}

void ViewSource::Close() {
  {
    std::lock_guard<std::mutex> guard(stopMutex_);
    stop_.store(true);
  }
  stopRequested_.notify_all();
  if (feederThread_.joinable()) feederThread_.join();
  trick_.Stop();
  if (handle_ < 0) return;
  if (live_)
    TQ_CloseStream(handle_);
  else
    TQ_CloseFile(handle_);
  handle_ = -1;
}

void ViewSource::FeedLive(bool connected) {
  std::chrono::milliseconds backoff = FIRST_BACKOFF;
  if (connected) FeedConnection();
  // A Ctrl-C ends the reads of a channel too: that is no drop.
  while (reconnects_ && !stop_.load() && !LibrarySession::Interrupted()) {
    if (handle_ >= 0) {
      TQ_CloseStream(handle_);
      handle_ = -1;
      slot_.Forget();
      reconnecting_.store(true);
      const std::string& reason = feeder_->EndReason();
      CommandError("view", "%s: the connection ended%s%s; reconnecting", path_,
                   reason.empty() ? "" : ": ", reason.c_str());
    }
    std::string error;
    while (Backoff(backoff) && !Connect(&error)) backoff = std::min(backoff * 2, MOST_BACKOFF);
    if (handle_ < 0) break;  // closed while reconnecting
    reconnecting_.store(false);
    backoff = FIRST_BACKOFF;
    FeedConnection();
  }
  feedDone_.store(true);
}

// The source in real time, paused or not, as a camera sends it.
void ViewSource::FeedConnection() {
  FeedOptions options;
  options.realtime = true;
  if (reconnects_) options.silence = CHANNEL_SILENCE;
  options.stop = &stop_;  // a quit ends a read that waits
  const uint32_t fedBefore = framesFed_.load();
  feeder_->RestartClock();
  while (!feeder_->Done() && !stop_.load()) {
    StreamFeeder::Chunk chunk = feeder_->NextChunk(options);
    std::this_thread::sleep_until(chunk.due);
    TQ_InputData(handle_, chunk.data, static_cast<int32_t>(chunk.size));
    feeder_->Advance(chunk);
    framesFed_.store(fedBefore + feeder_->FramesFed());
  }
}

bool ViewSource::Backoff(std::chrono::milliseconds wait) {
  std::unique_lock<std::mutex> lock(stopMutex_);
  return !stopRequested_.wait_for(lock, wait, [this] { return stop_.load(); });
}

void ViewSource::Pause() {
  if (!Running()) return;
  paused_.store(true);
  if (live_) return;
  OpenTrick();  // the title tells the frame shown
  if (mode_ == Mode::KEY_FRAMES) {
    mode_ = Mode::HELD;
    heldFrame_ = trick_.Stop();
  } else {
    TQ_Stop(handle_);
  }
}

void ViewSource::Resume() {
  if (Running()) return;
  const bool ended = Ended();
  paused_.store(false);
  if (live_) return;
  if (mode_ != Mode::PLAYER || speed_ > EVERY_FRAME_SPEED) {  // TrickPlay is open
    PlayOnFrom(ended ? 0 : ShownFrame() + 1);
    return;
  }
  // The player goes on from where it stopped, or from its start after its end.
  session_.ClearEnd(route_);
  slot_.ShowAll();
  slot_.SetPace(speed_);
  session_.Play(handle_, route_);
}

void ViewSource::Seek(int32_t step) {
  if (live_) return;
  const int64_t frames = int64_t{step} * FRAMES_PER_SECOND;
  if (paused_.load()) {
    if (OpenTrick()) Hold(int64_t{ShownFrame()} + frames);
    return;
  }
  if (mode_ == Mode::KEY_FRAMES) {
    const int64_t from = int64_t{trick_.Stop()} + frames;
    trick_.Run(static_cast<uint32_t>(std::clamp<int64_t>(from, 0, trick_.LastFrame())), speed_);
    return;
  }
  const bool ended = Ended();
  uint32_t position = 0;
  TQ_GetPlayTime(handle_, &position);
  int32_t target = static_cast<int32_t>(position) + step;
  target = std::clamp<int32_t>(target, 0, static_cast<int32_t>(length_));
  TQ_SetPlayTime(handle_, target);
  // A seek to the end may end the file before any picture of the new
  // position is shown: the title then shows where the seek went.
  lastPosition_ = static_cast<uint32_t>(target);
  slot_.ShowAll();
  slot_.RestartPacing();
  if (ended) {  // the file had stopped at its end
    session_.ClearEnd(route_);
    session_.Play(handle_, route_);
  }
}

void ViewSource::SetSpeed(int speed) {
  speed = std::clamp(speed, 1, MOST_SPEED);
  if (live_ || speed == speed_ || !OpenTrick()) return;
  speed_ = speed;
  if (!Running()) return;
  const bool keyFrames = speed > EVERY_FRAME_SPEED;
  if (mode_ == Mode::PLAYER && !keyFrames) {
    slot_.SetPace(speed);
  } else if (mode_ == Mode::KEY_FRAMES && keyFrames) {
    trick_.SetSpeed(speed);
  } else if (mode_ == Mode::PLAYER) {
    TQ_Stop(handle_);
    PlayOnFrom(ShownFrame() + 1);
  } else {
    PlayOnFrom(trick_.Stop() + 1);
  }
}

void ViewSource::Step(int32_t frames) {
  if (!live_ && !Running() && OpenTrick()) Hold(int64_t{ShownFrame()} + frames);
}

bool ViewSource::OpenTrick() {
  std::string error;
  if (trick_.Open(path_, &error)) return true;
  CommandError("view", "%s: no fast forward or frame steps: %s", path_, error.c_str());
  return false;
}

uint32_t ViewSource::ShownFrame() {
  if (mode_ == Mode::HELD) return heldFrame_;
  if (mode_ == Mode::KEY_FRAMES) return trick_.Fed();
  const uint32_t near = std::min(Position() * FRAMES_PER_SECOND, trick_.LastFrame());
  return trick_.FrameOfStamp(slot_.LastStamp(), near);
}

void ViewSource::PlayOnFrom(uint32_t frame) {
  if (speed_ > EVERY_FRAME_SPEED) {
    mode_ = Mode::KEY_FRAMES;
    trick_.Run(frame, speed_);
  } else {
    PlayFileFrom(frame);
  }
}

// A seek to second S shows frame 25 S + 1 first (the frame at S is decoded
// silently), so the frames of that second before `frame` are skipped; a
// seek onto the player's own position shows that frame itself, which its
// stamp gives away.
void ViewSource::PlayFileFrom(uint32_t frame) {
  mode_ = Mode::PLAYER;
  frame = std::min(frame, trick_.LastFrame());
  const uint32_t second = frame > 0 ? (frame - 1) / FRAMES_PER_SECOND : 0;
  const uint32_t firstShown = second * FRAMES_PER_SECOND + 1;
  slot_.ShowFrom(frame > firstShown ? frame - firstShown : 0, trick_.Stamp(frame));
  slot_.SetPace(speed_);
  session_.ClearEnd(route_);
  TQ_SetPlayTime(handle_, static_cast<int32_t>(second));
  session_.Play(handle_, route_);
}

void ViewSource::Hold(int64_t frame) {
  const uint32_t target = static_cast<uint32_t>(
      std::clamp<int64_t>(frame, trick_.FirstKeyFrame(), trick_.LastFrame()));
  if (mode_ == Mode::KEY_FRAMES) trick_.Stop();
  paused_.store(true);
  std::string error;
  if (!trick_.Show(target, &error)) {
    CommandError("view", "%s: frame %u: %s", path_, target, error.c_str());
    return;
  }
  mode_ = Mode::HELD;
  heldFrame_ = target;
}

bool ViewSource::Ended() const {
  if (live_) return feedDone_.load() && Clock::now() - slot_.LastArrival() > STREAM_DRAIN_TIME;
  if (mode_ == Mode::KEY_FRAMES) return trick_.Ended();
  return mode_ == Mode::PLAYER && session_.FileEnded(route_);
}

// The file's position; after the end, the last one it played (the player
// rewinds to the start when it ends). The position is read before the end
// flag, which the player sets before it rewinds, so a position read after
// the rewind always meets the flag set.
uint32_t ViewSource::Position() {
  if (mode_ != Mode::PLAYER) return ShownFrame() * TQF_FRAME_DURATION_MS / 1000;
  uint32_t position = 0;
  TQ_GetPlayTime(handle_, &position);
  if (!session_.FileEnded(route_)) lastPosition_ = position;
  return lastPosition_;
}

std::string ViewSource::Title() {
  const char* state = paused_.load() ? " (paused)" : Ended() ? " (end)" : "";
  if (live_) {
    const uint32_t fed = framesFed_.load() * TQF_FRAME_DURATION_MS / 1000;
    return std::string(path_) + " - live " + MinutesSeconds(fed) + state;
  }
  std::string title = std::string(path_) + " - " + MinutesSeconds(Position()) + " / " + MinutesSeconds(length_);
  if (speed_ != 1) title += " " + std::to_string(speed_) + "x";
  if (paused_.load() && trick_.Ready()) title += " frame " + std::to_string(ShownFrame());
  return title + state;
}

std::string ViewSource::Name() const {
  const char* slash = std::strrchr(path_, '/');
  return reconnects_ || slash == nullptr ? path_ : slash + 1;
}

std::string ViewSource::Status() {
  if (paused_.load()) return "paused";
  if (Ended()) return "ended";
  if (reconnecting_.load()) return "reconnecting";
  if (!slot_.HasPicture()) return "waiting for a key frame";
  const std::string rate = std::to_string(slot_.PicturesLastSecond()) + " fps";
  if (live_) return "connected " + rate;
  const std::string speed = speed_ != 1 ? " " + std::to_string(speed_) + "x" : "";
  return MinutesSeconds(Position()) + " / " + MinutesSeconds(length_) + " " + rate + speed;
}
