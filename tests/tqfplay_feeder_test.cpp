// StreamFeeder, the pacing of tqfplay's live feed: its chunks cover the file
// exactly, it never waits for a picture of a frame not yet fed (which would
// hang the run), and it never lets the player fall further behind than its
// window, so that the library's queue cannot overflow.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "StreamFeeder.h"
#include "TempFolder.h"

namespace {

const std::string DEMO = std::string(TQF_SOURCE_DIR) + "/samples/demo.tqf";

TEST(StreamFeederTest, ReadsTheSamplesHeaderAndFrames) {
  StreamFeeder feeder;
  std::string error;
  ASSERT_TRUE(feeder.Open(DEMO.c_str(), &error)) << error;
  EXPECT_EQ(feeder.HeaderSize(), 90u);  // headerLength 82 + 8
  EXPECT_EQ(LoadU32(feeder.Header()), TQF_FILE_MAGIC);
  EXPECT_EQ(feeder.DeliverableFrames(), 250u);
  EXPECT_DOUBLE_EQ(feeder.Length(), 10.0);

  StreamFeeder missing;
  EXPECT_FALSE(missing.Open((DEMO + ".none").c_str(), &error));
  EXPECT_NE(error.find("No such file or directory"), std::string::npos);
}

TEST(StreamFeederTest, ChunksCoverTheFileAndPaceWithinTheWindow) {
  struct Case {
    uint32_t chunk;
    bool random;
    uint32_t seed;
    bool pipe;  // the file comes down a FIFO, its frames found as they arrive
  };
  const Case cases[] = {{1, false, 0, false},    {4096, false, 0, false},
                        {StreamFeeder::MAX_CHUNK_BYTES, false, 0, false},
                        {0, true, 1, false},     {0, true, 99, false},
                        {1, false, 0, true},     {0, true, 5, true}};
  TempFolder folder;
  const std::string fifo = folder.File("camera");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "chunk " << c.chunk << " random " << c.random << " seed "
                                    << c.seed << " pipe " << c.pipe);
    std::thread writer;
    if (c.pipe) writer = std::thread([&] { system(("cat " + DEMO + " > " + fifo).c_str()); });
    StreamFeeder feeder;
    std::string error;
    ASSERT_TRUE(feeder.Open((c.pipe ? fifo : DEMO).c_str(), &error)) << error;
    EXPECT_EQ(feeder.FromPipe(), c.pipe);
    FeedOptions options;
    options.chunkBytes = c.chunk;
    options.randomChunks = c.random;
    options.seed = c.seed;
    feeder.RestartClock();
    std::ifstream in(DEMO, std::ios::binary);
    const std::vector<char> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t expectedStart = feeder.HeaderSize();
    uint32_t chunks = 0;
    while (!feeder.Done()) {
      uint32_t fedBefore = feeder.DeliverableFed();
      StreamFeeder::Chunk chunk = feeder.NextChunk(options);
      if (chunk.size == 0) {  // a pipe's end
        ASSERT_TRUE(c.pipe);
        feeder.Advance(chunk);
        continue;
      }
      ASSERT_LE(expectedStart + chunk.size, file.size());
      ASSERT_EQ(std::memcmp(chunk.data, file.data() + expectedStart, chunk.size), 0);
      if (c.random) {
        ASSERT_LE(chunk.size, StreamFeeder::RANDOM_CHUNK_MAX);
      }
      // Only pictures of frames already fed are waited for.
      ASSERT_LE(chunk.picturesNeeded, fedBefore);
      feeder.Advance(chunk);
      // After the chunk the player is behind by the window at most, or by
      // what this one chunk completed.
      uint32_t behind = feeder.DeliverableFed() - chunk.picturesNeeded;
      ASSERT_LE(behind, std::max(StreamFeeder::WINDOW_FRAMES, feeder.DeliverableFed() - fedBefore));
      expectedStart += chunk.size;
      ++chunks;
    }
    if (writer.joinable()) writer.join();
    EXPECT_EQ(feeder.DeliverableFed(), 250u);
    EXPECT_EQ(expectedStart, file.size());
    EXPECT_GT(chunks, 0u);
  }
}

TEST(StreamFeederTest, RealTimeChunksAreDueFortyMillisecondsAFrameApart) {
  StreamFeeder feeder;
  std::string error;
  ASSERT_TRUE(feeder.Open(DEMO.c_str(), &error));
  FeedOptions options;
  options.chunkBytes = 1000;
  options.realtime = true;
  feeder.RestartClock();
  std::chrono::steady_clock::time_point start;
  uint32_t timed = 0;
  while (!feeder.Done()) {
    uint32_t before = feeder.FramesFed();
    StreamFeeder::Chunk chunk = feeder.NextChunk(options);
    feeder.Advance(chunk);
    if (feeder.FramesFed() == before) continue;  // completes no frame: due at once
    // A chunk is due when the first frame it completes is due.
    if (before == 0) start = chunk.due;
    ASSERT_EQ(chunk.due - start, before * std::chrono::milliseconds(TQF_FRAME_DURATION_MS));
    ++timed;
  }
  EXPECT_GT(timed, 100u);
}

}  // namespace
