// The live parser: what it queues, drops and reports, for input cut anywhere.
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "PlayerManager.h"
#include "StreamPlayer.h"
#include "TQFBuilder.h"
#include "wait_test_support.h"

using namespace tqftest;

namespace {

// Every block committed to a player's queues: (stream, info + stamp + payload).
std::mutex g_mutex;
std::vector<std::pair<int, Bytes>> g_blocks;
const VBufferQueue* g_video = nullptr;

void OnQueue(VBufferQueue* owner, VBufNotifyKey, int32_t event, uint8_t* data, int32_t size, uint32_t) {
  std::lock_guard<std::mutex> guard(g_mutex);
  if (event == VBUF_EVT_NEW_AT_TAIL) g_blocks.emplace_back(owner == g_video ? 0 : 1, Bytes(data, data + size));
}

class StreamParser : public ::testing::Test {
 protected:
  void SetUp() override {
    g_blocks.clear();
    // No decoder: the worker only drains.
    const Bytes header = VideoHeader("XVID", 352, 288);
    player_ = std::make_unique<StreamPlayer>(&manager_, 0, header.data(), static_cast<uint32_t>(header.size()));
    g_video = &player_->videoQueue;
    player_->videoQueue.AddNotify(1, OnQueue);
    player_->audioQueue.AddNotify(1, OnQueue);
  }
  void TearDown() override { player_.reset(); }
  void Feed(const Bytes& bytes) {
    ASSERT_EQ(player_->FeedBytes(bytes.data(), static_cast<int32_t>(bytes.size())), 0);
  }
  size_t Queued() {
    std::lock_guard<std::mutex> guard(g_mutex);
    return g_blocks.size();
  }
  // What a queued block holds for `frame`: the frame without its sync word.
  static Bytes BlockOf(const Bytes& frame) { return Bytes(frame.begin() + 4, frame.end()); }

  DiagnosticsCapture capture_;
  PlayerManager manager_;
  std::unique_ptr<StreamPlayer> player_;
};

// Bytes without a sync word are held up to twelve, then dropped, a partial
// sync word at the end with them. A frame after lost sync waits for the next
// sync word to confirm it; once in sync, frames go through when complete.
TEST_F(StreamParser, GarbageThenTwoFramesResynchronisesOnTheSecondSync) {
  Feed(Bytes(11, 0x33));
  EXPECT_FALSE(player_->ParseStep());
  EXPECT_EQ(player_->parseLength, 11);
  EXPECT_TRUE(capture_.Lines().empty());
  Feed(Bytes{1, 0x55, 0xAA, 0xA5});
  EXPECT_EQ(player_->parseLength, 0);
  EXPECT_EQ(capture_.Lines(), std::vector<std::string>{"TQF Frame sync lost.\n"});
  Feed(Bytes{0x5A});  // the rest of that sync word finds nothing to join
  EXPECT_EQ(player_->parseLength, 0);
  const Bytes a = Frame(Info(40, KEY, 0), 1, Payload(40, 3));
  const Bytes b = Frame(Info(60, 0, 0), 2, Payload(60, 4));
  Feed(a);
  EXPECT_EQ(Queued(), 0u);
  Feed(Bytes(b.begin(), b.begin() + 4));
  ASSERT_EQ(Queued(), 1u);
  EXPECT_EQ(capture_.Lines(), (std::vector<std::string>{"TQF Frame sync lost.\n", "TQF resync.\n"}));
  Feed(Bytes(b.begin() + 4, b.end()));
  ASSERT_EQ(Queued(), 2u);
  EXPECT_EQ(g_blocks[0].second, BlockOf(a));
  EXPECT_EQ(g_blocks[1].second, BlockOf(b));
}

// Past the 4 MiB buffer everything held is dropped, and a chunk larger than
// the buffer is refused whole; both still answer 0. Sync is found again only
// through a confirmed frame.
TEST_F(StreamParser, OverflowDropsEverythingAndNeedsAConfirmedFrameAfter) {
  Feed(Concat({Bytes{0x55, 0xAA, 0xA5, 0x5A}, Bytes(96, 0x77)}));  // held, unconfirmed
  ASSERT_EQ(player_->parseLength, 100);
  Feed(Bytes(4194304 - 99, 0x42));
  EXPECT_EQ(capture_.Lines().back(), "TQF buffer overflow.\n");
  EXPECT_EQ(player_->parseLength, 0);
  EXPECT_TRUE(player_->splitter.lostSync);
  // A sync word inside a payload ends that frame's candidacy and fails the
  // length test itself: `b`, confirmed by `c`'s sync, is found again.
  Bytes tricky = Payload(64, 9);
  memcpy(tricky.data() + 20, "\x55\xAA\xA5\x5A", 4);
  const Bytes b = Frame(Info(30, KEY, 0), 8, Payload(30)), c = Frame(Info(30, 0, 0), 9, Payload(30, 5));
  Feed(Concat({Frame(Info(64, KEY, 0), 7, tricky), b, c}));
  ASSERT_EQ(Queued(), 2u);
  EXPECT_EQ(g_blocks[0].second, BlockOf(b));
  EXPECT_EQ(capture_.Lines().back(), "TQF resync.\n");
  Feed(Bytes(4194305, 0));
  EXPECT_EQ(capture_.Lines().size(), 3u);
  EXPECT_EQ(capture_.Lines().back(), "TQF buffer overflow.\n");
}

// Empty frames and streams other than 0 and 1 are dropped silently; until the
// first key frame of either stream, every frame is dropped. A payload may be
// 524288 bytes, one more loses sync.
TEST_F(StreamParser, EmptyForeignAndPreKeyFramesAreDroppedSilentlyAndPayloadsAreLimited) {
  Feed(Frame(Info(0, KEY, 0), 1, {}));
  Feed(Frame(Info(10, KEY, 2), 2, Payload(10)));
  Feed(Frame(Info(10, 0, 0), 3, Payload(10)));
  EXPECT_TRUE(player_->awaitFirstKey);
  Feed(Frame(Info(10, KEY, 1), 4, Payload(10)));  // audio key: ends the wait
  Feed(Frame(Info(524288, 0, 0), 5, Payload(524288)));
  ASSERT_EQ(Queued(), 2u);
  EXPECT_EQ(g_blocks[0].first, 1);
  EXPECT_EQ(g_blocks[1].first, 0);
  EXPECT_EQ(player_->parseLength, 0);
  EXPECT_TRUE(capture_.Lines().empty());
  Feed(Frame(Info(524289, 0, 0), 6, Payload(16)));
  EXPECT_EQ(capture_.Lines(), std::vector<std::string>{"TQF Frame length too big.\n"});
  EXPECT_TRUE(player_->splitter.lostSync);
}

}  // namespace
