// The stream player through the player table: opening, the worker's delivery,
// and recording.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "CountingDecoder.h"
#include "OSTime.h"
#include "PictureLog.h"
#include "PlayerManager.h"
#include "StreamPlayer.h"
#include "TQFBuilder.h"
#include "TempFolder.h"

using namespace tqftest;

namespace {

// A video frame of `n` bytes that is not empty.
Bytes Video(uint32_t stamp, bool key, uint32_t n = 50) { return Frame(Info(n, key ? KEY : 0, 0), stamp, Payload(n)); }

size_t Count(DiagnosticsCapture& capture, const std::string& text) {
  const auto lines = capture.Lines();
  return size_t(std::count(lines.begin(), lines.end(), text));
}

class StreamPlayerTest : public ::testing::Test {
 protected:
  void SetUp() override { g_pictures.Reset(); }
  int32_t Open(const Bytes& header) {
    int32_t handle = -99;
    return manager_.OpenStream(header.data(), uint32_t(header.size()), &handle) == 0 ? handle : -1;
  }
  // Opens a 352x288 stream and gives it a counting decoder, before the worker has read anything.
  int32_t OpenCounted(CountingDecoder** decoder) {
    int32_t handle = Open(VideoHeader("XVID", 352, 288));
    Player(handle)->videoDecoder = *decoder = new CountingDecoder(352, 288);
    return handle;
  }
  StreamPlayer* Player(int32_t handle) { return static_cast<StreamPlayer*>(manager_.Lookup(handle)->player); }
  int32_t Feed(int32_t handle, const Bytes& bytes) { return manager_.InputData(handle, bytes.data(), int32_t(bytes.size())); }
  bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

  TempFolder folder_;  // before the manager: recordings close before it goes
  PlayerManager manager_;
};

TEST_F(StreamPlayerTest, HeaderChecksRefuseOrAccept) {
  const Bytes desc = Descriptor(FourCC("XVID"), 352, 288);
  const uint32_t xvid = FourCC("XVID");
  Bytes badMagic = VideoHeader("XVID", 352, 288);
  badMagic[0] = 'X';
  std::vector<Record> sixteen(15, Record{1, {}});
  sixteen.push_back({xvid, desc});
  std::vector<Record> seventeen = sixteen;
  seventeen.push_back({1, {}});
  Bytes shortRecord = Header({{xvid, Bytes(desc.begin(), desc.begin() + 12)}, {2, Bytes(desc.begin() + 12, desc.end())}});

  const struct {
    const char* name;
    Bytes header;
    bool opens;
  } cases[] = {
      {"good", VideoHeader("XVID", 352, 288), true},
      {"bad magic", badMagic, false},
      {"length one over", Header({{xvid, desc}}, -1, 1), false},
      {"length one under", Header({{xvid, desc}}, -1, -1), false},
      {"count 0", Header({{xvid, desc}}, 0), false},
      {"count 16", Header(sixteen), true},
      {"count 17", Header(seventeen), false},
      {"record of 65536", Header({{1, Bytes(65536, 0)}, {xvid, desc}}), true},
      {"record of 65537", Header({{1, Bytes(65537, 0)}, {xvid, desc}}), false},
      {"count past the records", Header({{7, Bytes(10, 1)}}, 2), false},
      // The walk ends at the first FourCC record: a count past it is not seen.
      {"count past the descriptor", Header({{xvid, desc}}, 2), true},
      {"width 704", VideoHeader("XVID", 704, 576), true},
      {"FourCC record second", Header({{7, Bytes(10, 1)}, {xvid, desc}}), true},
      // A short descriptor record reads on into the next record's head and payload.
      {"short FourCC record", shortRecord, true},
      {"no FourCC record", Header({{7, Bytes(10, 1)}}), true},
  };
  for (const auto& c : cases) EXPECT_EQ(Open(c.header) >= 0, c.opens) << c.name;
}

// Without a decoder (XVID has none) or without a callback the queues still drain.
TEST_F(StreamPlayerTest, WithoutDecoderOrCallbackFramesStillDrain) {
  int32_t bare = Open(VideoHeader("XVID", 352, 288));
  ASSERT_EQ(Player(bare)->videoDecoder, nullptr);
  CountingDecoder* decoder;
  int32_t h = OpenCounted(&decoder);
  manager_.Play(bare, LogPicture, 1);
  manager_.Play(h, nullptr, 0);
  for (int i = 0; i < 40; ++i) {
    Feed(bare, Frame(Info(500, i == 0 ? KEY : 0, i % 2), i, Payload(500)));
    Feed(h, Video(i, true, 64));
  }
  EXPECT_TRUE(WaitUntil([&] { return decoder->decodes.load() == 40; }));
  EXPECT_TRUE(WaitUntil([&] { return Player(bare)->videoQueue.GetBufferCount() + Player(bare)->audioQueue.GetBufferCount() == 0; }));
  EXPECT_EQ(g_pictures.Count(), 0u);
}

// Frames are delivered in order with their arguments, the queued ones also
// after a stop; input while not playing is dropped unseen.
TEST_F(StreamPlayerTest, QueuedFramesAreStillDeliveredAfterStopAndInputIsDropped) {
  CountingDecoder* decoder;
  int32_t h = OpenCounted(&decoder);
  EXPECT_EQ(Feed(h, Video(1, true)), 0);  // not playing yet: dropped
  manager_.Play(h, LogPicture, 0xABCD);
  EXPECT_EQ(manager_.InputData(h, nullptr, -1), -1);
  g_pictures.blockMs = 20;
  for (int i = 0; i < 10; ++i) Feed(h, Frame(Info(64, KEY, 0), 10 + i, IdPayload(64, uint16_t(i))));
  ASSERT_EQ(manager_.Stop(h), 0);
  ASSERT_TRUE(WaitUntil([&] { return g_pictures.Count() == 10; }));
  const std::vector<Picture> items = g_pictures.Items();
  for (int i = 0; i < 10; ++i)
    EXPECT_TRUE(items[i].id == i && items[i].stamp == 10u + i && items[i].handle == h && items[i].user == 0xABCDu) << i;
  const Picture& d = items[9];
  EXPECT_TRUE(d.size == 352 * 288 * 3 / 2 && d.width == 352 && d.height == 288 && d.format == 5 && d.rate == 25);
  EXPECT_EQ(Feed(h, Video(99, true, 64)), 0);  // dropped
  EXPECT_EQ(manager_.InputData(h, nullptr, -1), 0);  // not even looked at
  EXPECT_TRUE(WaitUntil([&] { return Player(h)->videoQueue.GetBufferCount() == 0; }));
  EXPECT_EQ(g_pictures.Count(), 10u);
}

// The teardown of a manager takes each player out of the table before
// destroying it, so a callback still running on a later stream's worker
// finds an earlier handle gone.
TEST(StreamTeardown, CallbackDuringTeardownFindsEarlierHandlesGone) {
  g_pictures.Reset();
  PlayerManager* manager = new PlayerManager;
  const Bytes header = VideoHeader("XVID", 352, 288);
  int32_t first = -1, second = -1;
  ASSERT_EQ(manager->OpenStream(header.data(), uint32_t(header.size()), &first), 0);
  ASSERT_EQ(manager->OpenStream(header.data(), uint32_t(header.size()), &second), 0);
  static_cast<StreamPlayer*>(manager->Lookup(second)->player)->videoDecoder = new CountingDecoder(352, 288);
  std::atomic<int32_t> stopResult{0};
  g_pictures.onPicture = [&](const Picture&) {
    for (uint32_t start = GetTickCount(); GetTickCount() - start < 5000; Sleep(1))
      if ((stopResult = manager->Stop(first)) == -1) return;
  };
  ASSERT_EQ(manager->Play(second, LogPicture, 0), 0);
  const Bytes frame = Video(1, true, 64);
  ASSERT_EQ(manager->InputData(second, frame.data(), int32_t(frame.size())), 0);
  ASSERT_TRUE(WaitUntil([&] { return g_pictures.inCallback.load(); }));
  delete manager;
  EXPECT_EQ(stopResult.load(), -1);
  g_pictures.Reset();
}

// A callback that blocks while a burst arrives: the live queue takes each new
// frame by evicting the oldest; when the oldest is held by a reader it
// cannot, and the new frame is refused with a debug line. The recording
// loses none of them, and the stream goes on once the block is let go.
TEST_F(StreamPlayerTest, BlockedCallbackLosesTheOldestFramesButNotTheRecording) {
  CountingDecoder* decoder;
  int32_t h = OpenCounted(&decoder);
  DiagnosticsCapture capture;
  std::atomic<bool> release{false};
  g_pictures.onPicture = [&](const Picture&) {
    while (!release.load()) Sleep(1);
  };
  ASSERT_EQ(manager_.Play(h, LogPicture, 0), 0);
  const std::string path = folder_.File("burst.tqf");
  ASSERT_EQ(manager_.StartRecord(h, path.c_str()), 0);
  Bytes recorded = VideoHeader("XVID", 352, 288);
  auto feed = [&](int i) {
    const Bytes f = Frame(Info(65536, i % 25 == 0 ? KEY : 0, 0), i, IdPayload(65536, uint16_t(i)));
    recorded.insert(recorded.end(), f.begin(), f.end());
    ASSERT_EQ(Feed(h, f), 0);
    if (i % 50 == 49) {  // a disk that keeps up
      ASSERT_TRUE(WaitUntil([&] { return Player(h)->recordQueue.GetBufferCount() == 0; }));
    }
  };
  constexpr int FRAMES = 1000;  // 64 MiB against a queue of 32
  for (int i = 0; i < FRAMES; ++i) feed(i);
  EXPECT_EQ(Count(capture, "vBuf is full!\n"), 0u);
  VBufferQueue& queue = Player(h)->videoQueue;
  int32_t size = 0;
  uint8_t* held = queue.GetBuffer(nullptr, &size, nullptr);
  ASSERT_NE(held, nullptr);
  const int32_t queued = queue.GetBufferCount();
  for (int i = FRAMES; i < FRAMES + 5; ++i) feed(i);
  EXPECT_EQ(queue.GetBufferCount(), queued);
  EXPECT_EQ(Count(capture, "vBuf is full!\n"), 5u);
  ASSERT_EQ(queue.ReleaseBuffer(held, 0), 1);
  release = true;
  feed(FRAMES + 5);
  ASSERT_TRUE(WaitUntil([&] { return !g_pictures.Items().empty() && g_pictures.Items().back().id == FRAMES + 5; }));
  const std::vector<Picture> shown = g_pictures.Items();
  EXPECT_LT(shown.size(), size_t(FRAMES));
  for (size_t i = 1; i < shown.size(); ++i) EXPECT_LT(shown[i - 1].id, shown[i].id);
  ASSERT_EQ(manager_.StopRecord(h), 0);
  EXPECT_TRUE(ReadWholeFile(path) == recorded);
  g_pictures.Reset();
}

class StreamRecording : public StreamPlayerTest {
 protected:
  void SetUp() override {
    StreamPlayerTest::SetUp();
    h_ = OpenCounted(&decoder_);
    manager_.Play(h_, LogPicture, 0);
  }
  // Feeds one frame and waits until the worker and the recorder are done with it.
  void FeedAndDrain(const Bytes& frame) {
    const int before = decoder_->decodes.load();
    Feed(h_, frame);
    ASSERT_TRUE(WaitUntil([&] { return decoder_->decodes.load() == before + 1; }));
    ASSERT_TRUE(WaitUntil([&] { return Player(h_)->recordQueue.GetBufferCount() == 0; }));
  }
  void TearDown() override { manager_.CloseStream(h_); }

  int32_t h_ = -1;
  CountingDecoder* decoder_ = nullptr;
  const Bytes header_ = VideoHeader("XVID", 352, 288);
};

TEST_F(StreamRecording, FileHoldsTheHeaderAndTheFramesFromTheFirstKeyFrame) {
  const std::string path = folder_.File("a");
  FeedAndDrain(Video(10, true, 100));  // before the recording
  ASSERT_EQ(manager_.StartRecord(h_, path.c_str()), 0);
  EXPECT_FALSE(Exists(path));  // the worker creates it at the next video frame
  FeedAndDrain(Frame(Info(100, 0x0F0, 0), 11, Payload(100, 2)));  // not key: header only
  EXPECT_TRUE(Exists(path));
  const Bytes f2 = Frame(Info(120, KEY | 0xE00, 0), 12, Payload(120, 3));
  FeedAndDrain(f2);
  Bytes zeroTail = Payload(100, 4), oneByte = Payload(90, 5);
  std::fill(zeroTail.end() - 8, zeroTail.end(), 0);
  std::fill(oneByte.end() - 8, oneByte.end(), 0);
  oneByte[85] = 1;  // a single non-zero byte among the last eight
  const Bytes f3 = Frame(Info(100, 0, 0), 13, zeroTail), f4 = Frame(Info(90, 0, 0), 14, oneByte);
  Feed(h_, f3);  // an empty frame: recorded, not decoded
  FeedAndDrain(f4);
  ASSERT_EQ(manager_.StopRecord(h_), 0);
  EXPECT_EQ(ReadWholeFile(path), Concat({header_, f2, f3, f4}));
  ASSERT_TRUE(WaitUntil([&] { return g_pictures.Count() == 4; }));
  EXPECT_EQ(g_pictures.Items()[3].stamp, 14u);
  EXPECT_EQ(decoder_->decodes.load(), 4);
}

// The same path again goes on in the same file; another path closes the
// first at once and starts at the next key frame.
TEST_F(StreamRecording, SamePathGoesOnAndAnotherPathStartsAtTheNextKeyFrame) {
  const std::string first = folder_.File("first"), second = folder_.File("second");
  const Bytes f1 = Video(1, true), f2 = Video(2, false), f3 = Video(3, false), f4 = Video(4, true);
  manager_.StartRecord(h_, first.c_str());
  FeedAndDrain(f1);
  manager_.StartRecord(h_, first.c_str());
  FeedAndDrain(f2);
  manager_.StartRecord(h_, second.c_str());
  EXPECT_EQ(ReadWholeFile(first), Concat({header_, f1, f2}));
  FeedAndDrain(f3);
  FeedAndDrain(f4);
  manager_.StopRecord(h_);
  EXPECT_EQ(ReadWholeFile(second), Concat({header_, f4}));
}

// A stopped player ignores both: no file is started, and none is stopped.
TEST_F(StreamRecording, NotPlayingIgnoresStartAndStop) {
  const std::string never = folder_.File("never"), kept = folder_.File("kept");
  manager_.Stop(h_);
  EXPECT_EQ(manager_.StartRecord(h_, never.c_str()), 0);
  manager_.Play(h_, LogPicture, 0);
  FeedAndDrain(Video(1, true));
  EXPECT_FALSE(Exists(never));
  manager_.StartRecord(h_, kept.c_str());
  manager_.Stop(h_);
  EXPECT_EQ(manager_.StopRecord(h_), 0);
  manager_.Play(h_, LogPicture, 0);
  const Bytes f = Video(2, true);
  FeedAndDrain(f);
  EXPECT_EQ(ReadWholeFile(kept), Concat({header_, f}));
}

// A device that fails its writes: each lost frame is told in a debug line.
// A path that cannot be created is tried again at every video frame. Closing
// the stream ends the recording's file.
TEST_F(StreamRecording, FailedWritesAreToldAndAPathThatCannotBeCreatedIsRetried) {
  DiagnosticsCapture capture;
  manager_.StartRecord(h_, "/dev/full");
  for (int i = 0; i < 3; ++i) FeedAndDrain(Video(i, true));
  const std::string folder = folder_.File("later"), path = folder + "/rec.tqf";
  manager_.StartRecord(h_, path.c_str());
  EXPECT_EQ(Count(capture, "TQF record write failed.\n"), 3u);
  FeedAndDrain(Video(3, true));
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ(g_pictures.Count(), 4u);  // the stream goes on
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  const Bytes f = Video(4, true);
  FeedAndDrain(f);
  ASSERT_EQ(manager_.CloseStream(h_), 0);
  EXPECT_EQ(ReadWholeFile(path), Concat({header_, f}));
}

}  // namespace
