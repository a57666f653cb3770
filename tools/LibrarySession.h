// LibrarySession: the library as one run of a subcommand uses it, and the
// pattern for any host of it.
//
//   - TQ_Initial on construction and TQ_Free on destruction.
//   - A debug sink that spots the end of a file: a file player writes the
//     line "PostMessage(): wnd=0, msg=0" when it has played its last frame
//     and rewound; and the frames a recording lost ("TQF record write
//     failed." or "TQF record queue full, frame lost."). All lines go to
//     stderr when TQF_DEBUG is set, as they would without a sink.
//   - The routing of pictures. A picture callback gets a 32-bit user value,
//     too narrow for a pointer, so the session keeps the run's handlers in a
//     file-scope table and gives out user values that select them: route 0
//     is the handler given to the constructor; a host of several players
//     (the viewer's grid) adds a route per player, so that each has its own
//     picture slot. The end of a file is kept per route too.
//   - Ctrl-C and SIGTERM set a flag the run polls (Interruption.h), so that
//     it can close its player and its outputs before it exits.
// One session exists at a time (the table is process-wide); its handlers run
// on the library's threads.
#pragma once

#include <cstdint>

#include "TQFPlay.h"

// A picture as the callback delivers it; `data` is valid during the call only.
struct Picture {
  const uint8_t* data;
  int32_t size;
  int32_t width;
  int32_t height;
  uint32_t stamp;
};

typedef void (*PictureHandler)(void* context, const Picture& picture);

class LibrarySession {
 public:
  LibrarySession(PictureHandler handler, void* context);
  ~LibrarySession();
  LibrarySession(const LibrarySession&) = delete;
  LibrarySession& operator=(const LibrarySession&) = delete;

  static constexpr int MAX_ROUTES = 16;
  // Adds a route whose pictures go to `handler` with `context` (a null
  // handler, here or in the constructor, drops them): the route's number
  // (1 to MAX_ROUTES), or -1 when all are taken. Routes last as long as the
  // session. Call from the session's own thread; a route may be added while
  // players of other routes deliver.
  int AddRoute(PictureHandler handler, void* context);

  // TQ_Play with the session's callback and the user value of `route` (one
  // the session gave; route 0 is the constructor's handler).
  int32_t Play(int32_t handle, int route = 0) const;
  // TQ_Play, then a seek to `seconds` on the first picture. A file player
  // walks to its first key frame before it delivers anything, and a seek
  // made before that leaves the walk in force (a seek into the last key
  // frame's group would then play nothing), so the seek waits for the first
  // picture, which is dropped. The next picture is the one after `seconds`.
  // One seek waits per route.
  int32_t PlayFrom(int32_t handle, uint32_t seconds, int route = 0) const;

  // Whether a file player of `route` has reported its end since the route's
  // last ClearEnd. A file player reports its end on its own thread, the one
  // that delivers its pictures, so the report goes to the route of the last
  // picture that thread delivered (route 0 before any).
  bool FileEnded(int route = 0) const;
  void ClearEnd(int route = 0);
  // Frames a recording of this session lost to a failing or slow disk.
  uint32_t RecordLosses() const;
  // Whether the user asked the run to stop (Ctrl-C, SIGTERM).
  static bool Interrupted();
  // The shell's exit code for that: 128 plus the signal (130 for Ctrl-C,
  // 143 for SIGTERM).
  static int InterruptedExitCode();
};
