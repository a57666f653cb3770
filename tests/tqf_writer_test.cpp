#include "TQFWriter.h"

#include <gtest/gtest.h>
#include <cstring>

#include "TQFBuilder.h"
#include "TQFReader.h"
#include "TempFolder.h"

namespace {

MediaDescriptor Descriptor(uint32_t fourcc) {
  return MediaDescriptor{40, 704, 576, 1, 12, fourcc, 704 * 576 * 3 / 2, 0, 0, 0, 0};
}

class WriterTest : public ::testing::Test {
 protected:
  void SetUp() override { path_ = folder_.File("out.tqf"); }
  std::vector<uint8_t> Bytes() const { return ReadWholeFile(path_); }

  TempFolder folder_;
  std::string path_;
  TQFWriter writer_;
};

TEST_F(WriterTest, RecordingOfOneKeyFrameMatchesTheLayout) {
  MediaDescriptor descriptor = Descriptor(FOURCC_H264);
  const tqftest::Bytes payload = tqftest::Payload(1000);
  ASSERT_TRUE(writer_.Create(path_.c_str(), 0));
  ASSERT_EQ(writer_.AddRecord(descriptor.compression, &descriptor, 40), 0);
  TQFFrameHeader header{0x003E8100, 0xCAFEF00D};
  ASSERT_TRUE(writer_.WriteFrame(&header, payload.data(), 1000));
  writer_.Close();
  const auto* d = reinterpret_cast<const uint8_t*>(&descriptor);
  EXPECT_EQ(Bytes(), tqftest::Concat({tqftest::Header({{FOURCC_H264, tqftest::Bytes(d, d + 40)}}),
                                      tqftest::Frame(0x003E8100, 0xCAFEF00D, payload)}));
}

TEST_F(WriterTest, ReaderGetsFramesBackUnchanged) {
  MediaDescriptor descriptor = Descriptor(FOURCC_JPEG);
  ASSERT_TRUE(writer_.Create(path_.c_str(), 0));
  ASSERT_EQ(writer_.AddRecord(FOURCC_JPEG, &descriptor, 40), 0);
  std::vector<TQFFrameHeader> written;
  for (uint32_t i = 0; i < 30; ++i) {
    uint32_t length = 1 + i * 37;
    // Bits 4-7 and 9-11 are carried; stamps repeat and run backwards.
    uint32_t unusedBits = (i % 2 ? 0xF0u : 0) | (i % 3 ? 0xE00u : 0);
    TQFFrameHeader header{MakeFrameInfo(length, i % 10 == 0, 0) | unusedBits, 1000 - i / 2 * 40};
    std::vector<uint8_t> payload(length, static_cast<uint8_t>(i));
    ASSERT_TRUE(writer_.WriteFrame(&header, payload.data(), length));
    written.push_back(header);
  }
  writer_.Close();

  TQFReader reader;
  ASSERT_TRUE(reader.Open(path_.c_str()));
  ASSERT_EQ(reader.index[0].count, 29u);  // n frames play n - 1
  std::vector<uint8_t> buffer(2000);
  for (uint32_t i = 0; i < 29; ++i) {
    TQFFrameHeader header;
    uint32_t length = static_cast<uint32_t>(buffer.size());
    ASSERT_TRUE(reader.ReadFrame(0, static_cast<int32_t>(i), &header, buffer.data(), &length));
    EXPECT_EQ(header.info, written[i].info) << i;
    EXPECT_EQ(header.stamp, written[i].stamp) << i;
    EXPECT_EQ(length, 1 + i * 37);
    EXPECT_EQ(buffer[length - 1], static_cast<uint8_t>(i));
    EXPECT_EQ(reader.IsKeyFrame(0, static_cast<int32_t>(i)), i % 10 == 0);
  }
  uint32_t type = 0;
  uint8_t record[64];
  int32_t recordLength = sizeof record;
  ASSERT_TRUE(reader.GetRecord(0, &type, record, &recordLength));
  EXPECT_EQ(type, FOURCC_JPEG);
  EXPECT_EQ(std::memcmp(record, &descriptor, 40), 0);
}

// At most fifteen records, each eight bytes and its payload, and none once a
// frame is written; a frame whose length disagrees with its info is refused.
TEST_F(WriterTest, RecordsComeFirstAndFifteenAtMost) {
  ASSERT_TRUE(writer_.Create(path_.c_str(), 0));
  const uint8_t data[3] = {1, 2, 3};
  EXPECT_EQ(writer_.AddRecord(7, nullptr, 0), 0);
  EXPECT_EQ(writer_.AddRecord(7, nullptr, -1), -1);
  for (int32_t i = 1; i < 15; ++i) ASSERT_EQ(writer_.AddRecord(100, data, 3), i);
  fflush(writer_.file);
  const std::vector<uint8_t> before = Bytes();
  EXPECT_EQ(writer_.AddRecord(100, data, 3), -1);
  fflush(writer_.file);
  EXPECT_EQ(Bytes(), before);
  EXPECT_EQ(LoadU32(before.data() + 4), 8u + 8 + 14 * 11);
  EXPECT_EQ(LoadU32(before.data() + 12), 15u);
  EXPECT_EQ(LoadU32(before.data() + 16), 7u);
  EXPECT_EQ(LoadU32(before.data() + 20), 0u);
  writer_.Close();

  MediaDescriptor descriptor = Descriptor(FOURCC_H264);
  ASSERT_TRUE(writer_.Create(folder_.File("frames.tqf").c_str(), 0));
  uint8_t payload[4] = {9, 9, 9, 9};
  TQFFrameHeader wrong{MakeFrameInfo(5, true, 0), 0};
  EXPECT_FALSE(writer_.WriteFrame(&wrong, payload, 4));
  EXPECT_EQ(writer_.framesStarted, 0);
  EXPECT_EQ(writer_.AddRecord(FOURCC_H264, &descriptor, 40), 0);
  TQFFrameHeader right{MakeFrameInfo(4, true, 0), 0};
  EXPECT_TRUE(writer_.WriteFrame(&right, payload, 4));
  EXPECT_EQ(writer_.AddRecord(FOURCC_H264, &descriptor, 40), -1);
  writer_.Close();
  EXPECT_EQ(ReadWholeFile(folder_.File("frames.tqf")).size(), 64u + 16u);
}

TEST_F(WriterTest, ZeroLengthFrameWritesHeadAndReportsFalse) {
  ASSERT_TRUE(writer_.Create(path_.c_str(), 0));
  TQFFrameHeader empty{MakeFrameInfo(0, false, 0), 5};
  EXPECT_FALSE(writer_.WriteFrame(&empty, nullptr, 0));
  EXPECT_EQ(writer_.framesStarted, 1);
  TQFFrameHeader some{MakeFrameInfo(4, false, 0), 5};
  EXPECT_FALSE(writer_.WriteFrame(&some, nullptr, 4));  // refused before any byte
  writer_.Close();
  EXPECT_EQ(Bytes().size(), 16u + 12u);
}

TEST_F(WriterTest, CreateAndCloseRules) {
  EXPECT_FALSE(writer_.Create(nullptr, 0));
  EXPECT_FALSE(writer_.Create(folder_.File("no/such/folder.tqf").c_str(), 0));
  ASSERT_TRUE(writer_.Create(path_.c_str(), 0));
  EXPECT_EQ(writer_.path, path_);
  std::string other = folder_.File("other.tqf");
  EXPECT_FALSE(writer_.Create(other.c_str(), 0));  // the open file stays
  EXPECT_EQ(writer_.path, path_);
  EXPECT_EQ(IsFileExist(other.c_str()), 0);
  writer_.Close();
  writer_.Close();
  EXPECT_TRUE(writer_.path.empty());
  EXPECT_EQ(writer_.file, nullptr);

  // A new file closed with no record: 16 bytes that no reader opens.
  EXPECT_EQ(Bytes().size(), 16u);
  TQFReader reader;
  EXPECT_FALSE(reader.Open(path_.c_str()));
}

TEST_F(WriterTest, AppendAddsFramesAtTheEnd) {
  MediaDescriptor descriptor = Descriptor(FOURCC_H264);
  uint8_t payload[3] = {1, 2, 3};
  TQFFrameHeader header{MakeFrameInfo(3, true, 0), 1};
  ASSERT_TRUE(writer_.Create(path_.c_str(), 0));
  ASSERT_EQ(writer_.AddRecord(FOURCC_H264, &descriptor, 40), 0);
  ASSERT_TRUE(writer_.WriteFrame(&header, payload, 3));
  writer_.Close();
  ASSERT_TRUE(writer_.Create(path_.c_str(), 1));
  EXPECT_EQ(writer_.framesStarted, 0);
  ASSERT_TRUE(writer_.WriteFrame(&header, payload, 3));
  ASSERT_TRUE(writer_.WriteFrame(&header, payload, 3));
  writer_.Close();
  EXPECT_EQ(Bytes().size(), 64u + 3 * 15);
  TQFReader reader;
  ASSERT_TRUE(reader.Open(path_.c_str()));
  EXPECT_EQ(reader.index[0].count, 2u);
}

}  // namespace
