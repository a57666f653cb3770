// tqfplay view: the library's pictures in an SDL2 window.
//
// The picture callback (a library thread) keeps the newest picture in a
// LatestPicture; the window's thread uploads it to a texture and draws it.
// A file is paced in its callback at 25 pictures a second; a stream is fed
// in real time by a feeder thread. Keys: space pauses and resumes, left and
// right seek 10 seconds (files only), q, Escape or closing the window quits.
//
// When TQFPLAY_VIEW_SNAPSHOT names a file, the viewer reads back what its
// window shows when it quits and writes that as a PNG: a screenshot of the
// window without a screenshot tool.
#include "ViewCommand.h"

#include <SDL2/SDL.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include "FramePacer.h"
#include "InputProblem.h"
#include "LibrarySession.h"
#include "Options.h"
#include "PngWriter.h"
#include "StreamFeeder.h"
#include "TQFFormat.h"

namespace {

constexpr const char NAME[] = "view";
constexpr int32_t SEEK_STEP_SECONDS = 10;
constexpr std::chrono::seconds FIRST_PICTURE_TIMEOUT{10};
constexpr std::chrono::seconds STREAM_DRAIN_TIME{1};
constexpr int EVENT_WAIT_MS = 10;
// The share of the screen a window too large for it is scaled down to.
constexpr double SCREEN_SHARE = 0.9;
constexpr const char SNAPSHOT_VARIABLE[] = "TQFPLAY_VIEW_SNAPSHOT";

struct ViewOptions {
  const char* path = nullptr;
  bool stream = false;
  uint32_t startMs = 0;  // the library seeks to whole seconds
  bool autoExit = false;
};

// The newest picture, handed from the library's thread to the window's.
class LatestPicture {
 public:
  explicit LatestPicture(bool pace) : pace_(pace) {}

  static void Handle(void* context, const Picture& picture) {
    static_cast<LatestPicture*>(context)->Store(picture);
  }

  // Waits for the first picture; false if none comes within `timeout`.
  bool WaitForFirst(std::chrono::seconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return stored_.wait_for(lock, timeout, [this] { return width_ > 0; });
  }
  // Copies a picture that arrived since the last call into `texture`.
  bool Upload(SDL_Texture* texture) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (!fresh_) return false;
    fresh_ = false;
    SDL_UpdateTexture(texture, nullptr, pixels_.data(), width_);
    return true;
  }
  int32_t Width() const { return width_; }
  int32_t Height() const { return height_; }
  void RestartPacing() { restartPacing_.store(true); }
  std::chrono::steady_clock::time_point LastArrival() {
    std::lock_guard<std::mutex> guard(mutex_);
    return lastArrival_;
  }

 private:
  void Store(const Picture& picture) {
    if (pace_) {
      if (restartPacing_.exchange(false)) pacer_.Restart();
      pacer_.Wait();
    }
    {
      std::lock_guard<std::mutex> guard(mutex_);
      // The window's size follows the first picture; later ones must match.
      if (width_ == 0) {
        width_ = picture.width;
        height_ = picture.height;
      }
      if (picture.width == width_ && picture.height == height_ &&
          picture.size == picture.width * picture.height * 3 / 2) {
        pixels_.assign(picture.data, picture.data + picture.size);
        fresh_ = true;
      }
      lastArrival_ = std::chrono::steady_clock::now();
    }
    stored_.notify_all();
  }

  const bool pace_;
  FramePacer pacer_;  // the library's thread only
  std::atomic<bool> restartPacing_{false};
  std::mutex mutex_;
  std::condition_variable stored_;
  std::vector<uint8_t> pixels_;
  int32_t width_ = 0;
  int32_t height_ = 0;
  bool fresh_ = false;
  std::chrono::steady_clock::time_point lastArrival_;
};

// The player behind the window: a file, or a stream with its feeder thread.
class ViewSource {
 public:
  ViewSource(const ViewOptions& o, LibrarySession& session) : o_(o), session_(session) {}
  ~ViewSource() { Close(); }

  bool Open(std::string* error) {
    if (o_.stream) {
      if (!feeder_.Open(o_.path, error)) return false;
      if (TQ_OpenStream(feeder_.Header(), feeder_.HeaderSize(), &handle_) != 0) {
        *error = std::string("the library refused the stream header of ") + o_.path;
        return false;
      }
      session_.Play(handle_);
      feederThread_ = std::thread(&ViewSource::FeedStream, this);
      return true;
    }
    if (TQ_OpenFile(o_.path, &handle_) != 0) {
      *error = DescribeInputProblem(o_.path);
      return false;
    }
    *error = DescribeNothingToPlay(o_.path);
    if (!error->empty()) return false;
    TQ_GetFileTime(handle_, &length_);
    session_.PlayFrom(handle_, o_.startMs / 1000);
    return true;
  }

  void Close() {
    if (handle_ < 0) return;
    stopFeeding_.store(true);
    if (feederThread_.joinable()) feederThread_.join();
    if (o_.stream)
      TQ_CloseStream(handle_);
    else
      TQ_CloseFile(handle_);
    handle_ = -1;
  }

  // Space: pauses, resumes, and after the end plays the file again. A live
  // stream is not stopped: it is fed and decoded on, and only the display
  // holds its picture, so that resuming shows the live picture at once
  // (stopping the player would drop frames and break the picture up to the
  // next key frame).
  void TogglePause(LatestPicture& latest) {
    if (!paused_.load() && !Ended(latest)) {
      paused_.store(true);
      if (!o_.stream) TQ_Stop(handle_);
      return;
    }
    paused_.store(false);
    if (o_.stream) return;
    session_.ClearEnd();
    latest.RestartPacing();
    session_.Play(handle_);
  }

  // Whether the window shows new pictures.
  bool ShowsNewPictures() const { return !paused_.load(); }

  void Seek(int32_t step, LatestPicture& latest) {
    if (o_.stream) return;  // a live source has no position to move
    bool ended = Ended(latest);
    uint32_t position = 0;
    TQ_GetPlayTime(handle_, &position);
    int32_t target = static_cast<int32_t>(position) + step;
    target = std::clamp<int32_t>(target, 0, static_cast<int32_t>(length_));
    TQ_SetPlayTime(handle_, target);
    // A seek to the end may end the file before any picture of the new
    // position is shown: the title then shows where the seek went.
    lastPosition_ = static_cast<uint32_t>(target);
    latest.RestartPacing();
    if (ended && !paused_.load()) {  // the file had stopped at its end
      session_.ClearEnd();
      session_.Play(handle_);
    }
  }

  // The file played its last frame, or the stream's bytes are all shown.
  bool Ended(LatestPicture& latest) const {
    if (!o_.stream) return session_.FileEnded();
    return feedDone_.load() &&
           std::chrono::steady_clock::now() - latest.LastArrival() > STREAM_DRAIN_TIME;
  }

  std::string Title(LatestPicture& latest) {
    char text[512];
    const char* state = paused_.load() ? " (paused)" : Ended(latest) ? " (end)" : "";
    if (o_.stream) {
      double fed = feedFrames_.load() * (TQF_FRAME_DURATION_MS / 1000.0);
      std::snprintf(text, sizeof text, "%s - live %02d:%02d%s", o_.path,
                    static_cast<int>(fed) / 60, static_cast<int>(fed) % 60, state);
    } else {
      const uint32_t position = Position();
      std::snprintf(text, sizeof text, "%s - %02u:%02u / %02u:%02u%s", o_.path, position / 60,
                    position % 60, length_ / 60, length_ % 60, state);
    }
    return text;
  }

  // The file's position; after the end, the last one it played (the player
  // rewinds to the start when it ends). The position is read before the end
  // flag, which the player sets before it rewinds, so a position read after
  // the rewind always meets the flag set.
  uint32_t Position() {
    uint32_t position = 0;
    TQ_GetPlayTime(handle_, &position);
    if (!session_.FileEnded()) lastPosition_ = position;
    return lastPosition_;
  }

 private:
  // The feeder thread: the source in real time, paused or not, as a camera
  // sends it.
  void FeedStream() {
    FeedOptions options;
    options.realtime = true;
    feeder_.RestartClock();
    while (!feeder_.Done() && !stopFeeding_.load()) {
      StreamFeeder::Chunk chunk = feeder_.NextChunk(options);
      std::this_thread::sleep_until(chunk.due);
      TQ_InputData(handle_, chunk.data, static_cast<int32_t>(chunk.size));
      feeder_.Advance(chunk);
      feedFrames_.store(feeder_.FramesFed());
    }
    feedDone_.store(true);
  }

  const ViewOptions& o_;
  LibrarySession& session_;
  int32_t handle_ = -1;
  uint32_t length_ = 0;
  uint32_t lastPosition_ = 0;  // the window's thread only
  std::atomic<bool> paused_{false};
  StreamFeeder feeder_;
  std::thread feederThread_;
  std::atomic<bool> stopFeeding_{false};
  std::atomic<bool> feedDone_{false};
  std::atomic<uint32_t> feedFrames_{0};
};

struct SdlWindow {
  ~SdlWindow() {
    if (texture != nullptr) SDL_DestroyTexture(texture);
    if (renderer != nullptr) SDL_DestroyRenderer(renderer);
    if (window != nullptr) SDL_DestroyWindow(window);
    SDL_Quit();
  }
  SDL_Window* window = nullptr;
  SDL_Renderer* renderer = nullptr;
  SDL_Texture* texture = nullptr;
};

// The window's size for a picture of `width` x `height`: the picture's own,
// or scaled down, keeping its shape, to fit the screen's usable area with a
// margin for the window's frame and title.
void FitToScreen(int32_t width, int32_t height, int* windowWidth, int* windowHeight) {
  *windowWidth = width;
  *windowHeight = height;
  SDL_Rect usable;
  if (SDL_GetDisplayUsableBounds(0, &usable) != 0 || usable.w <= 0 || usable.h <= 0) return;
  const double scale = std::min({1.0, usable.w * SCREEN_SHARE / width, usable.h * SCREEN_SHARE / height});
  *windowWidth = std::max(1, static_cast<int>(width * scale));
  *windowHeight = std::max(1, static_cast<int>(height * scale));
}

bool OpenWindow(SdlWindow& w, int32_t width, int32_t height, std::string* error) {
  int windowWidth = 0, windowHeight = 0;
  FitToScreen(width, height, &windowWidth, &windowHeight);
  w.window = SDL_CreateWindow("tqfplay", SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED,
                              windowWidth, windowHeight, SDL_WINDOW_RESIZABLE);
  if (w.window != nullptr) w.renderer = SDL_CreateRenderer(w.window, -1, 0);
  if (w.renderer != nullptr)
    w.texture = SDL_CreateTexture(w.renderer, SDL_PIXELFORMAT_IYUV, SDL_TEXTUREACCESS_STREAMING,
                                  width, height);
  if (w.texture == nullptr) {
    *error = std::string("cannot open a window: ") + SDL_GetError();
    return false;
  }
  SDL_RenderSetLogicalSize(w.renderer, width, height);
  return true;
}

void Draw(SdlWindow& w) {
  SDL_RenderClear(w.renderer);
  SDL_RenderCopy(w.renderer, w.texture, nullptr, nullptr);
}

// What the window shows, read back from the renderer, as a PNG.
bool WriteSnapshot(SdlWindow& w, const char* path, std::string* error) {
  int width = 0, height = 0;
  SDL_GetRendererOutputSize(w.renderer, &width, &height);
  std::vector<uint8_t> rgb(static_cast<size_t>(width) * static_cast<size_t>(height) * 3);
  Draw(w);
  if (SDL_RenderReadPixels(w.renderer, nullptr, SDL_PIXELFORMAT_RGB24, rgb.data(), width * 3) != 0) {
    *error = std::string("reading the window back: ") + SDL_GetError();
    return false;
  }
  const uint8_t* planes[4] = {rgb.data(), nullptr, nullptr, nullptr};
  const int strides[4] = {width * 3, 0, 0, 0};
  return WritePng(path, planes, strides, width, height, AV_PIX_FMT_RGB24, error);
}

// Serves keys and window events until the user quits, or the end with --autoexit.
void RunWindow(SdlWindow& w, ViewSource& source, LatestPicture& latest, const ViewOptions& o) {
  std::string title;
  for (;;) {
    SDL_Event event;
    while (SDL_PollEvent(&event)) {
      if (event.type == SDL_QUIT) return;
      if (event.type != SDL_KEYDOWN) continue;
      switch (event.key.keysym.sym) {
        case SDLK_q:
        case SDLK_ESCAPE: return;
        case SDLK_SPACE: source.TogglePause(latest); break;
        case SDLK_LEFT: source.Seek(-SEEK_STEP_SECONDS, latest); break;
        case SDLK_RIGHT: source.Seek(SEEK_STEP_SECONDS, latest); break;
        default: break;
      }
    }
    if (LibrarySession::Interrupted()) return;
    if (source.ShowsNewPictures() && latest.Upload(w.texture)) {
      Draw(w);
      SDL_RenderPresent(w.renderer);
    }
    std::string now = source.Title(latest);
    if (now != title) SDL_SetWindowTitle(w.window, (title = now).c_str());
    if (o.autoExit && source.Ended(latest)) return;
    SDL_Delay(EVENT_WAIT_MS);
  }
}

bool IsSet(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

// A display to open a window on, or a driver asked for by name.
bool AskedForDisplay() {
  return IsSet("DISPLAY") || IsSet("WAYLAND_DISPLAY") || IsSet("SDL_VIDEODRIVER");
}

// SDL falls back to drivers that show nothing (offscreen, dummy) when no
// display can be opened. Those count only when asked for by name.
bool HasUsableDisplay() {
  const char* driver = SDL_GetCurrentVideoDriver();
  const char* asked = std::getenv("SDL_VIDEODRIVER");
  const bool invisible = driver == nullptr || std::strcmp(driver, "offscreen") == 0 ||
                         std::strcmp(driver, "dummy") == 0;
  return !invisible || (asked != nullptr && std::strcmp(asked, driver) == 0);
}

int RunView(int argc, char** argv) {
  ViewOptions o;
  const OptionSpec specs[] = {
      {"--stream", OptionKind::FLAG, &o.stream},
      {"--start", OptionKind::TIME, &o.startMs},
      {"--autoexit", OptionKind::FLAG, &o.autoExit},
  };
  if (!ParseOptions(NAME, argc, argv, specs, std::size(specs), &o.path, 1, 1)) return EXIT_USAGE;
  if (o.stream && o.startMs != 0) {
    CommandError(NAME, "--start has no meaning for a live --stream");
    return EXIT_USAGE;
  }
  // Ctrl-C and SIGTERM are the session's to handle (exit codes 130 and 143),
  // not a quit event of SDL's.
  SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
  if (!AskedForDisplay())
    return CommandError(NAME, "no display: neither DISPLAY nor WAYLAND_DISPLAY is set");
  if (SDL_Init(SDL_INIT_VIDEO) != 0)
    return CommandError(NAME, "no display: %s", SDL_GetError());
  if (!HasUsableDisplay()) {
    SDL_Quit();
    return CommandError(NAME, "no display: no X11 or Wayland display to open a window on (set DISPLAY)");
  }
  SdlWindow window;
  LatestPicture latest(!o.stream);
  LibrarySession session(LatestPicture::Handle, &latest);
  ViewSource source(o, session);
  std::string error;
  if (!source.Open(&error)) return CommandError(NAME, "%s", error.c_str());
  if (!latest.WaitForFirst(FIRST_PICTURE_TIMEOUT))
    return CommandError(NAME, "no picture from %s", o.path);
  if (!OpenWindow(window, latest.Width(), latest.Height(), &error))
    return CommandError(NAME, "%s", error.c_str());
  RunWindow(window, source, latest, o);
  source.Close();
  const char* snapshot = std::getenv(SNAPSHOT_VARIABLE);
  if (snapshot != nullptr && *snapshot != '\0' && !WriteSnapshot(window, snapshot, &error))
    return CommandError(NAME, "%s", error.c_str());
  return LibrarySession::Interrupted() ? LibrarySession::InterruptedExitCode() : 0;
}

}  // namespace

extern const Command VIEW_COMMAND = {
    NAME, "show a file (or a live stream of it) in a window",
    "view [--stream] [--start SECONDS] [--autoexit] FILE",
    "Shows the pictures in a window at 25 a second; the title tells the position\n"
    "and the length.\n"
    "\n"
    "  --stream         feed the file as a live source in real time\n"
    "  --start SECONDS  seek there first (files)\n"
    "  --autoexit       quit at the end instead of keeping the last picture\n"
    "\n"
    "keys: space pause/resume, left/right seek 10 s (files), q or Escape quit.\n"
    "A paused live stream runs on behind the held picture; resuming shows it live.\n"
    "A picture larger than the screen is scaled down to fit.\n"
    "\n"
    "TQFPLAY_VIEW_SNAPSHOT=FILE.png writes what the window shows when it quits.\n",
    RunView,
};
