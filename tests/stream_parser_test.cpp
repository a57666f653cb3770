// The live parser: what it queues, drops and reports, for input cut anywhere.
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Diagnostics.h"
#include "PlayerManager.h"
#include "StreamPlayer.h"
#include "TQFBuilder.h"

using namespace tqftest;

namespace {

// Every block committed to a player's queues, and every debug line.
struct Capture {
  std::mutex mutex;
  std::vector<std::pair<int, Bytes>> blocks;  // (stream, info + stamp + payload)
  std::vector<std::string> lines;
  const VBufferQueue* video = nullptr;
};
Capture* g_capture = nullptr;

void OnQueue(VBufferQueue* owner, VBufNotifyKey, int32_t event, uint8_t* data, int32_t size, uint32_t) {
  if (event != VBUF_EVT_NEW_AT_TAIL) return;
  std::lock_guard<std::mutex> guard(g_capture->mutex);
  g_capture->blocks.emplace_back(owner == g_capture->video ? 0 : 1, Bytes(data, data + size));
}

void OnLine(const char* line, void* context) {
  auto* capture = static_cast<Capture*>(context);
  std::lock_guard<std::mutex> guard(capture->mutex);
  capture->lines.emplace_back(line);
}

class StreamParser : public ::testing::Test {
 protected:
  void SetUp() override {
    g_capture = &capture_;
    SetDebugSink(OnLine, &capture_);
    // No decoder: the worker only drains.
    const Bytes header = VideoHeader("XVID", 352, 288);
    player_ = std::make_unique<StreamPlayer>(&manager_, 0, header.data(),
                                             static_cast<uint32_t>(header.size()));
    capture_.video = &player_->videoQueue;
    player_->videoQueue.AddNotify(1, OnQueue);
    player_->audioQueue.AddNotify(1, OnQueue);
  }
  void TearDown() override {
    player_.reset();
    SetDebugSink(nullptr, nullptr);
    g_capture = nullptr;
  }
  void Feed(const Bytes& bytes) {
    ASSERT_EQ(player_->FeedBytes(bytes.data(), static_cast<int32_t>(bytes.size())), 0);
  }
  size_t Queued() {
    std::lock_guard<std::mutex> guard(capture_.mutex);
    return capture_.blocks.size();
  }
  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> guard(capture_.mutex);
    return capture_.lines;
  }
  // What a queued block holds for `frame`: the frame without its sync word.
  static Bytes BlockOf(const Bytes& frame) { return Bytes(frame.begin() + 4, frame.end()); }

  PlayerManager manager_;
  Capture capture_;
  std::unique_ptr<StreamPlayer> player_;
};

TEST_F(StreamParser, FrameFedOneByteAtATimeIsQueuedOnItsLastByte) {
  const Bytes frame = Frame(Info(100, KEY, 0), 1234, Payload(100));
  for (size_t i = 0; i < frame.size(); ++i) {
    EXPECT_EQ(Queued(), 0u) << i;
    Feed(Bytes{frame[i]});
  }
  ASSERT_EQ(Queued(), 1u);
  EXPECT_EQ(capture_.blocks[0].second, BlockOf(frame));
  EXPECT_EQ(player_->parseLength, 0);
  EXPECT_TRUE(Lines().empty());
}

TEST_F(StreamParser, ChunkOfThreeAndAHalfFramesQueuesThree) {
  Bytes frames[4];
  for (int i = 0; i < 4; ++i) frames[i] = Frame(Info(50 + i, i == 0 ? KEY : 0, 0), i, Payload(50 + i, i));
  Bytes chunk = Concat({frames[0], frames[1], frames[2]});
  chunk.insert(chunk.end(), frames[3].begin(), frames[3].begin() + 30);
  Feed(chunk);
  ASSERT_EQ(Queued(), 3u);
  EXPECT_EQ(player_->parseLength, 30);
  // The rest waits at the front of the buffer for the remainder.
  EXPECT_EQ(Bytes(player_->parseBuffer, player_->parseBuffer + 30), Bytes(frames[3].begin(), frames[3].begin() + 30));
  Feed(Bytes(frames[3].begin() + 30, frames[3].end()));
  ASSERT_EQ(Queued(), 4u);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(capture_.blocks[i].second, BlockOf(frames[i]));
}

TEST_F(StreamParser, ElevenBytesInSyncWaitSilently) {
  Feed(Bytes(11, 0x33));
  EXPECT_FALSE(player_->ParseStep());
  EXPECT_EQ(player_->parseLength, 11);
  EXPECT_TRUE(Lines().empty());
}

TEST_F(StreamParser, GarbageThenTwoFramesResynchronisesOnTheSecondSync) {
  const Bytes a = Frame(Info(40, KEY, 0), 1, Payload(40, 3));
  const Bytes b = Frame(Info(60, 0, 0), 2, Payload(60, 4));
  Feed(Bytes(25, 0x11));
  EXPECT_EQ(Lines(), std::vector<std::string>{"TQF Frame sync lost.\n"});
  Feed(a);
  EXPECT_EQ(Queued(), 0u);  // unconfirmed until the next sync word arrives
  Feed(Bytes(b.begin(), b.begin() + 4));
  ASSERT_EQ(Queued(), 1u);
  EXPECT_EQ(Lines(), (std::vector<std::string>{"TQF Frame sync lost.\n", "TQF resync.\n"}));
  Feed(Bytes(b.begin() + 4, b.end()));  // in sync again: through as soon as complete
  ASSERT_EQ(Queued(), 2u);
  EXPECT_EQ(capture_.blocks[0].second, BlockOf(a));
  EXPECT_EQ(capture_.blocks[1].second, BlockOf(b));
}

TEST_F(StreamParser, SyncWordInsideAPayloadIsSteppedOverDuringResync) {
  Bytes tricky = Payload(64, 9);
  const uint8_t sync[4] = {0x55, 0xAA, 0xA5, 0x5A};
  memcpy(tricky.data() + 20, sync, 4);  // a false candidate at payload offset 20
  const Bytes a = Frame(Info(64, KEY, 0), 7, tricky);
  const Bytes b = Frame(Info(30, KEY, 0), 8, Payload(30));
  const Bytes c = Frame(Info(30, 0, 0), 9, Payload(30, 5));
  Feed(Concat({Bytes{1, 2, 3}, a, b, c}));
  // The sync inside `a` ends `a`'s candidacy (its length does not reach it),
  // and as a candidate of its own it fails the length test: both are stepped
  // over, and `b`, confirmed by `c`'s sync, is the first frame found again.
  ASSERT_EQ(Queued(), 2u);
  EXPECT_EQ(capture_.blocks[0].second, BlockOf(b));
  EXPECT_EQ(capture_.blocks[1].second, BlockOf(c));
  EXPECT_EQ(Lines(), (std::vector<std::string>{"TQF Frame sync lost.\n", "TQF resync.\n"}));
}

TEST_F(StreamParser, PayloadLimitIs524288Bytes) {
  const Bytes largest = Frame(Info(524288, KEY, 0), 1, Payload(524288));
  Feed(largest);
  ASSERT_EQ(Queued(), 1u);
  EXPECT_TRUE(Lines().empty());
  Feed(Frame(Info(524289, 0, 0), 2, Payload(16)));
  EXPECT_EQ(Lines(), std::vector<std::string>{"TQF Frame length too big.\n"});
  EXPECT_TRUE(player_->lostSync);
  EXPECT_EQ(Queued(), 1u);
}

TEST_F(StreamParser, OverflowDropsEverythingAndNeedsAConfirmedFrameAfter) {
  // A sync word with no confirmation yet: the 100 bytes are held.
  Feed(Concat({Bytes{0x55, 0xAA, 0xA5, 0x5A}, Bytes(96, 0x77)}));
  ASSERT_EQ(player_->parseLength, 100);
  const Bytes big(4194304 - 99, 0x42);
  Feed(big);
  EXPECT_EQ(Lines().back(), "TQF buffer overflow.\n");
  EXPECT_EQ(player_->parseLength, 0);
  EXPECT_TRUE(player_->lostSync);
  const Bytes a = Frame(Info(20, KEY, 0), 1, Payload(20));
  Feed(a);
  EXPECT_EQ(Queued(), 0u);  // alone, a frame is not confirmed
  Feed(a);                  // its successor confirms it, and is in sync itself
  EXPECT_EQ(Queued(), 2u);
  EXPECT_EQ(Lines().back(), "TQF resync.\n");
}

TEST_F(StreamParser, OneChunkAboveTheBufferOverflowsWithResultZero) {
  Bytes huge(4194305, 0);
  EXPECT_EQ(player_->FeedBytes(huge.data(), static_cast<int32_t>(huge.size())), 0);
  EXPECT_EQ(Lines(), std::vector<std::string>{"TQF buffer overflow.\n"});
}

TEST_F(StreamParser, EmptyAndForeignStreamFramesAreConsumedSilently) {
  Feed(Frame(Info(0, KEY, 0), 1, {}));   // empty payload
  Feed(Frame(Info(10, KEY, 2), 2, Payload(10)));  // stream 2, even with the key bit
  EXPECT_EQ(Queued(), 0u);
  EXPECT_TRUE(player_->awaitFirstKey);
  EXPECT_EQ(player_->parseLength, 0);
  EXPECT_TRUE(Lines().empty());
}

TEST_F(StreamParser, FirstKeyFrameOfEitherStreamEndsTheWait) {
  Feed(Frame(Info(10, 0, 0), 1, Payload(10)));  // video, not key: dropped
  Feed(Frame(Info(10, 0, 1), 2, Payload(10)));  // audio, not key: dropped
  EXPECT_EQ(Queued(), 0u);
  Feed(Frame(Info(10, KEY, 1), 3, Payload(10)));  // audio key: ends the wait
  Feed(Frame(Info(10, 0, 0), 4, Payload(10)));    // video, not key: now queued
  ASSERT_EQ(Queued(), 2u);
  EXPECT_EQ(capture_.blocks[0].first, 1);
  EXPECT_EQ(capture_.blocks[1].first, 0);
  EXPECT_FALSE(player_->awaitFirstKey);
}

TEST_F(StreamParser, ResyncEmptiesABufferWithoutSyncIncludingAPartialOne) {
  Feed(Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x55, 0xAA, 0xA5});
  EXPECT_EQ(player_->parseLength, 0);
  EXPECT_TRUE(player_->lostSync);
  Feed(Bytes{0x5A});  // the rest of that sync word finds nothing to join
  EXPECT_EQ(player_->parseLength, 0);
}

TEST_F(StreamParser, SizeZeroAndNegativeSize) {
  EXPECT_EQ(player_->FeedBytes(nullptr, 0), 0);
  EXPECT_EQ(player_->FeedBytes(nullptr, -1), -1);
}

TEST_F(StreamParser, LargeChunkOfSmallFramesIsParsedWhole) {
  Bytes chunk;
  for (int i = 0; i < 20000; ++i) {
    Bytes f = Frame(Info(100, i == 0 ? KEY : 0, 0), static_cast<uint32_t>(i), Payload(100, static_cast<uint8_t>(i)));
    chunk.insert(chunk.end(), f.begin(), f.end());
  }
  Feed(chunk);
  EXPECT_EQ(Queued(), 20000u);
  EXPECT_EQ(player_->parseLength, 0);
  EXPECT_EQ(player_->parseStart, 0);
}

}  // namespace
