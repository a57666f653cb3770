// Opening a TQF file (mapping and indexing) against reading it once.
//
// Builds a file of about 1 GiB in TMPDIR (frames of 20 to 60 KiB, a key frame
// every 50), reads it once to warm the page cache, then times, best of a few
// runs each, TQFReader::Open and a sequential read() of the whole file.
// Indexing touches only the frame heads, so it should take at most a quarter
// of the read's time. The file is removed at the end.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "TQFReader.h"
#include "TQFWriter.h"

namespace {

constexpr uint64_t TARGET_BYTES = uint64_t{1} << 30;
constexpr uint32_t MIN_FRAME = 20 * 1024;
constexpr uint32_t MAX_FRAME = 60 * 1024;
constexpr int RUNS = 5;

double Seconds(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

bool BuildFile(const char* path, uint32_t* frames) {
  TQFWriter writer;
  MediaDescriptor descriptor{40, 640, 352, 1, 12, FOURCC_H264, 640 * 352 * 3 / 2, 0, 0, 0, 0};
  if (!writer.Create(path, 0) || writer.AddRecord(FOURCC_H264, &descriptor, 40) != 0) return false;
  std::mt19937 random(7);
  std::uniform_int_distribution<uint32_t> size(MIN_FRAME, MAX_FRAME);
  std::vector<uint8_t> payload(MAX_FRAME + 64);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(random());
  uint64_t written = 64;
  *frames = 0;
  while (written < TARGET_BYTES) {
    uint32_t length = size(random);
    TQFFrameHeader header{MakeFrameInfo(length, *frames % 50 == 0, 0), *frames * 40};
    if (!writer.WriteFrame(&header, payload.data() + *frames % 64, length)) return false;
    written += TQF_FRAME_HEAD_SIZE + length;
    ++*frames;
  }
  bool flushed = fflush(writer.file) == 0;
  writer.Close();
  return flushed;
}

double TimeSequentialRead(const char* path, uint64_t* bytes) {
  static std::vector<uint8_t> buffer(1 << 20);
  auto start = std::chrono::steady_clock::now();
  int fd = open(path, O_RDONLY);
  *bytes = 0;
  ssize_t got;
  while (fd >= 0 && (got = read(fd, buffer.data(), buffer.size())) > 0) *bytes += got;
  if (fd >= 0) close(fd);
  return Seconds(start);
}

double TimeOpen(const char* path, uint32_t* indexed) {
  auto start = std::chrono::steady_clock::now();
  TQFReader reader;
  bool opened = reader.Open(path);
  double seconds = Seconds(start);
  *indexed = opened ? reader.index[0].count : 0;
  return seconds;
}

}  // namespace

int main() {
  const char* folder = std::getenv("TMPDIR");
  std::string path = std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") +
                     "/bench_tqf_index_" + std::to_string(getpid()) + ".tqf";
  uint32_t frames = 0;
  if (!BuildFile(path.c_str(), &frames)) {
    std::fprintf(stderr, "bench_tqf_index: cannot write %s\n", path.c_str());
    unlink(path.c_str());
    return 1;
  }
  uint64_t bytes = 0;
  TimeSequentialRead(path.c_str(), &bytes);  // warms the page cache
  double bestRead = 1e9, bestOpen = 1e9;
  uint32_t indexed = 0;
  for (int run = 0; run < RUNS; ++run) {
    bestRead = std::min(bestRead, TimeSequentialRead(path.c_str(), &bytes));
    bestOpen = std::min(bestOpen, TimeOpen(path.c_str(), &indexed));
  }
  unlink(path.c_str());
  std::printf("file: %.1f MiB, %u frames of 20-60 KiB written, %u indexed\n",
              bytes / 1048576.0, frames, indexed);
  std::printf("sequential read (1 MiB read() calls): %8.2f ms  (%.0f MiB/s)\n", bestRead * 1e3,
              bytes / 1048576.0 / bestRead);
  std::printf("TQFReader::Open (map and index):     %8.2f ms\n", bestOpen * 1e3);
  std::printf("ratio open / read: %.3f (target at most 0.25)\n", bestOpen / bestRead);
  return indexed + 1 == frames ? 0 : 1;
}
