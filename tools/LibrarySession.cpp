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
// The user value of the session's pictures ("TQ" and a version byte): a
// picture with any other value does not come from a TQ_Play of ours.
constexpr uint32_t SESSION_USER = 0x54510001;

struct SessionSlot {
  PictureHandler handler = nullptr;
  void* context = nullptr;
  std::atomic<bool> fileEnded{false};
  std::atomic<int32_t> pendingSeek{-1};  // seconds, or -1
  std::atomic<uint32_t> recordLosses{0};
  bool forwardDebug = false;
};

SessionSlot g_slot;

int32_t DeliverPicture(int32_t handle, uint8_t* picture, int32_t size, int32_t width,
                       int32_t height, uint32_t stamp, int32_t, int32_t, uint32_t user) {
  if (user != SESSION_USER) return 0;
  int32_t seek = g_slot.pendingSeek.exchange(-1);
  if (seek >= 0) {
    TQ_SetPlayTime(handle, seek);  // a file's callback may seek its own player
    return 0;
  }
  if (g_slot.handler != nullptr && picture != nullptr)
    g_slot.handler(g_slot.context, Picture{picture, size, width, height, stamp});
  return 0;
}

void ReceiveDebugLine(const char* line, void*) {
  if (std::strncmp(line, END_OF_FILE_LINE, sizeof END_OF_FILE_LINE - 1) == 0)
    g_slot.fileEnded.store(true);
  for (const char* loss : RECORD_LOSS_LINES)
    if (std::strcmp(line, loss) == 0) ++g_slot.recordLosses;
  if (g_slot.forwardDebug) std::fputs(line, stderr);
}

}  // namespace

LibrarySession::LibrarySession(PictureHandler handler, void* context) {
  g_slot.handler = handler;
  g_slot.context = context;
  g_slot.fileEnded.store(false);
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
  g_slot.handler = nullptr;
  g_slot.context = nullptr;
}

int32_t LibrarySession::Play(int32_t handle) const {
  return TQ_Play(handle, DeliverPicture, SESSION_USER);
}

int32_t LibrarySession::PlayFrom(int32_t handle, uint32_t seconds) const {
  g_slot.pendingSeek.store(seconds > 0 ? static_cast<int32_t>(seconds) : -1);
  return Play(handle);
}

bool LibrarySession::FileEnded() const { return g_slot.fileEnded.load(); }

void LibrarySession::ClearEnd() { g_slot.fileEnded.store(false); }

uint32_t LibrarySession::RecordLosses() const { return g_slot.recordLosses.load(); }

bool LibrarySession::Interrupted() { return ::Interrupted(); }

int LibrarySession::InterruptedExitCode() { return ::InterruptedExitCode(); }
