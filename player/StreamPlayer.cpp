#include "StreamPlayer.h"

#include <cstring>

#include "Decoder.h"
#include "Diagnostics.h"
#include "OSTime.h"
#include "StreamHeader.h"
#include "ThreadStartRecord.h"

namespace {

constexpr int32_t FRAME_HEAD_SIZE = static_cast<int32_t>(TQF_FRAME_HEAD_SIZE);
constexpr int32_t BLOCK_HEAD_SIZE = 8;  // a queued frame: info, stamp, payload

// The user word of a frame queued for recording: the recording's generation,
// and a flag for a frame lost to the recording just before this one.
constexpr uint32_t RECORD_GAP_FLAG = 0x80000000u;
constexpr uint32_t RECORD_GENERATION_MASK = 0x7FFFFFFFu;

uint32_t WorkerMain(void* argument) {
  StreamPlayer* player = static_cast<StreamPlayer*>(argument);
  while (!player->stopWorker.load(std::memory_order_acquire)) player->WorkerStep();
  return 0;
}

// Waits for frames only: the parser sets `recorderWake` at each one, and the
// close sets it after `stopRecorder`.
uint32_t RecorderMain(void* argument) {
  StreamPlayer* player = static_cast<StreamPlayer*>(argument);
  while (!player->stopRecorder.load(std::memory_order_acquire))
    if (!player->RecordStep()) WaitForSingleObject(player->recorderWake, INFINITE);
  return 0;
}

PlayerCore* CreateStream(PlayerManager* manager, int32_t handle, const void* source,
                         uint32_t size) {
  return new StreamPlayer(manager, handle, static_cast<const uint8_t*>(source), size);
}

void DestroyStream(PlayerCore* player) { delete static_cast<StreamPlayer*>(player); }

int32_t StreamInputData(PlayerCore* player, const uint8_t* data, int32_t size) {
  if (!player->playing.load(std::memory_order_acquire)) return 0;
  return static_cast<StreamPlayer*>(player)->FeedBytes(data, size);
}

int32_t StreamStartRecord(PlayerCore* player, const char* path) {
  return static_cast<StreamPlayer*>(player)->StartRecord(path);
}

int32_t StreamStopRecord(PlayerCore* player) { return static_cast<StreamPlayer*>(player)->StopRecord(); }

}  // namespace

// A live stream is fed and recorded; it has no length, position or seek.
const PlayerKind StreamPlayer::KIND = {
    .create = CreateStream,
    .destroy = DestroyStream,
    .inputData = StreamInputData,
    .startRecord = StreamStartRecord,
    .stopRecord = StreamStopRecord,
};

StreamPlayer::StreamPlayer(PlayerManager* owner, int32_t playerHandle, const uint8_t* header,
                           uint32_t size)
    : PlayerCore(owner, playerHandle), openTick(GetTickCount()) {
  memset(descriptor, 0, sizeof descriptor);
  try {
    ValidateHeader(header, size);
    if (!videoQueue.Open(STREAM_VIDEO_QUEUE_SIZE, /*name=*/nullptr, /*buffer=*/nullptr,
                         VBUF_ALIGN_WORD) ||
        !audioQueue.Open(STREAM_AUDIO_QUEUE_SIZE, /*name=*/nullptr, /*buffer=*/nullptr,
                         VBUF_ALIGN_WORD))
      throw 0;
    StartWorker();
  } catch (int) {
    ReleaseAll();
    throw;
  }
}

StreamPlayer::~StreamPlayer() {
  StopWorker();
  StopRecorder();
  {
    CLockGuard guard(&recordLock);
    FinishRecording();
    recordPath.clear();
  }
  recordQueue.Close();
  audioQueue.Close();
  videoQueue.Close();
  ReleaseAll();
}

void StreamPlayer::ReleaseAll() {
  ReleaseDecoder(videoDecoder);
  videoDecoder = nullptr;
  delete audioDecoder;
  audioDecoder = nullptr;
  if (workerWake) CloseHandle(workerWake);
  workerWake = nullptr;
  if (recorderWake) CloseHandle(recorderWake);
  recorderWake = nullptr;
}

void StreamPlayer::ValidateHeader(const uint8_t* header, uint32_t size) {
  StreamHeader parsed;
  if (!parsed.Parse(header, size)) throw -1;
  if (!parsed.hasVideo) return;  // no video record: no decoder, size -1
  memcpy(descriptor, &parsed.video, sizeof descriptor);
  // The codec comes from the descriptor's compression word.
  OpenVideoDecoder(LoadU32(descriptor + 16), descriptor);
}

void StreamPlayer::StartWorker() {
  workerWake = CreateEventA(nullptr, 0, 0, nullptr);
  if (!workerWake) throw 0;
  workerThread = CreateThread(nullptr, 0, WorkerMain, this, 0, nullptr);
  if (!workerThread) throw 0;
}

void StreamPlayer::StopWorker() {
  if (!workerThread) return;
  stopWorker.store(true, std::memory_order_release);
  SetEvent(workerWake);
  WaitForSingleObject(workerThread, INFINITE);
  CloseHandle(workerThread);
  workerThread = nullptr;
}

int32_t StreamPlayer::FeedBytes(const uint8_t* data, int32_t size) {
  CLockGuard guard(&lock);
  if (size < 0) return -1;
  if (size == 0) return 0;
  if (static_cast<int64_t>(parseLength) + size > PARSE_BUFFER_SIZE) {
    OutputDebugStringA("TQF buffer overflow.\n");
    parseLength = 0;
    splitter.lostSync = true;
    return 0;
  }
  memcpy(parseBuffer + parseLength, data, static_cast<size_t>(size));
  parseLength += size;
  while (ParseStep()) {
  }
  // Consumed frames were skipped one by one; the rest moves down once.
  if (parseStart != 0) {
    memmove(parseBuffer, parseBuffer + parseStart, static_cast<size_t>(parseLength));
    parseStart = 0;
  }
  return 0;
}

void StreamPlayer::Consume(int32_t bytes) {
  parseStart += bytes;
  parseLength -= bytes;
}

bool StreamPlayer::ParseStep() {
  int32_t skip = 0;
  const FrameSplitter::Step step = splitter.Next(parseBuffer + parseStart, parseLength, &skip);
  Consume(skip);
  if (step == FrameSplitter::Step::MORE) return false;
  Dispatch(LoadU32(parseBuffer + parseStart + 4));
  return true;
}

void StreamPlayer::Dispatch(uint32_t info) {
  const uint32_t length = FramePayloadLength(info);
  const uint32_t stream = FrameStreamNumber(info);
  bool queue = length > 0 && stream <= 1;
  if (queue && awaitFirstKey) {
    if (IsKeyFrameInfo(info))
      awaitFirstKey = false;
    else
      queue = false;
  }
  if (queue) {
    VBufferQueue& target = stream == 0 ? videoQueue : audioQueue;
    const int32_t blockSize = static_cast<int32_t>(length) + BLOCK_HEAD_SIZE;
    if (stream == TQF_STREAM_VIDEO && recording.load(std::memory_order_acquire))
      QueueForRecording(blockSize);
    uint8_t* block = target.PrepareNewBufferAtTail(blockSize, VBUF_EVICT_OLDEST, nullptr);
    if (block) {
      memcpy(block, parseBuffer + parseStart + 4, static_cast<size_t>(blockSize));
      target.NewBufferAtTail(block, VBUF_RESERVED_SIZE, /*user=*/0, /*allowEmpty=*/0, /*skip=*/0);
      WakeWorker();
    } else {
      OutputDebugStringA(stream == 0 ? "vBuf is full!\n" : "aBuf is full!\n");
    }
  }
  Consume(static_cast<int32_t>(length) + FRAME_HEAD_SIZE);
}

void StreamPlayer::WakeWorker() {
  // The fence orders the frame just queued before the look at `workerIdle`;
  // it pairs with the worker's fence between setting the flag and its last
  // look at the queues, so that one of the two sees the other's write.
  std::atomic_thread_fence(std::memory_order_seq_cst);
  if (workerIdle.exchange(false)) SetEvent(workerWake);
}

void StreamPlayer::WorkerStep() {
  const int32_t videoCount = videoQueue.GetBufferCount();
  const int32_t audioCount = audioQueue.GetBufferCount();
  if (videoCount == 0 && audioCount == 0) {
    // Announce the sleep, look once more, then wait for the parser's signal
    // (or the stop's). No timeout: an idle stream makes no wake-ups at all.
    workerIdle.store(true);
    std::atomic_thread_fence(std::memory_order_seq_cst);  // pairs with WakeWorker's
    if (videoQueue.GetBufferCount() == 0 && audioQueue.GetBufferCount() == 0 &&
        !stopWorker.load(std::memory_order_acquire))
      WaitForSingleObject(workerWake, INFINITE);
    workerIdle.store(false);
    return;
  }
  bool worked = false;
  if (videoCount > 0) worked |= VideoStep();
  if (audioCount > 0) worked |= AudioStep();
  if (!worked) Sleep(1);
}

bool StreamPlayer::VideoStep() {
  int32_t size = 0;
  uint8_t* block = videoQueue.GetBuffer(nullptr, &size, nullptr);
  if (!block) return true;
  // The frame leaves its block before the decode: a held block cannot be
  // evicted, so a block held through a slow decode or callback would make
  // the parser refuse the newest frames instead of dropping the oldest. The
  // release and the removal are one step: an evicting writer between them
  // would make the removal take the next, unread block.
  memcpy(frameBuffer, block, static_cast<size_t>(size));
  videoQueue.ReleaseAndRemoveAtHead(block, 0, nullptr);
  const uint32_t info = LoadU32(frameBuffer);
  const uint32_t stamp = LoadU32(frameBuffer + 4);
  const uint32_t length = FramePayloadLength(info);
  // A payload ending in eight zero bytes is an empty frame: recorded, not
  // decoded. For payloads under eight bytes the test reaches into the header.
  static const uint8_t zeros[8] = {};
  if (memcmp(frameBuffer + length, zeros, sizeof zeros) != 0 && videoDecoder) {
    uint8_t* picture =
        videoDecoder->Decode(frameBuffer + BLOCK_HEAD_SIZE, static_cast<int32_t>(length), nullptr);
    if (picture) Deliver(picture, stamp);
  }
  return true;
}

bool StreamPlayer::AudioStep() {
  int32_t size = 0;
  uint8_t* block = audioQueue.GetBuffer(nullptr, &size, nullptr);
  bool result = true;
  // Audio is drained, never decoded: no window ever asks for the decoder.
  if (notifyWindow != 0 && audioDecoder == nullptr) {
    audioDecoder = CreateDecoder(/*video=*/false, DECODER_KEY_G726);
    result = audioDecoder != nullptr;
  }
  if (block) audioQueue.ReleaseAndRemoveAtHead(block, 0, nullptr);
  return result;
}

void StreamPlayer::QueueForRecording(int32_t blockSize) {
  const uint32_t generation = recordGeneration.load(std::memory_order_acquire);
  uint8_t* block = recordQueue.PrepareNewBufferAtTail(blockSize, VBUF_NO_EVICT, nullptr);
  if (block == nullptr) {
    OutputDebugStringA("TQF record queue full, frame lost.\n");
    recordGap = true;
    return;
  }
  memcpy(block, parseBuffer + parseStart + 4, static_cast<size_t>(blockSize));
  const uint32_t user = (generation & RECORD_GENERATION_MASK) | (recordGap ? RECORD_GAP_FLAG : 0);
  recordGap = false;
  recordQueue.NewBufferAtTail(block, VBUF_RESERVED_SIZE, user, /*allowEmpty=*/0, /*skip=*/0);
  SetEvent(recorderWake);
}

bool StreamPlayer::StartRecorder() {
  if (recorderThread != nullptr) return true;
  if (!recordQueue.IsOpen() && !recordQueue.Open(STREAM_RECORD_QUEUE_SIZE, /*name=*/nullptr,
                                                     /*buffer=*/nullptr, VBUF_ALIGN_WORD))
    return false;
  if (recorderWake == nullptr) recorderWake = CreateEventA(nullptr, 0, 0, nullptr);
  if (recorderWake == nullptr) return false;
  recorderThread = CreateThread(nullptr, 0, RecorderMain, this, 0, nullptr);
  return recorderThread != nullptr;
}

void StreamPlayer::StopRecorder() {
  if (recorderThread == nullptr) return;
  stopRecorder.store(true, std::memory_order_release);
  SetEvent(recorderWake);
  WaitForSingleObject(recorderThread, INFINITE);
  CloseHandle(recorderThread);
  recorderThread = nullptr;
}

bool StreamPlayer::RecordStep() {
  CLockGuard guard(&recordLock);
  return WriteQueuedFrame();
}

bool StreamPlayer::WriteQueuedFrame() {
  if (!recordQueue.IsOpen()) return false;
  int32_t size = 0;
  uint32_t user = 0;
  uint8_t* block = recordQueue.GetBuffer(nullptr, &size, &user);
  if (block == nullptr) return false;
  const uint32_t generation = recordGeneration.load(std::memory_order_relaxed);
  if ((user & RECORD_GENERATION_MASK) == (generation & RECORD_GENERATION_MASK)) {
    if (user & RECORD_GAP_FLAG) awaitRecordKey = true;  // resume on a whole picture
    const uint32_t info = LoadU32(block);
    RecordHook(block, info, FramePayloadLength(info));
  }
  recordQueue.ReleaseAndRemoveAtHead(block, 0, nullptr);
  return true;
}

void StreamPlayer::FinishRecording() {
  while (WriteQueuedFrame()) {
  }
  if (recordWriter.file != nullptr && !recordWriter.Close())
    OutputDebugStringA("TQF record write failed.\n");
  recordGeneration.fetch_add(1, std::memory_order_release);
}

void StreamPlayer::RecordHook(const uint8_t* block, uint32_t info, uint32_t length) {
  if (recordWriter.file == nullptr && recordWriter.Create(recordPath.c_str(), 0) &&
      recordWriter.AddRecord(LoadU32(descriptor + 16), descriptor, TQF_MEDIA_DESCRIPTOR_SIZE) < 0) {
    OutputDebugStringA("TQF record write failed.\n");
    recordWriter.Close();
  }
  if (recordWriter.file == nullptr) return;  // tried again at the next video frame
  if (awaitRecordKey) {
    if (!IsKeyFrameInfo(info)) return;
    awaitRecordKey = false;
  }
  const TQFFrameHeader frame{info, LoadU32(block + 4)};
  if (!recordWriter.WriteFrameFlushed(&frame, block + BLOCK_HEAD_SIZE, length)) {
    // The file holds whole frames only; it goes on from the next key frame.
    OutputDebugStringA("TQF record write failed.\n");
    awaitRecordKey = true;
  }
}

int32_t StreamPlayer::StartRecord(const char* path) {
  if (!playing.load(std::memory_order_acquire)) return 0;
  if (path == nullptr) return -1;
  CLockGuard guard(&recordLock);
  if (recording.load() && recordPath == path) return 0;
  if (!StartRecorder()) return -1;
  recording.store(false, std::memory_order_release);
  FinishRecording();
  recordPath = path;
  awaitRecordKey = true;
  recording.store(true, std::memory_order_release);
  return 0;
}

int32_t StreamPlayer::StopRecord() {
  if (!playing.load(std::memory_order_acquire)) return 0;
  CLockGuard guard(&recordLock);
  recording.store(false, std::memory_order_release);
  FinishRecording();
  recordPath.clear();
  return 0;
}
