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
  const std::string prefix = folder_.File("prefix");
  const std::string source = Quote(std::string(TQF_SOURCE_DIR) + "/examples/host");
  RunResult r = Shell("cmake --install " + Quote(TQF_BINARY_DIR) + " --prefix " + Quote(prefix));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  auto installed = [&](const std::string& path) { return !ReadWholeFile(prefix + "/" + path).empty(); };
  // Each plugin that was built lies beside the installed library.
  for (const std::string plugin : {"libavsdec.so", "libjpgdec.so"})
    EXPECT_EQ(installed("lib/" + plugin), !ReadWholeFile(TQF_BINARY_DIR "/" + plugin).empty()) << plugin;
  // GStreamer finds the installed plugin where the README says.
  if (!ReadWholeFile(TQF_BINARY_DIR "/gstreamer-1.0/libgsttqf.so").empty()) {
    const std::string plugins = prefix + "/lib/gstreamer-1.0";
    EXPECT_TRUE(Has(Shell("GST_PLUGIN_PATH=" + Quote(plugins) + " gst-inspect-1.0 tqfdemux").out, plugins + "/libgsttqf.so"));
  }
  // The installed tool runs on the installed library.
  const std::string tool = Quote(prefix + "/bin/tqfplay");
  EXPECT_TRUE(Has(Shell("ldd " + tool).out, prefix + "/bin/../lib/libTQFPlay.so"));
  EXPECT_TRUE(Has(Shell(tool + " play " + Quote(DEMO)).err, "play: 250 pictures"));
  // One host built with pkg-config (run through an rpath to its libdir), one with CMake.
  const std::string pc = "PKG_CONFIG_PATH=" + Quote(prefix + "/lib/pkgconfig") + " pkg-config";
  const std::string host = folder_.File("host");
  r = Shell("cc -std=c11 -Wall -Werror " + source + "/host.c -o " + Quote(host + "_pc") + " $(" + pc +
            " --cflags --libs tqfplay) -Wl,-rpath,$(" + pc + " --variable=libdir tqfplay) && cmake -S " +
            source + " -B " + Quote(host) + " -DCMAKE_PREFIX_PATH=" + Quote(prefix) +
            " >/dev/null && cmake --build " + Quote(host));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  for (const std::string& built : {host + "_pc", host + "/host"}) {
    SCOPED_TRACE(built);
    r = Shell(Quote(built) + " " + Quote(DEMO));
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "250 pictures of 640x352, 10 s\n");
    // Motion JPEG needs the jpgdec plugin: found beside the installed library.
    if (installed("lib/libjpgdec.so")) {
      EXPECT_EQ(Shell(Quote(built) + " " + Quote(JPEG)).out, "49 pictures of 320x240, 1 s\n");
    }
  }
}

}  // namespace
