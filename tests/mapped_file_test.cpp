// MappedFile. Whole files read through the TQF reader (large ones, ones cut
// short, missing ones, FIFOs) are checked by its tests and the C API's.
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

TEST_F(MappedFileTest, LongPathsEmptyFilesAndWhatIsNotAFile) {
  std::string dir;  // a path longer than 255 bytes is kept whole
  while (dir.size() < 300) ASSERT_EQ(mkdir(folder_.File(dir += std::string(60, 'd') + "/").c_str(), 0700), 0);
  const std::string path = MakeFile(dir + "data", 100);
  MappedFile file;
  for (const std::string& refused : {folder_.path(), std::string(PATH_MAX, 'a')})
    EXPECT_FALSE(file.Open(refused.c_str(), 0, 0, 0, 0, nullptr, 0)) << refused.substr(0, 80);
  // An empty file opens with no view, and can be opened over.
  ASSERT_TRUE(file.Open(MakeFile("empty", 0).c_str(), 0, 0, 0, 0, nullptr, 0));
  EXPECT_TRUE(file.view == nullptr && file.fileHandle != -1);
  EXPECT_FALSE(file.MapView(0, 0, nullptr, nullptr, 0));
  ASSERT_TRUE(file.Open(path.c_str(), 0, 0, 0, 0, "ignored", 0));
  EXPECT_STREQ(file.fileName, path.c_str());
  EXPECT_FALSE(file.Open(path.c_str(), 0, 0, 0, 0, nullptr, 0));  // a view exists
}

TEST_F(MappedFileTest, ViewsAndWriteModesContract) {
  std::string path = MakeFile("rw", page_ * 4 + 100);
  MappedFile file;
  ASSERT_TRUE(file.Open(path.c_str(), 1, page_, page_, 0, nullptr, 0));
  auto* bytes = static_cast<uint8_t*>(file.view);
  EXPECT_TRUE(file.viewLength == page_ && bytes[0] == static_cast<uint8_t>(page_ * 13));
  bytes[5] = 0xAB;
  // Inside the view, starting before it, running past its end, the whole of it.
  EXPECT_EQ(std::vector<int32_t>({1, 0, 0, 1}),
            std::vector<int32_t>({file.Flush(bytes + 5, 1), file.Flush(bytes - 1, 1), file.Flush(bytes + page_ - 1, 2),
                                  file.Flush(bytes, page_)}));
  EXPECT_EQ(ReadWholeFile(path)[page_ + 5], 0xAB);
  void* view = nullptr;
  uint64_t length = 0;
  ASSERT_TRUE(file.MapView(page_ * 3, 0, &view, &length, 1));  // mode 1: read-only
  EXPECT_TRUE(view == file.view && length == page_ + 100);
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
  ASSERT_TRUE(memory.viewLength == 8192u && static_cast<uint8_t*>(memory.view)[8191] == 0);
  static_cast<uint8_t*>(memory.view)[8191] = 1;
  EXPECT_FALSE(memory.MapView(0, 0, nullptr, nullptr, 0));
  EXPECT_FALSE(none.Open(nullptr, 0, 0, 0, 0, nullptr, 0));
}
