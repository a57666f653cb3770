// A host outside the tree: the build installed to a temporary prefix, then
// examples/host built against that copy with pkg-config and with CMake, and
// run on the samples. The installed tool must find the installed library.
#include <gtest/gtest.h>

#include <string>

#include "ToolRunner.h"

namespace {

const std::string HOST_SOURCE = std::string(TQF_SOURCE_DIR) + "/examples/host";

class HostTest : public ToolTest {
 protected:
  void SetUp() override {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "an instrumented library needs an instrumented host";
#endif
    prefix_ = folder_.File("prefix");
    RunResult r = Shell("cmake --install " + Quote(TQF_BINARY_DIR) + " --prefix " + Quote(prefix_));
    ASSERT_EQ(r.exitCode, 0) << r.err;
  }
  std::string Installed(const std::string& path) const { return prefix_ + "/" + path; }
  std::string prefix_;
};

TEST_F(HostTest, InstallsLibraryPluginsHeaderToolAndPackages) {
  for (const char* file : {"lib/libTQFPlay.so", "include/TQFPlay.h", "bin/tqfplay",
                           "lib/pkgconfig/tqfplay.pc", "lib/cmake/TQFPlay/TQFPlayConfig.cmake"})
    EXPECT_FALSE(ReadWholeFile(Installed(file)).empty()) << file;
  // Each plugin that was built lies beside the installed library.
  for (const char* plugin : {"libavsdec.so", "libjpgdec.so"}) {
    bool built = !ReadWholeFile(std::string(TQF_BINARY_DIR) + "/" + plugin).empty();
    EXPECT_EQ(!ReadWholeFile(Installed("lib/") + plugin).empty(), built) << plugin;
  }
  // The installed tool runs on the installed library.
  RunResult ldd = Shell("ldd " + Quote(Installed("bin/tqfplay")));
  EXPECT_NE(ldd.out.find(Installed("bin/../lib/libTQFPlay.so")), std::string::npos) << ldd.out;
  RunResult play = Shell(Quote(Installed("bin/tqfplay")) + " play " + Quote(SAMPLES + "demo.tqf"));
  EXPECT_EQ(play.exitCode, 0) << play.err;
  EXPECT_NE(play.err.find("play: 250 pictures"), std::string::npos) << play.err;
}

TEST_F(HostTest, HostBuildsWithPkgConfigAndWithCMake) {
  std::string pc = "PKG_CONFIG_PATH=" + Quote(Installed("lib/pkgconfig")) + " pkg-config";
  std::string libdir = Shell(pc + " --variable=libdir tqfplay").out;
  ASSERT_FALSE(libdir.empty());
  libdir.pop_back();  // the newline
  std::string pkgHost = folder_.File("host_pc");
  RunResult build = Shell("cc -std=c11 -Wall -Werror " + Quote(HOST_SOURCE + "/host.c") + " -o " +
                          Quote(pkgHost) + " $(" + pc + " --cflags --libs tqfplay) -Wl,-rpath," +
                          Quote(libdir));
  ASSERT_EQ(build.exitCode, 0) << build.err;

  std::string cmakeBuild = folder_.File("host_build");
  build = Shell("cmake -S " + Quote(HOST_SOURCE) + " -B " + Quote(cmakeBuild) +
                " -DCMAKE_PREFIX_PATH=" + Quote(prefix_) + " >/dev/null && cmake --build " +
                Quote(cmakeBuild));
  ASSERT_EQ(build.exitCode, 0) << build.err;

  for (const std::string& host : {pkgHost, cmakeBuild + "/host"}) {
    SCOPED_TRACE(host);
    RunResult r = Shell(Quote(host) + " " + Quote(SAMPLES + "demo.tqf"));
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "250 pictures of 640x352, 10 s\n");
    // Motion JPEG needs the jpgdec plugin: found beside the installed library.
    if (!ReadWholeFile(Installed("lib/libjpgdec.so")).empty()) {
      r = Shell(Quote(host) + " " + Quote(SAMPLES + "jpeg422.tqf"));
      EXPECT_EQ(r.out, "49 pictures of 320x240, 1 s\n") << r.err;
    }
  }
}

}  // namespace
