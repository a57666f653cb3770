#include "TQFReader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <random>

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
  uint32_t VideoCount() const { return reader_.index[0].count; }

  TempFolder folder_;
  std::string path_;
  TQFReader reader_;
};

// The index counts the frames the reader can prove complete: the last frame
// is only indexed when a byte follows it.
TEST_F(ReaderTest, FramesAreIndexedWhenProvedComplete) {
  Bytes cut = Concat({Standard(), F(10), F(20), F(30)});
  cut.resize(cut.size() - 5);
  Bytes almostSync = {0x55, 0xAA, 0xA5, 0x00};
  // The payload of the first frame holds a complete frame head: it is stepped
  // over, not searched.
  Bytes inner = F(4);
  const struct {
    const char* name;
    Bytes bytes;
    uint32_t frames;
  } cases[] = {
      {"header only", Standard(), 0},
      {"one frame", Concat({Standard(), F(10)}), 0},
      {"two frames", Concat({Standard(), F(10), F(20)}), 1},
      {"two frames and a byte", Concat({Standard(), F(10), F(20), ZERO}), 2},
      {"cut third frame", cut, 2},
      {"garbage between frames",
       Concat({Standard(), F(10), Bytes(37, 0), F(20), almostSync, F(30), ZERO}), 3},
      {"a frame inside a payload",
       Concat({Standard(), Frame(MakeFrameInfo(static_cast<uint32_t>(inner.size()), true, 0), 0,
                                 inner),
               F(3), ZERO}),
       2},
  };
  for (const auto& c : cases) {
    TQFReader reader;
    ASSERT_TRUE(Open(c.bytes, reader)) << c.name;
    EXPECT_EQ(reader.index[0].count, c.frames) << c.name;
  }
  ASSERT_TRUE(Open(Concat({Standard(), F(5, true, 0, 0x11223344), F(7, false, 0, 0xFFFFFFFF), ZERO})));
  ASSERT_EQ(VideoCount(), 2u);
  const FrameIndexEntry& first = reader_.index[0].entries[0];
  EXPECT_EQ(first.info, MakeFrameInfo(5, true, 0));
  EXPECT_EQ(first.stamp, 0x11223344u);
  EXPECT_EQ(first.payloadOffset, 64u + 12u);
  EXPECT_EQ(reader_.index[0].entries[1].payloadOffset, 64u + 12u + 5u + 12u);
}

TEST_F(ReaderTest, MalformedFilesAreRefused) {
  auto with = [](Bytes bytes, size_t at, std::initializer_list<uint8_t> patch) {
    std::copy(patch.begin(), patch.end(), bytes.begin() + at);
    return bytes;
  };
  auto records = [](size_t n) {
    std::vector<uint32_t> lengths(n, 4);
    lengths[0] = TQF_MEDIA_DESCRIPTOR_SIZE;
    return lengths;
  };
  auto prefix = [](Bytes bytes, size_t n) {
    bytes.resize(n);
    return bytes;
  };
  const Bytes frames = Concat({F(3, true), F(3, true), Bytes(40, 0)});
  const struct {
    const char* name;
    Bytes bytes;
    bool opens;
  } cases[] = {
      {"empty", {}, false},
      {"shorter than the file header", prefix(Standard(), 15), false},
      {"record head cut", prefix(Standard(), 20), false},
      {"record runs past the end", Concat({with(Standard(), 20, {0xFF, 0, 0, 0xFF}), frames}), false},
      {"fewer records than counted", RecordsHeader({40}, 2), false},
      {"no records", Concat({RecordsHeader(records(1), 0), frames}), false},
      {"one record", Concat({RecordsHeader(records(1)), frames}), true},
      {"sixteen records", Concat({RecordsHeader(records(16)), frames}), true},
      {"seventeen records", Concat({RecordsHeader(records(17)), frames}), false},
      // A record length near 2^32 must not wrap the walk back into the file.
      {"length 2^32-8", Concat({with(Standard(), 20, {0xF8, 0xFF, 0xFF, 0xFF}), frames}), false},
      {"length 2^32-4", Concat({with(Standard(), 20, {0xFC, 0xFF, 0xFF, 0xFF}), frames}), false},
      {"length 2^32-1", Concat({with(Standard(), 20, {0xFF, 0xFF, 0xFF, 0xFF}), frames}), false},
  };
  for (const auto& c : cases) {
    TQFReader reader;
    EXPECT_EQ(Open(c.bytes, reader), c.opens) << c.name;
    if (!c.opens) {
      EXPECT_EQ(reader.view, nullptr) << c.name;
    }
  }
  EXPECT_FALSE(reader_.Open(folder_.File("missing.tqf").c_str()));
  EXPECT_FALSE(reader_.Open(nullptr));
}

TEST_F(ReaderTest, GetRecordAndGetHeaderCopyWhatFits) {
  std::vector<uint32_t> lengths(16, 3);
  lengths[0] = 40;
  ASSERT_TRUE(Open(RecordsHeader(lengths)));
  uint8_t buffer[128] = {};
  uint32_t type = 0;
  int32_t length = sizeof buffer;
  ASSERT_TRUE(reader_.GetRecord(0, &type, buffer, &length));
  EXPECT_EQ(type, FOURCC_H264);
  EXPECT_EQ(length, 40);
  length = sizeof buffer;
  ASSERT_TRUE(reader_.GetRecord(15, &type, buffer, &length));
  EXPECT_EQ(type, 115u);
  EXPECT_EQ(length, 3);
  EXPECT_EQ(buffer[0], 15);
  EXPECT_EQ(buffer[2], 17);
  for (int32_t number : {16, -1, 1000}) {  // out of range, though the count is 16
    length = sizeof buffer;
    EXPECT_FALSE(reader_.GetRecord(number, &type, buffer, &length)) << number;
  }
  // Too small a buffer: false, and the length is left for a retry.
  for (int32_t small : {39, -1}) {
    length = small;
    EXPECT_FALSE(reader_.GetRecord(0, &type, buffer, &length));
    EXPECT_EQ(length, small);
  }
  length = INT32_MAX;  // a null buffer asks for the length only
  EXPECT_TRUE(reader_.GetRecord(1, &type, nullptr, &length));
  EXPECT_EQ(length, 3);

  TQFReader standard;
  const Bytes bytes = Concat({Standard(), F(3), F(3)});
  ASSERT_TRUE(Open(bytes, standard));
  length = 63;
  EXPECT_FALSE(standard.GetHeader(buffer, &length));
  EXPECT_EQ(length, 63);
  length = sizeof buffer;
  ASSERT_TRUE(standard.GetHeader(buffer, &length));
  EXPECT_EQ(length, 64);
  EXPECT_EQ(std::memcmp(buffer, bytes.data(), 64), 0);

  // The file opens without looking at headerLength; GetHeader refuses one
  // beyond the file.
  TQFReader farHeader;
  Bytes far = bytes;
  far[4] = 0xF0;
  far[7] = 0x7F;
  ASSERT_TRUE(Open(far, farHeader));
  length = INT32_MAX;
  EXPECT_FALSE(farHeader.GetHeader(nullptr, &length));
  EXPECT_FALSE(farHeader.GetHeader(buffer, nullptr));
}

TEST_F(ReaderTest, ReadFrameAndIsKeyFrame) {
  ASSERT_TRUE(Open(Concat({Standard(), F(6, true, 0, 1234, 10), F(2), ZERO})));
  uint8_t buffer[16] = {};
  TQFFrameHeader header{};
  uint32_t length = 5;
  EXPECT_FALSE(reader_.ReadFrame(0, 0, &header, buffer, &length));
  EXPECT_EQ(length, 5u);  // left alone: the caller retries with more room
  length = sizeof buffer;
  ASSERT_TRUE(reader_.ReadFrame(0, 0, &header, buffer, &length));
  EXPECT_EQ(length, 6u);
  EXPECT_EQ(header.info, MakeFrameInfo(6, true, 0));
  EXPECT_EQ(header.stamp, 1234u);
  EXPECT_EQ(Bytes(buffer, buffer + 6), Counting(6, 10));
  length = 1000;
  ASSERT_TRUE(reader_.ReadFrame(0, 1, &header, nullptr, &length));
  EXPECT_EQ(length, 2u);
  EXPECT_EQ(header.info, MakeFrameInfo(2, false, 0));
  const struct {
    int32_t stream, frame;
    bool key;
  } frames[] = {{0, 0, true}, {0, 1, false}, {0, 2, false}, {0, -1, false},
                {1, 0, false}, {-1, 0, false}, {16, 0, false}};
  for (const auto& f : frames) {
    EXPECT_EQ(reader_.IsKeyFrame(f.stream, f.frame), f.key) << f.stream << "/" << f.frame;
    if (f.frame < 2 && f.stream == 0) continue;
    length = sizeof buffer;
    EXPECT_FALSE(reader_.ReadFrame(f.stream, f.frame, &header, buffer, &length))
        << f.stream << "/" << f.frame;
  }
  reader_.Close();
  length = 10;
  EXPECT_FALSE(reader_.ReadFrame(0, 0, &header, nullptr, &length));  // not mapped
}

TEST_F(ReaderTest, StreamsSplitAndStreamOneNeedsTwoRecords) {
  ASSERT_TRUE(Open(Concat({RecordsHeader({40, 18}), F(4, true, 0), F(5, true, 1), F(6, true, 7),
                           F(7, false, 15), F(8, false, 0), ZERO})));
  EXPECT_EQ(reader_.index[0].count, 2u);
  EXPECT_EQ(reader_.index[1].count, 1u);  // streams 7 and 15 are dropped
  uint32_t length = 100;
  TQFFrameHeader header;
  EXPECT_TRUE(reader_.ReadFrame(1, 0, &header, nullptr, &length));
  EXPECT_EQ(length, 5u);
  // With one record the same audio frame cannot be read.
  TQFReader single;
  ASSERT_TRUE(Open(Concat({Standard(), F(5, true, 1), F(4, true, 0), ZERO}), single));
  EXPECT_EQ(single.index[1].count, 1u);
  length = 100;
  EXPECT_FALSE(single.ReadFrame(1, 0, &header, nullptr, &length));
}

// Every scan ends and stays in bounds (the sanitizer build checks the reads
// of heap copies of the exact size): frame heads and syncs cut by the end,
// and random damage on a valid image.
TEST_F(ReaderTest, ScansStayInsideCutAndDamagedBytes) {
  const Bytes two = Concat({Standard(), F(3), F(3)});
  auto count = [](const ScannedFrame&, void* context) {
    ++*static_cast<uint32_t*>(context);
    return true;
  };
  for (size_t extra : {1, 3, 4, 7, 11}) {
    Bytes cut = Concat({two, F(3)});
    cut.resize(two.size() + extra);
    uint32_t frames = 0;
    ASSERT_TRUE(TQFReader::ScanFrames(cut.data(), static_cast<uint32_t>(cut.size()), count,
                                      &frames, nullptr));
    EXPECT_EQ(frames, 2u) << extra;
  }
  Bytes image = RecordsHeader({40, 18});
  for (uint32_t i = 0; i < 40; ++i) image = Concat({image, F(1 + i * 7 % 90, i % 5 == 0, i % 3, i)});
  std::mt19937 random(12345);
  auto inside = [](const ScannedFrame& frame, void* context) {
    uint32_t size = *static_cast<uint32_t*>(context);
    EXPECT_LT(uint64_t{frame.entry.payloadOffset} + FramePayloadLength(frame.entry.info), size);
    return true;
  };
  for (int round = 0; round < 3000; ++round) {
    Bytes bytes = image;
    int flips = 1 + static_cast<int>(random() % 8);
    for (int f = 0; f < flips; ++f) bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
    bytes.resize(random() % (bytes.size() + 1));
    uint32_t size = static_cast<uint32_t>(bytes.size());
    TQFReader::ScanFrames(bytes.empty() ? nullptr : bytes.data(), size, inside, &size, nullptr);
  }
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
    ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(size)), 0);  // sparse
    FILE* file = fopen(path.c_str(), "r+b");
    ASSERT_EQ(fseeko(file, static_cast<off_t>(at), SEEK_SET), 0);
    ASSERT_EQ(fwrite(frames.data(), frames.size(), 1, file), 1u);
    fclose(file);

    TQFReader reader;
    ASSERT_TRUE(reader.Open(path.c_str())) << size;
    ASSERT_EQ(reader.index[0].count, 2u) << size;
    ASSERT_EQ(reader.index[1].count, 1u) << size;
    EXPECT_EQ(reader.index[0].entries[1].payloadOffset, at + 15 + 12);
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
    EXPECT_TRUE(reader.GetHeader(block, &blockLength));  // still inside the file
    ASSERT_EQ(truncate(path.c_str(), 0), 0);
    EXPECT_FALSE(reader.GetHeader(block, &blockLength));
    EXPECT_FALSE(reader.GetRecord(0, nullptr, block, &blockLength));
    EXPECT_FALSE(reader.ReadFrame(0, 0, &header, payload, &length));
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
  EXPECT_NE(side.find("/idx"), std::string::npos);
  uint32_t words[4];
  std::memcpy(words, reader_.sideHeader, sizeof words);
  EXPECT_EQ(words[0], MakeFourCC('S', 'X', '0', '0'));
  EXPECT_EQ(words[1], 8u + 4 * 16);
  EXPECT_EQ(words[2], 30u);
  EXPECT_EQ(words[3], 0u);
  ASSERT_EQ(reader_.sideIndex.count, 4u);
  EXPECT_EQ(reader_.sideIndex.entries[2].info, MakeFrameInfo(20, false, 5));
  EXPECT_EQ(reader_.sideIndex.entries[2].stamp, 9u);
  EXPECT_EQ(ReadWholeFile(side).size(), 16u + 4 * 16);
  reader_.Close();
  EXPECT_EQ(IsFileExist(side.c_str()), 0);
  EXPECT_TRUE(reader_.sidePath.empty());
  reader_.Close();  // twice is harmless
}

}  // namespace
