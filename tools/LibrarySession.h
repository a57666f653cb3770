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
//     too narrow for a pointer, so the session keeps the run's handler in a
//     file-scope slot and gives out the user value that selects it.
//   - Ctrl-C and SIGTERM set a flag the run polls (Interruption.h), so that
//     it can close its player and its outputs before it exits.
// One session exists at a time; its handler runs on the library's thread.
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

  // TQ_Play with the session's callback and user value.
  int32_t Play(int32_t handle) const;
  // TQ_Play, then a seek to `seconds` on the first picture. A file player
  // walks to its first key frame before it delivers anything, and a seek
  // made before that leaves the walk in force (a seek into the last key
  // frame's group would then play nothing), so the seek waits for the first
  // picture, which is dropped. The next picture is the one after `seconds`.
  int32_t PlayFrom(int32_t handle, uint32_t seconds) const;

  // Whether a file player has reported its end since the last ClearEnd.
  bool FileEnded() const;
  void ClearEnd();
  // Frames a recording of this session lost to a failing or slow disk.
  uint32_t RecordLosses() const;
  // Whether the user asked the run to stop (Ctrl-C, SIGTERM).
  static bool Interrupted();
  // The shell's exit code for that: 128 plus the signal (130 for Ctrl-C,
  // 143 for SIGTERM).
  static int InterruptedExitCode();
};
