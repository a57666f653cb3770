// play, stream and view end to end: the built tqfplay on the demo sample in a
// temporary folder, its outputs compared with the pictures the library gives
// a host of its own (PlayThroughLibrary).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "ImageFile.h"
#include "PictureReference.h"
#include "TQFReader.h"
#include "ToolRunner.h"

namespace {

constexpr uint32_t DEMO_PICTURES = 250;  // every video frame of the sample is indexed
constexpr int DEMO_WIDTH = 640;
constexpr int DEMO_HEIGHT = 352;

const std::string DEMO = SAMPLES + "demo.tqf";

// The library's pictures of the demo sample, played once for all tests.
const PictureRun& DemoReference() {
  static const PictureRun run = PlayThroughLibrary(DEMO);
  return run;
}

class PlayTest : public ToolTest {
 protected:
  void SetUp() override {
    const PictureRun& reference = DemoReference();
    ASSERT_TRUE(reference.ended);
    ASSERT_EQ(reference.hashes.size(), DEMO_PICTURES);
  }
  // The tail of the reference from picture `first` on.
  static std::vector<uint64_t> ReferenceFrom(size_t first) {
    const std::vector<uint64_t>& all = DemoReference().hashes;
    return std::vector<uint64_t>(all.begin() + static_cast<long>(first), all.end());
  }
};

TEST_F(PlayTest, PlayWritesTheLibrarysPicturesToY4M) {
  struct Case {
    const char* options;
    size_t firstPicture;
  };
  const Case cases[] = {
      {"", 0},
      // The seek decodes up to the frame of that time; the next picture is
      // the frame after it.
      {"--start 8", 8 * 25 + 1},
      {"--start 9", 9 * 25 + 1},
      {"--start=00:00:09.500", 9 * 25 + 1},  // the library seeks to whole seconds
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.options);
    std::string y4m = folder_.File("out.y4m");
    RunResult r = Tool("play -y " + Quote(DEMO) + " --y4m " + Quote(y4m) + " " + c.options);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    PictureRun out = ReadY4M(y4m);
    EXPECT_EQ(out.width, DEMO_WIDTH);
    EXPECT_EQ(out.height, DEMO_HEIGHT);
    EXPECT_EQ(out.hashes, ReferenceFrom(c.firstPicture));
    EXPECT_NE(r.err.find("play: " + std::to_string(DEMO_PICTURES - c.firstPicture) + " pictures"),
              std::string::npos)
        << r.err;
  }
}

TEST_F(PlayTest, RealtimePlayTakesTheFilesDuration) {
  auto start = std::chrono::steady_clock::now();
  RunResult r = Tool("play " + Quote(DEMO) + " --start 8 --realtime");
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_GE(seconds, 1.9);  // 49 pictures at 25 a second
  EXPECT_NE(r.err.find("play: 49 pictures"), std::string::npos) << r.err;
}

TEST_F(PlayTest, PngStillsDecodeWithThePictureSize) {
  std::string stills = folder_.File("stills");
  RunResult r = Tool("play " + Quote(DEMO) + " --png " + Quote(stills) + " --every 50");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  for (int n = 0; n < 250; n += 50) {
    char name[32];
    std::snprintf(name, sizeof name, "/%06d.png", n);
    SCOPED_TRACE(name);
    RgbImage image = DecodePng(stills + name);
    EXPECT_EQ(image.width, DEMO_WIDTH);
    EXPECT_EQ(image.height, DEMO_HEIGHT);
  }
  EXPECT_TRUE(ReadWholeFile(stills + "/000001.png").empty());  // only every 50th
  // A still is the library's picture, converted to RGB and packed losslessly.
  RgbImage still = DecodePng(stills + "/000000.png");
  EXPECT_LT(MeanDifference(still.rgb, I420ToRgb(DemoReference().first, DEMO_WIDTH, DEMO_HEIGHT)),
            0.5);
}

// From a file, standard input or a FIFO, in chunks of any size.
TEST_F(PlayTest, StreamDeliversEveryFrameWhateverTheSourceAndChunks) {
  const std::string y4m = Quote(folder_.File("stream.y4m")), fifo = Quote(folder_.File("camera"));
  ASSERT_EQ(Shell("mkfifo " + fifo).exitCode, 0);
  const std::string stream = TOOL + " stream -y ";
  const std::string commands[] = {
      stream + Quote(DEMO) + " --random-chunks --seed 7 --y4m " + y4m,
      stream + Quote(DEMO) + " --chunk 1 --y4m " + y4m,
      stream + Quote(DEMO) + " --chunk 4194304 --y4m " + y4m,
      "cat " + Quote(DEMO) + " | " + stream + "- --random-chunks --y4m - > " + y4m,
      "(cat " + Quote(DEMO) + " > " + fifo + " &); " + stream + fifo + " --chunk 1000 --y4m " + y4m,
  };
  for (const std::string& command : commands) {
    SCOPED_TRACE(command);
    RunResult r = Shell(command);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(ReadY4M(folder_.File("stream.y4m")).hashes, DemoReference().hashes);
    EXPECT_EQ(r.err.find("gave no picture"), std::string::npos) << r.err;
  }
}

TEST_F(PlayTest, StreamRecordingPlaysBack) {
  struct Case {
    const char* options;
    uint32_t firstFrame;  // of the sample, where the recording starts
  };
  const Case cases[] = {
      {"", 0},
      {"--record-after 4", 100},  // the next key frame after 4 s of video
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.options);
    std::string recorded = folder_.File("recorded.tqf");
    RunResult r = Tool("stream -y " + Quote(DEMO) + " --random-chunks --record " + Quote(recorded) +
                       " " + c.options);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    // A recording holds video only; its last frame is not indexed.
    uint32_t indexed = DEMO_PICTURES - c.firstFrame - 1;
    RunResult info = Tool("info --json " + Quote(recorded));
    ASSERT_EQ(info.exitCode, 0) << info.err;
    EXPECT_NE(info.out.find("\"stream\":0,\"indexed\":true,\"frames\":" + std::to_string(indexed) +
                            ","),
              std::string::npos)
        << info.out;
    std::string y4m = folder_.File("replay.y4m");
    r = Tool("play -y " + Quote(recorded) + " --y4m " + Quote(y4m));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    std::vector<uint64_t> expected = ReferenceFrom(c.firstFrame);
    expected.pop_back();
    EXPECT_EQ(ReadY4M(y4m).hashes, expected);
  }
}

// Standard output carries the data alone ("-" is standard output); the
// summary goes to standard error.
TEST_F(PlayTest, StandardOutputCarriesOnlyTheVideo) {
  const std::string y4m = folder_.File("file.y4m");
  ASSERT_EQ(Tool("play " + Quote(DEMO) + " --y4m " + Quote(y4m)).exitCode, 0);
  RunResult piped = Tool("play " + Quote(DEMO) + " --y4m -");
  ASSERT_EQ(piped.exitCode, 0) << piped.err;
  const std::vector<uint8_t> file = ReadWholeFile(y4m);
  EXPECT_TRUE(piped.out == std::string(file.begin(), file.end()));
  EXPECT_NE(piped.err.find("play: 250 pictures"), std::string::npos);
}

// A run stopped by a signal exits as the shell expects: 128 plus the signal.
TEST_F(PlayTest, SignalsGiveTheShellsExitCodes) {
  for (const auto& [signal, code] : {std::pair{"INT", 130}, {"TERM", 143}}) {
    RunResult r = RunShell(folder_, "timeout --preserve-status -s " + std::string(signal) + " 1 " +
                                        TOOL + " play " + Quote(DEMO) + " --realtime");
    EXPECT_EQ(r.exitCode, code) << signal << ": " << r.err;
    EXPECT_NE(r.err.find("interrupted"), std::string::npos) << r.err;
  }
}

TEST_F(PlayTest, ErrorsAreOneLineAndNonZero) {
  std::string notTqf = folder_.File("not.tqf");
  ASSERT_TRUE(WriteWholeFile(notTqf, std::vector<uint8_t>(100, 0x41)));
  std::string noKeys = folder_.File("nokeys.tqf");
  {
    // The sample with every key flag cleared: it plays nothing and never ends.
    std::vector<uint8_t> bytes = ReadWholeFile(DEMO);
    TQFReader::ScanFrames(
        bytes.data(), static_cast<uint32_t>(bytes.size()),
        [](const ScannedFrame& frame, void* context) {
          auto* b = static_cast<std::vector<uint8_t>*>(context);
          (*b)[frame.syncOffset + 5] &= static_cast<uint8_t>(~1);  // bit 8 of info
          return true;
        },
        &bytes, nullptr);
    ASSERT_TRUE(WriteWholeFile(noKeys, bytes));
  }
  const std::string missing = Quote(folder_.File("missing.tqf"));
  const std::string empty = folder_.File("empty.tqf"), huge = folder_.File("huge.tqf");
  ASSERT_TRUE(WriteWholeFile(empty, {}));
  std::vector<uint8_t> hugeBytes = ReadWholeFile(DEMO);
  hugeBytes[28] = 0x00;  // the descriptor's width: 16384
  hugeBytes[29] = 0x40;
  ASSERT_TRUE(WriteWholeFile(huge, hugeBytes));
  // The header block alone, and the codec renamed in the record type and the descriptor.
  const std::string headerOnly = folder_.File("header.tqf"), unknown = folder_.File("xv1d.tqf");
  std::vector<uint8_t> renamed = ReadWholeFile(DEMO);
  ASSERT_TRUE(WriteWholeFile(headerOnly, std::vector<uint8_t>(renamed.begin(), renamed.begin() + 100)));
  for (size_t at : {16, 40}) std::memcpy(&renamed[at], "XV1D", 4);
  ASSERT_TRUE(WriteWholeFile(unknown, renamed));
  const std::string unwritable = Quote(folder_.File("no/such/folder/out"));
  struct Case {
    std::string arguments;
    const char* message;
    int exitCode;
  };
  const Case cases[] = {
      {"play", "missing arguments", 2},
      {"play " + Quote(DEMO) + " --every 0", "bad value '0' for --every", 2},
      {"play " + Quote(DEMO) + " --start -1", "bad value '-1' for --start", 2},
      {"play " + Quote(DEMO) + " --start 10", "past the end", 1},
      {"play " + Quote(DEMO) + " --y4m", "--y4m needs a value", 2},
      {"play " + Quote(DEMO) + " extra", "unexpected argument 'extra'", 2},
      {"play " + missing, "missing.tqf: No such file or directory", 1},
      {"play " + Quote(notTqf), "Invalid data found: not a TQF file", 1},
      {"play " + Quote(folder_.path()), "Is a directory", 1},
      {"play " + Quote(empty), "Invalid data found: the file is empty", 1},
      {"play " + Quote(huge), "a picture size of 16384x352 cannot be played", 1},
      {"play " + Quote(DEMO) + " --y4m " + unwritable, "cannot write", 1},
      {"play " + Quote(DEMO) + " --png " + unwritable, "cannot make folder", 1},
      {"play " + Quote(noKeys), "no key frame in its 250 video frames", 1},
      {"view --autoexit " + Quote(noKeys), "no key frame in its 250 video frames", 1},
      {"stream " + Quote(noKeys), "no key frame in its 250 video frames", 1},
      {"play " + Quote(headerOnly), "no complete video frame", 1},
      {"stream " + Quote(headerOnly), "no complete video frame", 1},
      {"play " + Quote(unknown), "no decoder for the video codec 'XV1D'", 1},
      {"stream " + Quote(unknown), "no decoder for the video codec 'XV1D'", 1},
      {"stream " + missing, "No such file or directory", 1},
      {"stream " + Quote(DEMO) + " --chunk 5000000", "--chunk is at most", 2},
      {"stream " + Quote(DEMO) + " --chunk 10 --random-chunks", "exclude each other", 2},
      {"stream " + Quote(DEMO) + " --record " + unwritable, "cannot write", 1},
      {"view " + missing + " --autoexit", "", 1},
      {"play " + Quote(DEMO) + " --every 5", "--every needs --png", 2},
      {"play " + Quote(DEMO) + " --start 1:75", "bad value '1:75' for --start", 2},
      {"play " + Quote(DEMO) + " --realtime=1", "--realtime takes no value", 2},
      {"stream " + Quote(DEMO) + " --record-after 1", "--record-after needs --record", 2},
      {"view --stream --start 1 " + Quote(DEMO), "--start has no meaning", 2},
      {"info --bogus " + Quote(DEMO), "unknown option '--bogus'", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments);
    RunResult r = Shell("DISPLAY= SDL_VIDEODRIVER=offscreen " + TOOL + " " + c.arguments);
    EXPECT_EQ(r.exitCode, c.exitCode);
    EXPECT_EQ(Lines(r.err), 1) << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
  }
  RunResult noDisplay = Shell("env -u DISPLAY -u WAYLAND_DISPLAY -u SDL_VIDEODRIVER " + TOOL +
                              " view " + Quote(DEMO));
  EXPECT_EQ(noDisplay.exitCode, 1);
  EXPECT_EQ(noDisplay.err, "tqfplay view: no display: neither DISPLAY nor WAYLAND_DISPLAY is set\n");
}

// The environment of a viewer run. SDL's X11 and D-Bus libraries keep
// allocations at exit from modules the leak checker cannot name; the tool's
// own code is leak-checked by the play, stream and export runs.
std::string ViewerEnvironment() {
#if defined(__SANITIZE_ADDRESS__)
  return "ASAN_OPTIONS=\"$ASAN_OPTIONS:detect_leaks=0\" ";
#else
  return "";
#endif
}

TEST_F(PlayTest, ViewerShowsTheSampleUnderXvfb) {
  if (Shell("command -v xvfb-run").exitCode != 0) GTEST_SKIP() << "xvfb-run is not installed";
  std::string shot = folder_.File("shot.png");
  const std::string env = ViewerEnvironment();
  // The last second of the file, then the window quits and is read back. On
  // a screen too small for the picture the window is scaled down to fit.
  for (const char* screen : {"800x600", "480x320"}) {
    SCOPED_TRACE(screen);
    RunResult r = Shell(env + "TQFPLAY_VIEW_SNAPSHOT=" + Quote(shot) + " xvfb-run -a -s '-screen 0 " +
                        screen + "x24' " + TOOL + " view --start 9 --autoexit " + Quote(DEMO));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    RgbImage image = DecodePng(shot);
    EXPECT_GT(Spread(image.rgb), 20.0);  // a test picture, not a blank window
    if (std::string(screen) == "480x320") {
      EXPECT_LE(image.width, 480);
      EXPECT_LE(image.height, 320);
      EXPECT_NEAR(image.width / static_cast<double>(image.height), 640.0 / 352, 0.02);
      continue;
    }
    ASSERT_EQ(image.width, DEMO_WIDTH);
    ASSERT_EQ(image.height, DEMO_HEIGHT);
    // The window shows the file's last picture; SDL's colour conversion is not
    // bit-exact with libswscale's, so they are compared by mean difference.
    std::vector<uint8_t> expected = I420ToRgb(DemoReference().last, DEMO_WIDTH, DEMO_HEIGHT);
    EXPECT_LT(MeanDifference(image.rgb, expected), 6.0);
  }
}

// The keys, sent with xdotool, checked in the title and in screenshots: space
// pauses (a live stream runs on behind a frozen picture), the arrows seek, the
// end shows the last position, q and Escape quit.
TEST_F(PlayTest, ViewerKeysUnderXvfb) {
  if (Shell("command -v xvfb-run && command -v xdotool").exitCode != 0)
    GTEST_SKIP() << "xvfb-run and xdotool are needed";
  RunResult r = Shell(ViewerEnvironment() + "xvfb-run -a -s '-screen 0 800x600x24' " +
                      Quote(std::string(TQF_SOURCE_DIR) + "/tests/scripts/view_keys.sh") + " " + TOOL +
                      " " + Quote(DEMO));
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_EQ(Lines(r.out), 7) << r.out;
}

}  // namespace
