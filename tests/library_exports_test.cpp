// The library as a host sees it: loaded with dlopen, reached only through its
// exported names.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>
#include <set>
#include <string>
#include <vector>

#include "TQFFormat.h"
#include "TQFPlay.h"
#include "TempFolder.h"

namespace {

const char* const EXPORTS[] = {
    "TQ_Initial",     "TQ_Free",         "TQ_GetDecoderInf", "TQ_OpenFile",    "TQ_CloseFile",
    "TQ_GetFileTime", "TQ_OpenStream",   "TQ_CloseStream",   "TQ_InputData",   "TQ_ClearBuffer",
    "TQ_GetMediaInfo", "TQ_Play",        "TQ_Stop",          "TQ_SetPlayTime", "TQ_GetPlayTime",
    "TQ_StartRecord", "TQ_StopRecord",   "TQ_SetDebugSink",  "TQ_SetAssertHandler"};

const std::string LIBRARY = std::string(TQF_BINARY_DIR) + "/libTQFPlay.so";
const std::string DEMO = std::string(TQF_SOURCE_DIR) + "/samples/demo.tqf";

struct Library {
  explicit Library(const std::string& path = LIBRARY) : handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {}
  ~Library() {
    if (handle) dlclose(handle);
  }
  template <class F>
  F* Get(const char* name) {
    return reinterpret_cast<F*>(dlsym(handle, name));
  }
  void* handle;
};
// An export of `lib`, by its declaration in the header.
#define TQ(lib, name) (lib).Get<decltype(name)>(#name)

class LibraryExports : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(lib_.handle, nullptr) << dlerror(); }
  void TearDown() override { TQ(lib_, TQ_Free)(); }
  Library lib_;
};

TEST(LibrarySymbols, ExportsTheNineteenNamesAndNothingElse) {
  FILE* pipe = popen(("nm -D --defined-only " + LIBRARY).c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::set<std::string> names;
  char line[512], address[64], type[8], name[256];
  while (fgets(line, sizeof line, pipe))
    if (sscanf(line, "%63s %7s %255s", address, type, name) == 3) names.insert(name);
  ASSERT_EQ(pclose(pipe), 0);
  EXPECT_EQ(names, std::set<std::string>(std::begin(EXPORTS), std::end(EXPORTS)));
}

TEST_F(LibraryExports, FixedAnswersNeedNoInitialAndNoHandle) {
  char text[256];
  memset(text, 'x', sizeof text);
  EXPECT_EQ(TQ(lib_, TQ_GetDecoderInf)(text, 1), 0);
  EXPECT_STREQ(text,
               "Company=Company;BuildTime=20120313;Version=3.0;Protocol=TQ_TQF_V3.0;"
               "Check=0,4,0x54514630;FileHeadLen=20");
  static_assert(sizeof(MediaInfoRecord) == 10);
  uint8_t bytes[10], expected[10] = {0x40, 0x02, 0, 0, 25, 0, 0, 0, 0, 0};
  memset(bytes, 0xAA, sizeof bytes);
  EXPECT_EQ(TQ(lib_, TQ_GetMediaInfo)(123456, reinterpret_cast<MediaInfoRecord*>(bytes)), 0);
  EXPECT_EQ(memcmp(bytes, expected, 10), 0);
  EXPECT_EQ(TQ(lib_, TQ_GetMediaInfo)(3, nullptr), 0);
  EXPECT_EQ(TQ(lib_, TQ_ClearBuffer)(99), 0);
}

std::atomic<int> g_pictures{0};

int32_t CountPicture(int32_t, uint8_t*, int32_t, int32_t, int32_t, uint32_t, int32_t, int32_t, uint32_t) {
  ++g_pictures;
  return 0;
}

// Installed under a folder path of hundreds of characters, the library still
// finds its plugins beside itself and opens files by such paths.
TEST(LibraryInstall, WorksUnderAPathLongerThanTwoHundredSixtyCharacters) {
  TempFolder top;
  std::string folder = top.path();
  while (folder.size() < 320) {
    folder += "/" + std::string(50, 'p');
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  }
  const std::string copy = "cp '" + LIBRARY + "' '" + std::string(TQF_BINARY_DIR) + "/libjpgdec.so' '" +
                           std::string(TQF_SOURCE_DIR) + "/samples/jpeg422.tqf' '" + folder + "/'";
  ASSERT_EQ(system(copy.c_str()), 0);
  Library lib(folder + "/libTQFPlay.so");
  ASSERT_NE(lib.handle, nullptr) << dlerror();
  TQ(lib, TQ_Initial)();
  int32_t h = -1;
  ASSERT_EQ(TQ(lib, TQ_OpenFile)((folder + "/jpeg422.tqf").c_str(), &h), 0);
  TQ(lib, TQ_Play)(h, CountPicture, 0);
  for (int i = 0; i < 5000 && g_pictures.load() < 10; ++i) usleep(1000);
  EXPECT_GE(g_pictures.load(), 10);  // JPEG pictures: the plugin was found
  TQ(lib, TQ_Free)();
}

// The header block's size: its length word and the eight bytes before it.
uint32_t HeaderSize(const std::vector<uint8_t>& bytes) { return LoadU32(bytes.data() + 4) + 8; }

TEST_F(LibraryExports, InitialFreeAndHandlesThatCountFromZeroSkipRefusalsAndRestartAfterFree) {
  auto openStream = TQ(lib_, TQ_OpenStream);
  auto openFile = TQ(lib_, TQ_OpenFile);
  const std::vector<uint8_t> demo = ReadWholeFile(DEMO);
  EXPECT_EQ(TQ(lib_, TQ_Free)(), 0);  // without TQ_Initial
  ASSERT_EQ(TQ(lib_, TQ_Initial)(), 0);
  EXPECT_EQ(TQ(lib_, TQ_Initial)(), -1);  // the manager and its handles stay
  int32_t h = -1;
  ASSERT_EQ(openStream(demo.data(), HeaderSize(demo), &h), 0);
  EXPECT_EQ(h, 0);
  // Refusals leave the out handle unwritten. What is not a regular file is
  // refused at once: a FIFO with no writer would otherwise block the open,
  // and with it every player of the process.
  TempFolder folder;
  ASSERT_EQ(mkfifo(folder.File("fifo").c_str(), 0600), 0);
  const int32_t refusals[] = {openStream(demo.data(), 15, &h), openStream(nullptr, 0, &h), openFile(nullptr, &h),
                              openFile("/nonexistent.tqf", &h), openFile(folder.File("fifo").c_str(), &h)};
  for (int32_t r : refusals) EXPECT_EQ(r, -1);
  EXPECT_EQ(h, 0);
  ASSERT_EQ(openFile(DEMO.c_str(), &h), 0);
  EXPECT_EQ(h, 6);
  // Kinds are kept apart: a stream has no play time, and each closes by its own call.
  uint32_t seconds = 77;
  EXPECT_EQ(TQ(lib_, TQ_GetPlayTime)(0, &seconds), -1);
  EXPECT_EQ(TQ(lib_, TQ_Stop)(0), 0);
  EXPECT_EQ(TQ(lib_, TQ_CloseStream)(3), -1);  // a file's handle
  EXPECT_EQ(TQ(lib_, TQ_CloseFile)(0), -1);    // a stream's handle
  // Handles never given out are refused, and nothing is written for them.
  for (int32_t r : {TQ(lib_, TQ_GetFileTime)(1000, &seconds), TQ(lib_, TQ_SetPlayTime)(-1, 1), TQ(lib_, TQ_Play)(2, nullptr, 0),
                    TQ(lib_, TQ_InputData)(1000, nullptr, 0), TQ(lib_, TQ_StopRecord)(-1), TQ(lib_, TQ_CloseFile)(2)})
    EXPECT_EQ(r, -1);
  EXPECT_EQ(seconds, 77u);
  EXPECT_EQ(TQ(lib_, TQ_Free)(), 0);  // closes both players
  EXPECT_EQ(TQ(lib_, TQ_Free)(), 0);
  ASSERT_EQ(TQ(lib_, TQ_Initial)(), 0);
  ASSERT_EQ(openFile(DEMO.c_str(), &h), 0);
  EXPECT_EQ(h, 0);
}

std::atomic<bool> g_entered{false};

int32_t SlowOnce(int32_t, uint8_t*, int32_t, int32_t, int32_t, uint32_t, int32_t, int32_t, uint32_t) {
  if (!g_entered.exchange(true)) {
    usleep(300000);
    fprintf(stderr, "callback finished\n");
  }
  return 0;
}

// A host that exits without TQ_Free still gets its players closed: the exit
// waits for the callback in progress instead of cutting it off.
TEST(LibraryTeardownDeathTest, ExitWithoutFreeClosesThePlayers) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Library lib;
        const std::vector<uint8_t> demo = ReadWholeFile(DEMO);
        const uint32_t size = HeaderSize(demo);
        TQ(lib, TQ_Initial)();
        int32_t h = -1;
        TQ(lib, TQ_OpenStream)(demo.data(), size, &h);
        TQ(lib, TQ_Play)(h, SlowOnce, 0);
        TQ(lib, TQ_InputData)(h, demo.data() + size, int32_t(demo.size() - size));
        while (!g_entered) usleep(1000);
        exit(0);
      },
      ::testing::ExitedWithCode(0), "callback finished");
}

}  // namespace
