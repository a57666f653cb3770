// Live stream figures: parse-and-drain throughput by chunk size, the latency
// from TQ_InputData's return to the callback, and the idle cost of 256 streams.
#include <dirent.h>
#include <sys/resource.h>
#include <turbojpeg.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "OSTime.h"
#include "PlayerManager.h"
#include "StreamPlayer.h"
#include "TQFBuilder.h"

using namespace tqftest;
using Clock = std::chrono::steady_clock;

namespace {

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Feeds `total` bytes of 16 KiB frames in chunks of `chunk` bytes to a stream
// with no decoder and waits until the worker has drained them. Bytes a second.
double Throughput(size_t chunk, size_t total) {
  PlayerManager manager;
  const Bytes header = VideoHeader("XVID", 352, 288);
  int32_t h = -1;
  manager.OpenStream(header.data(), static_cast<uint32_t>(header.size()), &h);
  manager.Play(h, nullptr, 0);
  Bytes pattern;
  while (pattern.size() < (8u << 20)) {
    Bytes f = Frame(Info(16384, pattern.empty() ? KEY : 0, 0), 0, Payload(16384));
    pattern.insert(pattern.end(), f.begin(), f.end());
  }
  StreamPlayer* player = static_cast<StreamPlayer*>(manager.Lookup(h)->player);
  const auto start = Clock::now();
  size_t fed = 0, at = 0;
  while (fed < total) {
    size_t n = std::min(chunk, pattern.size() - at);
    manager.InputData(h, pattern.data() + at, static_cast<int32_t>(n));
    fed += n;
    at = (at + n) % pattern.size();
  }
  while (player->videoQueue.GetBufferCount() != 0) Sleep(0);
  const double rate = static_cast<double>(fed) / Seconds(Clock::now() - start);
  manager.CloseStream(h);
  return rate;
}

int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// The host's side of the latency run: the callback stamps its entry and
// wakes the feeding thread, which sleeps on a condition variable as a real
// host's thread would (a spinning one would take one of the two cores).
struct Arrival {
  std::mutex lock;
  std::condition_variable arrived;
  int64_t enteredNs = 0;  // guarded by `lock`
} g_arrival;

int32_t MarkEntry(int32_t, uint8_t*, int32_t, int32_t, int32_t, uint32_t, int32_t, int32_t, uint32_t) {
  const int64_t now = NowNs();
  std::lock_guard<std::mutex> guard(g_arrival.lock);
  g_arrival.enteredNs = now;
  g_arrival.arrived.notify_one();
  return 0;
}

Bytes TinyJpeg() {
  std::vector<uint8_t> rgb(64 * 48 * 3, 128);
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>(i * 13);
  tjhandle compressor = tjInitCompress();
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  tjCompress2(compressor, rgb.data(), 64, 0, 48, TJPF_RGB, &jpeg, &size, TJSAMP_420, 80, 0);
  Bytes out(jpeg, jpeg + size);
  tjFree(jpeg);
  tjDestroy(compressor);
  return out;
}

void Latency() {
  PlayerManager manager;
  const Bytes header = VideoHeader("JPEG", 64, 48);
  int32_t h = -1;
  if (manager.OpenStream(header.data(), static_cast<uint32_t>(header.size()), &h) != 0) {
    printf("latency: could not open a JPEG stream\n");
    return;
  }
  manager.Play(h, MarkEntry, 0);
  const Bytes jpeg = TinyJpeg();
  std::vector<double> micros;
  for (int i = 0; i < 3000; ++i) {
    const Bytes frame = Frame(Info(static_cast<uint32_t>(jpeg.size()), KEY, 0), i, jpeg);
    std::unique_lock<std::mutex> guard(g_arrival.lock);
    g_arrival.enteredNs = 0;
    guard.unlock();
    manager.InputData(h, frame.data(), static_cast<int32_t>(frame.size()));
    const int64_t returned = NowNs();
    guard.lock();
    g_arrival.arrived.wait(guard, [] { return g_arrival.enteredNs != 0; });
    micros.push_back(std::max<int64_t>(0, g_arrival.enteredNs - returned) / 1000.0);
    guard.unlock();
    Sleep(2);  // a camera's frames come apart: each one meets a sleeping worker
  }
  std::sort(micros.begin(), micros.end());
  printf("latency InputData return -> callback entry (64x48 JPEG, %zu frames, blocking host): median %.1f us, "
         "p99 %.1f us, max %.1f us (targets: median < 50 us, p99 < 1000 us)\n",
         micros.size(), micros[micros.size() / 2], micros[micros.size() * 99 / 100], micros.back());
  manager.CloseStream(h);
}

// Voluntary context switches of all the process's threads: each is a wait
// that blocked, so a thread that wakes and sleeps again adds one.
long WakeUps() {
  long total = 0;
  DIR* tasks = opendir("/proc/self/task");
  for (dirent* entry; tasks && (entry = readdir(tasks)) != nullptr;) {
    if (entry->d_name[0] == '.') continue;
    const std::string path = std::string("/proc/self/task/") + entry->d_name + "/status";
    FILE* f = fopen(path.c_str(), "r");
    char line[256];
    long n = 0;
    while (f && fgets(line, sizeof line, f))
      if (sscanf(line, "voluntary_ctxt_switches: %ld", &n) == 1) total += n;
    if (f) fclose(f);
  }
  if (tasks) closedir(tasks);
  return total;
}

void IdleCost() {
  constexpr int STREAMS = 256;
  PlayerManager manager;
  const Bytes header = VideoHeader("H264", 704, 576);
  const long rssBefore = ResidentKiB();
  std::vector<int32_t> handles;
  for (int i = 0; i < STREAMS; ++i) {
    int32_t h = -1;
    manager.OpenStream(header.data(), static_cast<uint32_t>(header.size()), &h);
    manager.Play(h, nullptr, 0);
    handles.push_back(h);
  }
  const long rssOpen = ResidentKiB();
  Sleep(200);
  const long wakeUps0 = WakeUps();  // counted outside the timed span: reading them costs
  const double cpu0 = CpuSeconds();
  const auto wall0 = Clock::now();
  Sleep(5000);
  const double cpu = CpuSeconds() - cpu0;
  const double wall = Seconds(Clock::now() - wall0);
  const long wakeUps = WakeUps() - wakeUps0 - 1;  // this thread's own sleep
  printf("idle: %d playing streams, no input, %.1f s: %.3f%% of one core (target < 0.2%%), %ld wake-ups "
         "(target 0); resident memory %.1f MiB (%.0f KiB a stream)\n",
         STREAMS, wall, 100.0 * cpu / wall, wakeUps, (rssOpen - rssBefore) / 1024.0,
         double(rssOpen - rssBefore) / STREAMS);
  for (int32_t h : handles) manager.CloseStream(h);
}

}  // namespace

int main() {
  const size_t total = 4ull << 30;
  double rate64k = 0;
  for (size_t chunk : {size_t(1024), size_t(65536), size_t(4u << 20)}) {
    // The "4 MiB" chunks are 64 KiB short, so that they fit the 4 MiB parse
    // buffer beside a partial frame.
    size_t c = chunk == (4u << 20) ? chunk - 65536 : chunk;
    double rate = Throughput(c, chunk == 1024 ? total / 4 : total);
    if (chunk == 65536) rate64k = rate;
    printf("parse+drain, 16 KiB frames, chunks of %zu bytes: %.2f GB/s", c, rate / 1e9);
    if (chunk != 65536 && rate64k > 0) printf(" (%.2f of the 64 KiB rate)", rate / rate64k);
    printf("\n");
  }
  Latency();
  IdleCost();
  return 0;
}
