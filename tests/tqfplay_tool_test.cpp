// Runs the built tqfplay on the committed samples and on media that the
// ffmpeg tool makes at test time, in a temporary folder.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "TQFReader.h"
#include "TempFolder.h"
#include "ToolRunner.h"

namespace {

TEST_F(ToolTest, InfoDescribesTheDemoSample) {
  RunResult r = Tool("info --json " + Quote(SAMPLES + "demo.tqf"));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.out.find("\"width\":640,\"height\":352,\"compression\":\"H264\""), std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("\"stream\":0,\"indexed\":true,\"frames\":250,"), std::string::npos);
  EXPECT_NE(r.out.find("\"keyFrames\":[0,50,100,150,200],\"keySpacingMin\":50,\"keySpacingMax\":50"),
            std::string::npos);
  // Audio frames all carry the key flag; only video key frames are listed.
  EXPECT_NE(r.out.find("\"stream\":1,\"indexed\":true,\"frames\":125,\"payloadBytes\":40000,"
                       "\"firstStamp\":0,\"lastStamp\":9920,\"keyFrames\":[]"),
            std::string::npos);
  EXPECT_NE(r.out.find("\"codec\":\"G.726\",\"sampleRate\":8000"), std::string::npos);
  EXPECT_NE(r.out.find("\"durationMs\":10000,\"bitRate\":654016,\"skippedBytes\":0"),
            std::string::npos);
  // Valid JSON whatever the file is called; a failed write of the report fails.
  const std::string latin1 = folder_.File("caf\xe9.tqf");
  ASSERT_EQ(RunShell(folder_, "cp " + Quote(SAMPLES + "demo.tqf") + " " + Quote(latin1)).exitCode, 0);
  EXPECT_EQ(RunShell(folder_, TOOL + " info --json " + Quote(latin1) + " | python3 -m json.tool")
                .exitCode, 0);
  EXPECT_EQ(Tool("info " + Quote(SAMPLES + "demo.tqf") + " > /dev/full").exitCode, 1);

  RunResult text = Tool(Quote(SAMPLES + "demo.tqf") + " info");
  EXPECT_NE(text.exitCode, 0);  // the command comes first
  text = Tool("info " + Quote(SAMPLES + "demo.tqf"));
  ASSERT_EQ(text.exitCode, 0);
  EXPECT_NE(text.out.find("duration: 10.000 s"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("record 1: type 100, 18 bytes"), std::string::npos) << text.out;
}

TEST_F(ToolTest, InfoDescribesTheJpegSample) {
  RunResult r = Tool("info --json " + Quote(SAMPLES + "jpeg422.tqf"));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.out.find("\"compression\":\"JPEG\""), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"stream\":0,\"indexed\":true,\"frames\":49,"), std::string::npos);
  EXPECT_NE(r.out.find("\"keySpacingMin\":1,\"keySpacingMax\":1"), std::string::npos);
  EXPECT_NE(Tool("info " + Quote(SAMPLES + "jpeg422.tqf")).out.find(", 1 record, "), std::string::npos);
}

TEST_F(ToolTest, InfoCountsDamageAndUnindexedStreams) {
  std::vector<uint8_t> bytes = ReadWholeFile(SAMPLES + "jpeg422.tqf");
  ASSERT_GT(bytes.size(), 2000u);
  bytes.insert(bytes.begin() + 64, 1234, 0);  // garbage before the first frame
  // Frame 0 becomes a frame of stream 9.
  bytes[64 + 1234 + 4] = static_cast<uint8_t>((bytes[64 + 1234 + 4] & 0xF0) | 9);
  std::string path = folder_.File("damaged.tqf");
  ASSERT_TRUE(WriteWholeFile(path, bytes));
  RunResult r = Tool("info --json " + Quote(path));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.out.find("\"skippedBytes\":1234,\"damageCount\":1,\"damage\":[{\"offset\":64,"
                       "\"length\":1234}]"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("\"stream\":0,\"indexed\":true,\"frames\":48,"), std::string::npos);
  EXPECT_NE(r.out.find("\"stream\":9,\"indexed\":false,\"frames\":1,"), std::string::npos);
}

TEST_F(ToolTest, ImportsMp4AndRawH264) {
  std::string mp4 = folder_.File("in.mp4");
  if (!Ffmpeg("-f lavfi -i testsrc2=size=320x240:rate=25:duration=1 -c:v libx264 -bf 0 -g 10 "
              "-sc_threshold 0 -pix_fmt yuv420p " + Quote(mp4)))
    GTEST_SKIP() << "the ffmpeg tool with libx264 is needed";
  std::string raw = folder_.File("in.h264");
  ASSERT_TRUE(Ffmpeg("-i " + Quote(mp4) + " -c copy -bsf:v h264_mp4toannexb " + Quote(raw)));

  for (const std::string& input : {mp4, raw}) {
    std::string out = folder_.File("out.tqf");
    RunResult r = Tool("import -y " + Quote(input) + " " + Quote(out));
    ASSERT_EQ(r.exitCode, 0) << input << ": " << r.err;
    EXPECT_NE(r.err.find("25 video frames (3 key frames)"), std::string::npos) << r.err;
    EXPECT_EQ(Lines(r.err), 1) << r.err;  // no warning for 25 fps without B-frames
    // "-" writes the same file to standard output.
    RunResult piped = Tool("import " + Quote(input) + " -");
    ASSERT_EQ(piped.exitCode, 0) << piped.err;
    const std::vector<uint8_t> written = ReadWholeFile(out);
    EXPECT_TRUE(piped.out == std::string(written.begin(), written.end()));

    TQFReader reader;
    ASSERT_TRUE(reader.Open(out.c_str())) << input;
    ASSERT_EQ(reader.index[0].count, 24u);
    uint8_t record[64];
    uint32_t type = 0;
    int32_t length = sizeof record;
    ASSERT_TRUE(reader.GetRecord(0, &type, record, &length));
    EXPECT_EQ(type, FOURCC_H264);
    EXPECT_EQ(length, 40);
    MediaDescriptor descriptor;
    std::memcpy(&descriptor, record, sizeof descriptor);
    EXPECT_EQ(descriptor.width, 320);
    EXPECT_EQ(descriptor.height, 240);
    EXPECT_EQ(descriptor.compression, FOURCC_H264);
    for (int32_t frame : {0, 10, 20}) EXPECT_TRUE(reader.IsKeyFrame(0, frame)) << frame;
    EXPECT_FALSE(reader.IsKeyFrame(0, 1));
    // Annex B: every payload begins with a start code; stamps count 40 ms.
    std::vector<uint8_t> payload(1 << 20);
    for (int32_t frame = 0; frame < 24; ++frame) {
      TQFFrameHeader header;
      uint32_t size = static_cast<uint32_t>(payload.size());
      ASSERT_TRUE(reader.ReadFrame(0, frame, &header, payload.data(), &size));
      ASSERT_GE(size, 4u);
      bool startCode = (payload[0] == 0 && payload[1] == 0 && payload[2] == 1) ||
                       (payload[0] == 0 && payload[1] == 0 && payload[2] == 0 && payload[3] == 1);
      EXPECT_TRUE(startCode) << input << " frame " << frame;
      if (input == mp4) {
        EXPECT_EQ(header.stamp, static_cast<uint32_t>(frame) * 40);
      }
    }
  }
}

TEST_F(ToolTest, ImportsAudioAsG726Frames) {
  std::string mkv = folder_.File("in.mkv");
  if (!Ffmpeg("-f lavfi -i testsrc2=size=160x96:rate=25:duration=2 "
              "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=2 "
              "-c:v mjpeg -c:a pcm_s16le " + Quote(mkv)))
    GTEST_SKIP() << "the ffmpeg tool is needed";
  std::string out = folder_.File("out.tqf");
  RunResult r = Tool("import --audio " + Quote(mkv) + " " + Quote(out));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  TQFReader reader;
  ASSERT_TRUE(reader.Open(out.c_str()));
  EXPECT_EQ(reader.index[0].count + reader.index[1].count + 1, 50u + 25u);  // 2 s: 25 of 80 ms
  uint32_t type = 0;
  int32_t length = 64;
  uint8_t record[64];
  ASSERT_TRUE(reader.GetRecord(1, &type, record, &length));
  EXPECT_EQ(type, 100u);
  EXPECT_EQ(length, 18);
  ASSERT_GE(reader.index[1].count, 2u);
  TQFFrameHeader first, second;
  uint32_t size = 1000;
  ASSERT_TRUE(reader.ReadFrame(1, 0, &first, nullptr, &size));
  EXPECT_EQ(size, 320u);
  size = 1000;
  ASSERT_TRUE(reader.ReadFrame(1, 1, &second, nullptr, &size));
  EXPECT_EQ(second.stamp - first.stamp, 80u);
  length = 64;
  ASSERT_TRUE(reader.GetRecord(0, &type, record, &length));
  EXPECT_EQ(type, FOURCC_JPEG);
}

TEST_F(ToolTest, ImportErrorsAreOneLineAndNonZero) {
  std::string video = folder_.File("mpeg4.mkv");
  if (!Ffmpeg("-f lavfi -i testsrc2=size=160x96:rate=25:duration=1 -c:v mpeg4 " + Quote(video)))
    GTEST_SKIP() << "the ffmpeg tool is needed";
  std::string audioOnly = folder_.File("audio.wav");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i sine=duration=1 " + Quote(audioOnly)));
  std::string jpegOnly = folder_.File("jpeg.avi");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc2=size=160x96:rate=25:duration=1 -c:v mjpeg " +
                     Quote(jpegOnly)));
  struct Case {
    std::string arguments;
    const char* message;
  };
  const Case cases[] = {
      {Quote(video) + " " + Quote(folder_.File("a.tqf")), "unsupported video codec"},
      {Quote(audioOnly) + " " + Quote(folder_.File("b.tqf")), "no video track"},
      {Quote(jpegOnly) + " " + Quote(folder_.File("c.tqf")) + " --audio", "no audio track"},
      {Quote(jpegOnly) + " " + Quote(folder_.File("missing/dir/d.tqf")), "cannot write"},
      {Quote(folder_.File("nothing.mp4")) + " " + Quote(folder_.File("e.tqf")), "nothing.mp4"},
  };
  for (const Case& c : cases) {
    RunResult r = Tool("import " + c.arguments);
    EXPECT_NE(r.exitCode, 0) << c.arguments;
    EXPECT_EQ(Lines(r.err), 1) << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
  }
}

// Each command's usage line is the one the README gives, and it names every
// option that its help describes.
TEST_F(ToolTest, HelpAndUsage) {
  const std::vector<uint8_t> readmeBytes = ReadWholeFile(std::string(TQF_SOURCE_DIR) + "/README.md");
  const std::string readme(readmeBytes.begin(), readmeBytes.end());
  const std::regex option("--[a-z][-a-z0-9]*");
  for (const char* command : {"info", "import", "play", "stream", "view", "export", "audio"}) {
    SCOPED_TRACE(command);
    RunResult r = Tool(std::string(command) + " --help");
    EXPECT_EQ(r.exitCode, 0);
    ASSERT_EQ(r.out.rfind(std::string("usage: tqfplay ") + command, 0), 0u) << r.out;
    const std::string usage = r.out.substr(7, r.out.find('\n') - 7);
    EXPECT_NE(readme.find("\n" + usage + "\n"), std::string::npos) << usage;
    const std::string body = r.out.substr(usage.size());
    for (std::sregex_iterator it(body.begin(), body.end(), option), end; it != end; ++it)
      EXPECT_NE(usage.find(it->str()), std::string::npos) << it->str();
  }
  RunResult r = Tool("--help");
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_NE(r.out.find("import"), std::string::npos);
  for (const char* arguments : {"", "frobnicate", "info", "info a b", "import onlyone",
                                "import a b c", "info --bogus x"}) {
    r = Tool(arguments);
    EXPECT_NE(r.exitCode, 0) << arguments;
    EXPECT_FALSE(r.err.empty()) << arguments;
  }
  std::string notTqf = folder_.File("plain.txt");
  ASSERT_TRUE(WriteWholeFile(notTqf, {'h', 'e', 'l', 'l', 'o'}));
  r = Tool("info " + Quote(notTqf));
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(Lines(r.err), 1) << r.err;
  r = Tool("--version");
  EXPECT_EQ(r.out.rfind("tqfplay ", 0), 0u) << r.out;
}

}  // namespace

namespace {

// No command writes over one of its inputs (by any name), over an existing
// file unless -y is given, or leaves a file behind when it fails; and a
// recording that loses frames is a failure that says how many were written.
TEST_F(ToolTest, OutputsNeverDestroyAFile) {
  const std::string input = folder_.File("in.tqf"), link = folder_.File("link.tqf");
  ASSERT_EQ(RunShell(folder_, "cp " + Quote(SAMPLES + "demo.tqf") + " " + Quote(input) + " && ln -s " +
                                  Quote(input) + " " + Quote(link)).exitCode, 0);
  const std::string existing = folder_.File("old.y4m");
  ASSERT_TRUE(WriteWholeFile(existing, {1, 2, 3}));
  const std::string in = Quote(input);
  struct Case {
    std::string arguments;
    const char* message;
  } cases[] = {
      {"stream " + in + " --record " + in, "is also an input"},
      {"audio " + in + " " + Quote(link), "is also an input"},
      {"play " + in + " --y4m " + Quote(link), "is also an input"},
      {"import " + in + " " + in + " -y", "is also an input"},
      {"export " + in + " " + Quote(link) + " -y", "is also an input"},
      {"play " + in + " --y4m " + Quote(existing), "already exists (-y overwrites it)"},
      {"play " + in + " --y4m " + Quote(existing) + " -y -n", "already exists"},
      {"import " + Quote(SAMPLES + "README.md") + " " + Quote(folder_.File("new.tqf")), "Invalid data"},
      {"play " + Quote(SAMPLES + "README.md") + " --y4m " + Quote(folder_.File("new.y4m")), "not a TQF"},
      {"stream " + in + " --record /dev/full", "lost 250 frames (write failed or disk too slow); 0 frames"},
  };
  for (const Case& c : cases) {
    RunResult r = Tool(c.arguments);
    EXPECT_EQ(r.exitCode, 1) << c.arguments;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << c.arguments << ": " << r.err;
  }
  EXPECT_EQ(RunShell(folder_, "cmp " + in + " " + Quote(SAMPLES + "demo.tqf")).exitCode, 0);
  EXPECT_EQ(ReadWholeFile(existing), (std::vector<uint8_t>{1, 2, 3}));
  // Nothing else was left: no new file, no temporary file.
  EXPECT_EQ(RunShell(folder_, "ls -A " + Quote(folder_.path())).out,
            "in.tqf\nlink.tqf\nold.y4m\nstderr.txt\n");
  ASSERT_EQ(Tool("play " + in + " --y4m " + Quote(existing) + " -y").exitCode, 0);
  EXPECT_GT(ReadWholeFile(existing).size(), 3u);
}

}  // namespace
