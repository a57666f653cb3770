// tqfplay view: the library's pictures in an SDL2 window, from one source or
// a grid of up to 16 (a surveillance client's wall of cameras).
//
// Each source (ViewSource) has its own player, picture slot and route of the
// session; the window (ViewWindow) takes the newest picture of each and
// draws it. This file holds the options and the window's event loop. Keys:
// space pauses and resumes every tile; on file tiles (the enlarged one, or
// all of them in the grid) left and right seek 10 seconds, ] and [ double
// and halve the speed, and . and , step a frame while paused; 1 to 9 or a
// double-click enlarge a tile and Escape returns to the grid; q, Escape in
// the grid or closing the window quits.
//
// When TQFPLAY_VIEW_SNAPSHOT names a file, the viewer reads back what its
// window shows when it quits and writes that as a PNG: a screenshot of the
// window without a screenshot tool.
#include "ViewCommand.h"

#include <SDL2/SDL.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "LibrarySession.h"
#include "Options.h"
#include "ViewGrid.h"
#include "ViewSource.h"
#include "ViewWindow.h"

namespace {

constexpr const char NAME[] = "view";
constexpr int32_t SEEK_STEP_SECONDS = 10;
constexpr std::chrono::seconds FIRST_PICTURE_TIMEOUT{10};
constexpr int EVENT_WAIT_MS = 10;
constexpr const char SNAPSHOT_VARIABLE[] = "TQFPLAY_VIEW_SNAPSHOT";
constexpr int GRID = -1;  // the enlarged tile when none is

using Sources = std::vector<std::unique_ptr<ViewSource>>;

struct ViewOptions {
  const char* paths[VIEW_GRID_MAX_TILES + 1] = {};  // one more, to tell a user there are too many
  int count = 0;
  bool stream = false;
  uint32_t startMs = 0;  // the library seeks to whole seconds
  bool autoExit = false;
};

// Space: pauses every tile that runs, or when none does, resumes them all
// (and plays ended files again).
void TogglePause(const Sources& sources) {
  const bool anyRunning = std::any_of(sources.begin(), sources.end(),
                                      [](const std::unique_ptr<ViewSource>& s) { return s->Running(); });
  for (const std::unique_ptr<ViewSource>& source : sources) {
    if (anyRunning)
      source->Pause();
    else
      source->Resume();
  }
}

bool AllEnded(const Sources& sources) {
  return std::all_of(sources.begin(), sources.end(),
                     [](const std::unique_ptr<ViewSource>& s) { return s->Ended(); });
}

// A lone source, or the enlarged tile, titles the window as a player would;
// the grid counts its sources and those with a picture to show (a camera
// down or waiting for its key frame has none): "tqfplay - 4 sources, 3 showing".
std::string Title(const Sources& sources, int enlarged) {
  if (sources.size() == 1) return sources[0]->Title();
  if (enlarged != GRID) return sources[static_cast<size_t>(enlarged)]->Title();
  const auto count = [&sources](auto holds) { return std::count_if(sources.begin(), sources.end(), holds); };
  const auto showing = count([](const std::unique_ptr<ViewSource>& s) { return s->Slot().HasPicture(); });
  const bool paused = count([](const std::unique_ptr<ViewSource>& s) { return s->Paused(); }) ==
                      static_cast<long>(sources.size());
  return "tqfplay - " + std::to_string(sources.size()) + " sources, " + std::to_string(showing) +
         " showing" + (paused ? " (paused)" : "");
}

// The tile a key from 1 to 9 enlarges; GRID for any other key or a tile
// beyond the sources.
int TileOfKey(SDL_Keycode key, size_t count) {
  if (count < 2 || key < SDLK_1 || key > SDLK_9) return GRID;
  const int tile = key - SDLK_1;
  return static_cast<size_t>(tile) < count ? tile : GRID;
}

// The keys that move a file tile, and what each does to one.
struct TileKey {
  SDL_Keycode key;
  void (*act)(ViewSource& source);
};
constexpr TileKey TILE_KEYS[] = {
    {SDLK_LEFT, [](ViewSource& s) { s.Seek(-SEEK_STEP_SECONDS); }},
    {SDLK_RIGHT, [](ViewSource& s) { s.Seek(SEEK_STEP_SECONDS); }},
    {SDLK_RIGHTBRACKET, [](ViewSource& s) { s.Faster(); }},
    {SDLK_LEFTBRACKET, [](ViewSource& s) { s.Slower(); }},
    {SDLK_PERIOD, [](ViewSource& s) { s.Step(1); }},
    {SDLK_COMMA, [](ViewSource& s) { s.Step(-1); }},
};

// Acts on the enlarged tile, or on every tile in the grid.
void ActOnTiles(const TileKey& tileKey, const Sources& sources, int enlarged) {
  if (enlarged != GRID) {
    tileKey.act(*sources[static_cast<size_t>(enlarged)]);
    return;
  }
  for (const std::unique_ptr<ViewSource>& source : sources) tileKey.act(*source);
}

// One key or window event; false when it quits the viewer.
bool HandleEvent(const SDL_Event& event, ViewWindow& window, const Sources& sources, int* enlarged) {
  if (event.type == SDL_QUIT) return false;
  if (event.type == SDL_WINDOWEVENT) window.Invalidate();
  if (event.type == SDL_MOUSEBUTTONDOWN && event.button.button == SDL_BUTTON_LEFT &&
      event.button.clicks == 2 && sources.size() > 1)
    *enlarged = *enlarged != GRID ? GRID : window.TileAt(event.button.x, event.button.y);
  if (event.type != SDL_KEYDOWN) return true;
  const SDL_Keycode key = event.key.keysym.sym;
  const auto tileKey = std::find_if(std::begin(TILE_KEYS), std::end(TILE_KEYS),
                                    [key](const TileKey& k) { return k.key == key; });
  if (key == SDLK_q) return false;
  if (key == SDLK_ESCAPE) {
    if (*enlarged == GRID) return false;
    *enlarged = GRID;
  } else if (key == SDLK_SPACE) {
    TogglePause(sources);
  } else if (tileKey != std::end(TILE_KEYS)) {
    ActOnTiles(*tileKey, sources, *enlarged);
  } else if (TileOfKey(key, sources.size()) != GRID) {
    *enlarged = TileOfKey(key, sources.size());
  }
  return true;
}

// Serves keys and window events until the user quits, or the end with
// --autoexit. False with a message when the window fails.
bool RunWindow(ViewWindow& window, const Sources& sources, const ViewOptions& o, std::string* error) {
  int enlarged = GRID;
  for (;;) {
    SDL_Event event;
    while (SDL_PollEvent(&event))
      if (!HandleEvent(event, window, sources, &enlarged)) return true;
    if (LibrarySession::Interrupted()) return true;
    if (!window.Refresh(sources, enlarged, error)) return false;
    window.SetTitle(Title(sources, enlarged));
    if (o.autoExit && AllEnded(sources)) return true;
    SDL_Delay(EVENT_WAIT_MS);
  }
}

// The first source to show a picture within FIRST_PICTURE_TIMEOUT (a lone
// source: that one), or null; the window takes its size from that picture.
ViewSource* FirstToShow(const Sources& sources) {
  const auto deadline = std::chrono::steady_clock::now() + FIRST_PICTURE_TIMEOUT;
  if (sources.size() == 1) return sources[0]->Slot().WaitForPicture(deadline) ? sources[0].get() : nullptr;
  for (;;) {
    for (const std::unique_ptr<ViewSource>& source : sources)
      if (source->Slot().HasPicture()) return source.get();
    if (std::chrono::steady_clock::now() >= deadline) return nullptr;
    std::this_thread::sleep_for(std::chrono::milliseconds(EVENT_WAIT_MS));
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

// Parses the arguments; false after a usage message.
bool ParseViewOptions(int argc, char** argv, ViewOptions* o) {
  const OptionSpec specs[] = {
      {"--stream", OptionKind::FLAG, &o->stream},
      {"--start", OptionKind::TIME, &o->startMs},
      {"--autoexit", OptionKind::FLAG, &o->autoExit},
  };
  if (!ParseOptions(NAME, argc, argv, specs, std::size(specs), o->paths, 1, VIEW_GRID_MAX_TILES + 1))
    return false;
  o->count = static_cast<int>(std::count_if(std::begin(o->paths), std::end(o->paths),
                                            [](const char* path) { return path != nullptr; }));
  if (o->count > VIEW_GRID_MAX_TILES) {
    CommandError(NAME, "at most %d sources fit in the window", VIEW_GRID_MAX_TILES);
    return false;
  }
  if (o->stream && o->startMs != 0) {
    CommandError(NAME, "--start has no meaning for a live --stream");
    return false;
  }
  const auto isStdin = [](const char* path) { return std::strcmp(path, "-") == 0; };
  if (std::count_if(o->paths, o->paths + o->count, isStdin) > 1) {
    CommandError(NAME, "standard input (-) can feed one source only");
    return false;
  }
  return true;
}

int RunView(int argc, char** argv) {
  ViewOptions o;
  if (!ParseViewOptions(argc, argv, &o)) return EXIT_USAGE;
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
  ViewWindow window;
  LibrarySession session(/*handler=*/nullptr, /*context=*/nullptr);  // every source has its route
  Sources sources;
  std::string error;
  for (int i = 0; i < o.count; ++i) {
    sources.push_back(std::make_unique<ViewSource>(o.paths[i], o.stream, session));
    if (sources.back()->Route() < 0) return CommandError(NAME, "no route left for %s", o.paths[i]);
    if (!sources.back()->Open(o.startMs / 1000, &error)) return CommandError(NAME, "%s", error.c_str());
  }
  ViewSource* first = FirstToShow(sources);
  if (first == nullptr)
    return CommandError(NAME, "no picture from %s", o.count == 1 ? o.paths[0] : "any source");
  if (!window.Open(o.count, first->Slot().Width(), first->Slot().Height(), &error) ||
      !RunWindow(window, sources, o, &error))
    return CommandError(NAME, "%s", error.c_str());
  for (const std::unique_ptr<ViewSource>& source : sources) source->Close();
  const char* snapshot = std::getenv(SNAPSHOT_VARIABLE);
  if (snapshot != nullptr && *snapshot != '\0' && !window.WriteSnapshot(snapshot, &error))
    return CommandError(NAME, "%s", error.c_str());
  return LibrarySession::Interrupted() ? LibrarySession::InterruptedExitCode() : 0;
}

}  // namespace

extern const Command VIEW_COMMAND = {
    NAME, "show files, live streams and cameras in a window (a grid of up to 16)",
    "view [--stream] [--start SECONDS] [--autoexit] SOURCE...",
    "Shows the pictures of 1 to 16 sources in a window at 25 a second. A SOURCE\n"
    "is a TQF file, or a live source: - (standard input), a FIFO, or a channel\n"
    "of `tqfplay serve` (tcp://HOST:PORT[/N] or http://HOST:PORT/N). One source\n"
    "fills the window and the title tells its position and length; several\n"
    "share it in a grid of 2x2, 3x3 or 4x4 tiles, each captioned with its name\n"
    "and status: its pictures in the last second, \"waiting for a key frame\",\n"
    "\"reconnecting\" (a channel that is down at the start, or whose connection\n"
    "dropped, is connected again after 0.5 s, doubling up to 5 s), \"paused\" or\n"
    "\"ended\".\n"
    "\n"
    "  --stream         feed the files as live sources in real time\n"
    "  --start SECONDS  seek there first (files)\n"
    "  --autoexit       quit when every source has ended instead of keeping\n"
    "                   the last pictures\n"
    "\n"
    "keys: space pause/resume all; on files (the enlarged tile, or all in the\n"
    "grid) left/right seek 10 s, ] and [ step the speed through 1x, 2x, 4x, 8x\n"
    "and 16x (up to 4x every frame shows, beyond that key frames only), and\n"
    ". and , show the next and previous frame while paused; 1-9 or a\n"
    "double-click enlarge a tile, Escape back to the grid, q or Escape in the\n"
    "grid quit. A paused file's title tells the frame it shows.\n"
    "A paused live stream runs on behind the held picture; resuming shows it live.\n"
    "A window larger than the screen is scaled down to fit.\n"
    "\n"
    "TQFPLAY_VIEW_SNAPSHOT=FILE.png writes what the window shows when it quits.\n",
    RunView,
};
