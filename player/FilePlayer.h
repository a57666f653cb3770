// FilePlayer: plays one TQF file. The file is mapped and indexed at open; a
// thread of the player's own (TickThread) runs Tick over and over, each pass
// taking one video frame, decoding it and delivering the picture on that
// thread. There is no clock: frames go out as fast as decoding and the host's
// callback allow. Positions are frame numbers at 40 ms a frame.
#pragma once

#include <atomic>
#include <cstdint>

#include "EventThreadEx.h"
#include "PlayerCore.h"
#include "PlayerManager.h"
#include "TQFReader.h"

// The thread of a file player: a callback event thread that waits on one
// event which stays signalled from open to close, so that it runs a pass of
// `tickFn` after every poll pass.
struct TickThread : CCallbackEventThread {
  OSHandle event;
  int32_t (*tickFn)(void* context, uint32_t events) = nullptr;
  void* tickContext = nullptr;

  TickThread();
  // CloseTick(INFINITE).
  ~TickThread() override;
  // Stops the thread (a pass in progress ends first) and closes the event.
  void CloseTick(uint32_t timeoutMs);
};

struct FilePlayer : PlayerCore {
  double speed = 1.0;                // reset by TQ_Play; read by nothing
  std::atomic<int32_t> frameIndex{0};  // the video frame the next pass takes
  TickThread tickThread;
  TQFReader reader;
  int32_t sawKeyFrame = 0;           // set for good by the first key frame

  // Maps and indexes `path`, opens the decoder of the first record and starts
  // the thread. Raises 0 on any failure, having released what it built.
  FilePlayer(PlayerManager* owner, int32_t playerHandle, const char* path);
  ~FilePlayer();

  // One pass; 1 if it did something, 0 if it idled.
  int32_t Tick();

  // Brings the decoder to `frame` without showing anything, so that the next
  // pass delivers the frame after it. The caller holds `lock`.
  int32_t SeekToFrame(int32_t frame);

  int32_t FrameCount() const;

  // The file kind's entry in the player table.
  static const PlayerKind KIND;

 private:
  void Open(const char* path);
  void ReleaseDecoder();
};
