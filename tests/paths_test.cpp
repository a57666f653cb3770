// Paths and the checked save are not run by the players: one contract test.
#include "Paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "TempFolder.h"

using Bytes = std::vector<uint8_t>;

TEST(Paths, Contract) {
  TempFolder folder;
  const std::string file = folder.File("file"), link = folder.File("link"), to = folder.File("to");
  ASSERT_TRUE(WriteWholeFile(file, {1, 2}));
  ASSERT_EQ(symlink(folder.path().c_str(), link.c_str()), 0);
  const struct {
    const char* path;
    int32_t isFile, isDir;
  } exists[] = {{file.c_str(), 1, 0}, {link.c_str(), 0, 1}, {"/no/such", 0, 0}, {"", 0, 0},
                {nullptr, 0, 0},      {reinterpret_cast<const char*>(16), 0, 0}};  // unreadable
  for (const auto& c : exists)
    EXPECT_EQ(std::make_pair(IsFileExist(c.path), IsDirExist(c.path)), std::make_pair(c.isFile, c.isDir))
        << "row " << &c - exists;

  // Moves never replace. A blank file keeps its bytes and grows with zeros.
  ASSERT_TRUE(WriteWholeFile(to, {3, 4}));
  EXPECT_EQ(MoveFileIfExist(file.c_str(), to.c_str()), 0);
  EXPECT_EQ(CreateBlankFile(to.c_str(), 10, 0), 0);
  EXPECT_EQ(ReadWholeFile(to), (Bytes{3, 4}));
  EXPECT_EQ(CreateBlankFile(to.c_str(), 1, 1), 1);
  EXPECT_EQ(CreateBlankFile(to.c_str(), 3, 1), 1);
  EXPECT_EQ(ReadWholeFile(to), (Bytes{3, 0, 0}));
  ASSERT_EQ(unlink(to.c_str()), 0);
  EXPECT_EQ(MoveFileIfExist(file.c_str(), to.c_str()), 1);
  EXPECT_EQ(ReadWholeFile(to), (Bytes{1, 2}));
  EXPECT_EQ(IsFileExist(file.c_str()), 0);

  // The checked save: payload, then the little-endian 64-bit byte sum; the
  // version it replaces becomes ".bak" and no ".tmp" is left.
  const std::string state = folder.File("state"), bak = state + ".bak";
  const Bytes first = {0xFF, 0xFF, 1, 2}, second(500, 9);
  ASSERT_EQ(IntegralitySave(first.data(), 4, state.c_str()), 1);
  EXPECT_EQ(ReadWholeFile(state), (Bytes{0xFF, 0xFF, 1, 2, 1, 2, 0, 0, 0, 0, 0, 0}));  // sum 0x201
  ASSERT_EQ(IntegralitySave(second.data(), 500, state.c_str()), 1);
  EXPECT_EQ(IsFileExist((state + ".tmp").c_str()), 0);
  Bytes loaded = {42};
  ASSERT_EQ(IntegralityLoad(loaded, state.c_str()), 1);
  EXPECT_EQ(loaded, second);
  // One flipped bit: the backup takes the main name and is loaded.
  Bytes damaged = ReadWholeFile(state);
  damaged[100] ^= 1;
  ASSERT_TRUE(WriteWholeFile(state, damaged));
  ASSERT_EQ(IntegralityLoad(loaded, state.c_str()), 1);
  EXPECT_EQ(loaded, first);
  EXPECT_EQ(IsFileExist(bak.c_str()), 0);
  // A crash before the final move: only ".bak" and a stray ".tmp" are there.
  ASSERT_EQ(rename(state.c_str(), bak.c_str()), 0);
  ASSERT_TRUE(WriteWholeFile(state + ".tmp", {1, 2, 3}));
  loaded.clear();
  ASSERT_EQ(IntegralityLoad(loaded, state.c_str()), 1);
  EXPECT_EQ(loaded, first);

  // An empty payload saves but never loads. Each refusal is a 0 and leaves
  // `out` alone.
  const std::string small = folder.File("small"), never = folder.File("never"), noDir = folder.File("no/dir");
  ASSERT_EQ(IntegralitySave(nullptr, 0, small.c_str()), 1);
  loaded = {5};
  const int32_t refusals[] = {
      MoveFileIfExist(folder.path().c_str(), never.c_str()), CreateBlankFile(noDir.c_str(), 1, 1),
      CreateBlankFile(nullptr, 1, 1), YCRemoveFileOrDir(never.c_str()), IntegralityLoad(loaded, nullptr),
      IntegralitySave(first.data(), 1, noDir.c_str()), IntegralitySave(nullptr, 4, small.c_str()),
      IntegralityLoad(loaded, small.c_str()), IntegralityLoad(loaded, never.c_str())};
  EXPECT_EQ(std::vector<int32_t>(std::begin(refusals), std::end(refusals)), std::vector<int32_t>(9, 0));
  EXPECT_EQ(loaded, Bytes{5});

  // Removal takes a whole tree and does not follow the links in it.
  const std::string top = folder.File("top");
  ASSERT_EQ(mkdir(top.c_str(), 0755), 0);
  ASSERT_EQ(mkdir((top + "/sub").c_str(), 0755), 0);
  ASSERT_TRUE(WriteWholeFile(top + "/sub/b", {2}));
  ASSERT_EQ(symlink(folder.path().c_str(), (top + "/sub/up").c_str()), 0);
  EXPECT_EQ(YCRemoveFileOrDir(top.c_str()), 1);
  EXPECT_EQ(IsDirExist(top.c_str()), 0);
  EXPECT_EQ(IsFileExist(to.c_str()), 1);
  EXPECT_EQ(YCRemoveFileOrDir(to.c_str()), 1);
  EXPECT_EQ(IsFileExist(to.c_str()), 0);
}
