// play, stream and view end to end: the built tqfplay on the demo sample in a
// temporary folder, its outputs compared with the pictures the library gives
// a host of its own (PlayThroughLibrary). Their errors: tqfplay_tool_test.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "PictureReference.h"
#include "ToolRunner.h"

namespace {

// Pictures as packed RGB24, converted by the ffmpeg tool with the scaler's
// defaults, as the tool converts its stills.
std::vector<uint8_t> ToRgb(const TempFolder& folder, const std::string& input) {
  const std::string rgb =
      RunShell(folder, "ffmpeg -v error -nostdin " + input + " -f rawvideo -pix_fmt rgb24 -").out;
  return std::vector<uint8_t>(rgb.begin(), rgb.end());
}
struct RgbImage {
  int width = 0, height = 0;  // 0 if the file does not decode
  std::vector<uint8_t> rgb;
};
RgbImage DecodePng(const TempFolder& folder, const std::string& path) {
  RgbImage image;
  const std::string size =
      RunShell(folder, "ffprobe -v error -show_entries stream=width,height -of csv=s=x:p=0 " + Quote(path)).out;
  if (std::sscanf(size.c_str(), "%dx%d", &image.width, &image.height) == 2)
    image.rgb = ToRgb(folder, "-i " + Quote(path));
  return image;
}
std::vector<uint8_t> I420ToRgb(const TempFolder& folder, const std::vector<uint8_t>& picture) {
  const std::string path = folder.File("picture.yuv");
  if (!WriteWholeFile(path, picture)) return {};
  return ToRgb(folder, "-f rawvideo -pix_fmt yuv420p -s 640x352 -i " + Quote(path));
}
// The mean absolute difference of two images' bytes (255 if sizes differ).
double MeanDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  if (a.size() != b.size() || a.empty()) return 255;
  double sum = 0;
  for (size_t i = 0; i < a.size(); ++i) sum += std::abs(a[i] - b[i]);
  return sum / static_cast<double>(a.size());
}
// The standard deviation of the bytes: near 0 for a blank image.
double Spread(const std::vector<uint8_t>& bytes) {
  double sum = 0, squares = 0;
  for (uint8_t b : bytes) sum += b, squares += b * b;
  const double n = static_cast<double>(bytes.size());
  return std::sqrt(squares / n - (sum / n) * (sum / n));
}

// The library's pictures of the demo sample, played once for all tests.
const PictureRun& DemoReference() {
  static const PictureRun run = PlayThroughLibrary(DEMO);
  return run;
}

// The tail of the reference from picture `first` on; every video frame of the sample is indexed.
std::vector<uint64_t> ReferenceFrom(size_t first) {
  const PictureRun& all = DemoReference();
  if (!all.ended || all.hashes.size() != 250) return {};
  return std::vector<uint64_t>(all.hashes.begin() + static_cast<long>(first), all.hashes.end());
}

class PlayTest : public ToolTest {};

// Standard output carries the data alone ("-"); the summary goes to standard
// error. A PNG still is the library's picture, converted to RGB and packed losslessly.
TEST_F(PlayTest, PlayWritesTheLibrarysPicturesToY4MAndPng) {
  const std::string y4m = folder_.File("out.y4m"), stills = folder_.File("stills");
  struct Case {
    std::string options;
    size_t firstPicture;
    double minSeconds;
  };
  const Case cases[] = {
      // The seek decodes up to the frame of that time; the next picture is the frame after it.
      {"--start 8", 8 * 25 + 1, 0},
      {"--start=00:00:09.500 --realtime", 9 * 25 + 1, 0.9},  // whole seconds; 24 pictures at 25 a second
      {"--png " + Quote(stills) + " --every 50", 0, 0},  // last: its Y4M is compared with "-" below
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.options);
    const auto start = std::chrono::steady_clock::now();
    RunResult r = Tool("play -y " + Quote(DEMO) + " --y4m " + Quote(y4m) + " " + c.options);
    EXPECT_GE(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
              c.minSeconds);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(ReadY4M(y4m).hashes, ReferenceFrom(c.firstPicture));
    EXPECT_TRUE(Has(r.err, "play: " + std::to_string(250 - c.firstPicture) + " pictures"));
  }
  EXPECT_TRUE(Tool("play " + Quote(DEMO) + " --y4m -").out == Text(y4m));
  EXPECT_EQ(Shell("ls " + Quote(stills)).out, "000000.png\n000050.png\n000100.png\n000150.png\n000200.png\n");
  const std::vector<uint8_t> first = I420ToRgb(folder_, DemoReference().first);
  EXPECT_LT(MeanDifference(DecodePng(folder_, stills + "/000000.png").rgb, first), 0.5);
}

// From a file, standard input or a FIFO, in chunks of any size. A recording
// holds video only, from the start or from the next key frame after
// --record-after; its last frame is not indexed.
TEST_F(PlayTest, StreamDeliversEveryFrameAndRecordsIt) {
  const std::string y4m = Quote(folder_.File("stream.y4m")), fifo = Quote(folder_.File("camera"));
  const std::string recorded = Quote(folder_.File("recorded.tqf")), replay = folder_.File("replay.y4m");
  ASSERT_EQ(Shell("mkfifo " + fifo).exitCode, 0);
  const std::string stream = TOOL + " stream -y ", demo = Quote(DEMO), record = " --record " + recorded;
  const std::pair<std::string, int> cases[] = {  // the command, and the first frame recorded (-1: none)
      {stream + demo + " --random-chunks --seed 7 --y4m " + y4m + record, 0},
      {stream + demo + " --chunk 1 --y4m " + y4m, -1},
      {"cat " + demo + " | " + stream + "- --random-chunks --y4m - " + record + " --record-after 4 > " + y4m, 100},
      {"(cat " + demo + " > " + fifo + " &); " + stream + fifo + " --chunk 1000 --y4m " + y4m, -1}};
  for (const auto& [command, recordedFrom] : cases) {
    SCOPED_TRACE(command);
    RunResult r = Shell(command);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(ReadY4M(folder_.File("stream.y4m")).hashes, ReferenceFrom(0));
    if (recordedFrom < 0) continue;
    EXPECT_TRUE(Has(Tool("info --json " + recorded).out,
                    "\"stream\":0,\"indexed\":true,\"frames\":" + std::to_string(249 - recordedFrom) + ","));
    ASSERT_EQ(Tool("play -y " + recorded + " --y4m " + Quote(replay)).exitCode, 0);
    std::vector<uint64_t> expected = ReferenceFrom(static_cast<size_t>(recordedFrom));
    if (!expected.empty()) expected.pop_back();
    EXPECT_EQ(ReadY4M(replay).hashes, expected);
  }
}

// A run stopped by a signal exits as the shell expects: 128 plus the signal.
TEST_F(PlayTest, SignalsGiveTheShellsExitCodes) {
  for (const auto& [signal, code] : {std::pair{"INT", 130}, {"TERM", 143}}) {
    RunResult r = Shell("timeout --preserve-status -s " + std::string(signal) + " 1 " + TOOL +
                        " play " + Quote(DEMO) + " --realtime");
    EXPECT_EQ(r.exitCode, code) << signal << ": " << r.err;
    EXPECT_TRUE(Has(r.err, "interrupted"));
  }
}

// SDL's X11 and D-Bus libraries keep allocations at exit from modules the leak
// checker cannot name; the tool's own code is leak-checked by the other runs.
#if defined(__SANITIZE_ADDRESS__)
const std::string VIEWER_ENV = "ASAN_OPTIONS=\"$ASAN_OPTIONS:detect_leaks=0\" ";
#else
const std::string VIEWER_ENV;
#endif

// The last second of the file, then the window quits and is read back. On a
// screen too small for the picture the window is scaled down to fit.
TEST_F(PlayTest, ViewerShowsTheSampleUnderXvfb) {
  if (Shell("command -v xvfb-run").exitCode != 0) GTEST_SKIP() << "xvfb-run is not installed";
  const std::string shot = folder_.File("shot.png");
  for (const char* screen : {"800x600", "480x320"}) {
    SCOPED_TRACE(screen);
    RunResult r = Shell(VIEWER_ENV + "TQFPLAY_VIEW_SNAPSHOT=" + Quote(shot) + " xvfb-run -a -s '-screen 0 " +
                        screen + "x24' " + TOOL + " view --start 9 --autoexit " + Quote(DEMO));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const RgbImage image = DecodePng(folder_, shot);
    EXPECT_GT(Spread(image.rgb), 20.0);  // a test picture, not a blank window
    if (std::string(screen) == "480x320") {
      EXPECT_TRUE(image.width <= 480 && image.height <= 320) << image.width << "x" << image.height;
      EXPECT_NEAR(image.width / static_cast<double>(image.height), 640.0 / 352, 0.02);
      continue;
    }
    // The file's last picture at 640x352 (any other size differs by 255); SDL's
    // colour conversion is not bit-exact with libswscale's, hence the mean difference.
    const std::vector<uint8_t> last = I420ToRgb(folder_, DemoReference().last);
    EXPECT_LT(MeanDifference(image.rgb, last), 6.0);
  }
}

// The keys, sent with xdotool and checked in the title and on the screen.
TEST_F(PlayTest, ViewerKeysUnderXvfb) {
  if (Shell("command -v xvfb-run && command -v xdotool").exitCode != 0)
    GTEST_SKIP() << "xvfb-run and xdotool are needed";
  RunResult r = Shell(VIEWER_ENV + "xvfb-run -a -s '-screen 0 800x600x24' " +
                      Quote(std::string(TQF_SOURCE_DIR) + "/tests/scripts/view_keys.sh") + " " + TOOL +
                      " " + Quote(DEMO));
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_EQ(Lines(r.out), 7) << r.out;
}

}  // namespace
