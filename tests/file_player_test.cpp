// The file player on hand-built files: opening, delivery, control, time and
// seek. A counting decoder stands in for the codec, so that every test can
// see exactly which frames were decoded and which were shown.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "CountingDecoder.h"
#include "FilePlayer.h"
#include "JPEGDecoder.h"
#include "PictureLog.h"
#include "PlayerManager.h"
#include "TQFBuilder.h"
#include "TempFolder.h"

using namespace tqftest;

namespace {

std::vector<int> Range(int from, int to) {  // from..to inclusive
  std::vector<int> r;
  for (int i = from; i <= to; ++i) r.push_back(i);
  return r;
}

class FilePlayerTest : public ::testing::Test {
 protected:
  void SetUp() override { g_pictures.Reset(); }
  void TearDown() override { EXPECT_TRUE(capture_.Reports().empty()); }  // no broken assertion on any path
  // Writes a file of `count` frames; frame i has stamp 100 + i, payload id i,
  // and the key bit where `key(i)` says. The reader indexes all but the
  // last, so the player sees count - 1 frames.
  std::string WriteFile(int count, bool (*key)(int), Bytes bytes = VideoHeader("XVID", 64, 48)) {
    for (int i = 0; i < count; ++i) {
      Bytes f = Frame(Info(40, key(i) ? KEY : 0, 0), 100 + i, IdPayload(40, uint16_t(i)));
      bytes.insert(bytes.end(), f.begin(), f.end());
    }
    const std::string path = folder_.File(std::to_string(files_++) + ".tqf");
    WriteWholeFile(path, bytes);
    return path;
  }
  // Opens `path` and gives the player a counting decoder (or none).
  int32_t Open(const std::string& path, bool withDecoder = true) {
    int32_t h = -1;
    if (manager_.OpenFile(path.c_str(), &h) != 0) return -1;
    FilePlayer* p = Player(h);
    CLockGuard guard(&p->lock);
    if (withDecoder) {
      p->videoDecoder = decoder_ = new CountingDecoder(p->width, p->height);
    }
    return h;
  }
  FilePlayer* Player(int32_t h) { return static_cast<FilePlayer*>(manager_.Lookup(h)->player); }
  std::vector<int> ShownFrames() {
    std::vector<int> frames;
    for (const Picture& p : g_pictures.Items()) frames.push_back(p.id);
    return frames;
  }
  uint32_t PlayTime(int32_t h) {
    uint32_t s = 12345;
    EXPECT_EQ(manager_.GetPlayTime(h, &s), 0);
    return s;
  }
  bool PlayToTheEnd(int32_t h, uint32_t user = 0) {
    manager_.Play(h, LogPicture, user);
    return WaitUntil([&] { return Player(h)->playing.load() == 0; });
  }

  TempFolder folder_;  // before the manager, which closes every player as it goes
  int files_ = 0;
  PlayerManager manager_;
  DiagnosticsCapture capture_;
  CountingDecoder* decoder_ = nullptr;
};

TEST_F(FilePlayerTest, PlaysFromTheFirstKeyFrameToTheSecondLastFrameAndRewinds) {
  int32_t h = Open(WriteFile(12, [](int i) { return i == 3 || i == 8; }));
  ASSERT_GE(h, 0);
  ASSERT_TRUE(PlayToTheEnd(h, 77));
  EXPECT_EQ(ShownFrames(), Range(3, 10));  // frames 0-2 are walked, not read
  EXPECT_EQ(decoder_->Ids(), Range(3, 10));
  for (const Picture& p : g_pictures.Items())
    EXPECT_TRUE(p.stamp == 100u + p.id && p.user == 77u && p.size == 64 * 48 * 3 / 2 && p.format == 5 && p.rate == 25);
  EXPECT_EQ(PlayTime(h), 0u);
  // A new play starts again from frame 0, with no new wait for a key frame.
  g_pictures.Reset();
  ASSERT_TRUE(PlayToTheEnd(h));
  EXPECT_EQ(ShownFrames(), Range(0, 10));
}

// From inside the callback: a second play only replaces the callback and
// user value; a stop pauses after the frame, and a play goes on from there.
TEST_F(FilePlayerTest, SecondPlayReplacesTheUserValueAndStopThenPlayContinues) {
  int32_t h = Open(WriteFile(40, [](int i) { return i == 0; }));
  g_pictures.onPicture = [&](const Picture& p) {
    if (p.id == 5) manager_.Play(h, LogPicture, 2);
    if (p.id == 9) manager_.Stop(h);
  };
  ASSERT_TRUE(PlayToTheEnd(h, 1));
  EXPECT_EQ(ShownFrames(), Range(0, 9));
  EXPECT_EQ(Player(h)->frameIndex.load(), 10);
  EXPECT_TRUE(g_pictures.Items()[5].user == 1u && g_pictures.Items()[6].user == 2u);
  g_pictures.onPicture = nullptr;
  ASSERT_TRUE(PlayToTheEnd(h));
  EXPECT_EQ(ShownFrames(), Range(0, 38));
}

TEST_F(FilePlayerTest, CloseWaitsForTheCallback) {
  int32_t h = Open(WriteFile(40, [](int i) { return i == 0; }));
  g_pictures.blockMs = 200;
  manager_.Play(h, LogPicture, 0);
  ASSERT_TRUE(WaitUntil([&] { return g_pictures.inCallback.load(); }));
  ASSERT_EQ(manager_.CloseFile(h), 0);
  EXPECT_FALSE(g_pictures.inCallback.load());
}

// The picture size rule is shared with the stream player.
TEST_F(FilePlayerTest, OpeningChecksTheFirstRecord) {
  const uint32_t xvid = FourCC("XVID");
  Bytes desc44 = Descriptor(xvid, 64, 48);
  desc44.resize(44, 0);
  Bytes desc48 = desc44;
  desc48.resize(48, 0);
  const struct {
    const char* name;
    Bytes header;
    bool opens;
  } cases[] = {
      {"40 bytes", VideoHeader("XVID", 64, 48), true},
      {"44 bytes", Header({{xvid, desc44}}), true},
      {"48 bytes", Header({{xvid, desc48}}), false},
      {"257 bytes", Header({{xvid, Bytes(257, 1)}}), false},
      {"width 72", VideoHeader("XVID", 72, 48), false},
      {"height 47", VideoHeader("XVID", 64, 47), false},
      {"width 0", VideoHeader("XVID", 0, 48), false},
      {"no records", Header({}), false},
  };
  for (const auto& c : cases) {
    int32_t h = -1;
    EXPECT_EQ(manager_.OpenFile(WriteFile(3, [](int) { return true; }, c.header).c_str(), &h) == 0, c.opens) << c.name;
  }
  // The codec comes from the record's type, not from the descriptor.
  Bytes header = Header({{FourCC("JPEG"), Descriptor(FourCC("H264"), 64, 48)}});
  int32_t h = Open(WriteFile(3, [](int) { return true; }, header), false);
  ASSERT_GE(h, 0);
  EXPECT_NE(dynamic_cast<JPEGDecoder*>(Player(h)->videoDecoder), nullptr);
}

// 40 ms a frame. The position is (frameIndex * 40) / 1000 in signed 32-bit
// words, the product wrapping as such a word does. Without a decoder a seek
// reads and skips; in a file without frames there is nothing to seek to.
TEST_F(FilePlayerTest, TimesCountFortyMillisecondsAFrameAndSeekWithoutDecoder) {
  int32_t h = -1;
  for (const auto& [frames, seconds] : {std::pair{0, 0u}, {1024, 40u}, {24, 0u}, {25, 1u}, {1000, 40u}}) {
    h = Open(WriteFile(frames + 1, [](int i) { return i % 50 == 0; }), false);
    uint32_t s = 999;
    EXPECT_TRUE(manager_.GetFileTime(h, &s) == 0 && s == seconds) << frames;
    EXPECT_TRUE(manager_.SetPlayTime(h, 5) == 0 && Player(h)->frameIndex.load() == std::min(frames, 126)) << frames;
  }
  for (const auto& [frame, seconds] : {std::pair{60000000, 4293072329u}, {53687091, 2147483u}, {1000, 40u}, {24, 0u}}) {
    Player(h)->frameIndex = frame;
    EXPECT_EQ(PlayTime(h), seconds) << frame;
  }
}

class FileSeek : public FilePlayerTest {
 protected:
  void SetUp() override {
    FilePlayerTest::SetUp();
    h_ = Open(WriteFile(1002, [](int i) { return i % 50 == 0; }));  // 1001 indexed frames
  }
  // Seeks from frame `from` (the next frame to show) and gives the frames decoded.
  std::vector<int> Seek(int32_t from, int32_t seconds) {
    Player(h_)->frameIndex = from;
    decoder_->Forget();
    EXPECT_EQ(manager_.SetPlayTime(h_, seconds), 0);
    return decoder_->Ids();
  }
  int32_t h_ = -1;
};

// Seconds are whole: 16 s is frame 400. A skip forward of under 300 frames
// replays every frame; others decode from the key frame at or before the target.
TEST_F(FileSeek, ShortForwardSkipsReplayEveryFrameOthersStartAtAKeyFrame) {
  EXPECT_EQ(Seek(101, 16), Range(101, 400));
  EXPECT_EQ(Player(h_)->frameIndex.load(), 401);
  EXPECT_EQ(PlayTime(h_), 16u);
  EXPECT_EQ(Seek(100, 16), Range(400, 400));
  EXPECT_EQ(Seek(500, 16), Range(400, 400));  // backward
  EXPECT_EQ(Seek(401, 15), Range(350, 375));
  EXPECT_EQ(Seek(700, 0), Range(0, 0));
  EXPECT_EQ(Seek(700, 1000), Range(1000, 1000));  // clamped to the last frame
  EXPECT_EQ(Player(h_)->frameIndex.load(), 1001);
  EXPECT_TRUE(Seek(25, 1).empty());  // frame 25 is the position: nothing happens
  EXPECT_EQ(manager_.SetPlayTime(h_, -1), -1);
  EXPECT_EQ(manager_.SetPlayTime(h_, 2147484), -1);  // overflows negative
}

TEST_F(FileSeek, SeekWhilePausedThenPlayAndFromInsideTheCallback) {
  g_pictures.onPicture = [&](const Picture& p) {
    if (p.id == 2) manager_.Stop(h_);
  };
  ASSERT_TRUE(PlayToTheEnd(h_));
  ASSERT_EQ(manager_.SetPlayTime(h_, 10), 0);  // frame 250, while paused: nothing is shown
  EXPECT_EQ(ShownFrames(), Range(0, 2));
  g_pictures.Reset();
  g_pictures.onPicture = [&](const Picture& p) {
    if (p.id == 252) manager_.SetPlayTime(h_, 30);  // frame 750, from the callback
  };
  manager_.Play(h_, LogPicture, 0);
  ASSERT_TRUE(WaitUntil([&] { return g_pictures.Count() >= 4; }));
  const std::vector<int> shown = ShownFrames();
  EXPECT_EQ(std::vector<int>(shown.begin(), shown.begin() + 4), (std::vector<int>{251, 252, 751, 752}));
}

}  // namespace
