// The stream player through the player table: opening, the worker's delivery,
// and recording.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <string>
#include <vector>

#include "CountingDecoder.h"
#include "OSTime.h"
#include "PictureLog.h"
#include "PlayerManager.h"
#include "StreamPlayer.h"
#include "TQFBuilder.h"
#include "TQFReader.h"
#include "TempFolder.h"

using namespace tqftest;

namespace {

class StreamPlayerTest : public ::testing::Test {
 protected:
  void SetUp() override { g_pictures.Reset(); }
  int32_t Open(const Bytes& header) {
    int32_t handle = -99;
    return manager_.OpenStream(header.data(), static_cast<uint32_t>(header.size()), &handle) == 0
               ? handle
               : -1;
  }
  // Opens a 352x288 stream and gives it a counting decoder.
  int32_t OpenCounted(CountingDecoder** decoder) {
    int32_t handle = Open(VideoHeader("XVID", 352, 288));
    StreamPlayer* player = Player(handle);
    *decoder = new CountingDecoder;
    (*decoder)->Open(352, 288);
    player->videoDecoder = *decoder;  // before any frame: the worker has read nothing yet
    return handle;
  }
  StreamPlayer* Player(int32_t handle) {
    PlayerHolder* holder = manager_.Lookup(handle);
    return holder ? static_cast<StreamPlayer*>(holder->player) : nullptr;
  }
  int32_t Feed(int32_t handle, const Bytes& bytes) {
    return manager_.InputData(handle, bytes.data(), static_cast<int32_t>(bytes.size()));
  }
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
      {"width 360", VideoHeader("XVID", 360, 288), false},
      {"width 700", VideoHeader("XVID", 700, 288), false},
      {"width 704", VideoHeader("XVID", 704, 576), true},
      {"height 289", VideoHeader("XVID", 352, 289), false},
      {"width 0", VideoHeader("XVID", 0, 288), false},
      {"FourCC record second", Header({{7, Bytes(10, 1)}, {xvid, desc}}), true},
      {"short FourCC record", shortRecord, true},
      {"no FourCC record", Header({{7, Bytes(10, 1)}}), true},
  };
  for (const auto& c : cases) EXPECT_EQ(Open(c.header) >= 0, c.opens) << c.name;
}

TEST_F(StreamPlayerTest, ShortDescriptorRecordReadsOnIntoTheNextRecord) {
  const Bytes desc = Descriptor(FourCC("XVID"), 352, 288);
  int32_t h = Open(Header({{FourCC("XVID"), Bytes(desc.begin(), desc.begin() + 12)},
                           {2, Bytes(desc.begin() + 12, desc.end())}}));
  ASSERT_GE(h, 0);
  EXPECT_EQ(Player(h)->width, 352);
  EXPECT_EQ(Player(h)->height, 288);
  // 12 bytes of the record, the next record's 8-byte head, then its payload.
  EXPECT_EQ(memcmp(Player(h)->descriptor, desc.data(), 12), 0);
}

TEST_F(StreamPlayerTest, UnknownFourCCOpensQueuesAndDrainsWithoutCallingBack) {
  int32_t h = Open(VideoHeader("XVID", 352, 288));
  ASSERT_GE(h, 0);
  EXPECT_EQ(Player(h)->videoDecoder, nullptr);
  ASSERT_EQ(manager_.Play(h, LogPicture, 1), 0);
  for (int i = 0; i < 50; ++i) Feed(h, Frame(Info(500, i == 0 ? KEY : 0, i % 2), i, Payload(500)));
  EXPECT_TRUE(WaitUntil([&] {
    return Player(h)->videoQueue.GetBufferCount() == 0 && Player(h)->audioQueue.GetBufferCount() == 0;
  }));
  EXPECT_EQ(g_pictures.Count(), 0u);
}

TEST_F(StreamPlayerTest, InputWhileNotPlayingIsDroppedUnseen) {
  CountingDecoder* decoder;
  int32_t h = OpenCounted(&decoder);
  const Bytes frame = Frame(Info(100, KEY, 0), 1, Payload(100));
  EXPECT_EQ(Feed(h, frame), 0);
  EXPECT_EQ(manager_.InputData(h, nullptr, -1), 0);  // not playing: not even looked at
  manager_.Play(h, LogPicture, 0);
  EXPECT_EQ(manager_.InputData(h, nullptr, -1), -1);
  EXPECT_EQ(Player(h)->parseLength, 0);
  Feed(h, Frame(Info(10, KEY, 0), 2, Payload(10)));
  ASSERT_TRUE(WaitUntil([&] { return g_pictures.Count() == 1; }));
  EXPECT_EQ(g_pictures.Items()[0].stamp, 2u);
}

TEST_F(StreamPlayerTest, EveryFrameIsDeliveredInOrderWithItsArguments) {
  CountingDecoder* decoder;
  int32_t h = OpenCounted(&decoder);
  ASSERT_EQ(manager_.Play(h, LogPicture, 0xABCD), 0);
  Bytes stream;
  for (uint32_t i = 0; i < 300; ++i) {
    Bytes f = Frame(Info(200 + i, i % 25 == 0 ? KEY : 0, 0), 1000 + i, IdPayload(200 + i, static_cast<uint16_t>(i)));
    stream.insert(stream.end(), f.begin(), f.end());
  }
  std::mt19937 random(7);
  for (size_t at = 0; at < stream.size();) {
    size_t n = std::min<size_t>(stream.size() - at, 1 + random() % 3000);
    ASSERT_EQ(manager_.InputData(h, stream.data() + at, static_cast<int32_t>(n)), 0);
    at += n;
  }
  ASSERT_TRUE(WaitUntil([&] { return g_pictures.Count() == 300; }));
  const std::vector<Picture> items = g_pictures.Items();
  for (uint32_t i = 0; i < 300; ++i) {
    const Picture& d = items[i];
    EXPECT_EQ(d.stamp, 1000 + i);
    EXPECT_EQ(d.id, static_cast<int>(i));
    EXPECT_EQ(d.handle, h);
    EXPECT_EQ(d.size, 352 * 288 * 3 / 2);
    EXPECT_EQ(d.width, 352);
    EXPECT_EQ(d.height, 288);
    EXPECT_EQ(d.format, 5);
    EXPECT_EQ(d.rate, 25);
    EXPECT_EQ(d.user, 0xABCDu);
  }
}

TEST_F(StreamPlayerTest, ZeroTailedFramesAreNotDecoded) {
  CountingDecoder* decoder;
  int32_t h = OpenCounted(&decoder);
  manager_.Play(h, LogPicture, 0);
  Bytes zeroTail = Payload(100);
  std::fill(zeroTail.end() - 8, zeroTail.end(), 0);
  Bytes oneByte = zeroTail;
  oneByte[95] = 1;  // a single non-zero byte among the last eight
  Feed(h, Frame(Info(100, KEY, 0), 1, zeroTail));
  Feed(h, Frame(Info(100, 0, 0), 2, oneByte));
  ASSERT_TRUE(WaitUntil([&] { return g_pictures.Count() == 1; }));
  EXPECT_TRUE(WaitUntil([&] { return Player(h)->videoQueue.GetBufferCount() == 0; }));
  EXPECT_EQ(decoder->decodes.load(), 1);
  EXPECT_EQ(g_pictures.Items()[0].stamp, 2u);
}

TEST_F(StreamPlayerTest, NoCallbackStillDecodesAndDrains) {
  CountingDecoder* decoder;
  int32_t h = OpenCounted(&decoder);
  manager_.Play(h, nullptr, 0);
  for (int i = 0; i < 20; ++i) Feed(h, Frame(Info(64, KEY, 0), i, Payload(64)));
  EXPECT_TRUE(WaitUntil([&] { return decoder->decodes.load() == 20; }));
  EXPECT_EQ(g_pictures.Count(), 0u);
}

TEST_F(StreamPlayerTest, QueuedFramesAreStillDeliveredAfterStop) {
  CountingDecoder* decoder;
  int32_t h = OpenCounted(&decoder);
  manager_.Play(h, LogPicture, 0);
  g_pictures.blockMs = 20;
  for (int i = 0; i < 10; ++i) Feed(h, Frame(Info(64, KEY, 0), i, Payload(64)));
  ASSERT_EQ(manager_.Stop(h), 0);
  ASSERT_TRUE(WaitUntil([&] { return g_pictures.Count() == 10; }));
  EXPECT_EQ(Feed(h, Frame(Info(64, KEY, 0), 99, Payload(64))), 0);  // dropped
  EXPECT_TRUE(WaitUntil([&] { return Player(h)->videoQueue.GetBufferCount() == 0; }));
  EXPECT_EQ(g_pictures.Count(), 10u);
}

TEST_F(StreamPlayerTest, CloseWaitsForALongCallbackAndNothingFollowsIt) {
  CountingDecoder* decoder;
  int32_t h = OpenCounted(&decoder);
  manager_.Play(h, LogPicture, 0);
  g_pictures.blockMs = 300;
  for (int i = 0; i < 5; ++i) Feed(h, Frame(Info(64, KEY, 0), i, Payload(64)));
  ASSERT_TRUE(WaitUntil([&] { return g_pictures.inCallback.load(); }));
  ASSERT_EQ(manager_.CloseStream(h), 0);
  EXPECT_FALSE(g_pictures.inCallback.load());
  const size_t atClose = g_pictures.Count();
  EXPECT_GE(atClose, 1u);
  EXPECT_LT(atClose, 5u);
  Sleep(50);  // a late callback would land here
  EXPECT_EQ(g_pictures.Count(), atClose);
}

// The teardown of a manager (TQ_Free, or the exit of a host that forgot it)
// takes each player out of the table before destroying it, so a callback
// still running on a later stream's worker finds an earlier handle gone.
TEST(StreamTeardown, CallbackDuringTeardownFindsEarlierHandlesGone) {
  g_pictures.Reset();
  PlayerManager* manager = new PlayerManager;
  const Bytes header = VideoHeader("XVID", 352, 288);
  int32_t first = -1, second = -1;
  ASSERT_EQ(manager->OpenStream(header.data(), uint32_t(header.size()), &first), 0);
  ASSERT_EQ(manager->OpenStream(header.data(), uint32_t(header.size()), &second), 0);
  auto* decoder = new CountingDecoder;
  decoder->Open(352, 288);
  static_cast<StreamPlayer*>(manager->Lookup(second)->player)->videoDecoder = decoder;
  std::atomic<int32_t> stopResult{0};
  g_pictures.onPicture = [&](const Picture&) {
    for (uint32_t start = GetTickCount(); GetTickCount() - start < 5000; Sleep(1))
      if ((stopResult = manager->Stop(first)) == -1) return;
  };
  ASSERT_EQ(manager->Play(second, LogPicture, 0), 0);
  const Bytes frame = Frame(Info(64, KEY, 0), 1, Payload(64));
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
  auto refusals = [&] {
    size_t n = 0;
    for (const std::string& line : capture.Lines()) n += line == "vBuf is full!\n";
    return n;
  };
  constexpr int FRAMES = 1000;  // 64 MiB against a queue of 32
  for (int i = 0; i < FRAMES; ++i) feed(i);
  EXPECT_EQ(refusals(), 0u);
  VBufferQueue& queue = Player(h)->videoQueue;
  int32_t size = 0;
  uint8_t* held = queue.GetBuffer(nullptr, &size, nullptr);
  ASSERT_NE(held, nullptr);
  const int32_t queued = queue.GetBufferCount();
  for (int i = FRAMES; i < FRAMES + 5; ++i) feed(i);
  EXPECT_EQ(queue.GetBufferCount(), queued);
  EXPECT_EQ(refusals(), 5u);
  ASSERT_EQ(queue.ReleaseBuffer(held, 0), 1);
  release = true;
  feed(FRAMES + 5);
  ASSERT_TRUE(WaitUntil([&] { return !g_pictures.Items().empty() &&
                                     g_pictures.Items().back().id == FRAMES + 5; }));
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
    header_ = VideoHeader("XVID", 352, 288);
  }
  // Feeds one frame and waits until the worker and the recorder are done with it.
  void FeedAndDrain(const Bytes& frame) {
    const int before = decoder_->decodes.load();
    Feed(h_, frame);
    ASSERT_TRUE(WaitUntil([&] { return decoder_->decodes.load() == before + 1; }));
    ASSERT_TRUE(WaitUntil([&] { return Player(h_)->recordQueue.GetBufferCount() == 0; }));
  }
  std::string Path(const char* name) { return folder_.File(name); }
  void TearDown() override { manager_.CloseStream(h_); }

  int32_t h_ = -1;
  CountingDecoder* decoder_ = nullptr;
  Bytes header_;
};

TEST_F(StreamRecording, FileHoldsTheHeaderAndTheFramesFromTheFirstKeyFrame) {
  const std::string path = Path("a");
  const Bytes f0 = Frame(Info(100, KEY, 0), 10, Payload(100, 1));
  FeedAndDrain(f0);  // before the recording
  ASSERT_EQ(manager_.StartRecord(h_, path.c_str()), 0);
  EXPECT_FALSE(Exists(path));  // the worker creates it at the next video frame
  const Bytes f1 = Frame(Info(100, 0x0F0, 0), 11, Payload(100, 2));  // not key: header only
  const Bytes f2 = Frame(Info(120, KEY | 0xE00, 0), 12, Payload(120, 3));
  Bytes f3 = Frame(Info(100, 0, 0), 13, Payload(100, 4));
  std::fill(f3.end() - 8, f3.end(), 0);  // empty frame: recorded, not decoded
  FeedAndDrain(f1);
  EXPECT_TRUE(Exists(path));
  FeedAndDrain(f2);
  Feed(h_, f3);
  const Bytes f4 = Frame(Info(90, 0, 0), 14, Payload(90, 5));
  FeedAndDrain(f4);
  ASSERT_EQ(manager_.StopRecord(h_), 0);
  EXPECT_EQ(ReadWholeFile(path), Concat({header_, f2, f3, f4}));
  // The recording plays back: the reader indexes all but its last frame.
  TQFReader reader;
  ASSERT_TRUE(reader.Open(path.c_str()));
  ASSERT_EQ(reader.index[0].count, 2u);
  TQFFrameHeader header{};
  uint32_t length = TQF_FILE_READ_BUFFER_SIZE;
  ASSERT_TRUE(reader.ReadFrame(0, 1, &header, nullptr, &length));
  EXPECT_EQ(length, 100u);
  EXPECT_EQ(header.stamp, 13u);
  EXPECT_TRUE(reader.IsKeyFrame(0, 0));
}

TEST_F(StreamRecording, SamePathTwiceKeepsOneFileWithoutAGap) {
  const std::string path = Path("same");
  manager_.StartRecord(h_, path.c_str());
  const Bytes f1 = Frame(Info(50, KEY, 0), 1, Payload(50));
  FeedAndDrain(f1);
  manager_.StartRecord(h_, path.c_str());
  const Bytes f2 = Frame(Info(50, 0, 0), 2, Payload(50));
  FeedAndDrain(f2);
  manager_.StopRecord(h_);
  EXPECT_EQ(ReadWholeFile(path), Concat({header_, f1, f2}));
}

TEST_F(StreamRecording, AnotherPathClosesTheFirstAndStartsAtTheNextKeyFrame) {
  const std::string first = Path("first"), second = Path("second");
  manager_.StartRecord(h_, first.c_str());
  const Bytes f1 = Frame(Info(50, KEY, 0), 1, Payload(50));
  FeedAndDrain(f1);
  manager_.StartRecord(h_, second.c_str());
  EXPECT_EQ(ReadWholeFile(first), Concat({header_, f1}));  // closed at once, complete
  const Bytes f2 = Frame(Info(50, 0, 0), 2, Payload(50));
  const Bytes f3 = Frame(Info(50, KEY, 0), 3, Payload(50));
  FeedAndDrain(f2);
  FeedAndDrain(f3);
  manager_.StopRecord(h_);
  EXPECT_EQ(ReadWholeFile(second), Concat({header_, f3}));
}

TEST_F(StreamRecording, StopBeforeAnyVideoFrameCreatesNoFile) {
  const std::string path = Path("none");
  manager_.StartRecord(h_, path.c_str());
  manager_.StopRecord(h_);
  FeedAndDrain(Frame(Info(50, KEY, 0), 1, Payload(50)));
  EXPECT_FALSE(Exists(path));
}

TEST_F(StreamRecording, StretchWithoutKeyFrameLeavesTheHeaderAlone) {
  const std::string path = Path("nokey");
  FeedAndDrain(Frame(Info(50, KEY, 0), 1, Payload(50)));
  manager_.StartRecord(h_, path.c_str());
  FeedAndDrain(Frame(Info(50, 0, 0), 2, Payload(50)));
  manager_.StopRecord(h_);
  EXPECT_EQ(ReadWholeFile(path), header_);
}

TEST_F(StreamRecording, NotPlayingIgnoresStartAndStopAndCloseEndsTheFile) {
  const std::string never = Path("never"), trap = Path("trap");
  manager_.Stop(h_);
  EXPECT_EQ(manager_.StartRecord(h_, never.c_str()), 0);
  manager_.Play(h_, LogPicture, 0);
  FeedAndDrain(Frame(Info(50, KEY, 0), 1, Payload(50)));
  EXPECT_FALSE(Exists(never));

  manager_.StartRecord(h_, trap.c_str());
  const Bytes f = Frame(Info(50, KEY, 0), 2, Payload(50));
  FeedAndDrain(f);
  manager_.Stop(h_);
  EXPECT_EQ(manager_.StopRecord(h_), 0);  // no effect while stopped
  EXPECT_TRUE(Player(h_)->recording.load());
  ASSERT_EQ(manager_.CloseStream(h_), 0);  // closes the file
  EXPECT_EQ(ReadWholeFile(trap), Concat({header_, f}));
}

// A device that fails its writes: each lost frame is told in a debug line.
TEST_F(StreamRecording, FailedWritesAreToldInADebugLine) {
  DiagnosticsCapture capture;
  manager_.StartRecord(h_, "/dev/full");
  for (int i = 0; i < 3; ++i) FeedAndDrain(Frame(Info(50, KEY, 0), i, Payload(50)));
  manager_.StopRecord(h_);
  size_t failures = 0;
  for (const std::string& line : capture.Lines()) failures += line == "TQF record write failed.\n";
  EXPECT_EQ(failures, 3u);
}

TEST_F(StreamRecording, PathThatCannotBeCreatedIsRetriedAtEveryVideoFrame) {
  const std::string folder = folder_.File("later");
  const std::string path = folder + "/rec.tqf";
  manager_.StartRecord(h_, path.c_str());
  FeedAndDrain(Frame(Info(50, KEY, 0), 1, Payload(50)));
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ(g_pictures.Count(), 1u);  // the stream goes on
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  const Bytes f = Frame(Info(50, KEY, 0), 2, Payload(50));
  FeedAndDrain(f);
  manager_.StopRecord(h_);
  EXPECT_EQ(ReadWholeFile(path), Concat({header_, f}));
}

}  // namespace
