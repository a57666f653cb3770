// export and audio end to end: the files the built tqfplay makes, read back
// with the ffprobe and ffmpeg tools and compared with the library's own
// pictures and its G.726 module. Their errors: tqfplay_tool_test.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "G726.h"
#include "PictureReference.h"
#include "TQFFormat.h"
#include "ToolRunner.h"

namespace {

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
  const PictureRun reference = PlayThroughLibrary(DEMO);
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
    ASSERT_FALSE(fromFive.empty());
    EXPECT_EQ(fromFive.front(), reference.hashes[125]);
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

// Imported content keeps its time through export: B-frames at 30 fps decode
// frame for frame as the source does, for as long, without a warning.
TEST_F(ExportTest, ImportedContentKeepsItsFramesAndRate) {
  const std::string original = folder_.File("original.mp4"), tqf = folder_.File("imported.tqf");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=size=320x240:rate=30 -bf 2 -t 2 -c:v libx264 -g 24 -pix_fmt yuv420p " +
                     Quote(original)));
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
  ASSERT_EQ(Tool("export -y " + tqf + " " + Quote(mp4)).exitCode, 0);
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
