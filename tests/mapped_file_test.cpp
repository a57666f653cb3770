#include "MappedFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "TempFolder.h"

class MappedFileTest : public ::testing::Test {
 protected:
  std::string MakeFile(const std::string& name, size_t size) {  // byte i is i * 13
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 13);
    EXPECT_TRUE(WriteWholeFile(folder_.File(name), bytes));
    return folder_.File(name);
  }
  TempFolder folder_;
  const uint32_t page_ = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
};

TEST_F(MappedFileTest, MapsRegularFilesAndRefusesTheRest) {
  std::string path = MakeFile("data", 10000), fifo = folder_.File("fifo"), missing = folder_.File("missing");
  MappedFile file;
  ASSERT_TRUE(file.Open(path.c_str(), 0, 0, 0, 0, "ignored", 0));
  EXPECT_EQ(file.fileSize, 10000u);
  EXPECT_EQ(file.viewLength, 10000u);
  EXPECT_STREQ(file.fileName, path.c_str());
  EXPECT_EQ(static_cast<const uint8_t*>(file.view)[9999], static_cast<uint8_t>(9999 * 13));
  EXPECT_FALSE(file.Open(path.c_str(), 0, 0, 0, 0, nullptr, 0));  // a view exists
  file.Close();
  file.Close();
  EXPECT_EQ(file.view, nullptr);
  EXPECT_EQ(file.fileHandle, -1);
  EXPECT_EQ(file.fileName[0], '\0');
  // A FIFO with no writer is refused at once instead of blocking the open.
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& refused : {missing, folder_.path(), fifo, std::string(PATH_MAX, 'a')})
    EXPECT_FALSE(file.Open(refused.c_str(), 0, 0, 0, 0, nullptr, 0)) << refused.substr(0, 80);
  EXPECT_EQ(access(missing.c_str(), F_OK), -1);  // nothing created
  // An empty file opens with no view, and can be opened over.
  ASSERT_TRUE(file.Open(MakeFile("empty", 0).c_str(), 0, 0, 0, 0, nullptr, 0));
  EXPECT_EQ(file.view, nullptr);
  EXPECT_NE(file.fileHandle, -1);
  EXPECT_FALSE(file.MapView(0, 0, nullptr, nullptr, 0));
  EXPECT_TRUE(file.Open(MakeFile("other", 100).c_str(), 0, 0, 0, 0, nullptr, 0));
  EXPECT_EQ(file.fileSize, 100u);
}

// Sizes are 64-bit, paths as long as the system allows, and a read from a
// file that another process has cut short fails instead of killing us.
TEST_F(MappedFileTest, LargeFilesLongPathsAndFilesCutShort) {
  std::string huge = folder_.path();
  while (huge.size() < 300) ASSERT_EQ(mkdir((huge += "/" + std::string(60, 'd')).c_str(), 0700), 0);
  huge += "/huge";
  ASSERT_TRUE(WriteWholeFile(huge, std::vector<uint8_t>(16, 7)));
  ASSERT_EQ(truncate(huge.c_str(), (off_t{5} << 30) + 3), 0);  // sparse, 5 GiB
  MappedFile file;
  ASSERT_TRUE(file.Open(huge.c_str(), 0, 0, 0, 0, nullptr, 0));
  EXPECT_EQ(file.fileSize, (uint64_t{5} << 30) + 3);
  EXPECT_STREQ(file.fileName, huge.c_str());
  uint8_t bytes[4] = {1, 1, 1, 1};
  ASSERT_TRUE(file.Read(file.fileSize - 4, bytes, 4));
  EXPECT_EQ(bytes[0] | bytes[3], 0);
  EXPECT_FALSE(file.Read(file.fileSize - 3, bytes, 4));  // past the end
  ASSERT_EQ(truncate(huge.c_str(), 4096), 0);
  EXPECT_FALSE(file.Read(uint64_t{3} << 30, bytes, 4));  // the page is gone: no SIGBUS
  ASSERT_TRUE(file.Read(8, bytes, 4));
  EXPECT_EQ(bytes[0], 7);
}

// The players map whole files for reading; moving views and the write modes
// get one contract test.
TEST_F(MappedFileTest, ViewsAndWriteModesContract) {
  std::string path = MakeFile("rw", page_ * 4 + 100);
  MappedFile file;
  ASSERT_TRUE(file.Open(path.c_str(), 1, page_, page_, 0, nullptr, 0));
  EXPECT_EQ(file.viewLength, page_);
  auto* bytes = static_cast<uint8_t*>(file.view);
  EXPECT_EQ(bytes[0], static_cast<uint8_t>(page_ * 13));
  bytes[5] = 0xAB;
  EXPECT_EQ(file.Flush(bytes + 5, 1), 1);
  EXPECT_EQ(file.Flush(bytes - 1, 1), 0);
  EXPECT_EQ(file.Flush(bytes + page_ - 1, 2), 0);
  EXPECT_EQ(file.Flush(bytes, page_), 1);
  EXPECT_EQ(ReadWholeFile(path)[page_ + 5], 0xAB);
  void* view = nullptr;
  uint64_t length = 0;
  ASSERT_TRUE(file.MapView(page_ * 3, 0, &view, &length, 1));  // mode 1: read-only
  EXPECT_EQ(view, file.view);
  EXPECT_EQ(length, page_ + 100);
  EXPECT_EQ(file.Flush(file.view, 1), 0);
  ASSERT_TRUE(file.MapView(page_ * 2, page_ * 100, nullptr, &length, 2));  // mode 2: writable
  EXPECT_EQ(length, page_ * 2 + 100);                                      // clipped to the file
  static_cast<uint8_t*>(file.view)[0] = 0xCD;
  EXPECT_EQ(file.Flush(file.view, 1), 1);
  EXPECT_EQ(ReadWholeFile(path)[page_ * 2], 0xCD);
  for (uint64_t offset : {page_ * 4 + 100, page_ * 9, page_ + 1})  // the end, beyond, not on a page
    EXPECT_FALSE(file.MapView(offset, 0, nullptr, nullptr, 0)) << offset;
  EXPECT_EQ(file.view, nullptr);
  file.Close();
  ASSERT_TRUE(file.Open(path.c_str(), 1, 0, 0, 0, nullptr, 1));  // readOnly overrides writable
  EXPECT_EQ(file.Flush(file.view, 1), 0);
  // A null path maps zeroed anonymous memory, whose view cannot move.
  MappedFile memory(nullptr, 1, 0, 8192, 0, nullptr, 0), none;
  ASSERT_EQ(memory.viewLength, 8192u);
  EXPECT_EQ(static_cast<uint8_t*>(memory.view)[8191], 0);
  static_cast<uint8_t*>(memory.view)[8191] = 1;
  EXPECT_FALSE(memory.MapView(0, 0, nullptr, nullptr, 0));
  EXPECT_FALSE(none.Open(nullptr, 0, 0, 0, 0, nullptr, 0));
}
