// A live stream that the host's callback cannot keep up with: what the queue
// drops (the oldest frames, or the newest when it refuses them), how late the
// pictures run after the input ends, and what the recording loses.
//
//   burst      15,000 frames of 20 KiB fed at once, a 3 ms callback
//   paced      3,000 frames of 20 KiB, one a millisecond, a 6 ms callback
//              (25 a second against 60 ms, ten times faster), recorded
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CountingDecoder.h"
#include "Diagnostics.h"
#include "OSTime.h"
#include "PlayerManager.h"
#include "StreamPlayer.h"
#include "TQFBuilder.h"
#include "TQFReader.h"

using namespace tqftest;
using Clock = std::chrono::steady_clock;

namespace {

constexpr uint32_t PAYLOAD = 20480;
constexpr uint32_t KEY_EVERY = 50;

std::atomic<int> g_callbackMs{0};
std::atomic<int> g_shown{0};
std::atomic<int> g_lastId{-1};
std::atomic<int64_t> g_lastShownNs{0};
std::atomic<int> g_refusals{0};

int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

int32_t SlowCallback(int32_t, uint8_t* picture, int32_t, int32_t, int32_t, uint32_t, int32_t,
                     int32_t, uint32_t) {
  Sleep(static_cast<uint32_t>(g_callbackMs.load()));
  ++g_shown;
  g_lastId = picture[0] | picture[1] << 8;
  g_lastShownNs = NowNs();
  return 0;
}

void CountRefusals(const char* line, void*) {
  if (std::string(line) == "vBuf is full!\n") ++g_refusals;
}

// Frames of the recording at `path` whose stamp does not follow the one
// before: gaps, and how many of them resume on a frame that is not a key frame.
void CountGaps(const std::string& path, int* gaps, int* onDelta, uint32_t* frames) {
  *gaps = *onDelta = 0;
  *frames = 0;
  TQFReader reader;
  if (!reader.Open(path.c_str())) return;
  const FrameIndex& video = reader.index[0];
  *frames = video.count;
  for (uint32_t i = 1; i < video.count; ++i) {
    if (video.entries[i].stamp == video.entries[i - 1].stamp + 1) continue;
    ++*gaps;
    if (!IsKeyFrameInfo(video.entries[i].info)) ++*onDelta;
  }
}

void Run(const char* name, int frames, int callbackMs, int feedEveryMs, bool record) {
  g_shown = 0;
  g_lastId = -1;
  g_refusals = 0;
  g_callbackMs = callbackMs;
  PlayerManager manager;
  const Bytes header = VideoHeader("XVID", 352, 288);
  int32_t h = -1;
  manager.OpenStream(header.data(), static_cast<uint32_t>(header.size()), &h);
  auto* player = static_cast<StreamPlayer*>(manager.Lookup(h)->player);
  player->videoDecoder = new CountingDecoder(352, 288);
  manager.Play(h, SlowCallback, 0);
  const std::string path = "/tmp/bench_overload.tqf";
  if (record) manager.StartRecord(h, path.c_str());
  const auto start = Clock::now();
  for (int i = 0; i < frames; ++i) {
    const Bytes f = Frame(Info(PAYLOAD, i % KEY_EVERY == 0 ? KEY : 0, 0), static_cast<uint32_t>(i),
                          IdPayload(PAYLOAD, static_cast<uint16_t>(i)));
    manager.InputData(h, f.data(), static_cast<int32_t>(f.size()));
    if (feedEveryMs) std::this_thread::sleep_until(start + std::chrono::milliseconds(feedEveryMs * (i + 1)));
  }
  const int64_t inputEndNs = NowNs();
  // Wait until the queue is drained and the last callback has returned.
  while (player->videoQueue.GetBufferCount() != 0) Sleep(5);
  Sleep(static_cast<uint32_t>(callbackMs * 2 + 10));
  if (record) manager.StopRecord(h);
  const int shown = g_shown.load();
  const int lost = frames - shown;
  std::printf("%-6s fed %5d  shown %5d  lost %5d (refused %5d, evicted %5d)  last shown %5d  "
              "pictures ran on %6.2f s after the input\n",
              name, frames, shown, lost, g_refusals.load(), lost - g_refusals.load(), g_lastId.load(),
              (g_lastShownNs.load() - inputEndNs) / 1e9);
  if (record) {
    int gaps, onDelta;
    uint32_t recorded;
    CountGaps(path, &gaps, &onDelta, &recorded);
    std::printf("       recording: %u frames indexed of %d fed, %d gaps, %d resumed on a delta frame\n",
                recorded, frames, gaps, onDelta);
    std::remove(path.c_str());
  }
  manager.CloseStream(h);
}

}  // namespace

int main() {
  SetDebugSink(CountRefusals, nullptr);
  Run("burst", 15000, 3, 0, false);
  Run("paced", 3000, 6, 1, true);
  SetDebugSink(nullptr, nullptr);
  return 0;
}
