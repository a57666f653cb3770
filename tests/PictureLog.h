// Collects what a player hands to its picture callback, for player tests.
// The callback has no context pointer wide enough for an object, so the log
// is one process-wide instance.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "OSTime.h"
#include "wait_test_support.h"

struct Picture {
  int32_t handle, size, width, height, format, rate;
  uint32_t stamp, user;
  int id;  // the picture's first two bytes, little-endian (see CountingDecoder)
};

struct PictureLog {
  std::mutex mutex;
  std::vector<Picture> items;
  std::atomic<int> blockMs{0};          // how long each callback takes
  std::atomic<bool> inCallback{false};
  std::function<void(const Picture&)> onPicture;  // run inside the callback

  void Reset() {
    std::lock_guard<std::mutex> guard(mutex);
    items.clear();
    blockMs = 0;
    onPicture = nullptr;
  }
  size_t Count() { return Items().size(); }
  std::vector<Picture> Items() {
    std::lock_guard<std::mutex> guard(mutex);
    return items;
  }
};

inline PictureLog g_pictures;

inline int32_t LogPicture(int32_t handle, uint8_t* picture, int32_t size, int32_t width, int32_t height,
                          uint32_t stamp, int32_t format, int32_t rate, uint32_t user) {
  g_pictures.inCallback = true;
  if (int ms = g_pictures.blockMs.load()) Sleep(uint32_t(ms));
  const Picture p{handle, size, width, height, format, rate, stamp, user, picture[0] | picture[1] << 8};
  {
    std::lock_guard<std::mutex> guard(g_pictures.mutex);
    g_pictures.items.push_back(p);
  }
  if (g_pictures.onPicture) g_pictures.onPicture(p);
  g_pictures.inCallback = false;
  return 0;
}
