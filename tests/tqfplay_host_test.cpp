// A host outside the tree: the build installed to a temporary prefix, then
// examples/host built against that copy with pkg-config and with CMake, and
// run on the samples. The installed tool must find the installed library.
#include <gtest/gtest.h>

#include <string>

#include "ToolRunner.h"

namespace {

class HostTest : public ToolTest {};

TEST_F(HostTest, InstallsAndHostsBuildAgainstTheInstalledLibrary) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "an instrumented library needs an instrumented host";
#endif
  const std::string prefix = folder_.File("prefix"), source = std::string(TQF_SOURCE_DIR) + "/examples/host";
  RunResult r = Shell("cmake --install " + Quote(TQF_BINARY_DIR) + " --prefix " + Quote(prefix));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  auto installed = [&](const std::string& path) { return !ReadWholeFile(prefix + "/" + path).empty(); };
  for (const char* file : {"lib/libTQFPlay.so", "include/TQFPlay.h", "bin/tqfplay", "lib/pkgconfig/tqfplay.pc",
                           "lib/cmake/TQFPlay/TQFPlayConfig.cmake"})
    EXPECT_TRUE(installed(file)) << file;
  // Each plugin that was built lies beside the installed library.
  for (const std::string plugin : {"libavsdec.so", "libjpgdec.so"})
    EXPECT_EQ(installed("lib/" + plugin), !ReadWholeFile(TQF_BINARY_DIR "/" + plugin).empty()) << plugin;
  // The installed tool runs on the installed library.
  const std::string tool = Quote(prefix + "/bin/tqfplay");
  EXPECT_TRUE(Has(Shell("ldd " + tool).out, prefix + "/bin/../lib/libTQFPlay.so"));
  r = Shell(tool + " play " + Quote(DEMO));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(Has(r.err, "play: 250 pictures"));

  const std::string pc = "PKG_CONFIG_PATH=" + Quote(prefix + "/lib/pkgconfig") + " pkg-config";
  const std::string libdir = Shell(pc + " --variable=libdir tqfplay").out;
  ASSERT_FALSE(libdir.empty());
  const std::string pkgHost = folder_.File("host_pc"), cmakeBuild = folder_.File("host_build");
  r = Shell("cc -std=c11 -Wall -Werror " + Quote(source + "/host.c") + " -o " + Quote(pkgHost) + " $(" + pc +
            " --cflags --libs tqfplay) -Wl,-rpath," + Quote(libdir.substr(0, libdir.size() - 1)));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  r = Shell("cmake -S " + Quote(source) + " -B " + Quote(cmakeBuild) + " -DCMAKE_PREFIX_PATH=" + Quote(prefix) +
            " >/dev/null && cmake --build " + Quote(cmakeBuild));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  for (const std::string& host : {pkgHost, cmakeBuild + "/host"}) {
    SCOPED_TRACE(host);
    r = Shell(Quote(host) + " " + Quote(DEMO));
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "250 pictures of 640x352, 10 s\n");
    // Motion JPEG needs the jpgdec plugin: found beside the installed library.
    if (installed("lib/libjpgdec.so")) {
      EXPECT_EQ(Shell(Quote(host) + " " + Quote(JPEG)).out, "49 pictures of 320x240, 1 s\n");
    }
  }
}

}  // namespace
