// serve end to end: the built tqfplay serving a one-second file of its own,
// read by raw sockets as a camera client reads it. Every wait is bounded, and
// the server runs under /usr/bin/timeout, so a fault fails instead of hanging.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "PictureReference.h"
#include "TQFBuilder.h"
#include "ToolRunner.h"

namespace {

using namespace tqftest;
using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds WAIT{10};

// The served file: 25 video frames of 20 kB (a key frame every 5) stamped
// 1000, 1040, ... 1960, so a pass spans 1000; an audio frame after every
// other one. Each payload starts with its frame's place in the file.
struct Camera {
  Bytes header = VideoHeader("H264", 640, 352);
  std::vector<Bytes> frames;
  Camera() {
    for (uint16_t i = 0; i < 25; ++i) {
      frames.push_back(Frame(Info(20000, i % 5 == 0 ? KEY : 0, 0), 1000 + 40 * i, IdPayload(20000, Place())));
      if (i % 2 == 1) frames.push_back(Frame(Info(320, 0, 1), 1000 + 40 * i, IdPayload(320, Place())));
    }
  }
  uint16_t Place() const { return static_cast<uint16_t>(frames.size()); }
};

struct Received {
  uint32_t place, info, stamp;
  Bytes bytes;
};

// Whole frames from `at` on, each placed by its payload's first two bytes. False
// if a frame does not begin with the sync word where the one before ended.
bool SplitFrames(const std::string& data, size_t at, std::vector<Received>* frames) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(data.data());
  for (uint32_t length; at + 14 <= data.size(); at += TQF_FRAME_HEAD_SIZE + length) {
    if (LoadU32(bytes + at) != TQF_FRAME_SYNC) return false;
    length = FramePayloadLength(LoadU32(bytes + at + 4));
    if (at + TQF_FRAME_HEAD_SIZE + length > data.size()) break;  // still arriving
    frames->push_back({bytes[at + 12] + 256u * bytes[at + 13], LoadU32(bytes + at + 4),
                       LoadU32(bytes + at + 8), Bytes(bytes + at, bytes + at + TQF_FRAME_HEAD_SIZE + length)});
  }
  return true;
}

// A connection that has sent `request`; `receiveBuffer` (if not 0) set before connecting.
int Connect(uint16_t port, const std::string& request, int receiveBuffer = 0) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
  if (receiveBuffer != 0) setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(send(fd, request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size()));
  return fd;
}

// What `fd` (a socket or a pipe) gives for `time`, or up to its close (`*closed` set).
std::string ReadFor(int fd, Clock::duration time, bool* closed = nullptr) {
  std::string data;
  char chunk[65536];
  for (const auto end = Clock::now() + time; Clock::now() < end;) {
    pollfd ready{fd, POLLIN, 0};
    if (poll(&ready, 1, 50) <= 0) continue;
    const ssize_t got = read(fd, chunk, sizeof chunk);
    if (got <= 0) {
      if (closed != nullptr) *closed = true;
      break;
    }
    data.append(chunk, static_cast<size_t>(got));
  }
  return data;
}

// tqfplay serve as a child, its stderr read through a pipe.
class Server {
 public:
  explicit Server(const std::string& arguments) {
    int err[2];
    const std::string command = "exec /usr/bin/timeout 120 " + TOOL + " serve " + arguments;
    if (pipe2(err, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(err[1], STDERR_FILENO);
      execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
      _exit(127);
    }
    close(err[1]);
    err_ = err[0];
    if (WaitFor("/1\n")) std::sscanf(log.c_str() + log.find("127.0.0.1:") + 10, "%hu", &port);
  }
  ~Server() {
    if (pid_ > 0 && status_ < 0) kill(pid_, SIGTERM), Wait();
    close(err_);
  }
  // Reads stderr until it holds `piece`, for up to WAIT.
  bool WaitFor(const std::string& piece) {
    for (const auto end = Clock::now() + WAIT; log.find(piece) == std::string::npos && Clock::now() < end;)
      log += ReadFor(err_, std::chrono::milliseconds(100));
    return log.find(piece) != std::string::npos;
  }
  // The exit code, waited for up to WAIT (-1 if it does not end).
  int Wait() {
    for (const auto end = Clock::now() + WAIT; status_ < 0 && Clock::now() < end;) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 255;
      else std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return status_;
  }
  pid_t pid() const { return pid_; }

  std::string log;
  uint16_t port = 0;

 private:
  pid_t pid_ = -1;
  int err_ = -1;
  int status_ = -1;
};

class ServeTest : public ToolTest {
 protected:
  void SetUp() override {
    Bytes file = camera_.header;
    for (const Bytes& frame : camera_.frames) file.insert(file.end(), frame.begin(), frame.end());
    ASSERT_TRUE(WriteWholeFile(path_, file));
  }
  // The frames after the 200 head and header block of `data`, which must be whole.
  std::vector<Received> Frames(const std::string& data) {
    const size_t head = data.find("\r\n\r\n") + 4;
    EXPECT_EQ(data.compare(0, 16, "HTTP/1.0 200 OK\r"), 0);
    EXPECT_EQ(data.substr(head, camera_.header.size()), std::string(camera_.header.begin(), camera_.header.end()));
    std::vector<Received> frames;
    EXPECT_TRUE(SplitFrames(data, head + camera_.header.size(), &frames)) << "a frame was cut";
    return frames;
  }
  size_t Count() const { return camera_.frames.size(); }

  Camera camera_;
  std::string path_ = folder_.File("cam.tqf");
};

// Frames go out as the file holds them, from where the client joined, and
// on each pass the stamps run on by the span of one pass. With --spread the
// second of two copies runs half a pass (12 of 25 ticks) ahead of the first.
TEST_F(ServeTest, SendsTheFilesFramesInOrderAndLoopsWithStampsRunningOn) {
  Server server(Quote(path_) + " " + Quote(path_) + " --spread --port 0 --bind 127.0.0.1");
  ASSERT_NE(server.port, 0) << server.log;
  const int client = Connect(server.port, "GET /1 HTTP/1.0\r\n\r\n");
  const int ahead = Connect(server.port, "GET /2 HTTP/1.0\r\n\r\n");
  const std::vector<Received> frames = Frames(ReadFor(client, std::chrono::milliseconds(2500)));
  const std::vector<Received> aheadFrames = Frames(ReadFor(ahead, std::chrono::milliseconds(200)));
  close(client);
  close(ahead);
  ASSERT_FALSE(aheadFrames.empty());
  EXPECT_NEAR(double(aheadFrames[0].stamp) - frames[0].stamp, 12 * 40, 40);
  ASSERT_GE(frames.size(), 2 * Count());  // two seconds: a loop at least
  ASSERT_LT(frames[0].place, Count());
  const size_t firstPass = (frames[0].stamp - LoadU32(&camera_.frames[frames[0].place][8])) / 1000;
  for (size_t k = 0; k < frames.size(); ++k) {
    const size_t place = frames[0].place + k, pass = firstPass + place / Count();
    Bytes expected = camera_.frames[place % Count()];
    const uint32_t stamp = LoadU32(&expected[8]) + 1000 * static_cast<uint32_t>(pass);
    std::memcpy(&expected[8], &stamp, sizeof stamp);
    ASSERT_EQ(frames[k].bytes, expected) << "frame " << k << " of pass " << pass;
  }
  EXPECT_TRUE(server.WaitFor("left channel 1 after"));
}

// A client that reads far too slowly loses whole frames, then all up to a key
// frame, and gets the frames it was sending whole; a client beside it gets
// every frame in real time.
TEST_F(ServeTest, ASlowClientLosesWholeFramesUpToAKeyFrameAndHoldsUpNoOther) {
  Server server(Quote(path_) + " --port 0 --bind 127.0.0.1");
  ASSERT_NE(server.port, 0) << server.log;
  const int slowClient = Connect(server.port, "GET /1 HTTP/1.0\r\n\r\n", /*receiveBuffer=*/4096);
  const int reader = Connect(server.port, "GET /cam HTTP/1.0\r\n\r\n");
  std::string trickle;  // 1 kB every 20 ms: 50 kB/s of a 500 kB/s channel
  std::thread trickling([&] {
    char chunk[1024];
    for (const auto end = Clock::now() + std::chrono::seconds(8); Clock::now() < end;
         std::this_thread::sleep_for(std::chrono::milliseconds(20)))
      trickle.append(chunk, std::max<ssize_t>(0, recv(slowClient, chunk, sizeof chunk, MSG_DONTWAIT)));
  });
  const std::vector<Received> read = Frames(ReadFor(reader, std::chrono::seconds(8)));
  trickling.join();
  size_t video = 0;
  for (size_t k = 0; k < read.size(); ++k) {
    video += FrameStreamNumber(read[k].info) == TQF_STREAM_VIDEO;
    ASSERT_EQ(read[k].place, (read[0].place + k) % Count()) << "the reader lost frame " << k;
  }
  EXPECT_GE(video, 150u);  // 200 in 8 s of real time
  const std::vector<Received> late = Frames(trickle + ReadFor(slowClient, std::chrono::seconds(1)));
  size_t missing = 0;  // at least: a gap may hide whole passes
  for (size_t k = 1; k < late.size(); ++k) {
    if (late[k].place == (late[k - 1].place + 1) % Count()) continue;
    missing += (late[k].place + Count() - late[k - 1].place - 1) % Count();
    EXPECT_TRUE(IsKeyFrameInfo(late[k].info)) << "frame " << k << " follows a loss";
  }
  EXPECT_GE(missing, 1u);
  close(slowClient);
  ASSERT_TRUE(server.WaitFor(" lost)\n")) << server.log;
  unsigned long long sent = 0, lost = 0;
  ASSERT_EQ(std::sscanf(server.log.c_str() + server.log.find("left channel 1 after"),
                        "left channel 1 after %llu frames (%llu lost)", &sent, &lost), 2);
  EXPECT_GE(lost, missing) << server.log;
  EXPECT_GE(sent, late.size()) << server.log;
  close(reader);
}

// Requests answered or refused, a port in use, a missing file, and Ctrl-C.
TEST_F(ServeTest, RefusesBadRequestsAndEndsOnCtrlC) {
  Server server(Quote(path_) + " --port 0 --bind 127.0.0.1");
  ASSERT_NE(server.port, 0) << server.log;
  const std::map<std::string, std::string> answers = {
      {"GET /cam HTTP/1.0\r\n\r\n", "HTTP/1.0 200 OK\r\n"},
      {"GET /2 HTTP/1.0\r\n\r\n", "HTTP/1.0 404 no channel '2'\r\n"},
      {"GET /cam/1 HTTP/1.0\r\n\r\n", "HTTP/1.0 400 bad request\r\n"},
      {"GET / HTTP/1.0\r\n" + std::string(5000, 'x'), ""},  // a head too long: closed unanswered
  };
  for (const auto& [request, answer] : answers) {
    SCOPED_TRACE(request.substr(0, 20));
    bool closed = false;
    const int client = Connect(server.port, request);
    const std::string got = ReadFor(client, answer.find(" 200 ") != std::string::npos ? std::chrono::seconds(1) : WAIT, &closed);
    close(client);
    EXPECT_EQ(got.substr(0, answer.size()), answer);
    EXPECT_EQ(closed, answer.find(" 200 ") == std::string::npos);
  }
  const std::string port = std::to_string(server.port);
  const std::pair<std::string, std::string> failures[] = {
      {Quote(path_) + " --port " + port + " --bind 127.0.0.1", "Address already in use"},
      {Quote(folder_.File("none.tqf")) + " --port 0", "none.tqf: No such file or directory"},
  };
  for (const auto& [arguments, message] : failures) {
    RunResult r = Shell("/usr/bin/timeout 10 " + TOOL + " serve " + arguments);
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_EQ(Lines(r.err), 1) << r.err;
    EXPECT_TRUE(Has(r.err, message));
  }
  const int client = Connect(server.port, "GET /1 HTTP/1.0\r\n\r\n");
  ASSERT_TRUE(server.WaitFor("connected to channel 1 'cam'"));
  kill(server.pid(), SIGINT);
  bool closed = false;
  ReadFor(client, WAIT, &closed);
  close(client);
  EXPECT_TRUE(closed);
  EXPECT_EQ(server.Wait(), 130);
}

}  // namespace

// A frame's bytes with its stamp cleared: a served camera's stamps run on.
Bytes Unstamped(Bytes frame) {
  std::fill(frame.begin() + 8, frame.begin() + 12, 0);
  return frame;
}

// The frames of the TQF file `path` after its header block.
std::vector<Received> FileFrames(const std::string& path) {
  const Bytes file = ReadWholeFile(path);
  std::vector<Received> frames;
  EXPECT_TRUE(file.size() > 8 && SplitFrames(std::string(file.begin(), file.end()), LoadU32(&file[4]) + 8u, &frames))
      << path;
  return frames;
}

// Checks that the recording `path` holds the demo's video frames in order
// (looping) from one of its key frames on; the count.
size_t CheckRecording(const std::string& path) {
  std::vector<Bytes> demo;
  for (const Received& frame : FileFrames(DEMO))
    if (FrameStreamNumber(frame.info) == TQF_STREAM_VIDEO) demo.push_back(Unstamped(frame.bytes));
  const std::vector<Received> frames = FileFrames(path);
  if (frames.empty()) return 0;
  const size_t first = std::find(demo.begin(), demo.end(), Unstamped(frames[0].bytes)) - demo.begin();
  EXPECT_TRUE(first < demo.size() && IsKeyFrameInfo(frames[0].info)) << path;
  for (size_t k = 0; k < frames.size() && first < demo.size(); ++k)
    EXPECT_EQ(Unstamped(frames[k].bytes), demo[(first + k) % demo.size()]) << path << " frame " << k;
  return frames.size();
}

// stream tcp:// plays a served camera: the pictures are the library's own
// pictures of the file, from the first key frame after connecting, across
// the loop; --frames gives exactly that many.
TEST_F(ServeTest, StreamPlaysAServedCameraAsTheFileItself) {
  Server server(Quote(DEMO) + " --port 0 --bind 127.0.0.1");
  ASSERT_NE(server.port, 0) << server.log;
  const std::string y4m = folder_.File("live.y4m");
  RunResult r = Tool("stream tcp://127.0.0.1:" + std::to_string(server.port) + "/demo --frames 60 --y4m " +
                     Quote(y4m));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::vector<uint64_t> live = ReadY4M(y4m).hashes, all = PlayThroughLibrary(DEMO).hashes;
  ASSERT_EQ(live.size(), 60u);
  ASSERT_EQ(all.size(), 250u);
  const size_t first = std::find(all.begin(), all.end(), live[0]) - all.begin();
  ASSERT_LT(first, all.size()) << "the first picture is none of the file's";
  for (size_t k = 0; k < live.size(); ++k) EXPECT_EQ(live[k], all[(first + k) % all.size()]) << k;
}

// A camera killed and started again: --reconnect says so, tries again until
// it answers, and each connection's recording holds the frames it received.
TEST_F(ServeTest, StreamReconnectsAndRecordsEachConnection) {
  uint16_t port = 0;
  {
    Server probe(Quote(DEMO) + " --port 0 --bind 127.0.0.1");  // a port that was free
    port = probe.port;
  }
  ASSERT_NE(port, 0);
  const std::string server = Quote(DEMO) + " --port " + std::to_string(port) + " --bind 127.0.0.1";
  const std::string record = folder_.File("r.tqf");
  auto first = std::make_unique<Server>(server);
  ASSERT_TRUE(first->WaitFor("/1\n")) << first->log;
  RunResult r;
  std::thread client([&] {
    r = Tool("stream tcp://127.0.0.1:" + std::to_string(port) + "/1 --reconnect --duration 9 --record " +
             Quote(record));
  });
  EXPECT_TRUE(first->WaitFor("connected to channel 1"));
  std::this_thread::sleep_for(std::chrono::seconds(3));  // a recording of some length
  first.reset();  // SIGTERM: the connection drops
  std::this_thread::sleep_for(std::chrono::seconds(1));  // refused at least once
  Server second(server);
  EXPECT_TRUE(second.WaitFor("connected to channel 1")) << second.log;
  client.join();
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(Has(r.err, "the connection closed; trying again in 0.5 s")) << r.err;
  EXPECT_TRUE(Has(r.err, "Connection refused; trying again in 1.0 s")) << r.err;
  EXPECT_TRUE(Has(r.err, "connected again")) << r.err;
  EXPECT_GE(CheckRecording(record), 25u);
  EXPECT_GE(CheckRecording(folder_.File("r-2.tqf")), 25u);
}
