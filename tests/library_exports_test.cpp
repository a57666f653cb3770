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

struct Library {
  void* handle = dlopen(LIBRARY.c_str(), RTLD_NOW | RTLD_LOCAL);
  ~Library() {
    if (handle) dlclose(handle);
  }
  template <class F>
  F* Get(const char* name) {
    return reinterpret_cast<F*>(dlsym(handle, name));
  }
};

class LibraryExports : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(lib_.handle, nullptr) << dlerror();
    for (const char* name : EXPORTS) ASSERT_NE(dlsym(lib_.handle, name), nullptr) << name;
    lib_.Get<int32_t(TQ_DebugSink, void*)>("TQ_SetDebugSink")(
        [](const char* line, void* c) { static_cast<std::vector<std::string>*>(c)->push_back(line); },
        &lines_);
  }
  void TearDown() override {
    lib_.Get<int32_t()>("TQ_Free")();
    lib_.Get<int32_t(TQ_DebugSink, void*)>("TQ_SetDebugSink")(nullptr, nullptr);
  }
  Library lib_;
  std::vector<std::string> lines_;
};

TEST(LibrarySymbols, ExportsTheNineteenNamesAndNothingElse) {
  std::string command = "nm -D --defined-only " + LIBRARY;
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::set<std::string> names;
  char line[512];
  while (fgets(line, sizeof line, pipe)) {
    char address[64], type[8], name[256];
    if (sscanf(line, "%63s %7s %255s", address, type, name) == 3) names.insert(name);
  }
  ASSERT_EQ(pclose(pipe), 0);
  std::set<std::string> expected(std::begin(EXPORTS), std::end(EXPORTS));
  EXPECT_EQ(names, expected);
}

TEST_F(LibraryExports, InitialTwiceThenFreeTwiceWithTheirDebugLines) {
  auto initial = lib_.Get<int32_t()>("TQ_Initial");
  auto release = lib_.Get<int32_t()>("TQ_Free");
  EXPECT_EQ(release(), 0);  // without TQ_Initial
  EXPECT_EQ(initial(), 0);
  EXPECT_EQ(initial(), -1);
  EXPECT_EQ(release(), 0);
  EXPECT_EQ(release(), 0);
  EXPECT_EQ(initial(), 0);
  const std::vector<std::string> expected = {"TQ_Free\n", "TQ_Initial\n", "TQ_Initial\n",
                                             "TQ_Free\n", "TQ_Free\n",    "TQ_Initial\n"};
  EXPECT_EQ(lines_, expected);
}

TEST_F(LibraryExports, FixedAnswersNeedNoInitialAndNoHandle) {
  char text[256];
  memset(text, 'x', sizeof text);
  EXPECT_EQ(lib_.Get<int32_t(char*, uint32_t)>("TQ_GetDecoderInf")(text, 1), 0);
  EXPECT_STREQ(text,
               "Company=Company;BuildTime=20120313;Version=3.0;Protocol=TQ_TQF_V3.0;"
               "Check=0,4,0x54514630;FileHeadLen=20");

  static_assert(sizeof(MediaInfoRecord) == 10);
  auto mediaInfo = lib_.Get<int32_t(int32_t, MediaInfoRecord*)>("TQ_GetMediaInfo");
  for (int32_t handle : {0, 7, -1, 123456}) {
    uint8_t bytes[10];
    memset(bytes, 0xAA, sizeof bytes);
    EXPECT_EQ(mediaInfo(handle, reinterpret_cast<MediaInfoRecord*>(bytes)), 0);
    const uint8_t expected[10] = {0x40, 0x02, 0, 0, 25, 0, 0, 0, 0, 0};
    EXPECT_EQ(memcmp(bytes, expected, 10), 0);
  }
  EXPECT_EQ(mediaInfo(3, nullptr), 0);
  EXPECT_EQ(lib_.Get<int32_t(int32_t)>("TQ_ClearBuffer")(99), 0);
}

TEST_F(LibraryExports, EveryHandleTakingExportAnswersMinusOneForUnknownHandles) {
  ASSERT_EQ(lib_.Get<int32_t()>("TQ_Initial")(), 0);
  uint32_t seconds = 77;
  const uint8_t bytes[4] = {};
  for (int32_t h : {0, 1, -1, 1000}) {
    EXPECT_EQ(lib_.Get<int32_t(int32_t)>("TQ_CloseFile")(h), -1);
    EXPECT_EQ(lib_.Get<int32_t(int32_t)>("TQ_CloseStream")(h), -1);
    EXPECT_EQ(lib_.Get<int32_t(int32_t, uint32_t*)>("TQ_GetFileTime")(h, &seconds), -1);
    EXPECT_EQ(lib_.Get<int32_t(int32_t, uint32_t*)>("TQ_GetPlayTime")(h, &seconds), -1);
    EXPECT_EQ(lib_.Get<int32_t(int32_t, int32_t)>("TQ_SetPlayTime")(h, 1), -1);
    EXPECT_EQ(lib_.Get<int32_t(int32_t, const uint8_t*, int32_t)>("TQ_InputData")(h, bytes, 4), -1);
    EXPECT_EQ(lib_.Get<int32_t(int32_t, PictureCallback, uint32_t)>("TQ_Play")(h, nullptr, 0), -1);
    EXPECT_EQ(lib_.Get<int32_t(int32_t)>("TQ_Stop")(h), -1);
    EXPECT_EQ(lib_.Get<int32_t(int32_t, const char*)>("TQ_StartRecord")(h, "/tmp/x.tqf"), -1);
    EXPECT_EQ(lib_.Get<int32_t(int32_t)>("TQ_StopRecord")(h), -1);
  }
  EXPECT_EQ(seconds, 77u);
}

TEST_F(LibraryExports, FailedOpensLeaveTheOutHandleUnwritten) {
  ASSERT_EQ(lib_.Get<int32_t()>("TQ_Initial")(), 0);
  auto openStream = lib_.Get<int32_t(const uint8_t*, uint32_t, int32_t*)>("TQ_OpenStream");
  auto openFile = lib_.Get<int32_t(const char*, int32_t*)>("TQ_OpenFile");
  int32_t handle = -77;
  const uint8_t header[15] = {'T', 'Q', 'F', '0'};
  EXPECT_EQ(openStream(header, 15, &handle), -1);
  EXPECT_EQ(openStream(nullptr, 0, &handle), -1);  // header not read below 16 bytes
  EXPECT_EQ(openFile(nullptr, &handle), -1);
  EXPECT_EQ(openFile("/nonexistent/file.tqf", &handle), -1);
  // What is not a regular file is refused at once: a FIFO with no writer
  // would otherwise block the open, and with it every player of the process.
  TempFolder folder;
  const std::string fifo = folder.File("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(openFile(fifo.c_str(), &handle), -1);
  EXPECT_EQ(handle, -77);
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
  void* lib = dlopen((folder + "/libTQFPlay.so").c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(lib, nullptr) << dlerror();
  auto get = [&](const char* name) { return dlsym(lib, name); };
  reinterpret_cast<int32_t (*)()>(get("TQ_Initial"))();
  int32_t h = -1;
  ASSERT_EQ(reinterpret_cast<int32_t (*)(const char*, int32_t*)>(get("TQ_OpenFile"))(
                (folder + "/jpeg422.tqf").c_str(), &h), 0);
  reinterpret_cast<int32_t (*)(int32_t, PictureCallback, uint32_t)>(get("TQ_Play"))(h, CountPicture, 0);
  for (int i = 0; i < 5000 && g_pictures.load() < 10; ++i) usleep(1000);
  EXPECT_GE(g_pictures.load(), 10);  // JPEG pictures: the plugin was found
  reinterpret_cast<int32_t (*)()>(get("TQ_Free"))();
  dlclose(lib);
}

std::vector<uint8_t> DemoBytes() { return ReadWholeFile(std::string(TQF_SOURCE_DIR) + "/samples/demo.tqf"); }

// The header block's size: its length word and the eight bytes before it.
uint32_t HeaderSize(const std::vector<uint8_t>& bytes) { return LoadU32(bytes.data() + 4) + 8; }

TEST_F(LibraryExports, HandlesCountFromZeroSkipRefusalsAndRestartAfterFree) {
  auto initial = lib_.Get<int32_t()>("TQ_Initial");
  auto release = lib_.Get<int32_t()>("TQ_Free");
  auto openStream = lib_.Get<int32_t(const uint8_t*, uint32_t, int32_t*)>("TQ_OpenStream");
  auto openFile = lib_.Get<int32_t(const char*, int32_t*)>("TQ_OpenFile");
  const std::vector<uint8_t> demo = DemoBytes();
  const std::string demoPath = std::string(TQF_SOURCE_DIR) + "/samples/demo.tqf";
  ASSERT_EQ(initial(), 0);
  int32_t h = -1;
  ASSERT_EQ(openStream(demo.data(), HeaderSize(demo), &h), 0);
  EXPECT_EQ(h, 0);
  EXPECT_EQ(openStream(demo.data(), 15, &h), -1);
  EXPECT_EQ(openFile("/nonexistent.tqf", &h), -1);
  ASSERT_EQ(openFile(demoPath.c_str(), &h), 0);
  EXPECT_EQ(h, 3);
  // Kinds are kept apart: a stream has no play time, and each closes by its own call.
  uint32_t seconds = 0;
  EXPECT_EQ(lib_.Get<int32_t(int32_t, uint32_t*)>("TQ_GetPlayTime")(0, &seconds), -1);
  EXPECT_EQ(lib_.Get<int32_t(int32_t)>("TQ_Stop")(0), 0);
  EXPECT_EQ(lib_.Get<int32_t(int32_t)>("TQ_CloseStream")(3), -1);  // a file's handle
  EXPECT_EQ(lib_.Get<int32_t(int32_t)>("TQ_CloseFile")(0), -1);    // a stream's handle
  EXPECT_EQ(release(), 0);  // closes both players
  ASSERT_EQ(initial(), 0);
  ASSERT_EQ(openFile(demoPath.c_str(), &h), 0);
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
        const std::vector<uint8_t> demo = DemoBytes();
        lib.Get<int32_t()>("TQ_Initial")();
        int32_t h = -1;
        lib.Get<int32_t(const uint8_t*, uint32_t, int32_t*)>("TQ_OpenStream")(demo.data(), HeaderSize(demo), &h);
        lib.Get<int32_t(int32_t, PictureCallback, uint32_t)>("TQ_Play")(h, SlowOnce, 0);
        lib.Get<int32_t(int32_t, const uint8_t*, int32_t)>("TQ_InputData")(
            h, demo.data() + HeaderSize(demo), static_cast<int32_t>(demo.size() - HeaderSize(demo)));
        while (!g_entered) usleep(1000);
        exit(0);
      },
      ::testing::ExitedWithCode(0), "callback finished");
}

}  // namespace
