// export and audio end to end: the files the built tqfplay makes from the
// samples, read back with the ffprobe and ffmpeg tools and compared with the
// library's own pictures and its G.726 module.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "G726.h"
#include "PictureReference.h"
#include "TQFReader.h"
#include "ToolRunner.h"

namespace {

const std::string DEMO = SAMPLES + "demo.tqf";
const std::string JPEG = SAMPLES + "jpeg422.tqf";

// The audio of a TQF file as the G.726 module decodes it, frame by frame with
// one running state.
std::vector<int16_t> DecodeAudio(const std::string& path) {
  TQFReader reader;
  std::vector<int16_t> pcm;
  if (!reader.Open(path.c_str())) return pcm;
  G726State state;
  G726Reset(&state);
  std::vector<uint8_t> payload(TQF_FILE_READ_BUFFER_SIZE);
  for (uint32_t i = 0; i < reader.index[TQF_STREAM_AUDIO].count; ++i) {
    TQFFrameHeader header;
    uint32_t length = static_cast<uint32_t>(payload.size());
    if (!reader.ReadFrame(TQF_STREAM_AUDIO, static_cast<int32_t>(i), &header, payload.data(), &length))
      break;
    size_t at = pcm.size();
    pcm.resize(at + length * 2);
    G726DecodeBlock(&state, payload.data(), static_cast<int32_t>(length), pcm.data() + at);
  }
  // The index leaves out the file's last frame; in the demo sample it is an
  // audio frame of 320 bytes, the file's last 332 bytes.
  const std::vector<uint8_t> file = ReadWholeFile(path);
  const uint8_t* last = file.data() + file.size() - TQF_FRAME_HEAD_SIZE - 320;
  if (LoadU32(last) == TQF_FRAME_SYNC && FrameStreamNumber(LoadU32(last + 4)) == TQF_STREAM_AUDIO) {
    size_t at = pcm.size();
    pcm.resize(at + 640);
    G726DecodeBlock(&state, last + TQF_FRAME_HEAD_SIZE, 320, pcm.data() + at);
  }
  return pcm;
}

std::vector<int16_t> AsSamples(const std::vector<uint8_t>& bytes, size_t skip) {
  std::vector<int16_t> samples((bytes.size() - std::min(skip, bytes.size())) / 2);
  std::memcpy(samples.data(), bytes.data() + skip, samples.size() * 2);
  return samples;
}

class ExportTest : public ToolTest {
 protected:
  // ffprobe's view of one stream ("v:0", "a:0"), frames counted by decoding.
  std::string Probe(const std::string& file, const char* stream) {
    return Shell(std::string("ffprobe -v error -count_frames -select_streams ") + stream +
                 " -show_entries stream=codec_name,nb_read_frames,width,height,sample_rate"
                 " -of default=nw=1 " + Quote(file))
        .out;
  }
  double Duration(const std::string& file) {
    return std::atof(Shell("ffprobe -v error -show_entries format=duration -of csv=p=0 " +
                           Quote(file)).out.c_str());
  }
  // The MD5 of each picture ffmpeg decodes from `file`, in order, one a line
  // (every picture once: no frame rate is imposed); the decoder's warnings in `err`.
  RunResult FrameHashes(const std::string& file) {
    return Shell("ffmpeg -v warning -nostdin -i " + Quote(file) +
                 " -map 0:v -fps_mode passthrough -f framemd5 - | grep -v '^#' | cut -d, -f6");
  }
  // The video decoded by ffmpeg, from `seek` seconds on, as a Y4M file.
  PictureRun DecodeVideo(const std::string& file, const std::string& seek = "") {
    std::string y4m = folder_.File("decoded.y4m");
    std::string from = seek.empty() ? "" : "-ss " + seek + " ";
    if (!Ffmpeg(from + "-i " + Quote(file) + " -map 0:v -pix_fmt yuv420p -f yuv4mpegpipe " +
                Quote(y4m)))
      return PictureRun{};
    return ReadY4M(y4m);
  }
};

TEST_F(ExportTest, Mp4AndMkvCarryTheVideoAsItIsAndTheAudio) {
  PictureRun reference = PlayThroughLibrary(DEMO);
  ASSERT_EQ(reference.hashes.size(), 250u);
  struct Case {
    const char* name;
    const char* audioCodec;
  };
  const Case cases[] = {{"demo.mp4", "codec_name=aac"}, {"demo.mkv", "codec_name=pcm_s16le"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string out = folder_.File(c.name);
    RunResult r = Tool("export " + Quote(DEMO) + " " + Quote(out));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    std::string video = Probe(out, "v:0");
    EXPECT_NE(video.find("codec_name=h264\nwidth=640\nheight=352\n"), std::string::npos) << video;
    EXPECT_NE(video.find("nb_read_frames=250"), std::string::npos) << video;
    std::string audio = Probe(out, "a:0");
    EXPECT_NE(audio.find(c.audioCodec), std::string::npos) << audio;
    EXPECT_NE(audio.find("sample_rate=8000"), std::string::npos) << audio;
    EXPECT_NEAR(Duration(out), 10.0, 0.15);
    EXPECT_EQ(DecodeVideo(out).hashes, reference.hashes);
    // Seeking lands on the frame of that time: 5 s is frame 125.
    PictureRun fromFive = DecodeVideo(out, "5");
    ASSERT_FALSE(fromFive.hashes.empty());
    EXPECT_EQ(fromFive.hashes.front(), reference.hashes[125]);
  }
}

TEST_F(ExportTest, MkvAudioAndWavAreTheG726ModulesSamples) {
  std::vector<int16_t> expected = DecodeAudio(DEMO);
  ASSERT_EQ(expected.size(), 126u * 640u);  // 125 indexed frames of 80 ms and the last one

  std::string wav = folder_.File("demo.wav");
  RunResult r = Tool("audio " + Quote(DEMO) + " " + Quote(wav));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  std::vector<uint8_t> bytes = ReadWholeFile(wav);
  ASSERT_GE(bytes.size(), 44u);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 4), "RIFF");
  EXPECT_EQ(LoadU32(bytes.data() + 24), 8000u);                    // sample rate
  EXPECT_EQ(bytes[22] | bytes[23] << 8, 1);                        // channels
  EXPECT_EQ(LoadU32(bytes.data() + 40), expected.size() * 2);      // data size
  EXPECT_EQ(AsSamples(bytes, 44), expected);
  std::string probe = Shell("ffprobe -v error -show_entries stream=codec_name,sample_rate,channels "
                            "-of default=nw=1 " + Quote(wav)).out;
  EXPECT_EQ(probe, "codec_name=pcm_s16le\nsample_rate=8000\nchannels=1\n");

  std::string mkv = folder_.File("demo.mkv");
  ASSERT_EQ(Tool("export " + Quote(DEMO) + " " + Quote(mkv)).exitCode, 0);
  std::string raw = folder_.File("audio.raw");
  ASSERT_TRUE(Ffmpeg("-i " + Quote(mkv) + " -map 0:a -f s16le " + Quote(raw)));
  EXPECT_EQ(AsSamples(ReadWholeFile(raw), 0), expected);
}

TEST_F(ExportTest, MotionJpegGoesIntoMkv) {
  std::string out = folder_.File("jpeg.mkv");
  RunResult r = Tool("export " + Quote(JPEG) + " " + Quote(out));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  std::string video = Probe(out, "v:0");
  EXPECT_NE(video.find("codec_name=mjpeg\nwidth=320\nheight=240\n"), std::string::npos) << video;
  EXPECT_NE(video.find("nb_read_frames=50"), std::string::npos) << video;  // with the unindexed last
  EXPECT_NEAR(Duration(out), 2.0, 0.05);
}

// Imported content keeps its time through export: B-frames and 30 fps decode
// frame for frame as the source does, for as long, without a warning.
TEST_F(ExportTest, ImportedContentKeepsItsFramesAndRate) {
  struct Case {
    const char* source;
    int pictures;  // in 2 s
  };
  const Case cases[] = {{"testsrc=size=320x240:rate=25 -bf 3", 50},
                        {"testsrc=size=320x240:rate=30 -bf 2", 60}};
  for (const auto& [source, pictures] : cases) {
    SCOPED_TRACE(source);
    const std::string original = folder_.File("original.mp4"), tqf = folder_.File("imported.tqf");
    ASSERT_TRUE(Ffmpeg(std::string("-f lavfi -i ") + source +
                       " -t 2 -c:v libx264 -g 24 -pix_fmt yuv420p " + Quote(original)));
    // Import warns, one line each, of what a TQF player will make of them.
    RunResult imported = Tool("import -y " + Quote(original) + " " + Quote(tqf));
    ASSERT_EQ(imported.exitCode, 0) << imported.err;
    EXPECT_NE(imported.err.find("warning: the video has B-frames"), std::string::npos) << imported.err;
    EXPECT_EQ(imported.err.find("warning: the video runs at 30 frames a second") != std::string::npos,
              pictures == 60) << imported.err;
    EXPECT_EQ(Lines(imported.err), pictures == 60 ? 3 : 2) << imported.err;
    const RunResult expected = FrameHashes(original);
    ASSERT_EQ(Lines(expected.out), pictures);
    for (const char* name : {"exported.mp4", "exported.mkv"}) {
      const std::string out = folder_.File(name);
      RunResult r = Tool("export -y " + Quote(tqf) + " " + Quote(out));
      ASSERT_EQ(r.exitCode, 0) << r.err;
      EXPECT_NE(r.err.find("timed by their stamps"), std::string::npos) << r.err;
      const RunResult decoded = FrameHashes(out);
      EXPECT_EQ(decoded.out, expected.out) << name;
      EXPECT_EQ(decoded.err, "") << name;
      EXPECT_NEAR(Duration(out), 2.0, 0.05) << name;
    }
  }
}

// A file that begins in the middle of a group of pictures is exported from
// its first key frame on, and its audio starts with that picture.
TEST_F(ExportTest, AudioStartsWithTheFirstPicture) {
  const std::string ts = folder_.File("camera.ts"), cut = folder_.File("cut.ts");
  const std::string tqf = folder_.File("cut.tqf"), mp4 = folder_.File("cut.mp4");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=size=320x240:rate=25 -f lavfi -i sine=sample_rate=8000 "
                     "-t 6 -c:v libx264 -g 50 -c:a aac -f mpegts " + Quote(ts)));
  // Cut on a transport packet boundary, inside the first group of pictures.
  ASSERT_EQ(Shell("tail -c +" + std::to_string(188 * 150 + 1) + " " + Quote(ts) + " > " + Quote(cut)).exitCode, 0);
  ASSERT_EQ(Tool("import -y --audio " + Quote(cut) + " " + Quote(tqf)).exitCode, 0);
  ASSERT_EQ(Tool("export -y " + Quote(tqf) + " " + Quote(mp4)).exitCode, 0);
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

TEST_F(ExportTest, ErrorsAreOneLineAndLeaveNoFile) {
  const std::string unwritable = folder_.File("no/such/folder/");
  struct Case {
    std::string arguments;
    std::string output;  // must not exist afterwards
    const char* message;
    int exitCode;
  };
  const Case cases[] = {
      {"export " + Quote(DEMO), "", "missing arguments", 2},
      {"export " + Quote(DEMO) + " " + Quote(folder_.File("x.avi")), folder_.File("x.avi"),
       "must end in .mp4 or .mkv", 1},
      {"export " + Quote(JPEG) + " " + Quote(folder_.File("j.mp4")), folder_.File("j.mp4"),
       "Motion JPEG goes into .mkv only", 1},
      {"export " + Quote(folder_.File("none.tqf")) + " " + Quote(folder_.File("n.mkv")),
       folder_.File("n.mkv"), "No such file or directory", 1},
      {"export " + Quote(DEMO) + " " + Quote(unwritable + "d.mp4"), "", "cannot write", 1},
      {"audio " + Quote(JPEG) + " " + Quote(folder_.File("j.wav")), folder_.File("j.wav"),
       "has no G.726 audio", 1},
      {"audio " + Quote(DEMO) + " " + Quote(unwritable + "d.wav"), "", "cannot write", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments);
    RunResult r = Tool(c.arguments);
    EXPECT_EQ(r.exitCode, c.exitCode);
    EXPECT_EQ(Lines(r.err), 1) << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    if (!c.output.empty()) {
      EXPECT_TRUE(ReadWholeFile(c.output).empty()) << c.output;
    }
  }
}

}  // namespace
