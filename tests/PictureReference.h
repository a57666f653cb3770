// What the library itself delivers for a file, to compare the tool's outputs
// with: a whole play through the exported interface, and Y4M files, as hashes.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TQFPlay.h"
#include "TempFolder.h"

inline uint64_t HashBytes(const uint8_t* data, size_t size) {
  uint64_t hash = 1469598103934665603ull;  // FNV-1a
  for (size_t i = 0; i < size; ++i) hash = (hash ^ data[i]) * 1099511628211ull;
  return hash;
}

struct PictureRun {
  int32_t width = 0, height = 0;  // from a Y4M file only
  std::vector<uint64_t> hashes;
  std::vector<uint8_t> first, last;  // whole pictures, from a play only
  std::vector<uint8_t> pictures;     // all of them back to back, from a Y4M file only
  bool ended = false;
};

namespace reference_detail {
inline PictureRun* g_run = nullptr;
inline std::atomic<bool> g_ended{false};
inline std::mutex g_mutex;

inline int32_t Collect(int32_t, uint8_t* picture, int32_t size, int32_t, int32_t, uint32_t, int32_t, int32_t, uint32_t) {
  std::lock_guard<std::mutex> guard(g_mutex);
  g_run->hashes.push_back(HashBytes(picture, static_cast<size_t>(size)));
  if (g_run->first.empty()) g_run->first.assign(picture, picture + size);
  g_run->last.assign(picture, picture + size);
  return 0;
}

inline void WatchEnd(const char* line, void*) {
  if (std::strncmp(line, "PostMessage(): wnd=0, msg=0", 27) == 0) g_ended.store(true);
}
}  // namespace reference_detail

// Plays `path` with TQ_OpenFile and TQ_Play to its end line (at most two
// minutes); `ended` tells whether the end came.
inline PictureRun PlayThroughLibrary(const std::string& path) {
  using namespace reference_detail;
  PictureRun run;
  g_run = &run;
  g_ended.store(false);
  TQ_SetDebugSink(WatchEnd, nullptr);
  TQ_Initial();
  int32_t handle = -1;
  if (TQ_OpenFile(path.c_str(), &handle) == 0) {
    TQ_Play(handle, Collect, 0);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    while (!g_ended.load() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    TQ_CloseFile(handle);
  }
  TQ_Free();
  TQ_SetDebugSink(nullptr, nullptr);
  run.ended = g_ended.load();
  g_run = nullptr;
  return run;
}

// A YUV4MPEG2 file of 4:2:0 pictures read into the same form; `width` 0 if
// the header or a frame is malformed.
inline PictureRun ReadY4M(const std::string& path) {
  PictureRun run;
  std::vector<uint8_t> bytes = ReadWholeFile(path);
  const uint8_t *p = bytes.data(), *end = p + bytes.size();
  const uint8_t* line = static_cast<const uint8_t*>(std::memchr(p, '\n', bytes.size()));
  int width = 0, height = 0;
  if (line == nullptr || std::sscanf(std::string(p, line).c_str(), "YUV4MPEG2 W%d H%d", &width, &height) != 2)
    return run;
  size_t frameSize = static_cast<size_t>(width) * static_cast<size_t>(height) * 3 / 2;
  for (p = line + 1; p < end;) {
    if (static_cast<size_t>(end - p) < 6 + frameSize || std::memcmp(p, "FRAME\n", 6) != 0) return run;
    run.hashes.push_back(HashBytes(p + 6, frameSize));
    run.pictures.insert(run.pictures.end(), p + 6, p + 6 + frameSize);
    p += 6 + frameSize;
  }
  run.width = width, run.height = height;
  return run;
}
