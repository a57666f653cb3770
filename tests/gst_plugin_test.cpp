// The GStreamer plugin, in real pipelines: what its elements give compared
// with the library's own pictures, seeking, live input over TCP, the muxer's
// files and streams, and recording an RTSP camera.
#include <arpa/inet.h>
#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "PictureReference.h"
#include "TQFReader.h"
#include "ToolRunner.h"

namespace {

const std::string PLUGINS = std::string(TQF_BINARY_DIR) + "/gstreamer-1.0";

// A path in a pipeline description.
std::string Path(const std::string& path) { return "\"" + path + "\""; }

// What an appsink received: per buffer a hash, its presentation time and key
// flag, and (for sinks asked to keep them) the bytes.
struct Captured {
  std::vector<uint64_t> hashes;
  std::vector<GstClockTime> pts;
  std::vector<bool> keys;
  std::vector<std::vector<uint8_t>> bytes;
  bool keepBytes = false;
};

// A sample's bytes; raw video as packed planes, as the library gives them
// (a decoder's buffers may carry padding between rows and planes).
std::vector<uint8_t> Bytes(GstSample* sample) {
  GstBuffer* buffer = gst_sample_get_buffer(sample);
  GstVideoInfo info;
  GstVideoFrame frame;
  std::vector<uint8_t> bytes;
  GstCaps* caps = gst_sample_get_caps(sample);
  if (caps != nullptr && gst_video_info_from_caps(&info, caps) &&
      gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ)) {
    for (guint plane = 0; plane < GST_VIDEO_FRAME_N_PLANES(&frame); ++plane) {
      const uint8_t* row = static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane));
      const int width = GST_VIDEO_FRAME_COMP_WIDTH(&frame, plane) * GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, plane);
      for (int y = 0; y < GST_VIDEO_FRAME_COMP_HEIGHT(&frame, plane); ++y, row += GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane))
        bytes.insert(bytes.end(), row, row + width);
    }
    gst_video_frame_unmap(&frame);
    return bytes;
  }
  GstMapInfo map;
  gst_buffer_map(buffer, &map, GST_MAP_READ);
  bytes.assign(map.data, map.data + map.size);
  gst_buffer_unmap(buffer, &map);
  return bytes;
}

// A pipeline from a gst-launch description; each appsink in it is captured.
class Pipeline {
 public:
  explicit Pipeline(const std::string& description) {
    GError* error = nullptr;
    pipeline_ = gst_parse_launch(description.c_str(), &error);
    EXPECT_EQ(error, nullptr) << description << ": " << (error ? error->message : "");
    if (error != nullptr) g_error_free(error);
  }
  ~Pipeline() {
    if (pipeline_ == nullptr) return;
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(pipeline_);
  }

  // Captures the appsink `name`, which must exist.
  Captured& Capture(const std::string& name, bool keepBytes = false) {
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline_), name.c_str());
    EXPECT_NE(sink, nullptr) << name;
    return Capture(sink, name, keepBytes);
  }
  // Captures `sink` (an appsink, or null) as `name`; takes the reference.
  Captured& Capture(GstElement* sink, const std::string& name, bool keepBytes = false) {
    Captured& captured = sinks_[name];
    captured.keepBytes = keepBytes;
    if (sink == nullptr) return captured;
    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = OnSample;
    auto* context = new SinkContext{this, &captured};
    gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, context, [](gpointer c) {
      delete static_cast<SinkContext*>(c);
    });
    gst_object_unref(sink);
    return captured;
  }

  // Plays to the end; false on an error or after `seconds`.
  bool Run(int seconds = 120) {
    if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) return false;
    return WaitForEnd(seconds);
  }
  bool WaitForEnd(int seconds) {
    GstBus* bus = gst_element_get_bus(pipeline_);
    GstMessage* message = gst_bus_timed_pop_filtered(bus, seconds * GST_SECOND,
                                                     GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    gst_object_unref(bus);
    const bool ended = message != nullptr && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
    if (message != nullptr && !ended) Report(message);
    if (ended) gst_message_unref(message);
    return ended;
  }
  // Fails the test with an error or end message, and frees it.
  static void Report(GstMessage* message) {
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
      GError* error = nullptr;
      gchar* details = nullptr;
      gst_message_parse_error(message, &error, &details);
      ADD_FAILURE() << "pipeline error: " << error->message << " (" << (details ? details : "") << ")";
      g_error_free(error);
      g_free(details);
    } else {
      ADD_FAILURE() << "the pipeline ended early";
    }
    gst_message_unref(message);
  }
  // Waits until sink `name` has had `count` buffers; false on an error, an
  // end or after `seconds`.
  bool WaitForCount(const std::string& name, size_t count, int seconds) {
    GstBus* bus = gst_element_get_bus(pipeline_);
    bool reached = false;
    for (int waited = 0; !reached && waited < seconds * 20; ++waited) {
      GstMessage* message = gst_bus_timed_pop_filtered(bus, 50 * GST_MSECOND,
                                                       GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
      if (message != nullptr) {
        Report(message);
        break;
      }
      std::lock_guard<std::mutex> guard(mutex_);
      reached = sinks_[name].hashes.size() >= count;
    }
    gst_object_unref(bus);
    return reached;
  }

  GstElement* pipeline_ = nullptr;

 private:
  struct SinkContext {
    Pipeline* owner;
    Captured* captured;
  };
  static GstFlowReturn OnSample(GstAppSink* sink, gpointer data) {
    auto* context = static_cast<SinkContext*>(data);
    GstSample* sample = gst_app_sink_pull_sample(sink);
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    const std::vector<uint8_t> bytes = Bytes(sample);
    {
      std::lock_guard<std::mutex> guard(context->owner->mutex_);
      Captured& c = *context->captured;
      c.hashes.push_back(HashBytes(bytes.data(), bytes.size()));
      c.pts.push_back(GST_BUFFER_PTS(buffer));
      c.keys.push_back(!GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT));
      if (c.keepBytes) c.bytes.push_back(bytes);
    }
    gst_sample_unref(sample);
    return GST_FLOW_OK;
  }

  std::mutex mutex_;  // guards every Captured while the pipeline runs
  std::map<std::string, Captured> sinks_;
};

// Decoded pictures as the library gives them: planar I420.
const std::string DECODE = " ! h264parse ! avdec_h264 ! video/x-raw,format=I420 ! appsink name=pictures sync=false";

const std::vector<uint64_t>& LibraryPictures() {
  static const std::vector<uint64_t> hashes = PlayThroughLibrary(DEMO).hashes;
  return hashes;
}

// A listening TCP socket on loopback, at a port of the system's choice.
struct Listener {
  Listener() {
    fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(fd, 1), 0);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
  }
  ~Listener() { close(fd); }
  int fd = -1;
  int port = 0;
};

class GstPlugin : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    setenv("GST_PLUGIN_PATH", PLUGINS.c_str(), 1);
    gst_init(nullptr, nullptr);
  }
  TempFolder folder_;
};

TEST_F(GstPlugin, ElementsInspectCleanlyAndGstPlayPlaysTQF) {
  for (const char* element : {"tqfdemux", "tqfmux"}) {
    const RunResult r = RunShell(folder_, std::string("gst-inspect-1.0 ") + element);
    EXPECT_EQ(r.exitCode, 0) << element << r.err;
    EXPECT_TRUE(Has(r.out, "Filename                 " + PLUGINS + "/libgsttqf.so"));
  }
  const RunResult all = RunShell(folder_, "gst-inspect-1.0 --print-all");
  EXPECT_EQ(all.exitCode, 0);
  EXPECT_TRUE(Has(all.out, "tqfdemux:   Klass                    Codec/Demuxer"));
  EXPECT_EQ(all.err, "");
  // gst-play finds the sample's format and length, and plays it to the end.
  const RunResult play = RunShell(folder_, "gst-play-1.0 --videosink='fakesink sync=false' "
                                           "--audiosink='fakesink sync=false' " + Quote(DEMO));
  EXPECT_EQ(play.exitCode, 0) << play.err;
  EXPECT_TRUE(Has(play.out, "0:00:10.0 / 0:00:10.0"));
  EXPECT_TRUE(Has(play.out, "Reached end of play list."));
}

// Pulled from a file, and found by playbin through the typefinder, the
// pictures are the library's, one for one.
// A local file is indexed through a mapping, any other source that can be
// pulled (a data: URI here) a window at a time: the same frames either way.
TEST_F(GstPlugin, FilePicturesEqualTheLibrarys) {
  const std::vector<uint8_t> file = ReadWholeFile(DEMO);
  gchar* base64 = g_base64_encode(file.data(), file.size());
  const std::string dataUri = std::string("data:video/x-tqf;base64,") + base64;
  g_free(base64);
  for (const std::string& source : {"filesrc location=" + Path(DEMO), std::string("dataurisrc name=src")}) {
    SCOPED_TRACE(source);
    Pipeline demux(source + " ! tqfdemux name=d d.video" + DECODE);
    if (GstElement* src = gst_bin_get_by_name(GST_BIN(demux.pipeline_), "src")) {
      g_object_set(src, "uri", dataUri.c_str(), nullptr);
      gst_object_unref(src);
    }
    const Captured& pictures = demux.Capture("pictures");
    ASSERT_TRUE(demux.Run());
    ASSERT_EQ(LibraryPictures().size(), 250u);
    EXPECT_EQ(pictures.hashes, LibraryPictures());
    EXPECT_EQ(pictures.pts[1], 40 * GST_MSECOND);
  }

  Pipeline play("playbin uri=file://" + DEMO + " audio-sink=fakesink");
  GstElement* sink = gst_element_factory_make("appsink", "pictures");
  GstCaps* i420 = gst_caps_from_string("video/x-raw,format=I420");
  g_object_set(sink, "sync", FALSE, "caps", i420, nullptr);
  gst_caps_unref(i420);
  g_object_set(play.pipeline_, "video-sink", gst_object_ref(sink), nullptr);
  const Captured& played = play.Capture(sink, "pictures");
  ASSERT_TRUE(play.Run());
  EXPECT_EQ(played.hashes, LibraryPictures());
}

// The demo's key frames are 2 s apart. A seek starts at the key frame at or
// before the target; an accurate one decodes from there and shows the
// target's frame first.
TEST_F(GstPlugin, SeeksStartAtTheKeyFrameAtOrBeforeTheTarget) {
  const struct {
    double seconds;
    GstSeekFlags flags;
    size_t firstFrame;
  } cases[] = {
      {5.0, GST_SEEK_FLAG_KEY_UNIT, 100},
      {5.0, GST_SEEK_FLAG_ACCURATE, 125},
      {6.0, GST_SEEK_FLAG_NONE, 150},
      {9.99, GST_SEEK_FLAG_NONE, 200},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.seconds);
    Pipeline p("filesrc location=" + Path(DEMO) + " ! tqfdemux name=d d.video" + DECODE);
    GstElement* sink = gst_bin_get_by_name(GST_BIN(p.pipeline_), "pictures");
    gst_element_set_state(p.pipeline_, GST_STATE_PAUSED);
    ASSERT_EQ(gst_element_get_state(p.pipeline_, nullptr, nullptr, 30 * GST_SECOND), GST_STATE_CHANGE_SUCCESS);
    ASSERT_TRUE(gst_element_seek_simple(p.pipeline_, GST_FORMAT_TIME,
                                        GstSeekFlags(GST_SEEK_FLAG_FLUSH | c.flags),
                                        static_cast<gint64>(c.seconds * GST_SECOND)));
    GstSample* sample = gst_app_sink_try_pull_preroll(GST_APP_SINK(sink), 30 * GST_SECOND);
    ASSERT_NE(sample, nullptr);
    EXPECT_EQ(GST_BUFFER_PTS(gst_sample_get_buffer(sample)), c.firstFrame * 40 * GST_MSECOND);
    const std::vector<uint8_t> picture = Bytes(sample);
    EXPECT_EQ(HashBytes(picture.data(), picture.size()), LibraryPictures().at(c.firstFrame));
    gst_sample_unref(sample);
    gst_object_unref(sink);
  }
}

// A live stream over TCP, in random pieces with garbage between frames,
// gives the file's pictures: the demuxer resynchronises at the next frame.
TEST_F(GstPlugin, LiveBytesInRandomPiecesWithGarbageGiveTheSamePictures) {
  const std::vector<uint8_t> file = ReadWholeFile(DEMO);
  std::vector<uint64_t> starts;
  auto note = [](const ScannedFrame& frame, void* context) {
    static_cast<std::vector<uint64_t>*>(context)->push_back(frame.syncOffset);
    return true;
  };
  ASSERT_TRUE(TQFReader::ScanFrames(file.data(), file.size(), note, &starts, nullptr));
  starts.push_back(file.size());  // the last frame runs to the end
  std::mt19937 random(7);
  std::vector<uint8_t> stream(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(starts[0]));
  for (size_t i = 0; i + 1 < starts.size(); ++i) {
    stream.insert(stream.end(), file.begin() + static_cast<std::ptrdiff_t>(starts[i]),
                  file.begin() + static_cast<std::ptrdiff_t>(starts[i + 1]));
    if (i % 9 == 4 && i + 4 < starts.size())
      for (size_t n = 1 + random() % 300; n > 0; --n) stream.push_back(static_cast<uint8_t>(0x56 + random() % 0xA0));
  }
  Listener listener;
  std::thread server([&] {
    const int client = accept(listener.fd, nullptr, nullptr);
    for (size_t at = 0; at < stream.size();) {
      const size_t piece = std::min<size_t>(1 + random() % 6000, stream.size() - at);
      if (send(client, stream.data() + at, piece, MSG_NOSIGNAL) <= 0) break;
      at += piece;
    }
    close(client);
  });
  Pipeline p("tcpclientsrc host=127.0.0.1 port=" + std::to_string(listener.port) + " ! tqfdemux name=d d.video" + DECODE);
  const Captured& pictures = p.Capture("pictures");
  EXPECT_TRUE(p.Run());
  server.join();
  EXPECT_EQ(pictures.hashes, LibraryPictures());
}

// What tqfmux writes (H.264 or H.265, with sound) is a TQF file: the tool
// reads it, the library plays it, and the demuxer gives back the encoder's
// access units byte for byte.
TEST_F(GstPlugin, MuxedFilesRoundTripThroughTheDemuxerAndPlayInTheLibrary) {
  const struct {
    const char* encoder;
    const char* fourcc;
  } codecs[] = {
      {"x264enc key-int-max=20 bframes=0 speed-preset=ultrafast ! h264parse ! "
       "video/x-h264,stream-format=byte-stream,alignment=au", "H264"},
      {"x265enc key-int-max=20 speed-preset=ultrafast option-string=bframes=0 ! h265parse ! "
       "video/x-h265,stream-format=byte-stream,alignment=au", "H265"},
  };
  for (const auto& codec : codecs) {
    SCOPED_TRACE(codec.fourcc);
    const std::string out = folder_.File(std::string(codec.fourcc) + ".tqf");
    Pipeline mux("videotestsrc num-buffers=50 ! video/x-raw,format=I420,width=320,height=240,framerate=25/1 ! " +
                 std::string(codec.encoder) + " ! tee name=t ! queue ! tqfmux name=m ! filesink location=" +
                 Path(out) + " t. ! queue ! appsink name=encoded sync=false "
                 "audiotestsrc num-buffers=30 samplesperbuffer=640 ! audio/x-raw,rate=8000,channels=1 ! m.audio");
    const Captured& encoded = mux.Capture("encoded", /*keepBytes=*/true);
    ASSERT_TRUE(mux.Run());
    ASSERT_EQ(encoded.bytes.size(), 50u);

    const RunResult info = RunShell(folder_, TOOL + " info " + Quote(out));
    EXPECT_EQ(info.exitCode, 0) << info.err;
    EXPECT_TRUE(Has(info.out, std::string("320x240, compression \"") + codec.fourcc + "\""));
    EXPECT_TRUE(Has(info.out, "G.726 audio at 8000 Hz"));
    EXPECT_TRUE(Has(info.out, "3 key frames, spacing 20 to 20 frames, at 0 20 40"));

    const PictureRun played = PlayThroughLibrary(out);
    EXPECT_TRUE(played.ended);
    EXPECT_GE(played.hashes.size(), 49u);  // the file's last frame is never indexed

    Pipeline demux("filesrc location=" + Path(out) + " ! tqfdemux name=d d.video ! queue ! appsink name=v sync=false "
                   "d.audio ! queue ! appsink name=a sync=false");
    const Captured& video = demux.Capture("v", /*keepBytes=*/true);
    const Captured& audio = demux.Capture("a");
    ASSERT_TRUE(demux.Run());
    ASSERT_EQ(video.bytes.size(), played.hashes.size());
    for (size_t i = 0; i < video.bytes.size(); ++i) {
      EXPECT_EQ(video.bytes[i], encoded.bytes[i]) << "frame " << i;
      EXPECT_EQ(video.keys[i], encoded.keys[i]) << "frame " << i;
    }
    EXPECT_GE(audio.hashes.size(), 28u);  // 2.4 s of sound in 80 ms frames, the last maybe not indexed
  }
}

// Sent to tcpserversink, the muxer's stream plays for a client that joins
// late: the header block reaches it as the stream header.
TEST_F(GstPlugin, MuxedLiveStreamPlaysForAClientThatJoinsLate) {
  Listener probe;  // a free port, given back for the server
  const std::string port = std::to_string(probe.port);
  close(probe.fd);
  probe.fd = -1;
  Pipeline server("videotestsrc is-live=true ! video/x-raw,format=I420,width=320,height=240,framerate=25/1 ! "
                  "x264enc tune=zerolatency key-int-max=10 bframes=0 speed-preset=ultrafast ! h264parse ! "
                  "tqfmux ! tcpserversink host=127.0.0.1 sync-method=latest-keyframe port=" + port);
  // The server's sink listens once set_state returns.
  ASSERT_NE(gst_element_set_state(server.pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
  Pipeline client("tcpclientsrc host=127.0.0.1 port=" + port + " ! tqfdemux name=d d.video" + DECODE);
  client.Capture("pictures");
  ASSERT_NE(gst_element_set_state(client.pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
  EXPECT_TRUE(client.WaitForCount("pictures", 25, 60));
}

// A camera over RTSP, recorded with tqfmux: the library plays the file, and
// its pictures are those GStreamer decoded from the same stream.
TEST_F(GstPlugin, RecordsAnRtspCameraIntoAFileTheLibraryPlays) {
  // The camera prints its port into a file and serves while we hold its stdin.
  const std::string portFile = folder_.File("port"), recording = folder_.File("camera.tqf");
  FILE* camera = popen(("exec /usr/bin/python3 " + Quote(std::string(TQF_SOURCE_DIR) + "/tests/scripts/rtsp_camera.py") +
                        " > " + Quote(portFile)).c_str(), "w");
  ASSERT_NE(camera, nullptr);
  std::string port;
  for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
       port.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline;)
    port = (std::this_thread::sleep_for(std::chrono::milliseconds(50)), Text(portFile));
  ASSERT_NE(port.find('\n'), std::string::npos) << "the camera did not start";
  port.pop_back();

  Pipeline record("rtspsrc location=rtsp://127.0.0.1:" + port + "/cam latency=100 ! rtph264depay ! h264parse ! "
                  "video/x-h264,stream-format=byte-stream,alignment=au ! tee name=t ! queue ! tqfmux ! "
                  "filesink location=" + Path(recording) + " t. ! queue" + DECODE.substr(DECODE.find(" ! avdec")));
  const Captured& decoded = record.Capture("pictures");
  ASSERT_NE(gst_element_set_state(record.pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
  EXPECT_TRUE(record.WaitForCount("pictures", 75, 60));
  gst_element_send_event(record.pipeline_, gst_event_new_eos());
  EXPECT_TRUE(record.WaitForEnd(30));
  gst_element_set_state(record.pipeline_, GST_STATE_NULL);
  pclose(camera);

  const PictureRun played = PlayThroughLibrary(recording);
  ASSERT_GE(played.hashes.size(), 50u);
  // A recording that joins a camera mid-picture may begin with a damaged
  // picture, which decoders conceal each in their own way; from the next key
  // frame on, the pictures are exact.
  TQFReader reader;
  ASSERT_TRUE(reader.Open(recording.c_str()));
  int32_t secondKey = 1;
  while (secondKey < static_cast<int32_t>(played.hashes.size()) && !reader.IsKeyFrame(TQF_STREAM_VIDEO, secondKey))
    ++secondKey;
  ASSERT_LT(secondKey + 25, static_cast<int32_t>(played.hashes.size()));
  const auto first = std::find(decoded.hashes.begin(), decoded.hashes.end(), played.hashes[secondKey]);
  ASSERT_NE(first, decoded.hashes.end());
  const size_t count = std::min<size_t>(decoded.hashes.end() - first, played.hashes.size() - secondKey);
  EXPECT_TRUE(std::equal(first, first + static_cast<std::ptrdiff_t>(count), played.hashes.begin() + secondKey));
}

}  // namespace
