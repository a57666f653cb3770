// The file player on hand-built files: opening, delivery, control, time and
// seek. A counting decoder stands in for the codec, so that every test can
// see exactly which frames were decoded and which were shown.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "CountingDecoder.h"
#include "FilePlayer.h"
#include "JPEGDecoder.h"
#include "PictureLog.h"
#include "PlayerManager.h"
#include "TQFBuilder.h"

using namespace tqftest;

namespace {

class FilePlayerTest : public ::testing::Test {
 protected:
  void SetUp() override { g_pictures.Reset(); }
  void TearDown() override {
    for (int32_t h : handles_) manager_.CloseFile(h);
    for (const auto& p : paths_) std::remove(p.c_str());
    EXPECT_TRUE(capture_.Reports().empty());  // no broken assertion on any path
  }
  // How often the file player's end line was written.
  size_t Ends() {
    size_t n = 0;
    for (const std::string& line : capture_.Lines()) n += line == "PostMessage(): wnd=0, msg=0";
    return n;
  }

  // Writes a file of `count` frames; frame i has stamp 100 + i, payload id i,
  // and the key bit where `key(i)` says. The reader
  // indexes all but the last, so the player sees count - 1 frames.
  template <class KeyRule>
  std::string WriteFile(int count, KeyRule key, const Bytes& header = VideoHeader("XVID", 64, 48)) {
    Bytes bytes = header;
    for (int i = 0; i < count; ++i) {
      Bytes f = Frame(Info(40, key(i) ? KEY : 0, 0), 100 + i, IdPayload(40, static_cast<uint16_t>(i)));
      bytes.insert(bytes.end(), f.begin(), f.end());
    }
    std::string path = ::testing::TempDir() + "fileplayer_" + std::to_string(getpid()) + "_" +
                       std::to_string(paths_.size()) + ".tqf";
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                static_cast<std::streamsize>(bytes.size()));
    paths_.push_back(path);
    return path;
  }
  // Opens `path` and gives the player a counting decoder (null: none).
  int32_t Open(const std::string& path, bool withDecoder = true) {
    int32_t h = -1;
    if (manager_.OpenFile(path.c_str(), &h) != 0) return -1;
    handles_.push_back(h);
    FilePlayer* p = Player(h);
    CLockGuard guard(&p->lock);
    if (withDecoder) {
      decoder_ = new CountingDecoder;
      decoder_->Open(p->width, p->height);
      p->videoDecoder = decoder_;
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
  bool Playing(int32_t h) { return Player(h)->playing.load() != 0; }
  static std::vector<int> Range(int from, int to) {  // from..to inclusive
    std::vector<int> r;
    for (int i = from; i <= to; ++i) r.push_back(i);
    return r;
  }
  std::vector<int> DecodedFrames() { return decoder_->Ids(); }

  PlayerManager manager_;
  DiagnosticsCapture capture_;
  CountingDecoder* decoder_ = nullptr;
  std::vector<std::string> paths_;
  std::vector<int32_t> handles_;
};

TEST_F(FilePlayerTest, PlaysFromTheFirstKeyFrameToTheSecondLastFrameAndRewinds) {
  int32_t h = Open(WriteFile(12, [](int i) { return i == 3 || i == 8; }));
  ASSERT_GE(h, 0);
  ASSERT_EQ(manager_.Play(h, LogPicture, 77), 0);
  ASSERT_TRUE(WaitUntil([&] { return !Playing(h); }));
  EXPECT_EQ(ShownFrames(), Range(3, 10));  // frames 0-2 are walked, not read
  EXPECT_EQ(DecodedFrames(), Range(3, 10));
  const auto items = g_pictures.Items();
  for (const Picture& p : items) {
    EXPECT_EQ(p.stamp, 100u + p.id);
    EXPECT_EQ(p.user, 77u);
    EXPECT_EQ(p.size, 64 * 48 * 3 / 2);
    EXPECT_EQ(p.format, 5);
    EXPECT_EQ(p.rate, 25);
  }
  EXPECT_EQ(Ends(), 1u);
  EXPECT_EQ(PlayTime(h), 0u);

  // A new play starts again from frame 0, with no new wait for a key frame.
  g_pictures.Reset();
  manager_.Play(h, LogPicture, 0);
  ASSERT_TRUE(WaitUntil([&] { return !Playing(h); }));
  EXPECT_EQ(ShownFrames(), Range(0, 10));
  EXPECT_EQ(Ends(), 2u);
}

TEST_F(FilePlayerTest, FileWithoutKeyFramesPlaysNothingAndNeverEnds) {
  int32_t h = Open(WriteFile(5, [](int) { return false; }));
  manager_.Play(h, LogPicture, 0);
  ASSERT_TRUE(WaitUntil([&] { return Player(h)->frameIndex.load() > 100; }));
  EXPECT_TRUE(Playing(h));
  EXPECT_EQ(g_pictures.Count(), 0u);
  EXPECT_EQ(decoder_->decodes.load(), 0);
  EXPECT_EQ(Ends(), 0u);
}

TEST_F(FilePlayerTest, SingleIndexedFrameIsDeliveredThenTheFileEnds) {
  int32_t h = Open(WriteFile(2, [](int) { return true; }));
  manager_.Play(h, LogPicture, 0);
  ASSERT_TRUE(WaitUntil([&] { return !Playing(h); }));
  EXPECT_EQ(ShownFrames(), Range(0, 0));
  EXPECT_EQ(Ends(), 1u);
}

TEST_F(FilePlayerTest, WithoutCallbackItDecodesToTheEndAndStops) {
  int32_t h = Open(WriteFile(30, [](int i) { return i % 10 == 0; }));
  manager_.Play(h, nullptr, 0);
  ASSERT_TRUE(WaitUntil([&] { return !Playing(h); }));
  EXPECT_EQ(DecodedFrames(), Range(0, 28));
}

TEST_F(FilePlayerTest, StopThenPlayContinuesWithTheNextFrame) {
  int32_t h = Open(WriteFile(40, [](int i) { return i == 0; }));
  g_pictures.onPicture = [&](const Picture& p) {
    if (p.id == 9) manager_.Stop(h);  // from inside the callback
  };
  manager_.Play(h, LogPicture, 0);
  ASSERT_TRUE(WaitUntil([&] { return !Playing(h); }));
  EXPECT_EQ(ShownFrames(), Range(0, 9));  // the pass finished; the next one idled
  EXPECT_EQ(Player(h)->frameIndex.load(), 10);
  g_pictures.onPicture = nullptr;
  manager_.Play(h, LogPicture, 0);
  ASSERT_TRUE(WaitUntil([&] { return !Playing(h); }));
  EXPECT_EQ(ShownFrames(), Range(0, 38));
}

TEST_F(FilePlayerTest, SecondPlayOnlyReplacesTheCallbackAndUserValue) {
  int32_t h = Open(WriteFile(40, [](int i) { return i == 0; }));
  g_pictures.onPicture = [&](const Picture& p) {
    if (p.id == 5) manager_.Play(h, LogPicture, 2);
  };
  manager_.Play(h, LogPicture, 1);
  ASSERT_TRUE(WaitUntil([&] { return !Playing(h); }));
  const auto items = g_pictures.Items();
  ASSERT_EQ(ShownFrames(), Range(0, 38));  // no jump
  EXPECT_EQ(items[5].user, 1u);
  EXPECT_EQ(items[6].user, 2u);
}

TEST_F(FilePlayerTest, CloseWaitsForTheCallbackAndEndsAPausedPlayer) {
  int32_t h = Open(WriteFile(40, [](int i) { return i == 0; }));
  g_pictures.blockMs = 200;
  manager_.Play(h, LogPicture, 0);
  ASSERT_TRUE(WaitUntil([&] { return g_pictures.inCallback.load(); }));
  ASSERT_EQ(manager_.CloseFile(h), 0);
  EXPECT_FALSE(g_pictures.inCallback.load());
  handles_.clear();
  int32_t paused = Open(WriteFile(10, [](int) { return true; }));
  EXPECT_EQ(manager_.CloseFile(paused), 0);
  handles_.clear();
}

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
      {"no records", Header({}), false},
  };
  for (const auto& c : cases) {
    int32_t h = -1;
    const std::string path = WriteFile(3, [](int) { return true; }, c.header);
    EXPECT_EQ(manager_.OpenFile(path.c_str(), &h) == 0, c.opens) << c.name;
    if (c.opens) {
      EXPECT_EQ(manager_.CloseFile(h), 0);
    }
  }
  int32_t h = 123;
  EXPECT_EQ(manager_.OpenFile(nullptr, &h), -1);
  EXPECT_EQ(h, 123);
  EXPECT_EQ(manager_.OpenFile(WriteFile(3, [](int) { return true; }).c_str(), &h), 0);
  EXPECT_EQ(h, static_cast<int32_t>(std::size(cases)) + 1);  // every refusal took a number
  EXPECT_EQ(manager_.CloseFile(h), 0);
}

TEST_F(FilePlayerTest, RecordTypeChoosesTheDecoderNotTheDescriptor) {
  Bytes header = Header({{FourCC("JPEG"), Descriptor(FourCC("H264"), 64, 48)}});
  int32_t h = Open(WriteFile(3, [](int) { return true; }, header), false);
  ASSERT_GE(h, 0);
  EXPECT_NE(dynamic_cast<JPEGDecoder*>(Player(h)->videoDecoder), nullptr);
}

TEST_F(FilePlayerTest, FileTimeCountsFortyMillisecondsAFrame) {
  for (const auto& [frames, seconds] : {std::pair{1000, 40u}, {1024, 40u}, {24, 0u}, {25, 1u}}) {
    int32_t h = Open(WriteFile(frames + 1, [](int) { return true; }), false);
    uint32_t s = 999;
    EXPECT_EQ(manager_.GetFileTime(h, &s), 0);
    EXPECT_EQ(s, seconds) << frames;
    EXPECT_EQ(manager_.GetFileTime(h, nullptr), 0);
  }
}

// The position is (frameIndex * 40) / 1000 in signed 32-bit words, the
// product wrapping as such a word does.
TEST_F(FilePlayerTest, PlayTimeWrapsAsThirtyTwoBitArithmetic) {
  int32_t h = Open(WriteFile(3, [](int) { return true; }), false);
  for (const auto& [frame, seconds] : {std::pair{60000000, 4293072329u}, {53687091, 2147483u},
                                       {1000, 40u}, {24, 0u}}) {
    Player(h)->frameIndex = frame;
    EXPECT_EQ(PlayTime(h), seconds) << frame;
  }
}

// A 3 GiB file whose frames lie past 2 GiB plays and seeks; cut short by
// another process while it plays, it ends as at a failed read, without
// SIGBUS, and a seek into what is gone does no harm.
TEST_F(FilePlayerTest, LargeFilePlaysAndSeeksAndACutEndsIt) {
  const std::string small = WriteFile(101, [](int i) { return i % 25 == 0; });
  std::ifstream in(small, std::ios::binary);
  const Bytes bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t headerSize = VideoHeader("XVID", 64, 48).size();
  const std::string path = small + ".large";
  paths_.push_back(path);
  {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(headerSize));
    out.seekp(std::streamoff(3) << 30);  // past 2 GiB, a hole of zeros behind
    out.write(reinterpret_cast<const char*>(bytes.data() + headerSize),
              std::streamsize(bytes.size() - headerSize));
  }
  int32_t h = Open(path);
  ASSERT_GE(h, 0);
  ASSERT_EQ(manager_.SetPlayTime(h, 2), 0);  // frame 50, a short skip: replayed from 0
  EXPECT_EQ(DecodedFrames(), Range(0, 50));
  g_pictures.blockMs = 20;
  ASSERT_EQ(manager_.Play(h, LogPicture, 0), 0);
  ASSERT_TRUE(WaitUntil([&] { return g_pictures.Count() >= 3; }));
  EXPECT_EQ(g_pictures.Items()[0].id, 75);  // the first key frame the passes meet
  ASSERT_EQ(truncate(path.c_str(), 4096), 0);
  ASSERT_TRUE(WaitUntil([&] { return !Playing(h); }));
  EXPECT_LT(g_pictures.Count(), 49u);
  EXPECT_EQ(manager_.SetPlayTime(h, 3), 0);
}

class FileSeek : public FilePlayerTest {
 protected:
  void SetUp() override {
    FilePlayerTest::SetUp();
    // 1001 indexed frames, a key frame every 50.
    h_ = Open(WriteFile(1002, [](int i) { return i % 50 == 0; }));
  }
  int32_t Seek(int32_t seconds) {
    decoder_->Forget();
    return manager_.SetPlayTime(h_, seconds);
  }
  int32_t h_ = -1;
};

TEST_F(FileSeek, OneSecondIsFrame25AndTheNextPassTakes26) {
  ASSERT_EQ(Seek(1), 0);
  EXPECT_EQ(Player(h_)->frameIndex.load(), 26);
  EXPECT_EQ(PlayTime(h_), 1u);
  EXPECT_EQ(DecodedFrames(), Range(0, 25));  // from the key frame at 0, silently
  EXPECT_EQ(g_pictures.Count(), 0u);
  // This player never met a key frame: the walk to the next one stays in
  // force, although the decoder was fed up to frame 25.
  manager_.Play(h_, LogPicture, 0);
  ASSERT_TRUE(WaitUntil([&] { return g_pictures.Count() >= 1; }));
  EXPECT_EQ(g_pictures.Items()[0].id, 50);
}

TEST_F(FileSeek, ShortForwardSkipsReplayEveryFrameAndLongOnesStartAtAKeyFrame) {
  Player(h_)->frameIndex = 101;  // as if frame 100 had just been shown
  // 299 frames ahead (seconds are whole: frame 400 is 16 s): replay 101..400.
  ASSERT_EQ(Seek(16), 0);
  EXPECT_EQ(DecodedFrames(), Range(101, 400));
  Player(h_)->frameIndex = 100;
  // 300 frames ahead: from the key frame at or before 400.
  ASSERT_EQ(Seek(16), 0);
  EXPECT_EQ(DecodedFrames(), Range(400, 400));
  Player(h_)->frameIndex = 500;
  ASSERT_EQ(Seek(16), 0);  // backward: from key frame 400
  EXPECT_EQ(DecodedFrames(), Range(400, 400));
  ASSERT_EQ(Seek(15), 0);  // frame 375, backward from 401: key frame 350
  EXPECT_EQ(DecodedFrames(), Range(350, 375));
}

TEST_F(FileSeek, FrameZeroPastTheEndNoOpAndNegative) {
  Player(h_)->frameIndex = 700;
  ASSERT_EQ(Seek(0), 0);
  EXPECT_EQ(DecodedFrames(), Range(0, 0));
  EXPECT_EQ(Player(h_)->frameIndex.load(), 1);
  ASSERT_EQ(Seek(1000), 0);  // clamped to the last frame, 1000
  EXPECT_EQ(DecodedFrames(), Range(1000, 1000));
  EXPECT_EQ(Player(h_)->frameIndex.load(), 1001);
  Player(h_)->frameIndex = 25;
  ASSERT_EQ(Seek(1), 0);  // frame 25 equals frameIndex: nothing happens
  EXPECT_TRUE(DecodedFrames().empty());
  EXPECT_EQ(manager_.SetPlayTime(h_, -1), -1);
  EXPECT_EQ(manager_.SetPlayTime(h_, 2147484), -1);  // overflows negative
  EXPECT_EQ(manager_.SetPlayTime(h_ + 100, 1), -1);
}

TEST_F(FileSeek, SeekWhilePausedThenPlayAndFromInsideTheCallback) {
  g_pictures.onPicture = [&](const Picture& p) {
    if (p.id == 2) manager_.Stop(h_);
  };
  manager_.Play(h_, LogPicture, 0);
  ASSERT_TRUE(WaitUntil([&] { return !Playing(h_); }));
  ASSERT_EQ(Seek(10), 0);  // frame 250, while paused: nothing is shown
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

TEST_F(FilePlayerTest, SeekInAFileWithoutFramesOrWithoutDecoder) {
  int32_t empty = Open(WriteFile(1, [](int) { return true; }));  // nothing indexed
  ASSERT_GE(empty, 0);
  EXPECT_EQ(manager_.SetPlayTime(empty, 3), 0);
  EXPECT_EQ(Player(empty)->frameIndex.load(), 0);
  int32_t bare = Open(WriteFile(200, [](int i) { return i % 50 == 0; }), false);
  ASSERT_GE(bare, 0);
  EXPECT_EQ(Player(bare)->videoDecoder, nullptr);
  EXPECT_EQ(manager_.SetPlayTime(bare, 5), 0);  // reads and skips, no fault
  EXPECT_EQ(Player(bare)->frameIndex.load(), 126);
}

}  // namespace
