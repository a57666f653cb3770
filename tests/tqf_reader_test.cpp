#include "TQFReader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "TQFBuilder.h"
#include "TempFolder.h"

namespace {

using namespace tqftest;

// A frame whose payload counts up from `first`.
Bytes F(uint32_t length, bool key = false, uint32_t stream = 0, uint32_t stamp = 0,
        uint8_t first = 1) {
  return Frame(MakeFrameInfo(length, key, stream), stamp, Counting(length, first));
}
Bytes Standard() { return RecordsHeader({TQF_MEDIA_DESCRIPTOR_SIZE}); }
const Bytes ZERO = {0};

class ReaderTest : public ::testing::Test {
 protected:
  // Writes `bytes` to a file and opens it with `reader`.
  bool Open(const Bytes& bytes, TQFReader& reader) {
    path_ = folder_.File("test.tqf");
    EXPECT_TRUE(WriteWholeFile(path_, bytes));
    return reader.Open(path_.c_str());
  }
  bool Open(const Bytes& bytes) { return Open(bytes, reader_); }

  TempFolder folder_;
  std::string path_;
  TQFReader reader_;
};

// A file opens when its header block is whole and holds 1 to 16 records; the
// index counts the frames the reader can prove complete: the last frame is
// only indexed when a byte follows it (-1: refused).
TEST_F(ReaderTest, MalformedFilesAreRefusedAndFramesAreIndexedWhenProvedComplete) {
  auto with = [](Bytes bytes, size_t at, std::initializer_list<uint8_t> patch) {
    std::copy(patch.begin(), patch.end(), bytes.begin() + at);
    return bytes;
  };
  auto records = [](size_t n) {
    std::vector<uint32_t> lengths(n, 4);
    lengths[0] = TQF_MEDIA_DESCRIPTOR_SIZE;
    return lengths;
  };
  const Bytes frames = Concat({F(3, true), F(3, true), Bytes(40, 0)}), standard = Standard();
  Bytes cut = Concat({Standard(), F(10), F(20), F(30)});
  cut.resize(cut.size() - 5);
  Bytes inner = F(4);  // a complete frame head in a payload is stepped over, not searched
  const struct {
    const char* name;
    Bytes bytes;
    int64_t frames;
  } cases[] = {
      {"empty", {}, -1},
      {"shorter than the file header", Bytes(standard.begin(), standard.begin() + 15), -1},
      {"record head cut", Bytes(standard.begin(), standard.begin() + 20), -1},
      {"record runs past the end", Concat({with(Standard(), 20, {0xFF, 0, 0, 0xFF}), frames}), -1},
      {"fewer records than counted", RecordsHeader({40}, 2), -1},
      {"no records", Concat({RecordsHeader(records(1), 0), frames}), -1},
      {"sixteen records", Concat({RecordsHeader(records(16)), frames}), 2},
      {"seventeen records", Concat({RecordsHeader(records(17)), frames}), -1},
      // A record length near 2^32 must not wrap the walk back into the file.
      {"length 2^32-8", Concat({with(Standard(), 20, {0xF8, 0xFF, 0xFF, 0xFF}), frames}), -1},
      {"header only", Standard(), 0},
      {"two frames", Concat({Standard(), F(10), F(20)}), 1},
      {"two frames and a byte", Concat({Standard(), F(10), F(20), ZERO}), 2},
      {"cut in the payload", cut, 2},
      {"garbage between frames",
       Concat({Standard(), F(10), Bytes(37, 0), F(20), Bytes{0x55, 0xAA, 0xA5, 0x00}, F(30), ZERO}), 3},
      {"a frame inside a payload",
       Concat({Standard(), Frame(MakeFrameInfo(uint32_t(inner.size()), true, 0), 0, inner), F(3), ZERO}), 2},
  };
  for (const auto& c : cases) {
    TQFReader reader;
    EXPECT_EQ(Open(c.bytes, reader), c.frames >= 0) << c.name;
    EXPECT_EQ(reader.view != nullptr, c.frames >= 0) << c.name;
    if (c.frames >= 0) { EXPECT_EQ(reader.index[0].count, uint32_t(c.frames)) << c.name; }
  }
  EXPECT_FALSE(reader_.Open(folder_.File("missing.tqf").c_str()));
  EXPECT_FALSE(reader_.Open(nullptr));
}

// Streams 0 and 1 are indexed apart, others dropped; stream 1 is read only
// when a second record describes it.
TEST_F(ReaderTest, ReadFrameIsKeyFrameAndStreams) {
  ASSERT_TRUE(Open(Concat({RecordsHeader({40, 18}), F(5), F(6, true, 0, 1234, 10), F(5, true, 1), F(6, true, 7),
                           F(7, false, 15), F(2), ZERO})));
  EXPECT_EQ(reader_.index[1].count, 1u);
  uint8_t buffer[16] = {};
  TQFFrameHeader header{};
  uint32_t length = 5;
  EXPECT_FALSE(reader_.ReadFrame(0, 1, &header, buffer, &length));
  EXPECT_EQ(length, 5u);  // left alone: the caller retries with more room
  length = sizeof buffer;
  ASSERT_TRUE(reader_.ReadFrame(0, 1, &header, buffer, &length));
  EXPECT_EQ(length, 6u);
  EXPECT_EQ(header.info, MakeFrameInfo(6, true, 0));
  EXPECT_EQ(header.stamp, 1234u);
  EXPECT_EQ(Bytes(buffer, buffer + 6), Counting(6, 10));
  EXPECT_TRUE(reader_.ReadFrame(1, 0, &header, nullptr, &length));
  EXPECT_EQ(length, 5u);
  const struct {
    int32_t stream, frame;
    bool key;
  } frames[] = {{0, 1, true}, {0, 2, false}, {0, 3, false}, {0, -1, false},
                {1, 1, false}, {-1, 0, false}, {16, 0, false}};
  for (const auto& f : frames) {
    EXPECT_EQ(reader_.IsKeyFrame(f.stream, f.frame), f.key) << f.stream << "/" << f.frame;
    if (f.frame < 3 && f.frame >= 0 && f.stream == 0) continue;
    length = sizeof buffer;
    EXPECT_FALSE(reader_.ReadFrame(f.stream, f.frame, &header, buffer, &length)) << f.stream << "/" << f.frame;
  }
  reader_.Close();
  EXPECT_FALSE(reader_.ReadFrame(0, 0, &header, nullptr, &length));  // not mapped
  ASSERT_TRUE(Open(Concat({Standard(), F(5, true, 1), F(4, true, 0), ZERO})));
  EXPECT_EQ(reader_.index[1].count, 1u);
  EXPECT_FALSE(reader_.ReadFrame(1, 0, &header, nullptr, &length));
}

// Sparse files whose frames lie past 2 GiB and past 4 GiB open and index in
// full; and when another process cuts the file short under the mapping, a
// read is a failed read, never a SIGBUS.
TEST_F(ReaderTest, LargeFilesIndexInFullAndReadsPastACutFail) {
  for (const uint64_t size : {uint64_t{3} << 30, uint64_t{5} << 30}) {
    const Bytes frames = Concat({F(3, true, 0, 1), F(5, false, 0, 2), F(4, false, 1, 3), F(1)});
    const uint64_t at = size - frames.size();  // the last frame ends the file
    std::string path = folder_.File("big.tqf");
    ASSERT_TRUE(WriteWholeFile(path, Standard()));
    ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(at)), 0);  // sparse
    std::ofstream(path, std::ios::binary | std::ios::app)
        .write(reinterpret_cast<const char*>(frames.data()), std::streamsize(frames.size()));

    TQFReader reader;
    ASSERT_TRUE(reader.Open(path.c_str())) << size;
    ASSERT_EQ(reader.index[0].count, 2u) << size;
    ASSERT_EQ(reader.index[1].count, 1u) << size;
    uint8_t payload[8] = {};
    uint32_t length = sizeof payload;
    TQFFrameHeader header{};
    ASSERT_TRUE(reader.ReadFrame(0, 1, &header, payload, &length));
    EXPECT_EQ(header.stamp, 2u);
    EXPECT_EQ(payload[4], 5);

    ASSERT_EQ(truncate(path.c_str(), 4096), 0);
    length = sizeof payload;
    EXPECT_FALSE(reader.ReadFrame(0, 1, &header, payload, &length));
    uint8_t block[64];
    int32_t blockLength = sizeof block;
    ASSERT_EQ(truncate(path.c_str(), 0), 0);
    EXPECT_FALSE(reader.GetHeader(block, &blockLength));
    EXPECT_FALSE(reader.GetRecord(0, nullptr, block, &blockLength));
    EXPECT_FALSE(reader.BuildSideIndex() && reader.sideIndex.count != 0);
    reader.Close();
    unlink(path.c_str());
  }
}

TEST_F(ReaderTest, OpenTwiceIsRefusedAndSideIndexHoldsEveryStream) {
  ASSERT_TRUE(Open(Concat({RecordsHeader({40, 18}), F(10, true, 0, 7), F(30, false, 1, 8),
                           F(20, false, 5, 9), F(1), ZERO})));
  EXPECT_FALSE(reader_.Open(path_.c_str()));
  ASSERT_TRUE(reader_.BuildSideIndex());
  std::string side = reader_.sidePath;
  ASSERT_EQ(IsFileExist(side.c_str()), 1);
  uint32_t words[4];
  std::memcpy(words, reader_.sideHeader, sizeof words);
  EXPECT_EQ(words[0], MakeFourCC('S', 'X', '0', '0'));
  EXPECT_EQ(words[2], 30u);
  ASSERT_EQ(reader_.sideIndex.count, 4u);
  EXPECT_EQ(reader_.sideIndex.entries[2].info, MakeFrameInfo(20, false, 5));
  EXPECT_EQ(ReadWholeFile(side).size(), 16u + 4 * 16);
  // Records: too small a buffer or a number past the count is false, and the
  // length is left for a retry.
  uint8_t buffer[128];
  uint32_t type = 0;
  int32_t length = 17;
  EXPECT_FALSE(reader_.GetRecord(1, &type, buffer, &length));
  EXPECT_EQ(length, 17);
  length = sizeof buffer;
  ASSERT_TRUE(reader_.GetRecord(1, &type, buffer, &length));
  EXPECT_EQ(type, 101u);
  EXPECT_EQ(Bytes(buffer, buffer + length), Counting(18, 1));
  for (int32_t number : {2, -1}) EXPECT_FALSE(reader_.GetRecord(number, &type, buffer, &length)) << number;
  length = sizeof buffer;
  ASSERT_TRUE(reader_.GetHeader(buffer, &length));
  EXPECT_EQ(Bytes(buffer, buffer + length), RecordsHeader({40, 18}));
  reader_.Close();
  EXPECT_EQ(IsFileExist(side.c_str()), 0);
  reader_.Close();  // twice is harmless
}

}  // namespace

// A reader that sees the file a window at a time finds the frames the whole
// scan finds, whatever the window: sync words and frame heads cut by a
// window's end, garbage between frames, and payloads longer than a window.
TEST(WalkWindowTest, WindowsOfAnySizeFindTheFramesOfTheWholeScan) {
  const Bytes file = Concat({Standard(), F(3, true), Bytes{0x55, 0xAA, 0x01}, F(70, false, 1, 9),
                             Bytes(5, 0x55), F(1), F(200, true, 0, 7), F(2), ZERO});
  using Frames = std::vector<std::pair<uint64_t, uint32_t>>;
  auto collect = [](const ScannedFrame& frame, void* context) {
    static_cast<Frames*>(context)->emplace_back(frame.syncOffset, frame.entry.info);
    return true;
  };
  Frames whole;
  FrameScanSummary wholeSummary{};
  ASSERT_TRUE(TQFReader::ScanFrames(file.data(), file.size(), collect, &whole, &wholeSummary));
  ASSERT_EQ(whole.size(), 5u);
  for (uint64_t windowSize : {16u, 17u, 31u, 64u, 4096u}) {
    SCOPED_TRACE(windowSize);
    Frames windowed;
    FrameScanSummary summary{};
    FrameWalk walk{TQFReader::RecordsEnd(file.data(), file.size()), false};
    for (int steps = 0; !walk.finished; ++steps) {
      ASSERT_LT(steps, 1000) << "no progress at " << walk.position;
      const uint64_t length = std::min<uint64_t>(windowSize, file.size() - walk.position);
      walk = TQFReader::WalkWindow(file.data() + walk.position, walk.position, length, file.size(),
                                   walk.position, collect, &windowed, &summary);
    }
    EXPECT_EQ(windowed, whole);
    EXPECT_EQ(summary.skippedBytes, wholeSummary.skippedBytes);
  }
}
