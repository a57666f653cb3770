// Runs the built tqfplay on the committed samples and on media that the
// ffmpeg tool makes at test time, in a temporary folder.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "Options.h"
#include "TQFFormat.h"
#include "ToolRunner.h"

namespace {

// Times as every option takes them: seconds with up to three decimals, MM:SS
// or HH:MM:SS.mmm, at most 2^31 - 1 ms; -1: refused.
TEST(ParseTimeTest, TakesSecondsAndClockTimesOnly) {
  const std::pair<const char*, int64_t> cases[] = {
      {"0", 0}, {"12.5", 12500}, {"90", 90000}, {"01:30", 90000}, {"1:02:03.004", 3723004},
      {"00:00:06", 6000}, {"75:00", 4500000}, {"2147483.647", INT32_MAX}, {"", -1}, {"-1", -1},
      {"1:60", -1}, {"1.2345", -1}, {"1:2:3:4", -1}, {"12s", -1}, {" 1", -1}, {"1.", -1},
      {"2147483.648", -1}, {":30", -1}, {"1e3", -1}, {"1,5", -1}};
  for (const auto& [text, expected] : cases) {
    uint32_t ms = 7;
    EXPECT_EQ(ParseTime(text, &ms), expected >= 0) << text;
    EXPECT_EQ(ms, expected >= 0 ? expected : 7) << text;
  }
}

// info as JSON, valid whatever the file is called. (Its text form: ImportsVideoAndAudio.)
TEST_F(ToolTest, InfoDescribesSamplesAndDamage) {
  std::vector<uint8_t> bytes = ReadWholeFile(JPEG);
  bytes.insert(bytes.begin() + 64, 1234, 0);  // garbage before the first frame,
  bytes[64 + 1234 + 4] = static_cast<uint8_t>((bytes[64 + 1234 + 4] & 0xF0) | 9);  // frame 0 in stream 9
  const std::string damaged = folder_.File("damaged.tqf"), latin1 = folder_.File("caf\xe9.tqf");
  ASSERT_TRUE(WriteWholeFile(damaged, bytes));
  ASSERT_TRUE(WriteWholeFile(latin1, ReadWholeFile(DEMO)));
  struct Case {
    std::string file;
    std::vector<std::string> json;
  };
  const Case cases[] = {
      {latin1,
       {"\"width\":640,\"height\":352,\"compression\":\"H264\"", "\"codec\":\"G.726\",\"sampleRate\":8000",
        "\"stream\":0,\"indexed\":true,\"frames\":250,",
        "\"keyFrames\":[0,50,100,150,200],\"keySpacingMin\":50,\"keySpacingMax\":50",
        // Audio frames all carry the key flag; only video key frames are listed.
        "\"stream\":1,\"indexed\":true,\"frames\":125,\"payloadBytes\":40000,\"firstStamp\":0,"
        "\"lastStamp\":9920,\"keyFrames\":[]",
        "\"durationMs\":10000,\"bitRate\":654016,\"skippedBytes\":0"}},
      {damaged,
       {"\"skippedBytes\":1234,\"damageCount\":1,\"damage\":[{\"offset\":64,\"length\":1234}]",
        "\"stream\":0,\"indexed\":true,\"frames\":48,", "\"stream\":9,\"indexed\":false,\"frames\":1,"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    const RunResult json = Tool("info --json " + Quote(c.file));
    ASSERT_EQ(json.exitCode, 0) << json.err;
    for (const std::string& piece : c.json) EXPECT_TRUE(Has(json.out, piece));
    EXPECT_EQ(Tool("info --json " + Quote(c.file) + " | python3 -m json.tool >/dev/null").exitCode, 0);
  }
}

// H.264 from MP4 or a raw stream, and Motion JPEG with its audio as G.726
// frames of 80 ms; "-" writes the same file to standard output.
TEST_F(ToolTest, ImportsVideoAndAudio) {
  const std::string mp4 = folder_.File("in.mp4"), raw = folder_.File("in.h264");
  const std::string mkv = folder_.File("in.mkv"), out = folder_.File("out.tqf");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc2=size=320x240:rate=25:duration=1 -c:v libx264 -bf 0 -g 10 "
                     "-sc_threshold 0 -pix_fmt yuv420p " + Quote(mp4)));
  ASSERT_TRUE(Ffmpeg("-i " + Quote(mp4) + " -c copy -bsf:v h264_mp4toannexb " + Quote(raw)));
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc2=size=160x96:rate=25:duration=2 -f lavfi -i "
                     "sine=frequency=440:sample_rate=44100:duration=2 -c:v mjpeg -c:a pcm_s16le " +
                     Quote(mkv)));
  const std::string mkv265 = folder_.File("in265.mkv");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc2=size=320x240:rate=25:duration=1 -c:v libx265 -bf 0 -g 10 "
                     "-x265-params scenecut=0:log-level=error -pix_fmt yuv420p " + Quote(mkv265)));
  const std::vector<std::string> h264 = {
      "record 0: type \"H264\", 40 bytes, 320x240",
      "stream 0 (video): 24 frames, 43863 payload bytes, stamps 0 to 920, 3 key frames, spacing 10 to "
      "10 frames, at 0 10 20\n"};
  struct Case {
    std::string input, summary;
    std::vector<std::string> info;
    const char* played;
  };
  const Case cases[] = {
      {Quote(mp4), "25 video frames (3 key frames), 0 audio frames\n", h264, "play: 24 pictures"},
      {Quote(raw), "25 video frames (3 key frames), 0 audio frames\n", h264, "play: 24 pictures"},
      {Quote(mkv265), "25 video frames (3 key frames), 0 audio frames\n", {"compression \"H265\" (H.265)",
       "stamps 0 to 920, 3 key frames, spacing 10 to 10 frames, at 0 10 20\n"}, "play: 24 pictures"},
      {"--audio " + Quote(mkv), "50 video frames (50 key frames), 25 audio frames\n",
       {"record 0: type \"JPEG\", 40 bytes, 160x96", "record 1: type 100, 18 bytes, G.726",
        "stream 1 (audio): 24 frames, 7680 payload bytes, stamps 0 to 1840\n"},
       "play: 50 pictures"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.input);
    RunResult r = Tool("import -y " + c.input + " " + Quote(out));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(Has(r.err, c.summary));
    EXPECT_EQ(Lines(r.err), 1) << r.err;  // no warning for 25 fps without B-frames
    EXPECT_TRUE(Tool("import " + c.input + " -").out == Text(out));
    const std::string info = Tool("info " + Quote(out)).out;
    for (const std::string& piece : c.info) EXPECT_TRUE(Has(info, piece));
    EXPECT_TRUE(Has(Tool("play " + Quote(out)).err, c.played));  // the payloads decode
  }
}

// Each command's usage line is the README's.
TEST_F(ToolTest, HelpAndUsage) {
  const std::string readme = Text(std::string(TQF_SOURCE_DIR) + "/README.md");
  for (const char* command : {"info", "import", "play", "stream", "view", "export", "audio", "clip", "snapshot"}) {
    RunResult r = Tool(std::string(command) + " --help");
    const std::string usage = r.out.substr(0, r.out.find('\n'));
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(usage.rfind(std::string("usage: tqfplay ") + command + " ", 0), 0u) << usage;
    EXPECT_TRUE(Has(readme, "\n" + usage.substr(std::min<size_t>(7, usage.size())) + "\n"));
  }
  const RunResult help = Tool("--help"), none = Tool("");
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_EQ(none.exitCode, 2);  // no command: the help, on standard error
  EXPECT_EQ(none.err, help.out);
  EXPECT_EQ(Tool("--version").out.rfind("tqfplay ", 0), 0u);
}

// Every failure is one line on standard error that names its cause, with exit
// code 2 for a bad command line and 1 otherwise. No command writes over one of
// its inputs (by any name), over an existing file without -y, or leaves a file
// (or a temporary one) behind when it fails.
TEST_F(ToolTest, ErrorsNameTheirCauseAndDestroyNothing) {
  const std::vector<uint8_t> demo = ReadWholeFile(DEMO);
  auto write = [&](const char* name, const std::vector<uint8_t>& bytes) {
    EXPECT_TRUE(WriteWholeFile(folder_.File(name), bytes));
    return Quote(folder_.File(name));
  };
  const std::string in = write("in.tqf", demo), existing = write("old.y4m", {1, 2, 3});
  const std::string link = Quote(folder_.File("link.tqf"));
  ASSERT_EQ(Shell("ln -s " + in + " " + link).exitCode, 0);
  const std::string notTqf = write("not.tqf", std::vector<uint8_t>(100, 0x41)), empty = write("empty.tqf", {});
  const std::string headerOnly = write("header.tqf", {demo.begin(), demo.begin() + 100});
  std::vector<uint8_t> bytes = demo;
  bytes[28] = 0x00;  // the descriptor's width: 16384
  bytes[29] = 0x40;
  const std::string huge = write("huge.tqf", bytes);
  bytes = demo;  // the codec renamed in the record type and the descriptor
  for (size_t at : {16, 40}) std::memcpy(&bytes[at], "XV1D", 4);
  const std::string unknown = write("xv1d.tqf", bytes);
  bytes = demo;  // every key flag (bit 8 of a frame's info) cleared: it plays nothing and never ends
  for (size_t at = LoadU32(&demo[4]) + 8u; at + 12 <= demo.size();
       at += 12 + FramePayloadLength(LoadU32(&demo[at + 4])))
    bytes[at + 5] &= 0xFE;
  const std::string noKeys = write("nokeys.tqf", bytes);
  const std::string mpeg4 = Quote(folder_.File("mpeg4.mkv")), wav = Quote(folder_.File("audio.wav"));
  const std::string mjpeg = Quote(folder_.File("jpeg.avi"));
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc2=size=160x96:rate=25:duration=1 -c:v mpeg4 " + mpeg4));
  ASSERT_TRUE(Ffmpeg("-f lavfi -i sine=duration=1 " + wav));
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc2=size=160x96:rate=25:duration=1 -c:v mjpeg " + mjpeg));
  const std::string missing = Quote(folder_.File("missing.tqf")), jpeg = Quote(JPEG);
  const std::string nowhere = Quote(folder_.File("no/such/folder/out"));
  auto out = [&](const char* name) { return std::string(" ").append(Quote(folder_.File(name))); };
  const std::string play = "play " + in, stream = "stream " + in;
  struct Case {
    std::string arguments;
    const char* message;
    int exitCode;
    int lines = 1;
  };
  const Case cases[] = {
      {"frobnicate", "unknown command 'frobnicate'", 2},
      {"info --bogus " + in, "unknown option '--bogus'", 2},
      {"info " + notTqf, "not.tqf: Invalid data found: not a TQF file", 1},
      {"info " + in + " > /dev/full", "writing the report failed: No space left on device", 1},
      {play + " --every 0", "bad value '0' for --every", 2}, {play + " --start 1:75", "bad value '1:75' for", 2},
      {play + " --start 10", "past the end", 1}, {play + " --y4m", "--y4m needs a value", 2},
      {play + " extra", "unexpected argument 'extra'", 2}, {play + " --every 5", "--every needs --png", 2},
      {play + " --realtime=1", "--realtime takes no value", 2},
      {"play " + missing, "missing.tqf: No such file or directory", 1},
      {"play " + Quote(folder_.path()), "Is a directory", 1},
      {"play " + empty, "Invalid data found: the file is empty", 1},
      {"play " + huge, "a picture size of 16384x352 cannot be played", 1},
      {play + " --y4m " + nowhere, "cannot write", 1},
      {play + " --png " + nowhere, "cannot make folder", 1},
      {"play " + headerOnly, "no complete video frame", 1},
      {"play " + unknown, "no decoder for the video codec 'XV1D'", 1},
      {"play " + Quote(SAMPLES + "README.md") + " --y4m" + out("new.y4m"), "not a TQF", 1},
      {play + " --y4m " + link, "is also an input", 1},
      {play + " --y4m " + existing, "already exists (-y overwrites it)", 1},
      {"view --autoexit " + noKeys, "no key frame in its 250 video frames", 1},
      {"view " + missing + " --autoexit", "missing.tqf: No such file or directory", 1},
      {"view --stream --start 1 " + in, "--start has no meaning", 2},
      {"stream " + noKeys, "no key frame in its 250 video frames", 1},
      {"stream " + unknown, "no decoder for the video codec 'XV1D'", 1},
      {"stream " + missing, "No such file or directory", 1},
      {stream + " --chunk 5000000", "--chunk is at most", 2},
      {stream + " --chunk 10 --random-chunks", "exclude each other", 2},
      {stream + " --record-after 1", "--record-after needs --record", 2},
      {stream + " --record " + in, "is also an input", 1},
      // A recording that loses frames fails and says how many were written.
      {stream + " --record /dev/full", "lost 250 frames (write failed or disk too slow); 0 frames", 1},
      {"import onlyone", "missing arguments", 2},
      {"import " + in + " " + in + " -y", "is also an input", 1},
      {"import " + mpeg4 + out("a.tqf"), "unsupported video codec", 1},
      {"import " + wav + out("b.tqf"), "no video track", 1},
      {"import " + mjpeg + out("c.tqf") + " --audio", "no audio track", 1},
      {"import" + out("nothing.mp4") + out("e.tqf"), "nothing.mp4", 1},
      {"export " + in + out("x.avi"), "must end in .mp4 or .mkv", 1},
      {"export " + jpeg + out("j.mp4"), "Motion JPEG goes into .mkv only", 1},
      {"export " + missing + out("n.mkv"), "No such file or directory", 1},
      {"export " + in + " " + link + " -y", "is also an input", 1},
      {"audio " + jpeg + out("j.wav"), "has no G.726 audio", 1},
      {"audio " + in + " " + link, "is also an input", 1},
      {"clip " + in + out("c.tqf") + " --from 3 --to 2", "--from must come before --to", 2},
      {"clip " + in + out("c.tqf") + " --from 3", "--from and --to are needed", 2},
      {"clip " + in + out("c.mp4") + " --from 1:75 --to 9", "bad value '1:75' for --from", 2},
      {"clip " + in + out("c.mkv") + " --from 10 --to 11", "--from 10.000 s is past the last picture", 1},
      {"clip " + in + out("c.avi") + " --from 1 --to 2", "must end in .mp4 or .mkv", 1},
      {"clip " + in + " " + link + " -y --from 1 --to 2", "is also an input", 1},
      {"snapshot " + in + out("s.gif") + " --at 1", "must end in .png or .jpg", 2},
      {"snapshot " + in + out("s.png"), "--at is needed", 2},
      {"snapshot " + in + out("s.png") + " --at 1 --every 0", "--every must be above 0", 2},
      {"snapshot " + in + out("s.png") + " --at 10", "--at is past the end", 1},
      {"snapshot " + noKeys + out("s.jpg") + " --at 1", "has no key frame", 1},
      {"play --keyframes " + noKeys, "has no key frame", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments);
    RunResult r = Shell("DISPLAY= SDL_VIDEODRIVER=offscreen " + TOOL + " " + c.arguments);
    EXPECT_EQ(r.exitCode, c.exitCode);
    EXPECT_EQ(Lines(r.err), c.lines) << r.err;
    EXPECT_TRUE(Has(r.err, c.message));
  }
  EXPECT_EQ(Shell("env -u DISPLAY -u WAYLAND_DISPLAY -u SDL_VIDEODRIVER " + TOOL + " view " + in).err,
            "tqfplay view: no display: neither DISPLAY nor WAYLAND_DISPLAY is set\n");
  EXPECT_TRUE(Text(folder_.File("in.tqf")) == Text(DEMO));
  EXPECT_EQ(ReadWholeFile(folder_.File("old.y4m")), (std::vector<uint8_t>{1, 2, 3}));
  EXPECT_EQ(Shell("ls -A " + Quote(folder_.path())).out,
            "audio.wav\nempty.tqf\nheader.tqf\nhuge.tqf\nin.tqf\njpeg.avi\nlink.tqf\nmpeg4.mkv\n"
            "nokeys.tqf\nnot.tqf\nold.y4m\nstderr.txt\nxv1d.tqf\n");
  ASSERT_EQ(Tool("play " + in + " --y4m " + existing + " -y").exitCode, 0);
  EXPECT_GT(ReadWholeFile(folder_.File("old.y4m")).size(), 3u);
}

}  // namespace
