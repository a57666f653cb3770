// The real samples end to end: a file played by the file player and the same
// bytes fed as a live stream in random pieces deliver exactly the pictures,
// with their stamps, that decoding the frames one by one gives.
#include <gtest/gtest.h>

#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "Decoder.h"
#include "OSTime.h"
#include "PlayerManager.h"
#include "TQFReader.h"
#include "TempFolder.h"
#include "wait_test_support.h"

namespace {

struct Shown {
  uint32_t stamp;
  uint64_t hash;
  bool operator==(const Shown&) const = default;
};

uint64_t Fnv1a(const uint8_t* bytes, size_t n) {
  uint64_t h = 1469598103934665603ull;
  for (size_t i = 0; i < n; ++i) h = (h ^ bytes[i]) * 1099511628211ull;
  return h;
}

std::mutex g_mutex;
std::vector<Shown> g_shown;

int32_t Collect(int32_t, uint8_t* picture, int32_t size, int32_t, int32_t, uint32_t stamp, int32_t,
                int32_t, uint32_t) {
  const uint64_t h = Fnv1a(picture, static_cast<size_t>(size));
  std::lock_guard<std::mutex> guard(g_mutex);
  g_shown.push_back({stamp, h});
  return 0;
}

size_t ShownCount() {
  std::lock_guard<std::mutex> guard(g_mutex);
  return g_shown.size();
}

bool WaitForCount(size_t n) {
  return WaitUntil([n] { return ShownCount() >= n; }, /*timeoutMs=*/60000);  // real time, sanitized
}

struct Sample {
  const char* file;
  int32_t width, height;
};

class Playback : public ::testing::TestWithParam<Sample> {
 protected:
  void SetUp() override {
    path_ = std::string(TQF_SOURCE_DIR) + "/samples/" + GetParam().file;
    std::lock_guard<std::mutex> guard(g_mutex);
    g_shown.clear();
  }
  // Each indexed video frame decoded in turn by a decoder of its own.
  std::vector<Shown> Reference() {
    TQFReader reader;
    EXPECT_TRUE(reader.Open(path_.c_str()));
    uint32_t type = 0;
    uint8_t record[256];
    int32_t length = sizeof record;
    EXPECT_TRUE(reader.GetRecord(0, &type, record, &length));
    Decoder* decoder = CreateDecoder(true, type);
    EXPECT_NE(decoder, nullptr);
    const auto& p = GetParam();
    EXPECT_TRUE(decoder->Open(p.width, p.height));
    std::vector<uint8_t> frame(TQF_FILE_READ_BUFFER_SIZE);
    std::vector<Shown> shown;
    for (uint32_t i = 0; i < reader.index[0].count; ++i) {
      TQFFrameHeader header{};
      uint32_t size = TQF_FILE_READ_BUFFER_SIZE;
      EXPECT_TRUE(reader.ReadFrame(0, static_cast<int32_t>(i), &header, frame.data(), &size));
      if (uint8_t* picture = decoder->Decode(frame.data(), static_cast<int32_t>(size), nullptr))
        shown.push_back({header.stamp, Fnv1a(picture, static_cast<size_t>(p.width) * p.height * 3 / 2)});
    }
    ReleaseDecoder(decoder);
    return shown;
  }
  std::string path_;
  PlayerManager manager_;
};

TEST_P(Playback, FileAndStreamDeliverTheFrameByFramePictures) {
  const std::vector<Shown> reference = Reference();
  ASSERT_GT(reference.size(), 40u);

  int32_t file = -1;
  ASSERT_EQ(manager_.OpenFile(path_.c_str(), &file), 0);
  ASSERT_EQ(manager_.Play(file, Collect, 0), 0);
  ASSERT_TRUE(WaitForCount(reference.size()));
  // The pass after the last frame ends the file: the position goes back to 0.
  uint32_t seconds = 1;
  EXPECT_TRUE(WaitUntil([&] { return manager_.GetPlayTime(file, &seconds) == 0 && seconds == 0; },
                        /*timeoutMs=*/60000));
  ASSERT_EQ(manager_.CloseFile(file), 0);
  {
    std::lock_guard<std::mutex> guard(g_mutex);
    EXPECT_EQ(g_shown, reference);
    g_shown.clear();
  }

  const std::vector<uint8_t> bytes = ReadWholeFile(path_);
  const uint32_t headerSize = LoadU32(bytes.data() + 4) + 8;
  int32_t stream = -1;
  ASSERT_EQ(manager_.OpenStream(bytes.data(), headerSize, &stream), 0);
  ASSERT_EQ(manager_.Play(stream, Collect, 0), 0);
  std::mt19937 random(static_cast<uint32_t>(bytes.size()));
  for (size_t at = headerSize; at < bytes.size();) {
    const size_t n = std::min<size_t>(bytes.size() - at, 1 + random() % 20000);
    ASSERT_EQ(manager_.InputData(stream, bytes.data() + at, static_cast<int32_t>(n)), 0);
    at += n;  // the whole sample fits the queue: nothing is evicted
  }
  // The stream also delivers the file's last frame, which no index holds.
  ASSERT_TRUE(WaitForCount(reference.size()));
  ASSERT_EQ(manager_.CloseStream(stream), 0);
  std::lock_guard<std::mutex> guard(g_mutex);
  ASSERT_GE(g_shown.size(), reference.size());
  EXPECT_EQ(std::vector<Shown>(g_shown.begin(), g_shown.begin() + reference.size()), reference);
}

INSTANTIATE_TEST_SUITE_P(Samples, Playback,
                         ::testing::Values(Sample{"demo.tqf", 640, 352},
                                           Sample{"jpeg422.tqf", 320, 240}),
                         [](const auto& param) {
                           const std::string file = param.param.file;
                           return file.substr(0, file.find('.'));
                         });

}  // namespace
