#include "FilePlayer.h"

#include <cstdio>
#include <cstring>

#include "Decoder.h"
#include "Diagnostics.h"
#include "OSTime.h"
#include "WaitableObject.h"

namespace {

constexpr int32_t SHORT_SKIP_FRAMES = 300;  // 12 s: shorter skips replay every frame
constexpr int32_t FRAME_MS = static_cast<int32_t>(TQF_FRAME_DURATION_MS);

// No window ever receives the end-of-file message: its window and number
// stay 0, and only its debug line remains.
constexpr uint32_t NOTIFY_MESSAGE = 0;

int32_t ForwardToTick(void* context, HandleObj, uint32_t events) {
  TickThread* thread = static_cast<TickThread*>(context);
  return thread->tickFn(thread->tickContext, events);
}

int32_t TickEntry(void* context, uint32_t) { return static_cast<FilePlayer*>(context)->Tick(); }

PlayerCore* FileCreate(PlayerManager* manager, int32_t handle, const void* source, uint32_t) {
  return new FilePlayer(manager, handle, static_cast<const char*>(source));
}

void FileDestroy(PlayerCore* player) { delete static_cast<FilePlayer*>(player); }

int32_t FilePlay(PlayerCore* player, PictureCallback callback, uint32_t user) {
  player->Play(callback, user);
  static_cast<FilePlayer*>(player)->speed = 1.0;
  return 0;
}

int32_t FileGetFileTime(PlayerCore* player, uint32_t* seconds) {
  if (seconds)
    *seconds = static_cast<uint32_t>(static_cast<FilePlayer*>(player)->FrameCount()) *
               FRAME_MS / 1000u;
  return 0;
}

// (frameIndex * 40) / 1000 in signed 32-bit arithmetic, the product wrapping
// as a 32-bit word would: a file played past 53,687,091 frames reads negative.
int32_t FileGetPlayTime(PlayerCore* player, uint32_t* seconds) {
  if (seconds) {
    const uint32_t frame = static_cast<uint32_t>(
        static_cast<FilePlayer*>(player)->frameIndex.load(std::memory_order_relaxed));
    const int32_t milliseconds = static_cast<int32_t>(frame * static_cast<uint32_t>(FRAME_MS));
    *seconds = static_cast<uint32_t>(milliseconds / 1000);
  }
  return 0;
}

// Runs with the table lock held shared by the caller, for the whole seek: a
// close of this player waits until the seek is done.
int32_t FileSetPlayTime(PlayerCore* player, int32_t seconds) {
  // 32-bit arithmetic as the interface defines it: past 2,147,483 seconds
  // the product wraps negative and the seek is refused.
  const int32_t frame = static_cast<int32_t>(static_cast<uint32_t>(seconds) * 1000u) / FRAME_MS;
  FilePlayer* file = static_cast<FilePlayer*>(player);
  CLockGuard guard(&file->lock);
  return file->SeekToFrame(frame);
}

}  // namespace

// A file plays, tells its length and position and seeks; it takes no input
// and records nothing.
const PlayerKind FilePlayer::KIND = {
    .create = FileCreate,
    .destroy = FileDestroy,
    .play = FilePlay,
    .getFileTime = FileGetFileTime,
    .getPlayTime = FileGetPlayTime,
    .setPlayTime = FileSetPlayTime,
};

TickThread::TickThread() : CCallbackEventThread(nullptr, nullptr, nullptr, nullptr), event{} {}

TickThread::~TickThread() { CloseTick(INFINITE); }

void TickThread::CloseTick(uint32_t timeoutMs) {
  Close(timeoutMs);
  if (event.handle) {
    CloseHandle(event.handle);
    event = OSHandle{};
  }
}

FilePlayer::FilePlayer(PlayerManager* owner, int32_t playerHandle, const char* path)
    : PlayerCore(owner, playerHandle) {
  try {
    Open(path);
  } catch (int) {
    tickThread.CloseTick(INFINITE);
    reader.Close();
    ReleaseDecoder();
    throw;
  }
}

FilePlayer::~FilePlayer() {
  tickThread.CloseTick(INFINITE);
  reader.Close();
  ReleaseDecoder();
}

void FilePlayer::ReleaseDecoder() {
  ::ReleaseDecoder(videoDecoder);
  videoDecoder = nullptr;
}

void FilePlayer::Open(const char* path) {
  if (!reader.Open(path)) throw 0;
  uint8_t record[TQF_FIRST_RECORD_BUFFER];
  uint32_t type = 0;
  int32_t length = static_cast<int32_t>(TQF_FIRST_RECORD_BUFFER);
  if (!reader.GetRecord(0, &type, record, &length)) throw 0;
  if (length != static_cast<int32_t>(TQF_FIRST_RECORD_LENGTH) &&
      length != static_cast<int32_t>(TQF_FIRST_RECORD_LENGTH_LONG))
    throw 0;
  // The codec comes from the record's type, not from the descriptor.
  OpenVideoDecoder(type, record);

  if (tickThread.ThreadId() != 0) throw 0;
  tickThread.tickFn = TickEntry;
  tickThread.tickContext = this;
  if (!tickThread.OpenWithCallback(ForwardToTick, &tickThread, EVENT_THREAD_PRIORITY_NORMAL,
                                  EVENT_THREAD_STACK_SIZE, /*pollTimeoutMs=*/INFINITE,
                                  EVENT_THREAD_NO_SELF_CLOSE))
    throw 0;
  if (!tickThread.event.handle) {
    HANDLE event = CreateEventA(nullptr, 1, 1, nullptr);
    if (!event) throw 0;
    tickThread.event = OSHandle{event, -1};
  }
  tickThread.AddHandle(reinterpret_cast<HandleObj>(&tickThread), tickThread.event.handle, -1, 0,
                       3);
}

int32_t FilePlayer::FrameCount() const { return static_cast<int32_t>(reader.index[0].count); }

int32_t FilePlayer::Tick() {
  CRWLock& table = manager->tableLock;
  if (!table.LockShared(1)) {
    Sleep(1);
    return 0;
  }
  if (!playing.load(std::memory_order_acquire)) {
    table.Unlock();
    Sleep(1);
    return 0;
  }
  lock.Lock();
  if (reader.IsKeyFrame(0, frameIndex)) sawKeyFrame = 1;
  if (!sawKeyFrame) {
    // Frames before the first key frame are walked over, not read.
    ++frameIndex;
  } else {
    const int32_t current = frameIndex++;
    TQFFrameHeader header{};
    uint32_t length = TQF_FILE_READ_BUFFER_SIZE;
    if (!reader.ReadFrame(0, current, &header, frameBuffer, &length)) {
      if (frameIndex >= FrameCount()) {
        char line[64];
        snprintf(line, sizeof line, "PostMessage(): wnd=%d, msg=%d", static_cast<int>(notifyWindow),
                 static_cast<int>(NOTIFY_MESSAGE));
        OutputDebugStringA(line);
      }
      frameIndex = 0;
      playing.store(0, std::memory_order_release);
    } else if (videoDecoder) {
      uint8_t* picture = videoDecoder->Decode(frameBuffer, static_cast<int32_t>(length), nullptr);
      if (picture) Deliver(picture, header.stamp);
    }
  }
  table.Unlock();
  lock.Unlock();
  return 1;
}

int32_t FilePlayer::SeekToFrame(int32_t frame) {
  if (frame < 0) return -1;
  const int32_t count = FrameCount();
  if (frame >= count) frame = count - 1;
  const int32_t position = frameIndex;
  if (frame == position) return 0;

  int32_t start;
  if (frame > position && frame < position + SHORT_SKIP_FRAMES) {
    start = position;  // a short skip goes on from the decoder's present state
  } else {
    start = frame;
    while (start > 0 && !reader.IsKeyFrame(0, start)) --start;
  }
  // Decode silently up to and including the target. Without a decoder the
  // frames are only read.
  for (int32_t i = start; i <= frame; ++i) {
    TQFFrameHeader header{};
    uint32_t length = TQF_FILE_READ_BUFFER_SIZE;
    const bool read = reader.ReadFrame(0, i, &header, frameBuffer, &length);
    if (videoDecoder && read) videoDecoder->Decode(frameBuffer, static_cast<int32_t>(length), nullptr);
  }
  frameIndex = frame + 1;
  return 0;
}
