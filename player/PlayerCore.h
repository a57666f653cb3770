// PlayerCore: the fields that a stream player and a file player share, and
// the play state that TQ_Play and TQ_Stop change on either kind.
#pragma once

#include <atomic>
#include <cstdint>

#include "RecursiveLock.h"
#include "TQFPlay.h"

class Decoder;
struct PlayerManager;

// A file player reads one frame at a time into `frameBuffer`; its stated
// capacity is TQF_FILE_READ_BUFFER_SIZE, the rest is slack.
constexpr uint32_t FRAME_BUFFER_SIZE = 2106368;

// Every picture goes out as format 5 (planar, 12 bits a pixel) at 25 a second.
constexpr int32_t PICTURE_FORMAT = 5;
constexpr int32_t PICTURE_RATE = 25;

struct PlayerCore {
  int32_t handle;
  // Written by TQ_Play and TQ_Stop on host threads while the player's thread
  // reads them; each word on its own, with no order between them promised.
  std::atomic<PictureCallback> callback{nullptr};
  std::atomic<uint32_t> userValue{0};
  PlayerManager* manager;
  std::atomic<int32_t> playing{0};
  uint8_t frameBuffer[FRAME_BUFFER_SIZE];
  int32_t width = -1;
  int32_t height = -1;
  uint32_t openTime;
  Decoder* videoDecoder = nullptr;
  Decoder* audioDecoder = nullptr;
  int32_t reservedMinusOne = -1;  // written once, read by nothing
  int32_t reservedOne = 1;        // written once, read by nothing
  uint32_t notifyWindow = 0;      // never set: no end-of-file message has a receiver
  // Guards the playing position and the decoder's state: for a file player
  // `frameIndex`, `sawKeyFrame`, the reader's buffer and `videoDecoder`,
  // taken by its tick (one frame each) and by a seek; for a stream player the
  // parse buffer and its counters, taken by TQ_InputData. Taken after the
  // manager's `tableLock` (shared), never before it. Not taken by the
  // stream's worker, which owns the decoder once it runs.
  CRecursiveLock lock;

  PlayerCore(PlayerManager* owner, int32_t playerHandle);
  PlayerCore(const PlayerCore&) = delete;
  PlayerCore& operator=(const PlayerCore&) = delete;

  // TQ_Play: callback, user value, then playing = 1, in that order.
  void Play(PictureCallback newCallback, uint32_t user);
  // TQ_Stop: playing = 0 and nothing else.
  void Stop();

  // Hands a decoded picture to the host's callback, if there is one.
  void Deliver(uint8_t* picture, uint32_t stamp);

  // Makes `videoDecoder` for `key` (none for a key no decoder has) and opens
  // it at the picture size of a media descriptor (width at byte 4, height at
  // byte 8), which becomes `width` and `height`. Raises 0 for a size no
  // picture can have or a decoder that does not open; the caller then
  // releases the decoder.
  void OpenVideoDecoder(uint32_t key, const uint8_t* descriptor);
};
