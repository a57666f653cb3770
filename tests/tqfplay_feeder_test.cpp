// StreamFeeder, the pacing of tqfplay's live feed: its chunks cover the file
// exactly, it never waits for a picture of a frame not yet fed (which would
// hang the run), it never lets the player fall further behind than its
// window, so that the library's queue cannot overflow, and a chunk is due
// when the first frame it completes is, 40 ms a frame apart.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "StreamFeeder.h"
#include "TempFolder.h"

namespace {

TEST(StreamFeederTest, ChunksCoverTheFileAndAreDueOnTimeWithinTheWindow) {
  struct Case {
    uint32_t chunk;  // 0: random chunks from `seed`
    uint32_t seed;
    bool pipe;  // the file comes down a FIFO, its frames found as they arrive
  };
  const Case cases[] = {{1, 0, false}, {StreamFeeder::MAX_CHUNK_BYTES, 0, false}, {0, 1, false},
                        {1, 0, true}, {0, 5, true}};
  TempFolder folder;
  const std::string demo = std::string(TQF_SOURCE_DIR) + "/samples/demo.tqf", fifo = folder.File("camera");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::vector<uint8_t> file = ReadWholeFile(demo);
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "chunk " << c.chunk << " seed " << c.seed << " pipe " << c.pipe);
    std::thread writer;
    if (c.pipe) writer = std::thread([&] { EXPECT_TRUE(WriteWholeFile(fifo, file)); });
    StreamFeeder feeder;
    std::string error;
    ASSERT_TRUE(feeder.Open((c.pipe ? fifo : demo).c_str(), &error)) << error;
    EXPECT_EQ(feeder.FromPipe(), c.pipe);
    FeedOptions options;
    options.chunkBytes = c.chunk;
    options.randomChunks = c.chunk == 0;
    options.seed = c.seed;
    feeder.RestartClock();
    std::chrono::steady_clock::time_point start;
    size_t at = feeder.HeaderSize();
    while (!feeder.Done()) {
      const uint32_t fedBefore = feeder.DeliverableFed(), framesBefore = feeder.FramesFed();
      const StreamFeeder::Chunk chunk = feeder.NextChunk(options);
      ASSERT_TRUE(chunk.size > 0 || c.pipe);  // only a pipe's end is empty
      ASSERT_LE(at + chunk.size, file.size());
      ASSERT_TRUE(chunk.size == 0 || std::memcmp(chunk.data, file.data() + at, chunk.size) == 0);
      ASSERT_TRUE(c.chunk > 0 || chunk.size <= StreamFeeder::RANDOM_CHUNK_MAX) << chunk.size;
      ASSERT_LE(chunk.picturesNeeded, fedBefore);  // only pictures of frames already fed
      feeder.Advance(chunk);
      // Behind by the window at most, or by what this one chunk completed.
      ASSERT_LE(feeder.DeliverableFed() - chunk.picturesNeeded,
                std::max(StreamFeeder::WINDOW_FRAMES, feeder.DeliverableFed() - fedBefore));
      if (framesBefore == 0) start = chunk.due;
      if (feeder.FramesFed() > framesBefore) {
        ASSERT_EQ(chunk.due - start, framesBefore * std::chrono::milliseconds(TQF_FRAME_DURATION_MS));
      }
      at += chunk.size;
    }
    if (writer.joinable()) writer.join();
    EXPECT_EQ(feeder.DeliverableFed(), 250u);
    EXPECT_EQ(at, file.size());
  }
}

}  // namespace
