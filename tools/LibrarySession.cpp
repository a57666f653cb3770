#include "LibrarySession.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Interruption.h"

namespace {

// The line a file player writes when it has played its last frame.
constexpr const char END_OF_FILE_LINE[] = "PostMessage(): wnd=0, msg=0";
// The lines of a frame lost to a recording.
constexpr const char* RECORD_LOSS_LINES[] = {"TQF record write failed.\n",
                                             "TQF record queue full, frame lost.\n"};
// The user value of the session's pictures ("TQ" and a version byte, with
// the route in the byte above the version): a picture with any other value
// does not come from a TQ_Play of ours.
constexpr uint32_t SESSION_USER = 0x54510001;
constexpr uint32_t ROUTE_SHIFT = 8;
constexpr uint32_t ROUTE_MASK = 0xFFu << ROUTE_SHIFT;

struct Route {
  PictureHandler handler = nullptr;
  void* context = nullptr;
  std::atomic<bool> fileEnded{false};
  std::atomic<int32_t> pendingSeek{-1};  // seconds, or -1
};

struct SessionSlot {
  Route routes[LibrarySession::MAX_ROUTES + 1];
  // Routes below this count are set up; a route's fields are written before
  // the count that publishes it.
  std::atomic<int> routeCount{0};
  std::atomic<uint32_t> recordLosses{0};
  bool forwardDebug = false;
};

SessionSlot g_slot;
// The route of the last picture delivered on this thread of the library.
thread_local int t_route = 0;

uint32_t UserValue(int route) { return SESSION_USER | static_cast<uint32_t>(route) << ROUTE_SHIFT; }

// The route `user` selects, or -1 for a value that is not ours.
int RouteOf(uint32_t user) {
  if ((user & ~ROUTE_MASK) != SESSION_USER) return -1;
  const int route = static_cast<int>((user & ROUTE_MASK) >> ROUTE_SHIFT);
  return route < g_slot.routeCount.load(std::memory_order_acquire) ? route : -1;
}

int32_t DeliverPicture(int32_t handle, uint8_t* picture, int32_t size, int32_t width,
                       int32_t height, uint32_t stamp, int32_t, int32_t, uint32_t user) {
  const int route = RouteOf(user);
  if (route < 0) return 0;
  t_route = route;
  Route& to = g_slot.routes[route];
  int32_t seek = to.pendingSeek.exchange(-1);
  if (seek >= 0) {
    TQ_SetPlayTime(handle, seek);  // a file's callback may seek its own player
    return 0;
  }
  if (to.handler != nullptr && picture != nullptr)
    to.handler(to.context, Picture{picture, size, width, height, stamp});
  return 0;
}

void ReceiveDebugLine(const char* line, void*) {
  if (std::strncmp(line, END_OF_FILE_LINE, sizeof END_OF_FILE_LINE - 1) == 0)
    g_slot.routes[t_route].fileEnded.store(true);
  for (const char* loss : RECORD_LOSS_LINES)
    if (std::strcmp(line, loss) == 0) ++g_slot.recordLosses;
  if (g_slot.forwardDebug) std::fputs(line, stderr);
}

}  // namespace

LibrarySession::LibrarySession(PictureHandler handler, void* context) {
  g_slot.routeCount.store(0);
  for (Route& route : g_slot.routes) {
    route.fileEnded.store(false);
    route.pendingSeek.store(-1);
  }
  AddRoute(handler, context);
  g_slot.recordLosses.store(0);
  const char* debug = std::getenv("TQF_DEBUG");
  g_slot.forwardDebug = debug != nullptr && *debug != '\0';
  TQ_SetDebugSink(ReceiveDebugLine, nullptr);
  TQ_Initial();
  CatchInterruptions(/*hook=*/nullptr, /*context=*/nullptr);
}

LibrarySession::~LibrarySession() {
  TQ_Free();
  TQ_SetDebugSink(nullptr, nullptr);
  ReleaseInterruptions();
  g_slot.routeCount.store(0);
}

int LibrarySession::AddRoute(PictureHandler handler, void* context) {
  const int route = g_slot.routeCount.load();
  if (route > MAX_ROUTES) return -1;
  g_slot.routes[route].handler = handler;
  g_slot.routes[route].context = context;
  g_slot.routeCount.store(route + 1, std::memory_order_release);
  return route;
}

int32_t LibrarySession::Play(int32_t handle, int route) const {
  return TQ_Play(handle, DeliverPicture, UserValue(route));
}

int32_t LibrarySession::PlayFrom(int32_t handle, uint32_t seconds, int route) const {
  g_slot.routes[route].pendingSeek.store(seconds > 0 ? static_cast<int32_t>(seconds) : -1);
  return Play(handle, route);
}

bool LibrarySession::FileEnded(int route) const { return g_slot.routes[route].fileEnded.load(); }

void LibrarySession::ClearEnd(int route) { g_slot.routes[route].fileEnded.store(false); }

uint32_t LibrarySession::RecordLosses() const { return g_slot.recordLosses.load(); }

bool LibrarySession::Interrupted() { return ::Interrupted(); }

int LibrarySession::InterruptedExitCode() { return ::InterruptedExitCode(); }
