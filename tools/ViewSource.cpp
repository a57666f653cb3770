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
constexpr std::chrono::seconds ONE_SECOND{1};

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

void PictureSlot::Handle(void* context, const Picture& picture) {
  static_cast<PictureSlot*>(context)->Store(picture);
}

void PictureSlot::Store(const Picture& picture) {
  if (pace_) {
    if (restartPacing_.exchange(false)) pacer_.Restart();
    pacer_.Wait();
  }
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (picture.width > 0 && picture.height > 0 &&
        picture.size == picture.width * picture.height * 3 / 2) {
      width_ = picture.width;
      height_ = picture.height;
      pixels_.assign(picture.data, picture.data + picture.size);
      fresh_ = true;
      hasPicture_ = true;
    }
    lastArrival_ = Clock::now();
    arrivals_.push_back(lastArrival_);
    while (lastArrival_ - arrivals_.front() > ONE_SECOND) arrivals_.pop_front();
  }
  stored_.notify_all();
}

bool PictureSlot::WaitForPicture(Clock::time_point deadline) {
  std::unique_lock<std::mutex> lock(mutex_);
  return stored_.wait_until(lock, deadline, [this] { return hasPicture_; });
}

bool PictureSlot::HasPicture() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return hasPicture_;
}

void PictureSlot::Forget() {
  std::lock_guard<std::mutex> guard(mutex_);
  hasPicture_ = false;
  arrivals_.clear();
}

int32_t PictureSlot::Width() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return width_;
}

int32_t PictureSlot::Height() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return height_;
}

int PictureSlot::PicturesLastSecond() const {
  std::lock_guard<std::mutex> guard(mutex_);
  const Clock::time_point now = Clock::now();
  return static_cast<int>(std::count_if(arrivals_.begin(), arrivals_.end(),
                                        [now](Clock::time_point t) { return now - t <= ONE_SECOND; }));
}

Clock::time_point PictureSlot::LastArrival() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return lastArrival_;
}

ViewSource::ViewSource(const char* path, bool live, LibrarySession& session)
    : path_(path),
      live_(live || IsLivePath(path)),
      reconnects_(IsChannelUrl(path)),
      session_(session),
      slot_(/*pace=*/!live_),
      route_(session.AddRoute(PictureSlot::Handle, &slot_)) {}

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

bool ViewSource::OpenLive(std::string* error) {
  if (!Connect(error)) return false;
  feederThread_ = std::thread(&ViewSource::FeedLive, this);
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
  if (handle_ < 0) return;
  if (live_)
    TQ_CloseStream(handle_);
  else
    TQ_CloseFile(handle_);
  handle_ = -1;
}

void ViewSource::FeedLive() {
  std::chrono::milliseconds backoff = FIRST_BACKOFF;
  FeedConnection();
  // A Ctrl-C ends the reads of a channel too: that is no drop.
  while (reconnects_ && !stop_.load() && !LibrarySession::Interrupted()) {
    TQ_CloseStream(handle_);
    handle_ = -1;
    slot_.Forget();
    reconnecting_.store(true);
    const std::string& reason = feeder_->EndReason();
    CommandError("view", "%s: the connection ended%s%s; reconnecting", path_,
                 reason.empty() ? "" : ": ", reason.c_str());
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
  if (!live_) TQ_Stop(handle_);
}

void ViewSource::Resume() {
  if (Running()) return;
  paused_.store(false);
  if (live_) return;
  session_.ClearEnd(route_);
  slot_.RestartPacing();
  session_.Play(handle_, route_);
}

void ViewSource::Seek(int32_t step) {
  if (live_) return;
  const bool ended = Ended();
  uint32_t position = 0;
  TQ_GetPlayTime(handle_, &position);
  int32_t target = static_cast<int32_t>(position) + step;
  target = std::clamp<int32_t>(target, 0, static_cast<int32_t>(length_));
  TQ_SetPlayTime(handle_, target);
  // A seek to the end may end the file before any picture of the new
  // position is shown: the title then shows where the seek went.
  lastPosition_ = static_cast<uint32_t>(target);
  slot_.RestartPacing();
  if (ended && !paused_.load()) {  // the file had stopped at its end
    session_.ClearEnd(route_);
    session_.Play(handle_, route_);
  }
}

bool ViewSource::Ended() const {
  if (!live_) return session_.FileEnded(route_);
  return feedDone_.load() && Clock::now() - slot_.LastArrival() > STREAM_DRAIN_TIME;
}

// The file's position; after the end, the last one it played (the player
// rewinds to the start when it ends). The position is read before the end
// flag, which the player sets before it rewinds, so a position read after
// the rewind always meets the flag set.
uint32_t ViewSource::Position() {
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
  const uint32_t position = Position();
  return std::string(path_) + " - " + MinutesSeconds(position) + " / " + MinutesSeconds(length_) + state;
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
  return MinutesSeconds(Position()) + " / " + MinutesSeconds(length_) + " " + rate;
}
