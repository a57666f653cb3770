// The writer's rules; the layout it writes is checked byte for byte, and read
// back, by the stream recording tests and the tool's import tests.
#include "TQFWriter.h"

#include <gtest/gtest.h>

#include "TQFReader.h"
#include "TempFolder.h"

namespace {

class WriterTest : public ::testing::Test {
 protected:
  void SetUp() override { path_ = folder_.File("out.tqf"); }
  size_t Size() const { return ReadWholeFile(path_).size(); }

  TempFolder folder_;
  std::string path_;
  TQFWriter writer_;
};

// At most fifteen records, each eight bytes and its payload, and none once a
// frame is written; a frame whose length disagrees with its info, or without
// its bytes, is refused before any byte; an empty frame writes its head and
// answers false.
TEST_F(WriterTest, RecordsComeFirstAndFifteenAtMost) {
  ASSERT_TRUE(writer_.Create(path_.c_str(), 0));
  const uint8_t data[4] = {1, 2, 3, 4};
  EXPECT_EQ(writer_.AddRecord(7, nullptr, -1), -1);
  for (int32_t i = 0; i < 15; ++i) ASSERT_EQ(writer_.AddRecord(100, data, 3), i);
  EXPECT_EQ(writer_.AddRecord(100, data, 3), -1);
  writer_.Close();
  EXPECT_EQ(Size(), 16u + 15 * 11);

  ASSERT_TRUE(writer_.Create(path_.c_str(), 0));
  TQFFrameHeader wrong{MakeFrameInfo(5, true, 0), 0}, right{MakeFrameInfo(4, true, 0), 0};
  EXPECT_FALSE(writer_.WriteFrame(&wrong, data, 4));
  EXPECT_FALSE(writer_.WriteFrame(&right, nullptr, 4));
  EXPECT_EQ(writer_.AddRecord(FOURCC_H264, data, 4), 0);
  EXPECT_TRUE(writer_.WriteFrame(&right, data, 4));
  EXPECT_EQ(writer_.AddRecord(FOURCC_H264, data, 4), -1);
  TQFFrameHeader empty{MakeFrameInfo(0, false, 0), 5};
  EXPECT_FALSE(writer_.WriteFrame(&empty, nullptr, 0));
  writer_.Close();
  EXPECT_EQ(Size(), 16u + 12u + 16u + 12u);
}

// A second Create while open is refused and leaves the open file; a file
// closed with no record is 16 bytes that no reader opens; append adds frames
// after what is there.
TEST_F(WriterTest, CreateAppendAndCloseRules) {
  EXPECT_FALSE(writer_.Create(nullptr, 0));
  EXPECT_FALSE(writer_.Create(folder_.File("no/such/folder.tqf").c_str(), 0));
  ASSERT_TRUE(writer_.Create(path_.c_str(), 0));
  std::string other = folder_.File("other.tqf");
  EXPECT_FALSE(writer_.Create(other.c_str(), 0));
  EXPECT_EQ(IsFileExist(other.c_str()), 0);
  writer_.Close();
  writer_.Close();
  EXPECT_EQ(Size(), 16u);
  TQFReader reader;
  EXPECT_FALSE(reader.Open(path_.c_str()));

  const uint8_t payload[40] = {};
  const TQFFrameHeader header{MakeFrameInfo(3, true, 0), 1};
  ASSERT_TRUE(writer_.Create(path_.c_str(), 0));
  ASSERT_EQ(writer_.AddRecord(FOURCC_H264, payload, 40), 0);
  ASSERT_TRUE(writer_.WriteFrame(&header, payload, 3));
  writer_.Close();
  ASSERT_TRUE(writer_.Create(path_.c_str(), 1));
  ASSERT_TRUE(writer_.WriteFrame(&header, payload, 3));
  ASSERT_TRUE(writer_.WriteFrame(&header, payload, 3));
  writer_.Close();
  EXPECT_EQ(Size(), 64u + 3 * 15);
  ASSERT_TRUE(reader.Open(path_.c_str()));
  EXPECT_EQ(reader.index[0].count, 2u);
}

}  // namespace
