#include "TQFReader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <random>

#include "TempFolder.h"

namespace {

// Hand-built TQF bytes.
struct TqfImage {
  std::vector<uint8_t> bytes;

  void U32(uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
  }
  // A header block with `lengths.size()` records of those payload lengths
  // (the first of type "H264"), or with `count` written over the real count.
  static TqfImage WithRecords(std::vector<uint32_t> lengths, int64_t count = -1) {
    TqfImage image;
    uint32_t headerLength = 8;
    for (uint32_t length : lengths) headerLength += length + 8;
    image.U32(TQF_FILE_MAGIC);
    image.U32(headerLength);
    image.U32(0);
    image.U32(count >= 0 ? static_cast<uint32_t>(count) : static_cast<uint32_t>(lengths.size()));
    for (size_t i = 0; i < lengths.size(); ++i) {
      image.U32(i == 0 ? FOURCC_H264 : 100 + static_cast<uint32_t>(i));
      image.U32(lengths[i]);
      for (uint32_t b = 0; b < lengths[i]; ++b) image.bytes.push_back(static_cast<uint8_t>(i + b));
    }
    return image;
  }
  static TqfImage Standard() { return WithRecords({40}); }
  // A frame whose payload bytes count up from `first`.
  TqfImage& Frame(uint32_t length, bool key = false, uint32_t stream = 0, uint32_t stamp = 0,
                  uint8_t first = 1) {
    U32(TQF_FRAME_SYNC);
    U32(MakeFrameInfo(length, key, stream));
    U32(stamp);
    for (uint32_t i = 0; i < length; ++i) bytes.push_back(static_cast<uint8_t>(first + i));
    return *this;
  }
  TqfImage& Zeros(size_t count) {
    bytes.insert(bytes.end(), count, 0);
    return *this;
  }
};

class ReaderTest : public ::testing::Test {
 protected:
  // Writes `image` to a file and opens it.
  bool Open(const TqfImage& image) { return OpenBytes(image.bytes); }
  bool OpenBytes(const std::vector<uint8_t>& bytes) {
    path_ = folder_.File("test.tqf");
    EXPECT_TRUE(WriteWholeFile(path_, bytes));
    return reader_.Open(path_.c_str());
  }
  uint32_t VideoCount() const { return reader_.index[0].count; }

  TempFolder folder_;
  std::string path_;
  TQFReader reader_;
};

TEST_F(ReaderTest, TheLastFrameIsNeverIndexed) {
  struct Case {
    const char* name;
    TqfImage image;
    uint32_t frames;
  };
  TqfImage one = TqfImage::Standard().Frame(10);
  TqfImage two = TqfImage::Standard().Frame(10).Frame(20);
  TqfImage twoAndByte = two;
  twoAndByte.Zeros(1);
  TqfImage cut = TqfImage::Standard().Frame(10).Frame(20).Frame(30);
  cut.bytes.resize(cut.bytes.size() - 5);
  const Case cases[] = {
      {"one frame", one, 0},
      {"two frames", two, 1},
      {"two frames and a byte", twoAndByte, 2},
      {"cut third frame", cut, 2},
      {"header only", TqfImage::Standard(), 0},
  };
  for (const Case& c : cases) {
    TQFReader reader;
    std::string path = folder_.File("case.tqf");
    ASSERT_TRUE(WriteWholeFile(path, c.image.bytes));
    ASSERT_TRUE(reader.Open(path.c_str())) << c.name;
    EXPECT_EQ(reader.index[0].count, c.frames) << c.name;
  }
}

TEST_F(ReaderTest, IndexHoldsHeadsAndOffsets) {
  TqfImage image = TqfImage::Standard();
  image.Frame(5, true, 0, 0x11223344).Frame(7, false, 0, 0xFFFFFFFF).Zeros(1);
  ASSERT_TRUE(Open(image));
  ASSERT_EQ(VideoCount(), 2u);
  const FrameIndexEntry& first = reader_.index[0].entries[0];
  EXPECT_EQ(first.info, MakeFrameInfo(5, true, 0));
  EXPECT_EQ(first.stamp, 0x11223344u);
  EXPECT_EQ(first.payloadOffset, 64u + 12u);
  EXPECT_EQ(reader_.index[0].entries[1].payloadOffset, 64u + 12u + 5u + 12u);
}

TEST_F(ReaderTest, GarbageBetweenFramesIsSkipped) {
  TqfImage image = TqfImage::Standard();
  image.Frame(10).Zeros(37).Frame(20);
  image.bytes.insert(image.bytes.end(), {0x55, 0xAA, 0xA5, 0x00});  // almost a sync
  image.Frame(30).Zeros(1);
  ASSERT_TRUE(Open(image));
  EXPECT_EQ(VideoCount(), 3u);
}

TEST_F(ReaderTest, APayloadIsSteppedOverNotSearched) {
  // The payload of frame 0 holds a complete frame head; it must not count.
  TqfImage inner;
  inner.Frame(4);
  TqfImage image = TqfImage::Standard();
  image.U32(TQF_FRAME_SYNC);
  image.U32(MakeFrameInfo(static_cast<uint32_t>(inner.bytes.size()), true, 0));
  image.U32(0);
  image.bytes.insert(image.bytes.end(), inner.bytes.begin(), inner.bytes.end());
  image.Frame(3).Zeros(1);
  ASSERT_TRUE(Open(image));
  EXPECT_EQ(VideoCount(), 2u);
  EXPECT_EQ(reader_.index[0].entries[1].info, MakeFrameInfo(3, false, 0));
}

TEST_F(ReaderTest, RecordCountLimits) {
  struct Case {
    int64_t count;
    size_t records;
    bool opens;
  };
  const Case cases[] = {{0, 1, false}, {1, 1, true}, {16, 16, true}, {17, 17, false}};
  for (const Case& c : cases) {
    std::vector<uint32_t> lengths(c.records, 4);
    lengths[0] = 40;
    TqfImage image = TqfImage::WithRecords(lengths, c.count);
    image.Frame(3).Frame(3);
    TQFReader reader;
    std::string path = folder_.File("count.tqf");
    ASSERT_TRUE(WriteWholeFile(path, image.bytes));
    EXPECT_EQ(reader.Open(path.c_str()), c.opens) << "recordCount " << c.count;
  }
}

TEST_F(ReaderTest, GetRecordFindsRecordsByNumber) {
  std::vector<uint32_t> lengths(16, 3);
  lengths[0] = 40;
  TqfImage image = TqfImage::WithRecords(lengths);
  ASSERT_TRUE(Open(image));

  uint8_t buffer[64] = {};
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

  // Out of range numbers, even though the count is 16.
  for (int32_t number : {16, -1, 1000}) {
    length = sizeof buffer;
    EXPECT_FALSE(reader_.GetRecord(number, &type, buffer, &length)) << number;
  }
  // Too small a buffer: false, and the length is left for a retry.
  length = 39;
  EXPECT_FALSE(reader_.GetRecord(0, &type, buffer, &length));
  EXPECT_EQ(length, 39);
  length = -1;
  EXPECT_FALSE(reader_.GetRecord(0, &type, buffer, &length));
  // A null buffer asks for the length only.
  length = INT32_MAX;
  EXPECT_TRUE(reader_.GetRecord(1, &type, nullptr, &length));
  EXPECT_EQ(length, 3);
}

TEST_F(ReaderTest, ReadFrameCopiesPayloadAndHeader) {
  TqfImage image = TqfImage::Standard();
  image.Frame(6, true, 0, 1234, 10).Frame(2).Zeros(1);
  ASSERT_TRUE(Open(image));

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
  const uint8_t expected[] = {10, 11, 12, 13, 14, 15};
  EXPECT_EQ(std::memcmp(buffer, expected, sizeof expected), 0);

  header = {};
  length = 1000;
  ASSERT_TRUE(reader_.ReadFrame(0, 1, &header, nullptr, &length));
  EXPECT_EQ(length, 2u);
  EXPECT_EQ(header.info, MakeFrameInfo(2, false, 0));

  struct Bad {
    int32_t stream, frame;
  };
  for (Bad bad : {Bad{0, 2}, Bad{0, -1}, Bad{1, 0}, Bad{-1, 0}, Bad{16, 0}}) {
    length = sizeof buffer;
    EXPECT_FALSE(reader_.ReadFrame(bad.stream, bad.frame, &header, buffer, &length))
        << bad.stream << "/" << bad.frame;
  }
}

TEST_F(ReaderTest, IsKeyFrameFollowsBitEight) {
  TqfImage image = TqfImage::Standard();
  image.Frame(1, true).Frame(1, false).Zeros(1);
  ASSERT_TRUE(Open(image));
  EXPECT_TRUE(reader_.IsKeyFrame(0, 0));
  EXPECT_FALSE(reader_.IsKeyFrame(0, 1));
  EXPECT_FALSE(reader_.IsKeyFrame(0, 2));  // past the end
  EXPECT_FALSE(reader_.IsKeyFrame(0, -1));
  EXPECT_FALSE(reader_.IsKeyFrame(1, 0));
}

TEST_F(ReaderTest, StreamsSplitAndStreamOneNeedsTwoRecords) {
  TqfImage image = TqfImage::WithRecords({40, 18});
  image.Frame(4, true, 0).Frame(5, true, 1).Frame(6, true, 7).Frame(7, false, 15).Frame(8, false, 0);
  image.Zeros(1);
  ASSERT_TRUE(Open(image));
  EXPECT_EQ(reader_.index[0].count, 2u);
  EXPECT_EQ(reader_.index[1].count, 1u);  // streams 7 and 15 are dropped
  uint32_t length = 100;
  TQFFrameHeader header;
  EXPECT_TRUE(reader_.ReadFrame(1, 0, &header, nullptr, &length));
  EXPECT_EQ(length, 5u);

  // With one record the same audio frame cannot be read.
  TqfImage single = TqfImage::Standard();
  single.Frame(5, true, 1).Frame(4, true, 0).Zeros(1);
  TQFReader other;
  std::string path = folder_.File("single.tqf");
  ASSERT_TRUE(WriteWholeFile(path, single.bytes));
  ASSERT_TRUE(other.Open(path.c_str()));
  EXPECT_EQ(other.index[1].count, 1u);
  length = 100;
  EXPECT_FALSE(other.ReadFrame(1, 0, &header, nullptr, &length));
}

TEST_F(ReaderTest, MalformedFilesAreRefused) {
  std::vector<std::pair<const char*, std::vector<uint8_t>>> cases;
  cases.push_back({"empty", {}});
  TqfImage shortHeader = TqfImage::Standard();
  shortHeader.bytes.resize(15);
  cases.push_back({"shorter than the file header", shortHeader.bytes});
  TqfImage cutRecordHead = TqfImage::Standard();
  cutRecordHead.bytes.resize(20);
  cases.push_back({"record head cut", cutRecordHead.bytes});
  TqfImage longRecord = TqfImage::Standard();
  longRecord.bytes[20] = 0xFF;
  longRecord.bytes[23] = 0xFF;  // recordLength 0xFF0000FF
  longRecord.Frame(4).Frame(4);
  cases.push_back({"record runs past the end", longRecord.bytes});
  TqfImage missingRecord = TqfImage::WithRecords({40}, 2);
  cases.push_back({"fewer records than counted", missingRecord.bytes});
  for (const auto& [name, bytes] : cases) {
    TQFReader reader;
    std::string path = folder_.File("bad.tqf");
    ASSERT_TRUE(WriteWholeFile(path, bytes));
    EXPECT_FALSE(reader.Open(path.c_str())) << name;
    EXPECT_EQ(reader.view, nullptr) << name;
  }
  EXPECT_FALSE(reader_.Open(folder_.File("missing.tqf").c_str()));
  EXPECT_FALSE(reader_.Open(nullptr));
}

TEST_F(ReaderTest, FrameHeadsAndSyncsCutByTheEndStayInside) {
  // A sync with only part of its head, and a sync cut itself, after a frame.
  TqfImage image = TqfImage::Standard();
  image.Frame(3).Frame(3);
  for (size_t extra : {1, 3, 4, 7, 11}) {
    TqfImage cut = image;
    cut.U32(TQF_FRAME_SYNC);
    cut.U32(MakeFrameInfo(3, false, 0));
    cut.U32(0);
    cut.bytes.resize(image.bytes.size() + extra);
    // The scan of a heap copy of the exact size lets the sanitizer see any
    // read past the end.
    std::vector<uint8_t> exact(cut.bytes);
    uint32_t frames = 0;
    auto count = [](const ScannedFrame&, void* context) {
      ++*static_cast<uint32_t*>(context);
      return true;
    };
    ASSERT_TRUE(TQFReader::ScanFrames(exact.data(), static_cast<uint32_t>(exact.size()), count,
                                      &frames, nullptr));
    EXPECT_EQ(frames, 2u) << extra;
  }
}

TEST_F(ReaderTest, ScanSurvivesEveryDamage) {
  // Random damage on a valid image: every scan ends, in bounds (the sanitizer
  // build checks the reads of the heap copy), and every entry lies inside.
  TqfImage image = TqfImage::WithRecords({40, 18});
  for (uint32_t i = 0; i < 40; ++i) image.Frame(1 + i * 7 % 90, i % 5 == 0, i % 3, i);
  std::mt19937 random(12345);
  auto check = [](const ScannedFrame& frame, void* context) {
    uint32_t size = *static_cast<uint32_t*>(context);
    EXPECT_LT(uint64_t{frame.entry.payloadOffset} + FramePayloadLength(frame.entry.info), size);
    return true;
  };
  for (int round = 0; round < 3000; ++round) {
    std::vector<uint8_t> bytes = image.bytes;
    int flips = 1 + static_cast<int>(random() % 8);
    for (int f = 0; f < flips; ++f) bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
    bytes.resize(random() % (bytes.size() + 1));
    uint32_t size = static_cast<uint32_t>(bytes.size());
    std::vector<uint8_t> exact(bytes);
    TQFReader::ScanFrames(exact.empty() ? nullptr : exact.data(), size, check, &size, nullptr);
  }
}

TEST_F(ReaderTest, GetHeaderCopiesTheBlock) {
  TqfImage image = TqfImage::Standard();
  image.Frame(3).Frame(3);
  ASSERT_TRUE(Open(image));
  uint8_t buffer[128];
  int32_t length = 63;
  EXPECT_FALSE(reader_.GetHeader(buffer, &length));
  EXPECT_EQ(length, 63);
  length = sizeof buffer;
  ASSERT_TRUE(reader_.GetHeader(buffer, &length));
  EXPECT_EQ(length, 64);
  EXPECT_EQ(std::memcmp(buffer, image.bytes.data(), 64), 0);
}

TEST_F(ReaderTest, HeaderLengthPastTheEndIsRefused) {
  TqfImage image = TqfImage::Standard();
  image.bytes[4] = 0xF0;
  image.bytes[7] = 0x7F;  // headerLength far beyond the file
  image.Frame(3).Frame(3);
  ASSERT_TRUE(Open(image));  // file opening does not look at headerLength
  uint8_t buffer[16];
  int32_t length = INT32_MAX;
  EXPECT_FALSE(reader_.GetHeader(nullptr, &length));
  EXPECT_FALSE(reader_.GetHeader(buffer, nullptr));
}

// Sparse files whose frames lie past 2 GiB and past 4 GiB open and index in
// full; and when another process cuts the file short under the mapping, a
// read is a failed read, never a SIGBUS.
TEST_F(ReaderTest, LargeFilesIndexInFullAndReadsPastACutFail) {
  for (const uint64_t size : {uint64_t{3} << 30, uint64_t{5} << 30}) {
    TqfImage frames;
    frames.Frame(3, true, 0, 1).Frame(5, false, 0, 2).Frame(4, false, 1, 3).Frame(1);
    const uint64_t at = size - frames.bytes.size();  // the last frame ends the file
    std::string path = folder_.File("big.tqf");
    ASSERT_TRUE(WriteWholeFile(path, TqfImage::Standard().bytes));
    ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(size)), 0);  // sparse
    FILE* file = fopen(path.c_str(), "r+b");
    ASSERT_EQ(fseeko(file, static_cast<off_t>(at), SEEK_SET), 0);
    ASSERT_EQ(fwrite(frames.bytes.data(), frames.bytes.size(), 1, file), 1u);
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

// A record length near 2^32 must not wrap the walk back into the file.
TEST_F(ReaderTest, RecordLengthsNearTwoToTheThirtyTwoAreRefused) {
  for (const uint32_t length : {0xFFFFFFF8u, 0xFFFFFFFCu, 0xFFFFFFFFu}) {
    TqfImage image = TqfImage::Standard();
    std::memcpy(&image.bytes[20], &length, 4);
    image.Frame(3, true).Frame(3, true).Zeros(40);
    EXPECT_FALSE(Open(image)) << length;
    reader_.Close();
  }
}

TEST_F(ReaderTest, OpenTwiceIsRefusedAndCloseAllowsReopen) {
  TqfImage image = TqfImage::Standard();
  image.Frame(3).Frame(3);
  ASSERT_TRUE(Open(image));
  EXPECT_FALSE(reader_.Open(path_.c_str()));
  reader_.Close();
  uint32_t length = 10;
  TQFFrameHeader header;
  EXPECT_FALSE(reader_.ReadFrame(0, 0, &header, nullptr, &length));  // not mapped
  reader_.Close();
}

TEST_F(ReaderTest, SideIndexFileHoldsEveryStream) {
  TqfImage image = TqfImage::WithRecords({40, 18});
  image.Frame(10, true, 0, 7).Frame(30, false, 1, 8).Frame(20, false, 5, 9).Frame(1).Zeros(1);
  ASSERT_TRUE(Open(image));
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
}

TEST(FrameIndexTest, AppendGrowsAndClearFrees) {
  FrameIndex index;
  for (uint32_t i = 0; i < 257; ++i) ASSERT_TRUE(index.Append(FrameIndexEntry{i, i, i}));
  EXPECT_EQ(index.count, 257u);
  EXPECT_EQ(index.capacity, 512u);
  EXPECT_EQ(index.entries[256].stamp, 256u);
  EXPECT_EQ(index.entries[0].info, 0u);
  index.Clear();
  EXPECT_EQ(index.entries, nullptr);
  EXPECT_EQ(index.count, 0u);
  EXPECT_EQ(index.capacity, 0u);
}

}  // namespace
