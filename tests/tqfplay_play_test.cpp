// play, stream, view (one source and a grid), export and audio end to end:
// the built tqfplay on the samples in a temporary folder, its outputs
// compared with the pictures the library gives a host of its own
// (PlayThroughLibrary) and with its G.726 module's samples. Their errors:
// tqfplay_tool_test.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "CodecTestSupport.h"
#include "G726.h"
#include "PictureReference.h"
#include "PictureSlot.h"
#include "TQFFormat.h"
#include "ToolRunner.h"
#include "ViewGrid.h"

namespace {

// Pictures as packed RGB24, converted by the ffmpeg tool with the scaler's
// defaults, as the tool converts its stills.
std::vector<uint8_t> ToRgb(const TempFolder& folder, const std::string& input) {
  const std::string rgb =
      RunShell(folder, "ffmpeg -v error -nostdin " + input + " -f rawvideo -pix_fmt rgb24 -").out;
  return std::vector<uint8_t>(rgb.begin(), rgb.end());
}
std::vector<uint8_t> I420ToRgb(const TempFolder& folder, const std::vector<uint8_t>& picture) {
  const std::string path = folder.File("picture.yuv");
  if (!WriteWholeFile(path, picture)) return {};
  return ToRgb(folder, "-f rawvideo -pix_fmt yuv420p -s 640x352 -i " + Quote(path));
}
// The mean absolute difference of two images' bytes (255 if sizes differ, as
// they do for pictures of another size or a file that does not decode).
double MeanDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  if (a.size() != b.size() || a.empty()) return 255;
  double sum = 0;
  for (size_t i = 0; i < a.size(); ++i) sum += std::abs(a[i] - b[i]);
  return sum / static_cast<double>(a.size());
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
  // The options, and the first picture: a seek decodes up to the frame of that time, the frame after it is next.
  const std::pair<std::string, size_t> cases[] = {
      {"--start 8", 8 * 25 + 1},
      {"--start=00:00:09.500 --realtime", 9 * 25 + 1},  // whole seconds
      {"--png " + Quote(stills) + " --every 50", 0},  // last: its Y4M is compared with "-" below
  };
  for (const auto& [options, firstPicture] : cases) {
    SCOPED_TRACE(options);
    RunResult r = Tool("play -y " + Quote(DEMO) + " --y4m " + Quote(y4m) + " " + options);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(ReadY4M(y4m).hashes, ReferenceFrom(firstPicture));
    EXPECT_TRUE(Has(r.err, "play: " + std::to_string(250 - firstPicture) + " pictures"));
  }
  EXPECT_TRUE(Tool("play " + Quote(DEMO) + " --y4m -").out == Text(y4m));
  EXPECT_EQ(Shell("ls " + Quote(stills)).out, "000000.png\n000050.png\n000100.png\n000150.png\n000200.png\n");
  const std::vector<uint8_t> first = I420ToRgb(folder_, DemoReference().first);
  EXPECT_LT(MeanDifference(ToRgb(folder_, "-i " + Quote(stills + "/000000.png")), first), 0.5);
}

// snapshot --at 5 is the picture of frame 125 (PNG losslessly, JPEG within its
// loss), a series below the key-frame spacing every picture asked for, one at
// or above it the key frames before its times; play --keyframes gives the
// five key frames alone.
TEST_F(PlayTest, SnapshotsAndKeyFramesAreTheLibrarysPictures) {
  const std::string all = folder_.File("all.y4m"), keys = folder_.File("keys.y4m");
  ASSERT_EQ(Tool("play " + Quote(DEMO) + " --y4m " + Quote(all)).exitCode, 0);
  const PictureRun played = ReadY4M(all);
  ASSERT_EQ(played.hashes, ReferenceFrom(0));
  const size_t size = 640 * 352 * 3 / 2;
  auto frame = [&](size_t n) {
    return I420ToRgb(folder_, {played.pictures.begin() + static_cast<long>(n * size),
                               played.pictures.begin() + static_cast<long>((n + 1) * size)});
  };
  struct Case {
    std::string options, out, image, summary;
    size_t frame;
    double within;  // mean difference from that frame's picture
  };
  const Case cases[] = {{"--at 5", "at.png", "at.png", "1 picture", 125, 0.5},
                        {"--at 00:05.000", "at.jpg", "at.jpg", "1 picture", 125, 2},
                        {"--at 9.5 --every 0.04", "fast.png", "fast-0002.png", "13 pictures", 238, 0.5},
                        {"--at 1 --every 2", "keys.png", "keys-0003.png", "5 pictures", 100, 0.5}};  // 5 s: key 100
  for (const Case& c : cases) {
    SCOPED_TRACE(c.options);
    const RunResult r = Tool("snapshot " + Quote(DEMO) + " " + c.options + " " + Quote(folder_.File(c.out)));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(Has(r.err, c.summary));
    const std::vector<uint8_t> rgb = ToRgb(folder_, "-i " + Quote(folder_.File(c.image)));
    EXPECT_LT(MeanDifference(rgb, frame(c.frame)), c.within);
    EXPECT_GT(MeanDifference(rgb, frame(c.frame + 1)), c.within + 2);
  }
  const RunResult r = Tool("play --keyframes " + Quote(DEMO) + " --y4m " + Quote(keys));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(Has(r.err, "play: 5 pictures"));
  const std::vector<uint64_t>& reference = DemoReference().hashes;
  EXPECT_EQ(ReadY4M(keys).hashes,
            (std::vector<uint64_t>{reference[0], reference[50], reference[100], reference[150], reference[200]}));
  // A decoder that reorders (B-frames) holds key frames back until more come; all come out.
  const std::string mp4 = folder_.File("b.mp4"), tqf = folder_.File("b.tqf"), alone = folder_.File("alone.y4m");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc2=size=320x240:rate=25:duration=2 -c:v libx264 -bf 2 -g 10 "
                     "-sc_threshold 0 -pix_fmt yuv420p " + Quote(mp4)));
  ASSERT_TRUE(Ffmpeg("-skip_frame nokey -i " + Quote(mp4) + " -fps_mode passthrough -f yuv4mpegpipe " + Quote(alone)));
  ASSERT_EQ(Tool("import " + Quote(mp4) + " " + Quote(tqf)).exitCode, 0);
  ASSERT_EQ(Tool("play -y --keyframes " + Quote(tqf) + " --y4m " + Quote(keys)).exitCode, 0);
  EXPECT_EQ(ReadY4M(alone).hashes.size(), 5u);
  EXPECT_EQ(ReadY4M(keys).hashes, ReadY4M(alone).hashes);
}

// From a file, standard input or a FIFO, in chunks of any size. A recording
// holds video only, from the start or from the next key frame after
// --record-after; its last frame is not indexed.
TEST_F(PlayTest, StreamDeliversEveryFrameAndRecordsIt) {
  const std::string y4m = Quote(folder_.File("stream.y4m"));
  const std::string recorded = Quote(folder_.File("recorded.tqf")), replay = folder_.File("replay.y4m");
  const std::string stream = TOOL + " stream -y ", demo = Quote(DEMO), record = " --record " + recorded;
  const std::string fifo = Quote(folder_.File("fifo"));
  const std::pair<std::string, int> cases[] = {  // the command, and the first frame recorded (-1: none)
      {stream + demo + " --random-chunks --seed 7 --y4m " + y4m + record, 0},
      {"cat " + demo + " | " + stream + "- --chunk 1000 --y4m - " + record + " --record-after 4 > " + y4m, 100},
      {"mkfifo " + fifo + " && (cat " + demo + " > " + fifo + " &) && " + stream + fifo + " --y4m " + y4m, -1}};
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

// Imported raw H.265 (Main 10 within h264_decoder_test's bound) plays as ffmpeg decodes it: from a file, a seek to
// 1 s (a CRA), random chunks, the recording. At least: a file's last frame is not indexed, a run may end early.
TEST_F(PlayTest, H265PlaysAsTheFfmpegToolDecodesIt) {
  const size_t size = 352 * 288 * 3 / 2;
  const std::string tqf = Quote(folder_.File("in.tqf")), rec = Quote(folder_.File("recorded.tqf"));
  for (const auto& [stem, tolerance] : {std::pair<std::string, int>{"hevc_352x288", 0}, {"hevc10_352x288", 1}}) {
    ASSERT_EQ(Tool("import -y " + Quote(CodecMediaPath(stem + ".h265")) + " " + tqf).exitCode, 0);
    const std::vector<uint8_t> reference = ReadWholeFile(CodecMediaPath(stem + ".yuv"));
    const std::tuple<std::string, size_t, size_t> runs[] = {{"play " + tqf, 0, 59}, {"play --start 1 " + tqf, 26, 33},
        {"stream --random-chunks --seed 5 --record " + rec + " " + tqf, 0, 59}, {"play " + rec, 0, 58}};
    for (const auto& [command, first, fewest] : runs) {
      ASSERT_EQ(Tool(command + " -y --y4m " + Quote(folder_.File("out.y4m"))).exitCode, 0) << stem << command;
      const std::vector<uint8_t> pictures = ReadY4M(folder_.File("out.y4m")).pictures;
      ASSERT_TRUE(pictures.size() >= fewest * size && first * size + pictures.size() <= reference.size()) << command;
      EXPECT_TRUE(std::equal(pictures.begin(), pictures.end(), reference.begin() + first * size,
                             [&](int a, int b) { return std::abs(a - b) <= tolerance; })) << stem << command;
    }
  }
}

// A run stopped by a signal exits as the shell expects: 128 plus the signal
// (a --realtime run that does not keep time ends before the signal).
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

// The last second of the file, then the window quits and is read back.
TEST_F(PlayTest, ViewerShowsTheSampleUnderXvfb) {
  if (Shell("command -v xvfb-run").exitCode != 0) GTEST_SKIP() << "xvfb-run is not installed";
  const std::string shot = folder_.File("shot.png");
  RunResult r = Shell(VIEWER_ENV + "TQFPLAY_VIEW_SNAPSHOT=" + Quote(shot) + " xvfb-run -a -s '-screen 0 "
                      "800x600x24' " + TOOL + " view --start 9 --autoexit " + Quote(DEMO));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  // The file's last picture at 640x352 (any other size differs by 255); SDL's
  // colour conversion is not bit-exact with libswscale's, hence the mean difference.
  const std::vector<uint8_t> last = I420ToRgb(folder_, DemoReference().last);
  EXPECT_LT(MeanDifference(ToRgb(folder_, "-i " + Quote(shot)), last), 6.0);
}

// The keys, sent with xdotool and checked in the title and on the screen.
TEST_F(PlayTest, ViewerKeysUnderXvfb) {
  if (Shell("command -v xvfb-run && command -v xdotool").exitCode != 0)
    GTEST_SKIP() << "xvfb-run and xdotool are needed";
  RunResult r = Shell(VIEWER_ENV + "xvfb-run -a -s '-screen 0 800x600x24' " +
                      Quote(std::string(TQF_SOURCE_DIR) + "/tests/scripts/view_keys.sh") + " " + TOOL +
                      " " + Quote(DEMO));
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_EQ(Lines(r.out), 9) << r.out;
}

// The grid of several sources: its layout arithmetic on its own, then the
// built tqfplay showing files and served cameras, each tile told apart by its
// colours (tests/scripts/view_grid.sh drives the window).
TEST(ViewGridTest, GridSideHoldsTheCount) {
  const int sides[] = {0, 1, 2, 2, 2, 3, 3, 3, 3, 3, 4, 4, 4, 4, 4, 4, 4, 0};  // counts 0 to 17
  for (int count = 0; count < 18; ++count) EXPECT_EQ(GridSide(count), sides[count]) << count;
}

// Tiles cover the window without gaps or overlap, uneven sizes included, and
// a point falls in the tile that covers it.
TEST(ViewGridTest, TilesCoverTheWindowAndHitTestsAgree) {
  for (const auto& [side, width, height] :
       {std::tuple{1, 640, 352}, {2, 721, 397}, {3, 100, 50}, {4, 1283, 722}}) {
    std::vector<int> owner(static_cast<size_t>(width * height), -1);
    for (int i = 0; i < side * side; ++i) {
      const ViewRect r = TileRect(side, i, width, height);
      for (int y = r.y; y < r.y + r.h; ++y)
        for (int x = r.x; x < r.x + r.w; ++x) {
          EXPECT_EQ(owner[static_cast<size_t>(y * width + x)], -1);
          owner[static_cast<size_t>(y * width + x)] = i;
        }
    }
    for (int y = 0; y < height; y += 7)
      for (int x = 0; x < width; x += 5)
        ASSERT_EQ(TileAt(side, side * side, width, height, x, y), owner[static_cast<size_t>(y * width + x)]);
  }
  EXPECT_EQ(TileAt(2, 3, 200, 100, 150, 75), -1);  // the fourth place of three tiles
  EXPECT_EQ(TileAt(2, 4, 200, 100, 200, 50), -1);  // outside the window
}

TEST(ViewGridTest, PictureKeepsItsShapeCentredInTheTile) {
  struct Case {
    ViewRect tile;
    int width, height;
    ViewRect fitted;
  } cases[] = {
      {{0, 0, 360, 198}, 320, 240, {48, 0, 264, 198}},      // narrower: bars left and right
      {{360, 198, 360, 198}, 640, 180, {360, 246, 360, 101}},  // wider: bars above and below
      {{10, 20, 300, 150}, 640, 320, {10, 20, 300, 150}},    // the same shape
      {{0, 0, 50, 40}, 0, 0, {0, 0, 50, 40}},                // no picture yet
  };
  for (const Case& c : cases) {
    const ViewRect r = FitPicture(c.tile, c.width, c.height);
    EXPECT_EQ(std::vector<int>({r.x, r.y, r.w, r.h}),
              std::vector<int>({c.fitted.x, c.fitted.y, c.fitted.w, c.fitted.h}));
  }
}

// A tile shows the pictures of its window: a seek by frames skips those
// before its target unless one carries the target's stamp first, and a
// step shows the one picture it decoded for.
TEST(PictureSlotTest, ShowsThePicturesOfItsWindow) {
  struct Case {
    const char* name;
    void (*window)(PictureSlot& slot);
    std::vector<uint32_t> shown;  // of pictures stamped 0, 40, 80, 120
  } cases[] = {
      {"all", [](PictureSlot& s) { s.ShowAll(); }, {0, 40, 80, 120}},
      {"from the third", [](PictureSlot& s) { s.ShowFrom(2, 999); }, {80, 120}},
      {"from the stamp, earlier", [](PictureSlot& s) { s.ShowFrom(3, 40); }, {40, 80, 120}},
      {"the second alone", [](PictureSlot& s) { s.ShowOnly(1); }, {40}},
  };
  for (const Case& c : cases) {
    PictureSlot slot(PictureSlot::UNPACED);
    const uint8_t pixels[6] = {};
    slot.Handle(&slot, Picture{pixels, 6, 2, 2, 7});  // before the window
    slot.TakeFresh([](const uint8_t*, int32_t, int32_t) {});
    c.window(slot);
    std::vector<uint32_t> shown;
    for (uint32_t stamp = 0; stamp <= 120; stamp += 40) {
      slot.Handle(&slot, Picture{pixels, 6, 2, 2, stamp});
      if (slot.TakeFresh([](const uint8_t*, int32_t, int32_t) {})) shown.push_back(slot.LastStamp());
    }
    EXPECT_EQ(shown, c.shown) << c.name;
    EXPECT_EQ(slot.Pictures(), 5u) << c.name;
  }
}

constexpr int SHOT_WIDTH = 160, SHOT_HEIGHT = 120;

// A screenshot scaled to SHOT_WIDTH x SHOT_HEIGHT as packed RGB24 (the tiles
// are the quadrants whatever the window's size); empty if it does not load.
std::vector<uint8_t> LoadShot(const TempFolder& folder, const std::string& png) {
  std::vector<uint8_t> rgb = ToRgb(folder, "-i " + Quote(png) + " -vf scale=" + std::to_string(SHOT_WIDTH) +
                                               ":" + std::to_string(SHOT_HEIGHT));
  if (rgb.size() != SHOT_WIDTH * SHOT_HEIGHT * 3) rgb.clear();
  return rgb;
}

// What a region shows, below the caption at its top left: 'r', 'g' or 'b' for
// a plain colour, 'x' for a varied picture, '?' for anything else.
char RegionContent(const std::vector<uint8_t>& shot, int left, int top, int width, int height) {
  double mean[3] = {}, spread = 0;
  std::vector<const uint8_t*> pixels;
  // The middle of the region's lower two thirds: clear of the caption and of bars.
  for (int y = top + height * 45 / 100; y < top + height * 85 / 100; ++y)
    for (int x = left + width * 35 / 100; x < left + width * 65 / 100; ++x)
      pixels.push_back(&shot[static_cast<size_t>((y * SHOT_WIDTH + x) * 3)]);
  for (const uint8_t* p : pixels)
    for (int c = 0; c < 3; ++c) mean[c] += p[c] / static_cast<double>(pixels.size());
  for (const uint8_t* p : pixels)
    for (int c = 0; c < 3; ++c) spread += std::abs(p[c] - mean[c]) / pixels.size();
  if (spread > 60) return 'x';
  if (spread > 10) return '?';
  const char names[] = "rgb";
  for (int c = 0; c < 3; ++c)
    if (mean[c] > 100 && mean[(c + 1) % 3] < 50 && mean[(c + 2) % 3] < 50) return names[c];
  return '?';
}

// The four tiles' contents, row by row; "" for a shot that did not load.
std::string Quadrants(const std::vector<uint8_t>& shot) {
  std::string contents;
  for (int i = 0; !shot.empty() && i < 4; ++i)
    contents += RegionContent(shot, i % 2 * SHOT_WIDTH / 2, i / 2 * SHOT_HEIGHT / 2, SHOT_WIDTH / 2,
                              SHOT_HEIGHT / 2);
  return contents;
}

class ViewerGridTest : public PlayTest {
 protected:
  // A TQF file of `seconds` of plain `colour` at 320x240; "" if making it fails.
  std::string ColourFile(const std::string& colour, int seconds) {
    const std::string tqf = folder_.File(colour + ".tqf"), mp4 = Quote(folder_.File(colour + ".mp4"));
    const bool made = Ffmpeg("-f lavfi -i color=c=" + colour + ":size=320x240:rate=25 -t " +
                             std::to_string(seconds) + " -c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p " + mp4) &&
                      Tool("import -y " + mp4 + " " + Quote(tqf)).exitCode == 0;
    return made ? tqf : "";
  }
};

// The demo (varied) and a red file, then green and blue cameras of `serve`:
// every tile shows its own source in the grid, key 2 shows the red tile alone
// and Escape brings the grid back; the cameras reconnect after the server
// restarts, and the snapshot at quitting shows them again.
TEST_F(ViewerGridTest, FourSourcesShowUnderXvfb) {
  if (Shell("command -v xvfb-run && command -v xdotool").exitCode != 0)
    GTEST_SKIP() << "xvfb-run and xdotool are needed";
  const char* colours[3] = {"red", "green", "blue"};
  std::string files[3];
  for (int i = 0; i < 3; ++i) ASSERT_NE(files[i] = ColourFile(colours[i], 8), "");
  const std::string out = folder_.File("");
  RunResult r = Shell(VIEWER_ENV + "xvfb-run -a -s '-screen 0 800x600x24' " +
                      Quote(std::string(TQF_SOURCE_DIR) + "/tests/scripts/view_grid.sh") + " " + TOOL + " " +
                      Quote(out) + " " + Quote(DEMO) + " " + Quote(files[0]) + " " + Quote(files[1]) + " " +
                      Quote(files[2]));
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_EQ(Lines(r.out), 7) << r.out;
  for (const char* grid : {"grid.png", "restored.png", "snapshot.png"})
    EXPECT_EQ(Quadrants(LoadShot(folder_, out + grid)), "xrgb") << grid;
  const std::vector<uint8_t> enlarged = LoadShot(folder_, out + "enlarged.png");
  ASSERT_FALSE(enlarged.empty());
  EXPECT_EQ(RegionContent(enlarged, 0, 0, SHOT_WIDTH, SHOT_HEIGHT), 'r');
}

// Each file's end reaches its own tile: --autoexit quits once both files of
// different lengths have ended (an end lost or sent to another tile would
// keep it running until the watchdog), with their last pictures in place.
TEST_F(ViewerGridTest, AutoexitWaitsForEveryFileUnderXvfb) {
  if (Shell("command -v xvfb-run").exitCode != 0) GTEST_SKIP() << "xvfb-run is not installed";
  const std::string red = ColourFile("red", 6);
  ASSERT_NE(red, "");
  const std::string shot = folder_.File("shot.png");
  RunResult r = Shell(VIEWER_ENV + "TQFPLAY_VIEW_SNAPSHOT=" + Quote(shot) +
                      " xvfb-run -a -s '-screen 0 800x600x24' timeout 60 " + TOOL + " view --autoexit --start 4 " +
                      Quote(red) + " " + Quote(DEMO));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(Quadrants(LoadShot(folder_, shot)).substr(0, 2), "rx");
}

// The demo's audio as the G.726 module decodes it: every audio frame in file
// order with one running state, the file's last frame (never indexed) too.
std::vector<int16_t> DemoAudio() {
  const std::vector<uint8_t> file = ReadWholeFile(DEMO);
  std::vector<int16_t> pcm;
  if (file.size() < 8) return pcm;
  G726State state;
  G726Reset(&state);
  for (size_t at = LoadU32(file.data() + 4) + 8u; at + TQF_FRAME_HEAD_SIZE <= file.size();) {
    const uint32_t info = LoadU32(&file[at + 4]), length = FramePayloadLength(info);
    if (FrameStreamNumber(info) == TQF_STREAM_AUDIO && at + TQF_FRAME_HEAD_SIZE + length <= file.size()) {
      pcm.resize(pcm.size() + length * 2);
      G726DecodeBlock(&state, &file[at + TQF_FRAME_HEAD_SIZE], static_cast<int32_t>(length),
                      pcm.data() + pcm.size() - length * 2);
    }
    at += TQF_FRAME_HEAD_SIZE + length;
  }
  return pcm;
}

std::vector<int16_t> AsSamples(const std::string& bytes, size_t skip) {
  std::vector<int16_t> samples((bytes.size() - std::min(skip, bytes.size())) / 2);
  std::memcpy(samples.data(), bytes.data() + skip, samples.size() * 2);
  return samples;
}

class ExportTest : public ToolTest {
 protected:
  std::string Probe(const std::string& file, const std::string& options) {
    return Shell("ffprobe -v error " + options + " -of default=nw=1 " + Quote(file)).out;
  }
  double Duration(const std::string& file) {
    return std::atof(Shell("ffprobe -v error -show_entries format=duration -of csv=p=0 " + Quote(file)).out.c_str());
  }
  // The MD5 of each picture ffmpeg decodes, one a line, every picture once
  // (no frame rate imposed); the decoder's warnings in `err`.
  RunResult FrameHashes(const std::string& file) {
    return Shell("ffmpeg -v warning -nostdin -i " + Quote(file) +
                 " -map 0:v -fps_mode passthrough -f framemd5 - | grep -v '^#' | cut -d, -f6");
  }
  // The video decoded by ffmpeg (from `seek` on) in the library's hashes.
  std::vector<uint64_t> DecodeVideo(const std::string& file, const std::string& seek = "") {
    const std::string y4m = folder_.File("decoded.y4m");
    if (!Ffmpeg(seek + " -i " + Quote(file) + " -map 0:v -pix_fmt yuv420p -f yuv4mpegpipe " + Quote(y4m)))
      return {};
    return ReadY4M(y4m).hashes;
  }
};

// The video goes in as it is (the demo's decodes to the library's pictures,
// and seeking to 5 s lands on frame 125); the audio is the G.726 module's
// samples, in .mkv and from audio in .wav as they are, in .mp4 as AAC.
TEST_F(ExportTest, VideoGoesInAsItIsAndAudioAsTheG726ModuleDecodesIt) {
  const PictureRun& reference = DemoReference();
  ASSERT_EQ(reference.hashes.size(), 250u);
  const std::vector<int16_t> audio = DemoAudio();
  ASSERT_EQ(audio.size(), 126u * 640u);  // 125 indexed frames of 80 ms and the last one
  const char* demoVideo = "codec_name=h264\nwidth=640\nheight=352\nnb_read_frames=250\n";
  struct Case {
    std::string source, name, video, audio;
    double duration;
  };
  const Case cases[] = {
      {DEMO, "demo.mp4", demoVideo, "codec_name=aac\nsample_rate=8000\n", 10},
      {DEMO, "demo.mkv", demoVideo, "codec_name=pcm_s16le\nsample_rate=8000\n", 10},
      // 50 pictures with the unindexed last; no audio.
      {JPEG, "jpeg.mkv", "codec_name=mjpeg\nwidth=320\nheight=240\nnb_read_frames=50\n", "", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string out = folder_.File(c.name);
    RunResult r = Tool("export " + Quote(c.source) + " " + Quote(out));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(Probe(out, "-count_frames -select_streams v:0 -show_entries "
                         "stream=codec_name,width,height,nb_read_frames"), c.video);
    EXPECT_EQ(Probe(out, "-select_streams a:0 -show_entries stream=codec_name,sample_rate"), c.audio);
    EXPECT_NEAR(Duration(out), c.duration, c.source == DEMO ? 0.15 : 0.05);
    if (c.source != DEMO) continue;
    EXPECT_EQ(DecodeVideo(out), reference.hashes);
    const std::vector<uint64_t> fromFive = DecodeVideo(out, "-ss 5");
    EXPECT_TRUE(!fromFive.empty() && fromFive.front() == reference.hashes[125]);
  }
  const std::string mkvAudio = Shell("ffmpeg -v error -nostdin -i " + Quote(folder_.File("demo.mkv")) +
                                     " -map 0:a -f s16le -").out;
  EXPECT_EQ(AsSamples(mkvAudio, 0), audio);
  const std::string wav = folder_.File("demo.wav");
  RunResult r = Tool("audio " + Quote(DEMO) + " " + Quote(wav));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(Probe(wav, "-show_entries stream=codec_name,sample_rate,channels"),
            "codec_name=pcm_s16le\nsample_rate=8000\nchannels=1\n");
  const std::string bytes = Text(wav);
  ASSERT_GE(bytes.size(), 44u);
  EXPECT_EQ(LoadU32(reinterpret_cast<const uint8_t*>(bytes.data()) + 40), audio.size() * 2);  // data size
  EXPECT_EQ(AsSamples(bytes, 44), audio);
}

// clip from 3 s to 6 s starts at the key frame at 2 s (frame 50), or with
// --exact at frame 75 itself (frames 75 to 99 re-encoded losslessly, so that
// every picture is the library's own), and ends with the last picture before
// 6 s (frame 149); TQF keeps the audio frames of those 4 s, MKV their
// samples, MP4 as much AAC.
TEST_F(ExportTest, ClipCutsFromTheKeyFrameBeforeItsStartOrExactly) {
  const PictureRun& reference = DemoReference();
  ASSERT_EQ(reference.hashes.size(), 250u);
  const std::string tqf = folder_.File("clip.tqf"), mkv = folder_.File("clip.mkv");
  const std::pair<std::string, size_t> cases[] = {{tqf, 50}, {mkv, 50}, {folder_.File("clip.mp4"), 50},
                                                  {folder_.File("exact.tqf"), 75}, {folder_.File("exact.mp4"), 75}};
  for (const auto& [out, first] : cases) {
    SCOPED_TRACE(out);
    RunResult r = Tool("clip " + Quote(DEMO) + " " + Quote(out) + " --from 3 --to 00:00:06" +
                       (first == 75 ? " --exact" : ""));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(Has(r.err, std::to_string(150 - first) + " video frames from frame " + std::to_string(first)));
    const std::vector<uint64_t> pictures(reference.hashes.begin() + static_cast<long>(first),
                                         reference.hashes.begin() + 150);
    EXPECT_EQ(out.ends_with(".tqf") ? PlayThroughLibrary(out).hashes : DecodeVideo(out), pictures);
    if (!out.ends_with(".tqf")) {
      EXPECT_NEAR(Duration(out), (150 - first) * 0.04, 0.1);
    }
  }
  const std::string info = Tool("info --json " + Quote(tqf)).out;
  EXPECT_TRUE(Has(info, "\"firstStamp\":2000,\"lastStamp\":5960,\"keyFrames\":[0,50]"));
  // 50 audio frames, the last of them the file's last frame, which is never indexed.
  EXPECT_TRUE(Has(info, "\"frames\":49,\"payloadBytes\":15680,\"firstStamp\":2000,\"lastStamp\":5840,"));
  EXPECT_TRUE(Has(info, "\"tailBytes\":332}"));
  const std::vector<int16_t> audio = DemoAudio(), cut(audio.begin() + 2 * 8000, audio.begin() + 6 * 8000);
  for (const std::string& out : {mkv, folder_.File("clip.mp4")}) {
    const std::vector<int16_t> samples =
        AsSamples(Shell("ffmpeg -v error -nostdin -i " + Quote(out) + " -map 0:a -f s16le -").out, 0);
    if (out == mkv) {
      EXPECT_EQ(samples, cut);
    }
    EXPECT_NEAR(static_cast<double>(samples.size()), static_cast<double>(cut.size()), 1024);  // AAC's frames
  }
}

// Imported content keeps its time through export: B-frames at 30 fps decode
// frame for frame as the source does, for as long, without a warning.
using Codec = std::tuple<std::string, std::string, std::string>;  // H.264 and H.265: encoder, codec, MP4 tag
class ExportCodecTest : public ExportTest, public testing::WithParamInterface<Codec> {};
INSTANTIATE_TEST_SUITE_P(Codecs, ExportCodecTest, testing::Values(Codec{"libx264", "h264", "avc1"},
                         Codec{"libx265 -x265-params log-level=error", "hevc", "hvc1"}));
TEST_P(ExportCodecTest, ImportedContentKeepsItsFramesAndRate) {
  const auto& [encoder, codec, tag] = GetParam();
  const std::string original = folder_.File("original.mp4"), tqf = folder_.File("imported.tqf");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=size=320x240:rate=30 -bf 2 -t 2 -c:v " + encoder +
                     " -g 24 -pix_fmt yuv420p " + Quote(original)));
  // Import warns, one line each, of what a TQF player will make of them.
  RunResult imported = Tool("import -y " + Quote(original) + " " + Quote(tqf));
  ASSERT_EQ(imported.exitCode, 0) << imported.err;
  EXPECT_TRUE(Has(imported.err, "warning: the video has B-frames"));
  EXPECT_TRUE(Has(imported.err, "warning: the video runs at 30 frames a second"));
  EXPECT_EQ(Lines(imported.err), 3) << imported.err;
  const RunResult expected = FrameHashes(original);
  ASSERT_EQ(Lines(expected.out), 60);
  for (const char* name : {"exported.mp4", "exported.mkv"}) {
    const std::string out = folder_.File(name);
    RunResult r = Tool("export -y " + Quote(tqf) + " " + Quote(out));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(Has(r.err, "timed by their stamps"));
    EXPECT_EQ(Probe(out, "-select_streams v:0 -show_entries stream=codec_name,codec_tag_string"),
              "codec_name=" + codec + "\ncodec_tag_string=" + (out.ends_with("mp4") ? tag : "[0][0][0][0]") + "\n");
    const RunResult decoded = FrameHashes(out);
    EXPECT_EQ(decoded.out, expected.out) << name;
    EXPECT_EQ(decoded.err, "") << name;
    EXPECT_NEAR(Duration(out), 2.0, 0.05) << name;
  }
}

// A file that begins in the middle of a group of pictures is exported from
// its first key frame on, and its audio starts with that picture.
TEST_F(ExportTest, AudioStartsWithTheFirstPicture) {
  const std::string ts = Quote(folder_.File("camera.ts")), cut = Quote(folder_.File("cut.ts"));
  const std::string tqf = Quote(folder_.File("cut.tqf")), mp4 = folder_.File("cut.mp4");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=size=320x240:rate=25 -f lavfi -i sine=sample_rate=8000 "
                     "-t 6 -c:v libx264 -g 50 -c:a aac -f mpegts " + ts));
  // Cut on a transport packet boundary, inside the first group of pictures.
  ASSERT_EQ(Shell("tail -c +" + std::to_string(188 * 150 + 1) + " " + ts + " > " + cut).exitCode, 0);
  ASSERT_EQ(Tool("import -y --audio " + cut + " " + tqf).exitCode, 0);
  const RunResult exported = Tool("export -y " + tqf + " " + Quote(mp4));
  ASSERT_EQ(exported.exitCode, 0) << exported.err;
  const std::string probe = Shell("ffprobe -v error -show_entries stream=start_time,duration -of csv=p=0 " +
                                  Quote(mp4)).out;
  double videoStart = 9, videoLength = 0, audioStart = 9, audioLength = 0;
  ASSERT_EQ(std::sscanf(probe.c_str(), "%lf,%lf %lf,%lf", &videoStart, &videoLength, &audioStart,
                        &audioLength), 4) << probe;
  EXPECT_NEAR(videoStart, 0.0, 0.05);
  EXPECT_NEAR(audioStart, 0.0, 0.05);
  EXPECT_GT(videoLength, 3.0);  // from the key frame at 2 s of the 6, less what the cut took
  EXPECT_NEAR(audioLength, videoLength, 0.2);
}

}  // namespace
