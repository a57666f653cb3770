// StreamFeeder, the pacing of tqfplay's live feed. The stream runs of
// tqfplay_play_test check what is delivered; this checks what they cannot see:
// a chunk never waits for a picture of a frame not yet fed (which would hang
// the run), the player never falls further behind than the window (so that the
// library's queue cannot overflow), and a chunk is due when the first frame it
// completes is, 40 ms a frame apart.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "StreamFeeder.h"
#include "TempFolder.h"

namespace {

TEST(StreamFeederTest, ChunksAreDueOnTimeWithinTheWindow) {
  TempFolder folder;
  const std::string demo = std::string(TQF_SOURCE_DIR) + "/samples/demo.tqf", fifo = folder.File("camera");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  // Chunks of one byte, and of random sizes from the file and from a FIFO (frames found as
  // they arrive). The FIFO carries the demo's frames 20 times, 5000 video frames: more than
  // a live source keeps counts of, so the counts of frames fed are forgotten on the way.
  constexpr uint32_t COPIES = 20;
  std::vector<uint8_t> live = ReadWholeFile(demo);
  const std::vector<uint8_t> frames(live.begin() + LoadU32(&live[4]) + 8, live.end());
  for (uint32_t i = 1; i < COPIES; ++i) live.insert(live.end(), frames.begin(), frames.end());
  for (const auto& [chunkBytes, pipe] : {std::pair{1u, false}, {0u, false}, {0u, true}}) {
    SCOPED_TRACE(testing::Message() << "chunk " << chunkBytes << " pipe " << pipe);
    std::thread writer;
    if (pipe) writer = std::thread([&] { EXPECT_TRUE(WriteWholeFile(fifo, live)); });
    StreamFeeder feeder;
    std::string error;
    ASSERT_TRUE(feeder.Open((pipe ? fifo : demo).c_str(), &error)) << error;
    const FeedOptions options{chunkBytes, chunkBytes == 0};  // 0: random sizes
    feeder.RestartClock();
    std::chrono::steady_clock::time_point start;
    while (!feeder.Done()) {
      const uint32_t fedBefore = feeder.DeliverableFed(), framesBefore = feeder.FramesFed();
      const StreamFeeder::Chunk chunk = feeder.NextChunk(options);
      ASSERT_LE(chunk.picturesNeeded, fedBefore);  // only pictures of frames already fed
      feeder.Advance(chunk);
      // Behind by the window at most, or by what this one chunk completed.
      ASSERT_LE(feeder.DeliverableFed() - chunk.picturesNeeded,
                std::max(StreamFeeder::WINDOW_FRAMES, feeder.DeliverableFed() - fedBefore));
      if (framesBefore == 0) start = chunk.due;
      if (feeder.FramesFed() > framesBefore) {
        ASSERT_EQ(chunk.due - start, framesBefore * std::chrono::milliseconds(TQF_FRAME_DURATION_MS));
      }
    }
    if (writer.joinable()) writer.join();
    EXPECT_EQ(feeder.DeliverableFed(), pipe ? 250u * COPIES : 250u);
  }
}

}  // namespace
