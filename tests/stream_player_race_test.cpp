// Host threads feed, play, stop, record and close streams at once; run under
// ThreadSanitizer. Every stream that is closed is opened again, so handles
// vanish under the feeders' feet the whole time.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "OSTime.h"
#include "PlayerManager.h"
#include "TQFBuilder.h"

using namespace tqftest;

namespace {

std::atomic<uint64_t> g_pictures{0};

int32_t Count(int32_t, uint8_t*, int32_t, int32_t, int32_t, uint32_t, int32_t, int32_t, uint32_t) {
  ++g_pictures;
  return 0;
}

TEST(StreamPlayerRace, HostThreadsFeedPlayRecordAndCloseAtOnce) {
  PlayerManager manager;
  const Bytes header = VideoHeader("JPEG", 64, 48);  // a real decoder, fed garbage
  constexpr int STREAMS = 4;
  std::atomic<int32_t> handles[STREAMS];
  for (auto& h : handles) {
    int32_t handle = -1;
    ASSERT_EQ(manager.OpenStream(header.data(), static_cast<uint32_t>(header.size()), &handle), 0);
    manager.Play(handle, Count, 0);
    h = handle;
  }
  Bytes chunk;
  for (int i = 0; i < 40; ++i) {
    Bytes f = Frame(Info(300, i % 10 == 0 ? KEY : 0, i % 3 == 0 ? 1 : 0), i, Payload(300, static_cast<uint8_t>(i)));
    chunk.insert(chunk.end(), f.begin(), f.end());
  }
  const std::string base = ::testing::TempDir() + "race_" + std::to_string(getpid()) + "_";
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {  // feeders, in pieces of random size
      std::mt19937 random(t);
      while (!stop) {
        int32_t h = handles[random() % STREAMS];
        size_t at = random() % chunk.size();
        size_t n = std::min<size_t>(chunk.size() - at, 1 + random() % 4000);
        manager.InputData(h, chunk.data() + at, static_cast<int32_t>(n));
      }
    });
  }
  threads.emplace_back([&] {  // controller: play, stop, record
    std::mt19937 random(99);
    while (!stop) {
      int32_t h = handles[random() % STREAMS];
      switch (random() % 4) {
        case 0: manager.Play(h, Count, 1); break;
        case 1: manager.Stop(h); break;
        case 2: manager.StartRecord(h, (base + std::to_string(random() % 3) + ".tqf").c_str()); break;
        default: manager.StopRecord(h); break;
      }
    }
  });
  threads.emplace_back([&] {  // closer: closes one stream and opens another
    std::mt19937 random(5);
    while (!stop) {
      int slot = static_cast<int>(random() % STREAMS);
      manager.CloseStream(handles[slot]);
      int32_t handle = -1;
      manager.OpenStream(header.data(), static_cast<uint32_t>(header.size()), &handle);
      manager.Play(handle, Count, 0);
      handles[slot] = handle;
      Sleep(5);
    }
  });
  Sleep(3000);
  stop = true;
  for (auto& t : threads) t.join();
  for (auto& h : handles) EXPECT_EQ(manager.CloseStream(h), 0);
  for (int i = 0; i < 3; ++i) std::remove((base + std::to_string(i) + ".tqf").c_str());
}

}  // namespace
