// StreamPlayer: plays a live TQF stream that the host feeds in pieces.
//
// Four parts do the work:
//   - the parser, on the feeding thread under `lock`: splits bytes into
//     frames, resynchronises on damage, drops what comes before the first key
//     frame, and queues each frame (header words and payload) at the tail of
//     `videoQueue` or `audioQueue`, evicting the oldest frames when full;
//     while a recording runs it also queues each video frame in `recordQueue`;
//   - the worker, a thread of the player's own from open to close: copies the
//     oldest video frame out of its block and lets the block go, so that the
//     parser can always evict the oldest frames, then decodes it and hands the
//     picture to the host's callback with no lock held; audio frames are taken
//     and dropped;
//   - the recorder, a thread started by the first recording: writes the frames
//     of `recordQueue` to the file. A slow decoder or callback therefore never
//     costs the recording a frame; only a disk that cannot keep up does, and
//     then the recording goes on from the next key frame;
//   - record control: TQ_StartRecord and TQ_StopRecord set the stage under
//     `recordLock`; both first write out the frames queued for the recording
//     that ends, so that every frame fed before the stop is in its file.
//
// The worker sleeps on `workerWake` when both queues are empty; the parser
// signals it when it queues a frame while the worker sleeps, and the stop
// signals it after `stopWorker`. The wait has no timeout, so an idle stream
// costs no wake-ups.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "FrameSplitter.h"
#include "PlayerCore.h"
#include "PlayerManager.h"
#include "TQFFormat.h"
#include "TQFWriter.h"
#include "VBufferQueue.h"
#include "WaitableObject.h"

constexpr int32_t PARSE_BUFFER_SIZE = 4194304;
constexpr int32_t STREAM_VIDEO_QUEUE_SIZE = 33554432;
constexpr int32_t STREAM_AUDIO_QUEUE_SIZE = 524288;
constexpr int32_t STREAM_RECORD_QUEUE_SIZE = 16777216;

struct StreamPlayer : PlayerCore {
  // Guards the recording: `awaitRecordKey`, `recordPath`, `recordWriter` and
  // the changes of `recording` and `recordGeneration`. Taken by record control
  // on the host's thread and by the recorder for the write of one frame;
  // never together with `lock`.
  CRecursiveLock recordLock;
  FrameSplitter splitter;  // the sync state of the parse
  int32_t parseLength = 0;
  // Unparsed input. Between calls it starts at the first byte; within one
  // FeedBytes the consumed part is skipped by `parseStart` and the rest moved
  // down once, at the end of the call.
  uint8_t parseBuffer[PARSE_BUFFER_SIZE];
  int32_t parseStart = 0;
  // Set (release) by StopWorker before it wakes and joins the worker; read
  // (acquire) by the worker at every pass.
  std::atomic<bool> stopWorker{false};
  bool awaitFirstKey = true;
  HANDLE workerThread = nullptr;
  VBufferQueue videoQueue{1, 0};
  VBufferQueue audioQueue{1, 0};
  uint32_t openTick;
  // Set by record control (release) once the recorder runs; read by the
  // parser (acquire) at every video frame.
  std::atomic<bool> recording{false};
  bool awaitRecordKey = false;
  std::string recordPath;
  TQFWriter recordWriter;
  // Which recording the frames being queued belong to: a frame queued with
  // another number (one that ended meanwhile) is dropped by the recorder.
  // Bumped (release) under `recordLock` when a recording ends; read (acquire)
  // by the parser as it queues a frame.
  std::atomic<uint32_t> recordGeneration{0};
  // The parser's own: a frame was lost to the recording since the last one
  // queued, so the recording must go on from a key frame.
  bool recordGap = false;
  VBufferQueue recordQueue{1, 0};  // opened with the recorder
  HANDLE recorderThread = nullptr;
  HANDLE recorderWake = nullptr;  // auto-reset, set by the parser per frame
  // As `stopWorker`, for the recorder.
  std::atomic<bool> stopRecorder{false};
  uint8_t descriptor[TQF_MEDIA_DESCRIPTOR_SIZE];
  // The worker's wake-up: auto-reset, set by the parser when `workerIdle`.
  HANDLE workerWake = nullptr;
  std::atomic<bool> workerIdle{false};

  // Validates `header` (`size` bytes), opens the decoder and the queues and
  // starts the worker. Raises -1 for a header that is not a TQF stream header
  // and 0 for a size or decoder the player cannot use, having released
  // everything it built.
  StreamPlayer(PlayerManager* owner, int32_t playerHandle, const uint8_t* header, uint32_t size);
  // Stops the worker (a callback in progress ends first), writes out and
  // closes a recording, and drops what is still queued.
  ~StreamPlayer();

  // Appends bytes and queues every whole frame. -1 for a negative size; 0
  // otherwise, also when the bytes were dropped for overflow.
  int32_t FeedBytes(const uint8_t* data, int32_t size);
  // One frame of the parse; true if a frame was consumed and another may follow.
  bool ParseStep();

  int32_t StartRecord(const char* path);
  int32_t StopRecord();

  // One pass of the worker; the thread runs it until `stopWorker`.
  void WorkerStep();
  bool VideoStep();
  bool AudioStep();

  // The recorder's pass: writes the oldest frame queued for recording. False
  // when none is queued.
  bool RecordStep();

  // The stream kind's entry in the player table.
  static const PlayerKind KIND;

 private:
  void ValidateHeader(const uint8_t* header, uint32_t size);
  void StartWorker();
  void StopWorker();
  void ReleaseAll();
  void Dispatch(uint32_t info);
  void Consume(int32_t bytes);
  void QueueForRecording(int32_t blockSize);
  bool StartRecorder();
  void StopRecorder();
  // With `recordLock` held: writes the frames still queued for the running
  // recording, then closes its file.
  void FinishRecording();
  bool WriteQueuedFrame();
  void RecordHook(const uint8_t* block, uint32_t info, uint32_t length);
  void WakeWorker();
};
