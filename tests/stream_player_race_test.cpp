// Host threads feed, play, stop, record and close streams, and seek, play and
// close file players, at once; run under ThreadSanitizer. Every player that is
// closed is opened again, so handles vanish under the callers' feet the whole
// time: a seek either finishes before the close or finds the handle gone.
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

// Pictures delivered whole (the JPEG's size and a full I420 frame), and any
// that were not; file players play with user value 7.
std::atomic<uint64_t> g_pictures{0}, g_filePictures{0}, g_broken{0};

int32_t Count(int32_t, uint8_t* data, int32_t size, int32_t width, int32_t height, uint32_t, int32_t, int32_t, uint32_t user) {
  ++(data != nullptr && width == 176 && height == 144 && size == 176 * 144 * 3 / 2 ? (user == 7 ? g_filePictures : g_pictures)
                                                                                   : g_broken);
  return 0;
}

TEST(StreamPlayerRace, HostThreadsFeedPlayRecordAndCloseAtOnce) {
  PlayerManager manager;
  // A real decoder on real pictures, fed from random offsets and cut at
  // random lengths, so the parser meets garbage as well.
  const Bytes header = VideoHeader("JPEG", 176, 144);
  const Bytes jpeg = ReadWholeFile(CodecMediaPath("picture_420_176x144.jpg"));
  ASSERT_FALSE(jpeg.empty());
  Bytes chunk, file = header;
  for (int i = 0; i < 40; ++i) {  // every third frame audio: 26 video frames
    Bytes f = i % 3 == 0 ? Frame(Info(300, 0, 1), i, Payload(300, uint8_t(i))) : Frame(Info(uint32_t(jpeg.size()), KEY, 0), i, jpeg);
    chunk.insert(chunk.end(), f.begin(), f.end());
  }
  for (int i = 0; i < 600; ++i) {  // the file: garbage but for every tenth frame, quick to fail
    Bytes f = i % 10 == 0 ? Frame(Info(uint32_t(jpeg.size()), KEY, 0), i, jpeg) : Frame(Info(200, 0, 0), i, Payload(200, uint8_t(i)));
    file.insert(file.end(), f.begin(), f.end());
  }
  TempFolder folder;
  const std::string path = folder.File("race.tqf");
  ASSERT_TRUE(WriteWholeFile(path, file));
  auto open = [&](bool isFile) {
    int32_t handle = -1;
    if (isFile) return manager.OpenFile(path.c_str(), &handle), handle;
    manager.OpenStream(header.data(), uint32_t(header.size()), &handle);
    manager.Play(handle, Count, 0);
    return handle;
  };
  constexpr int STREAMS = 4, FILES = 2;
  std::atomic<int32_t> handles[STREAMS], files[FILES];
  for (auto& h : handles) ASSERT_GE(h = open(false), 0);
  for (auto& h : files) ASSERT_GE(h = open(true), 0);
  std::atomic<bool> stop{false};
  std::atomic<int> seeks{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {  // feeders, in pieces of random size
      for (std::mt19937 random(t); !stop;) {
        size_t at = random() % chunk.size();
        size_t n = std::min<size_t>(chunk.size() - at, 1 + random() % 4000);
        manager.InputData(handles[random() % STREAMS], chunk.data() + at, int32_t(n));
      }
    });
  }
  threads.emplace_back([&] {  // controller: play, stop, record
    for (std::mt19937 random(99); !stop;) {
      int32_t h = handles[random() % STREAMS];
      switch (random() % 4) {
        case 0: manager.Play(h, Count, 1); break;
        case 1: manager.Stop(h); break;
        case 2: manager.StartRecord(h, folder.File(std::to_string(random() % 3)).c_str()); break;
        default: manager.StopRecord(h); break;
      }
    }
  });
  threads.emplace_back([&] {  // file controller: seek, ask the times, play (user 7) or stop
    for (std::mt19937 random(7); !stop;) {
      int32_t h = files[random() % FILES];
      uint32_t s;
      seeks += manager.SetPlayTime(h, int32_t(random() % 25)) == 0;
      manager.GetPlayTime(h, &s);
      manager.GetFileTime(h, &s);
      random() % 2 ? manager.Play(h, Count, 7) : manager.Stop(h);
    }
  });
  threads.emplace_back([&] {  // closer: closes a stream and a file and opens others
    for (std::mt19937 random(5); !stop; Sleep(5)) {
      int slot = int(random() % STREAMS);
      manager.CloseStream(handles[slot]);
      handles[slot] = open(false);
      slot = int(random() % FILES);
      manager.CloseFile(files[slot]);
      files[slot] = open(true);
    }
  });
  Sleep(3000);
  stop = true;
  for (auto& t : threads) t.join();
  for (auto& h : handles) EXPECT_EQ(manager.CloseStream(h), 0);
  for (auto& h : files) EXPECT_EQ(manager.CloseFile(h), 0);
  EXPECT_TRUE(seeks.load() > 0 && g_pictures.load() > 0 && g_filePictures.load() > 0);
  EXPECT_EQ(g_broken.load(), 0u);
  // The manager still plays a stream whole after the storm.
  const uint64_t before = g_pictures.load();
  int32_t handle = open(false);
  ASSERT_EQ(manager.InputData(handle, chunk.data(), int32_t(chunk.size())), 0);
  for (uint32_t start = GetTickCount(); g_pictures.load() < before + 26 && GetTickCount() - start < 20000;) Sleep(1);
  EXPECT_EQ(g_pictures.load(), before + 26);
  EXPECT_EQ(manager.CloseStream(handle), 0);
}

}  // namespace
