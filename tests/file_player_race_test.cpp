// Seeks, plays, stops and time queries race closes and reopens of the same
// file players; run under ThreadSanitizer (and AddressSanitizer with the rest
// of the suite). A seek either finishes before the close or finds the handle
// gone.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "CodecTestSupport.h"
#include "OSTime.h"
#include "PlayerManager.h"
#include "TQFBuilder.h"

using namespace tqftest;

namespace {

// Pictures delivered whole, and any that were not.
std::atomic<uint64_t> g_pictures{0}, g_broken{0};

int32_t Count(int32_t, uint8_t* data, int32_t size, int32_t width, int32_t height, uint32_t, int32_t, int32_t, uint32_t user) {
  ++(data != nullptr && width == 176 && height == 144 && size == 176 * 144 * 3 / 2 && user == 7 ? g_pictures : g_broken);
  return 0;
}

TEST(FilePlayerRace, SeeksRaceClosesWithoutFault) {
  // A JPEG file, garbage but for every tenth frame: a real decoder, quick
  // to fail and now and then making a picture.
  const Bytes jpeg = ReadWholeFile(CodecMediaPath("picture_420_176x144.jpg"));
  ASSERT_FALSE(jpeg.empty());
  Bytes bytes = VideoHeader("JPEG", 176, 144);
  for (int i = 0; i < 600; ++i) {
    Bytes f = i % 10 == 0 ? Frame(Info(uint32_t(jpeg.size()), KEY, 0), i, jpeg) : Frame(Info(200, 0, 0), i, Payload(200, uint8_t(i)));
    bytes.insert(bytes.end(), f.begin(), f.end());
  }
  TempFolder folder;
  const std::string path = folder.File("race.tqf");
  ASSERT_TRUE(WriteWholeFile(path, bytes));
  PlayerManager manager;
  constexpr int PLAYERS = 3;
  std::atomic<int32_t> handles[PLAYERS];
  auto open = [&] {
    int32_t handle = -1;
    manager.OpenFile(path.c_str(), &handle);
    return handle;
  };
  for (auto& h : handles) ASSERT_GE(h = open(), 0);
  std::atomic<bool> stop{false};
  std::atomic<int> seeks{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (std::mt19937 random(t); !stop;) {
        int32_t h = handles[random() % PLAYERS];
        seeks += manager.SetPlayTime(h, int32_t(random() % 25)) == 0;
        uint32_t s;
        manager.GetPlayTime(h, &s);
        manager.GetFileTime(h, &s);
      }
    });
  }
  threads.emplace_back([&] {
    for (std::mt19937 random(11); !stop;) {
      int32_t h = handles[random() % PLAYERS];
      if (random() % 2) manager.Play(h, Count, 7); else manager.Stop(h);
    }
  });
  threads.emplace_back([&] {
    for (std::mt19937 random(12); !stop; Sleep(3)) {
      int slot = int(random() % PLAYERS);
      manager.CloseFile(handles[slot]);
      handles[slot] = open();
    }
  });
  Sleep(3000);
  stop = true;
  for (auto& t : threads) t.join();
  for (auto& h : handles) EXPECT_EQ(manager.CloseFile(h), 0);
  EXPECT_GT(seeks.load(), 0);
  EXPECT_GT(g_pictures.load(), 0u);
  EXPECT_EQ(g_broken.load(), 0u);
}

}  // namespace
