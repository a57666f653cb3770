#include "Paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "PerformanceSite.h"
#include "TempFolder.h"

namespace {

class PathsTest : public ::testing::Test {
 protected:
  std::string Make(const std::string& name, const std::vector<uint8_t>& bytes) {
    std::string path = folder_.File(name);
    EXPECT_TRUE(WriteWholeFile(path, bytes));
    return path;
  }
  TempFolder folder_;
};

TEST_F(PathsTest, ExistenceTests) {
  std::string file = Make("file", {1});
  std::string link = folder_.File("link");
  ASSERT_EQ(symlink(folder_.path().c_str(), link.c_str()), 0);
  struct Case {
    const char* path;
    int32_t isFile, isDir;
  };
  const Case cases[] = {
      {file.c_str(), 1, 0},
      {folder_.path().c_str(), 0, 1},
      {link.c_str(), 0, 1},
      {"/no/such/path", 0, 0},
      {"", 0, 0},
      {nullptr, 0, 0},
      {reinterpret_cast<const char*>(16), 0, 0},  // unreadable memory
  };
  for (const Case& c : cases) {
    EXPECT_EQ(IsFileExist(c.path), c.isFile) << (c.path ? c.path : "null");
    EXPECT_EQ(IsDirExist(c.path), c.isDir) << (c.path ? c.path : "null");
  }
  EXPECT_NE(FindPerformanceSite("IsFileExist()", "codelib"), nullptr);
  EXPECT_NE(FindPerformanceSite("IsDirExist()", "codelib"), nullptr);
}

TEST_F(PathsTest, MoveFileIfExistNeverReplaces) {
  std::string from = Make("from", {1, 2});
  std::string taken = Make("taken", {3});
  std::string to = folder_.File("to");
  EXPECT_EQ(MoveFileIfExist(from.c_str(), taken.c_str()), 0);
  EXPECT_EQ(ReadWholeFile(taken), std::vector<uint8_t>{3});
  EXPECT_EQ(MoveFileIfExist(from.c_str(), to.c_str()), 1);
  EXPECT_EQ(IsFileExist(from.c_str()), 0);
  EXPECT_EQ(ReadWholeFile(to), (std::vector<uint8_t>{1, 2}));
  EXPECT_EQ(MoveFileIfExist(from.c_str(), to.c_str()), 0);
  EXPECT_EQ(MoveFileIfExist(folder_.path().c_str(), folder_.File("dir2").c_str()), 0);
}

TEST_F(PathsTest, CreateBlankFileSizesAndRespectsOverwrite) {
  std::string path = folder_.File("blank");
  EXPECT_EQ(CreateBlankFile(path.c_str(), 5000, 0), 1);
  EXPECT_EQ(ReadWholeFile(path), std::vector<uint8_t>(5000, 0));
  ASSERT_TRUE(WriteWholeFile(path, {7, 7, 7}));
  EXPECT_EQ(CreateBlankFile(path.c_str(), 10, 0), 0);
  EXPECT_EQ(ReadWholeFile(path), (std::vector<uint8_t>{7, 7, 7}));
  EXPECT_EQ(CreateBlankFile(path.c_str(), 2, 1), 1);
  EXPECT_EQ(ReadWholeFile(path), (std::vector<uint8_t>{7, 7}));
  EXPECT_EQ(CreateBlankFile(folder_.File("no/dir").c_str(), 1, 1), 0);
  EXPECT_EQ(CreateBlankFile(nullptr, 1, 1), 0);
}

TEST_F(PathsTest, CheckedSaveWritesPayloadAndSum) {
  std::string path = folder_.File("saved");
  std::vector<uint8_t> payload = {0xFF, 0xFF, 1, 2};
  ASSERT_EQ(IntegralitySave(payload.data(), 4, path.c_str()), 1);
  std::vector<uint8_t> expected = payload;
  uint64_t sum = 0xFF + 0xFF + 1 + 2;
  for (int i = 0; i < 8; ++i) expected.push_back(static_cast<uint8_t>(sum >> (8 * i)));
  EXPECT_EQ(ReadWholeFile(path), expected);
  EXPECT_EQ(IsFileExist((path + ".tmp").c_str()), 0);
  EXPECT_EQ(IsFileExist((path + ".bak").c_str()), 0);

  std::vector<uint8_t> loaded = {42};
  ASSERT_EQ(IntegralityLoad(loaded, path.c_str()), 1);
  EXPECT_EQ(loaded, payload);
  EXPECT_NE(FindPerformanceSite("IntegralitySave()", "codelib"), nullptr);
}

TEST_F(PathsTest, DamagedFileLoadsFromBackup) {
  std::string path = folder_.File("state");
  std::vector<uint8_t> first(1000, 3), second(500, 9);
  ASSERT_EQ(IntegralitySave(first.data(), 1000, path.c_str()), 1);
  ASSERT_EQ(IntegralitySave(second.data(), 500, path.c_str()), 1);
  EXPECT_EQ(ReadWholeFile(path + ".bak").size(), 1008u);

  std::vector<uint8_t> bytes = ReadWholeFile(path);
  bytes[100] ^= 0x01;
  ASSERT_TRUE(WriteWholeFile(path, bytes));
  std::vector<uint8_t> loaded;
  ASSERT_EQ(IntegralityLoad(loaded, path.c_str()), 1);
  EXPECT_EQ(loaded, first);
  EXPECT_EQ(ReadWholeFile(path).size(), 1008u);  // the backup took the main name
  EXPECT_EQ(IsFileExist((path + ".bak").c_str()), 0);
}

TEST_F(PathsTest, CrashBeforeTheFinalMoveLeavesTheBackup) {
  // Steps done up to moving the old file to ".bak"; the ".tmp" never moved.
  std::string path = folder_.File("state");
  std::vector<uint8_t> old(10, 1);
  ASSERT_EQ(IntegralitySave(old.data(), 10, path.c_str()), 1);
  ASSERT_EQ(rename(path.c_str(), (path + ".bak").c_str()), 0);
  Make("state.tmp", {1, 2, 3});
  std::vector<uint8_t> loaded;
  ASSERT_EQ(IntegralityLoad(loaded, path.c_str()), 1);
  EXPECT_EQ(loaded, old);
}

TEST_F(PathsTest, InvalidCheckedFilesAreRefused) {
  std::string path = folder_.File("small");
  ASSERT_EQ(IntegralitySave(nullptr, 0, path.c_str()), 1);
  EXPECT_EQ(ReadWholeFile(path).size(), 8u);
  std::vector<uint8_t> loaded = {5};
  EXPECT_EQ(IntegralityLoad(loaded, path.c_str()), 0);  // needs at least one byte
  EXPECT_EQ(loaded, std::vector<uint8_t>{5});
  EXPECT_EQ(IntegralityLoad(loaded, folder_.File("never").c_str()), 0);
  EXPECT_EQ(IntegralityLoad(loaded, nullptr), 0);
  uint8_t byte = 1;
  EXPECT_EQ(IntegralitySave(&byte, 1, folder_.File("no/dir/file").c_str()), 0);
  EXPECT_EQ(IntegralitySave(nullptr, 4, path.c_str()), 0);
}

TEST_F(PathsTest, RemoveFileOrDirTakesEverythingBelow) {
  std::string top = folder_.File("top");
  ASSERT_EQ(mkdir(top.c_str(), 0755), 0);
  ASSERT_EQ(mkdir((top + "/sub").c_str(), 0755), 0);
  Make("top/a", {1});
  Make("top/sub/b", {2});
  std::string outside = Make("outside", {3});
  ASSERT_EQ(symlink(folder_.path().c_str(), (top + "/sub/up").c_str()), 0);
  EXPECT_EQ(YCRemoveFileOrDir(top.c_str()), 1);
  EXPECT_EQ(IsDirExist(top.c_str()), 0);
  EXPECT_EQ(IsFileExist(outside.c_str()), 1);  // the link was not followed
  EXPECT_EQ(YCRemoveFileOrDir(outside.c_str()), 1);
  EXPECT_EQ(IsFileExist(outside.c_str()), 0);
  EXPECT_EQ(YCRemoveFileOrDir(outside.c_str()), 0);
}

}  // namespace
