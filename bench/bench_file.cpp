// File playback figures: throughput of the 720p sample against the ffmpeg
// tool on the same bitstream, TQ_OpenFile on a file of about 1 GiB, and the
// time of a backward seek with a key frame every 50 frames.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "../tests/CodecTestSupport.h"
#include "BenchSupport.h"
#include "OSTime.h"
#include "PlayerManager.h"
#include "TQFWriter.h"

namespace {

// An H.264 access unit that holds an IDR slice (NAL type 5).
bool IsKeyUnit(const std::vector<uint8_t>& unit) {
  for (size_t i = 0; i + 3 < unit.size(); ++i)
    if (unit[i] == 0 && unit[i + 1] == 0 && unit[i + 2] == 1 && (unit[i + 3] & 0x1F) == 5) return true;
  return false;
}

// Writes the units as the video frames of a TQF file; one audio frame at the
// end lets the index hold every video frame.
bool WriteTqf(const std::string& path, const std::vector<std::vector<uint8_t>>& units, int32_t width,
              int32_t height) {
  TQFWriter writer;
  if (!writer.Create(path.c_str(), 0)) return false;
  MediaDescriptor descriptor{};
  descriptor.structureSize = 40;
  descriptor.width = width;
  descriptor.height = height;
  descriptor.compression = FOURCC_H264;
  writer.AddRecord(FOURCC_H264, &descriptor, sizeof descriptor);
  uint32_t stamp = 0;
  for (const auto& unit : units) {
    const TQFFrameHeader header{MakeFrameInfo(static_cast<uint32_t>(unit.size()), IsKeyUnit(unit), 0), stamp};
    stamp += 40;
    if (!writer.WriteFrame(&header, unit.data(), static_cast<uint32_t>(unit.size()))) return false;
  }
  const uint8_t tail[4] = {1, 2, 3, 4};
  const TQFFrameHeader audio{MakeFrameInfo(sizeof tail, true, 1), stamp};
  writer.WriteFrame(&audio, tail, sizeof tail);
  writer.Close();
  return true;
}

std::atomic<int> g_pictures{0};

int32_t CountPicture(int32_t, uint8_t*, int32_t, int32_t, int32_t, uint32_t, int32_t, int32_t, uint32_t) {
  ++g_pictures;
  return 0;
}

// Plays `path` to its end with a callback that returns at once; seconds.
double PlayToEnd(const std::string& path, int frames) {
  PlayerManager manager;
  int32_t h = -1;
  if (manager.OpenFile(path.c_str(), &h) != 0) return -1;
  g_pictures = 0;
  const auto start = std::chrono::steady_clock::now();
  manager.Play(h, CountPicture, 0);
  while (g_pictures.load() < frames) Sleep(0);
  const double seconds = SecondsSince(start);
  manager.CloseFile(h);
  return seconds;
}

void Throughput(const std::string& bitstream, const std::string& tqf) {
  const auto units = SplitAccessUnits(ReadWholeFile(bitstream));
  if (units.size() != 1000 || !WriteTqf(tqf, units, 1280, 720)) {
    std::printf("playback: no usable 720p sample\n");
    return;
  }
  const double ours = BestOf(3, [&] { return PlayToEnd(tqf, 1000); });
  const double theirs = BestOf(
      3, [&] { return TimeCommand(std::string(TQF_FFMPEG) + " -v error -nostdin -threads 1 -i '" + bitstream + "' -f null -"); });
  std::printf("playback 1280x720, 1000 frames: TQ_Play to last picture %.3f s (%.0f frames/s); ffmpeg -threads 1 %.3f s; ratio %.3f (target <= 1.05)\n",
              ours, 1000 / ours, theirs, ours / theirs);
}

void OpenLargeFile() {
  const std::string path = std::string(getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") + "/bench_file_" +
                           std::to_string(getpid()) + ".tqf";
  TQFWriter writer;
  writer.Create(path.c_str(), 0);
  MediaDescriptor descriptor{40, 704, 576, 1, 12, FOURCC_H264};
  writer.AddRecord(FOURCC_H264, &descriptor, sizeof descriptor);
  std::mt19937 random(1);
  std::vector<uint8_t> payload(60 * 1024, 0x11);
  uint64_t written = 0;
  uint32_t frames = 0;
  while (written < (1ull << 30)) {
    const uint32_t size = 20 * 1024 + random() % (40 * 1024);
    const TQFFrameHeader header{MakeFrameInfo(size, frames % 50 == 0, 0), frames * 40};
    writer.WriteFrame(&header, payload.data(), size);
    written += size + 12;
    ++frames;
  }
  writer.Close();
  PlayerManager manager;
  const double seconds = BestOf(3, [&] {
    int32_t h = -1;
    const auto start = std::chrono::steady_clock::now();
    if (manager.OpenFile(path.c_str(), &h) != 0) return -1.0;
    const double s = SecondsSince(start);
    manager.CloseFile(h);
    return s;
  });
  std::printf("TQ_OpenFile, %.2f GiB in %u frames (warm cache): %.1f ms\n", written / 1073741824.0, frames,
              seconds * 1000);
  unlink(path.c_str());
}

void BackwardSeek(const std::string& bitstream, const std::string& tqf) {
  const auto units = SplitAccessUnits(ReadWholeFile(bitstream));
  if (units.size() != 500 || !WriteTqf(tqf, units, 1280, 720)) {
    std::printf("seek: no usable sample\n");
    return;
  }
  PlayerManager manager;
  int32_t h = -1;
  manager.OpenFile(tqf.c_str(), &h);
  std::vector<double> ms;
  std::mt19937 random(3);
  for (int i = 0; i < 40; ++i) {
    manager.SetPlayTime(h, 19);  // frame 475, near the end
    const int32_t target = static_cast<int32_t>(random() % 18);  // seconds before it
    const auto start = std::chrono::steady_clock::now();
    manager.SetPlayTime(h, target);
    ms.push_back(SecondsSince(start) * 1000);
  }
  double sum = 0, worst = 0;
  for (double m : ms) sum += m, worst = std::max(worst, m);
  std::printf("backward seek, 1280x720, key frame every 50: mean %.1f ms, worst %.1f ms (%zu seeks)\n",
              sum / ms.size(), worst, ms.size());
  manager.CloseFile(h);
}

}  // namespace

int main() {
  const std::string folder = std::string(TQF_BINARY_DIR) + "/media/bench/";
  const std::string bitstream = BenchMedia(
      "h264_720p_main_2M.h264",
      "-f lavfi -i testsrc2=size=1280x720:rate=25 -frames:v 1000 -c:v libx264 -profile:v main -bf 0 "
      "-b:v 2M -x264-params aud=1:repeat-headers=1 -pix_fmt yuv420p -f h264");
  Throughput(bitstream, folder + "h264_720p_main_2M.tqf");
  OpenLargeFile();
  const std::string gop50 = BenchMedia(
      "h264_720p_main_2M_gop50.h264",
      "-f lavfi -i testsrc2=size=1280x720:rate=25 -frames:v 500 -c:v libx264 -profile:v main -bf 0 "
      "-b:v 2M -g 50 -keyint_min 50 -sc_threshold 0 -x264-params aud=1:repeat-headers=1 -pix_fmt yuv420p -f h264");
  BackwardSeek(gop50, folder + "h264_720p_gop50.tqf");
  return 0;
}
