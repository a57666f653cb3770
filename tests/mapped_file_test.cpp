#include "MappedFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "PerformanceSite.h"
#include "TempFolder.h"

namespace {

class MappedFileTest : public ::testing::Test {
 protected:
  std::string MakeFile(const std::string& name, size_t size) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 13);
    std::string path = folder_.File(name);
    EXPECT_TRUE(WriteWholeFile(path, bytes));
    return path;
  }
  TempFolder folder_;
};

TEST_F(MappedFileTest, MapsAWholeFileForReading) {
  std::string path = MakeFile("data", 10000);
  MappedFile file;
  ASSERT_TRUE(file.Open(path.c_str(), 0, 0, 0, 0, "ignored", 0));
  ASSERT_NE(file.view, nullptr);
  EXPECT_EQ(file.fileSize, 10000u);
  EXPECT_EQ(file.viewLength, 10000u);
  EXPECT_STREQ(file.fileName, path.c_str());
  EXPECT_EQ(static_cast<const uint8_t*>(file.view)[9999], static_cast<uint8_t>(9999 * 13));
  EXPECT_FALSE(file.Open(path.c_str(), 0, 0, 0, 0, nullptr, 0));  // a view exists
  EXPECT_EQ(file.Flush(file.view, 1), 0);                         // not writable
  file.Close();
  file.Close();
  EXPECT_EQ(file.view, nullptr);
  EXPECT_EQ(file.fileHandle, -1);
  EXPECT_EQ(file.fileName[0], '\0');
  EXPECT_NE(FindPerformanceSite("MappedFile::Open()", "codelib"), nullptr);
}

TEST_F(MappedFileTest, RefusesWhatItCannotMap) {
  MappedFile file;
  std::string missing = folder_.File("missing");
  EXPECT_FALSE(file.Open(missing.c_str(), 0, 0, 0, 0, nullptr, 0));
  EXPECT_EQ(access(missing.c_str(), F_OK), -1);  // nothing created
  EXPECT_FALSE(file.Open(folder_.path().c_str(), 0, 0, 0, 0, nullptr, 0));  // a folder
  // A FIFO with no writer is refused at once instead of blocking the open.
  std::string fifo = folder_.File("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_FALSE(file.Open(fifo.c_str(), 0, 0, 0, 0, nullptr, 0));
  EXPECT_FALSE(file.Open(std::string(PATH_MAX, 'a').c_str(), 0, 0, 0, 0, nullptr, 0));
}

// Sizes are 64-bit, paths as long as the system allows, and a read from a
// file that another process has cut short fails instead of killing us.
TEST_F(MappedFileTest, LargeFilesLongPathsAndFilesCutShort) {
  std::string deep = folder_.path();
  while (deep.size() < 300) {
    deep += "/" + std::string(60, 'd');
    ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
  }
  std::string huge = deep + "/huge";
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

TEST_F(MappedFileTest, EmptyFileOpensWithoutView) {
  std::string path = MakeFile("empty", 0);
  MappedFile file;
  ASSERT_TRUE(file.Open(path.c_str(), 0, 0, 0, 0, nullptr, 0));
  EXPECT_EQ(file.view, nullptr);
  EXPECT_EQ(file.fileSize, 0u);
  EXPECT_NE(file.fileHandle, -1);
  EXPECT_FALSE(file.MapView(0, 0, nullptr, nullptr, 0));
  // Opening again over an empty file is allowed.
  std::string other = MakeFile("other", 100);
  EXPECT_TRUE(file.Open(other.c_str(), 0, 0, 0, 0, nullptr, 0));
  EXPECT_EQ(file.fileSize, 100u);
}

TEST_F(MappedFileTest, WritableViewFlushesToTheFile) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  std::string path = MakeFile("rw", page * 3);
  MappedFile file;
  ASSERT_TRUE(file.Open(path.c_str(), 1, 0, 0, 0, nullptr, 0));
  auto* bytes = static_cast<uint8_t*>(file.view);
  bytes[page + 5] = 0xAB;
  EXPECT_EQ(file.Flush(bytes + page + 5, 1), 1);
  EXPECT_EQ(file.Flush(bytes - 1, 1), 0);
  EXPECT_EQ(file.Flush(bytes + page * 3 - 1, 2), 0);
  EXPECT_EQ(file.Flush(bytes, static_cast<uint32_t>(page * 3)), 1);
  file.Close();
  EXPECT_EQ(ReadWholeFile(path)[page + 5], 0xAB);

  // readOnly overrides writable.
  ASSERT_TRUE(file.Open(path.c_str(), 1, 0, 0, 0, nullptr, 1));
  EXPECT_EQ(file.Flush(file.view, 1), 0);
}

TEST_F(MappedFileTest, MapViewMovesAndClips) {
  const uint32_t page = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
  std::string path = MakeFile("views", page * 4 + 100);
  MappedFile file;
  ASSERT_TRUE(file.Open(path.c_str(), 0, page, page, 0, nullptr, 0));
  EXPECT_EQ(file.viewLength, page);
  EXPECT_EQ(static_cast<const uint8_t*>(file.view)[0], static_cast<uint8_t>(page * 13));

  void* view = nullptr;
  uint64_t length = 0;
  ASSERT_TRUE(file.MapView(page * 3, 0, &view, &length, 0));
  EXPECT_EQ(view, file.view);
  EXPECT_EQ(length, page + 100);
  ASSERT_TRUE(file.MapView(page * 2, page * 100, nullptr, &length, 1));
  EXPECT_EQ(length, page * 2 + 100);  // clipped to the file
  EXPECT_FALSE(file.MapView(page * 4 + 100, 0, nullptr, nullptr, 0));
  EXPECT_FALSE(file.MapView(page * 9, 0, nullptr, nullptr, 0));
  EXPECT_FALSE(file.MapView(page + 1, 0, nullptr, nullptr, 0));  // not on a page
  EXPECT_EQ(file.view, nullptr);
}

TEST_F(MappedFileTest, NullPathMapsAnonymousMemory) {
  MappedFile file(nullptr, 1, 0, 8192, 0, nullptr, 0);
  ASSERT_NE(file.view, nullptr);
  EXPECT_EQ(file.viewLength, 8192u);
  auto* bytes = static_cast<uint8_t*>(file.view);
  EXPECT_EQ(bytes[8191], 0);
  bytes[8191] = 1;
  EXPECT_FALSE(file.MapView(0, 0, nullptr, nullptr, 0));  // only a named file's view moves
  MappedFile none;
  EXPECT_FALSE(none.Open(nullptr, 0, 0, 0, 0, nullptr, 0));
}

}  // namespace
