// Live cameras on one machine, as a buyer of a surveillance client counts
// them: how many 720p25 H.264 cameras one process holds, at what delay and
// at what cost.
//
// The cameras are the channels of `tqfplay serve --spread` (a child process)
// over loopback TCP: the clip served SERVED_CHANNELS times, each copy out of
// step with the others as separate cameras are, so that their key frames do
// not all come in one tick; camera i takes channel i % SERVED_CHANNELS + 1. This process receives them as a
// host of the library does: one thread polls the N sockets and feeds each
// stream's bytes to TQ_InputData as they arrive; the library decodes on its
// own threads and calls back with each picture. Each N runs in a child
// process of its own, so that its resident memory starts clean. Per N:
//   fed      video frames fed from the first key frame on
//   evicted  frames fed that gave no picture while a later one did (the
//            library drops the oldest frames of a full queue)
//   late     pictures called back more than 200 ms after the arrival of
//            their frame's last byte, and frames with no picture at the end
//   lost     frames the server dropped for a client too slow to read them,
//            seen as gaps in the stamps (40 ms a frame on the server's clock)
//   CPU      of this process (getrusage) and of the server (/proc/PID/stat),
//            % of one core
//   memory   VmRSS while the N streams run, less VmRSS before, over N
//   delay    from the read that completed a frame to its picture's callback
//   tick     from the server's tick that sent a frame to its callback
// The ceiling is the single-thread decode rate of the clip times the cores,
// over 25; the peer is N `ffmpeg -re -threads 1` processes on the same clip.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>
#include <utility>

#include "../tests/CodecTestSupport.h"
#include "BenchSupport.h"
#include "ChannelProtocol.h"
#include "Command.h"
#include "Decoder.h"
#include "Options.h"
#include "TQFFormat.h"
#include "TQFPlay.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char NAME[] = "bench_cameras";
constexpr uint32_t CLIP_SECONDS = 60;
constexpr uint32_t DEFAULT_SECONDS = 60;
constexpr const char DEFAULT_CAMERAS[] = "1,8,16,32,40,48,56,64";
constexpr uint32_t MAX_CAMERAS = 256;  // well inside the descriptors a process may open
constexpr uint32_t SERVED_CHANNELS = 64;  // the most a server serves
constexpr int64_t LATE_NS = 200'000'000;
constexpr int64_t NS_PER_MS = 1'000'000;
constexpr double REAL_TIME_SLACK = 1.05;
constexpr double MEMORY_TARGET_MIB = 40;
constexpr double CEILING_TARGET = 0.90;
// Bounds of the waits: the server's first line, every stream fed a key
// frame (one comes every 2 s), the pictures still queued at the end (given
// up after a quiet spell or the limit), and a row or the peer's processes
// beyond their seconds.
constexpr auto SERVER_START_LIMIT = std::chrono::seconds(10);
constexpr auto START_LIMIT = std::chrono::seconds(10);
constexpr auto DRAIN_QUIET = std::chrono::seconds(2);
constexpr auto DRAIN_LIMIT = std::chrono::seconds(10);
constexpr auto ROW_OVERRUN_LIMIT = std::chrono::seconds(60);
constexpr auto CHILD_POLL = std::chrono::milliseconds(20);
constexpr size_t READ_BYTES = 64 << 10;
// The largest header block a stream player accepts: 16 records of 64 KiB.
constexpr uint32_t MAX_HEADER_BLOCK =
    TQF_FILE_HEADER_SIZE + TQF_READER_MAX_RECORDS * (TQF_RECORD_HEAD_SIZE + TQF_STREAM_MAX_RECORD_PAYLOAD);

int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

// CPU seconds, user and system, of process `pid` so far; -1 if it cannot be read.
double ProcessCpuSeconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(in, line);
  const size_t name_end = line.rfind(')');  // the command name may hold spaces
  unsigned long user = 0, system = 0;
  if (name_end == std::string::npos ||
      std::sscanf(line.c_str() + name_end + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user,
                  &system) != 2)
    return -1;
  return double(user + system) / double(sysconf(_SC_CLK_TCK));
}

// A child process. It is killed (SIGKILL) and reaped when the object goes,
// and the kernel kills it if this process dies first, so that no server or
// decoder outlives the run however it ends.
class Child {
 public:
  Child() = default;
  explicit Child(pid_t pid) : pid_(pid) {}
  Child(Child&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
  Child& operator=(Child&&) = delete;
  ~Child() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  pid_t Pid() const { return pid_; }
  bool Running() const { return pid_ > 0; }
  // Reaps the child if it has ended: true, with its wait status and the CPU
  // seconds it used. False while it runs.
  bool Reap(int* status, double* cpuSeconds) {
    rusage usage;
    if (pid_ <= 0 || wait4(pid_, status, WNOHANG, &usage) != pid_) return false;
    *cpuSeconds = UsageSeconds(usage);
    pid_ = -1;
    return true;
  }

 private:
  pid_t pid_ = -1;
};

// Runs `body` in a forked child, which then exits. Not running if fork failed.
// This process must have no other thread: the child gets only the caller's.
template <typename Body>
Child ForkChild(Body body) {
  std::fflush(nullptr);  // or the child would write out the parent's buffers again
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid != 0) return Child(pid);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);  // the parent died before the line above
  body();
  _exit(0);
}

// Runs `argv` with its output (standard output and error) to `logPath`, or
// to this process's when `logPath` is empty. The log is emptied before the
// child starts, so that what the caller then reads of it is the child's.
Child Spawn(const std::vector<std::string>& argv, const std::string& logPath) {
  const int log = logPath.empty() ? -1 : open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (!logPath.empty() && log < 0) return Child();
  Child child = ForkChild([&] {
    if (log >= 0 && (dup2(log, STDOUT_FILENO) < 0 || dup2(log, STDERR_FILENO) < 0)) _exit(127);
    std::vector<char*> pointers;
    for (const std::string& argument : argv) pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    execv(pointers[0], pointers.data());
    std::fprintf(stderr, "%s: cannot run %s: %s\n", NAME, pointers[0], std::strerror(errno));
    _exit(127);
  });
  if (log >= 0) close(log);
  return child;
}

// Walks the frames of a stream cut anywhere and tells each video frame at
// its last byte.
struct FrameScanner {
  // Walks `size` bytes; calls `onVideo(info, stamp)` at the end of each video
  // frame. False when the bytes are not frames (no sync word where a frame
  // begins, or a payload longer than a stream allows).
  template <typename OnVideo>
  bool Walk(const uint8_t* data, size_t size, OnVideo onVideo) {
    for (;;) {
      if (headBytes < TQF_FRAME_HEAD_SIZE) {
        const size_t n = std::min<size_t>(TQF_FRAME_HEAD_SIZE - headBytes, size);
        std::memcpy(head + headBytes, data, n);
        headBytes += static_cast<uint32_t>(n);
        data += n;
        size -= n;
        if (headBytes < TQF_FRAME_HEAD_SIZE) return true;
        payloadLeft = FramePayloadLength(LoadU32(head + 4));
        if (LoadU32(head) != TQF_FRAME_SYNC || payloadLeft > TQF_STREAM_MAX_FRAME_PAYLOAD) return false;
      }
      const size_t n = std::min<size_t>(payloadLeft, size);
      data += n;
      size -= n;
      payloadLeft -= static_cast<uint32_t>(n);
      if (payloadLeft > 0) return true;
      const uint32_t info = LoadU32(head + 4);
      if (FrameStreamNumber(info) == TQF_STREAM_VIDEO) onVideo(info, LoadU32(head + 8));
      headBytes = 0;
    }
  }

  uint8_t head[TQF_FRAME_HEAD_SIZE];
  uint32_t headBytes = 0;
  uint32_t payloadLeft = 0;
};

// A video frame fed, waiting for its picture, and a picture called back.
struct FedFrame {
  uint32_t stamp;
  int64_t arrivalNs;
};
struct ShownFrame {
  uint32_t stamp;
  int64_t arrivalNs;
  int64_t callbackNs;
};

// One client of the channel. The receiving thread owns everything but the
// fields under `lock`, which the stream's callback shares.
struct Camera {
  int fd = -1;
  int32_t handle = -1;
  bool open = false;              // the header block went to TQ_OpenStream
  std::vector<uint8_t> greeting;  // the response head and header block, until open
  FrameScanner scanner;
  bool sawKey = false;
  uint32_t lastStamp = 0;
  uint64_t fed = 0;
  uint64_t lost = 0;
  int64_t earliestTickNs = INT64_MAX;  // arrival less stamp: the least lag seen

  std::mutex lock;
  std::deque<FedFrame> waiting;  // in stamp order
  std::vector<ShownFrame> shown;
  uint64_t evicted = 0;
};

// The cameras of the row this process runs, for the callback, whose user
// value is a camera's index.
Camera* g_cameras = nullptr;

int32_t OnPicture(int32_t, uint8_t*, int32_t, int32_t, int32_t, uint32_t stamp, int32_t, int32_t,
                  uint32_t user) {
  const int64_t now = NowNs();
  Camera& c = g_cameras[user];
  std::lock_guard<std::mutex> guard(c.lock);
  while (!c.waiting.empty() && c.waiting.front().stamp < stamp) {
    c.waiting.pop_front();
    ++c.evicted;
  }
  if (!c.waiting.empty() && c.waiting.front().stamp == stamp) {
    c.shown.push_back({stamp, c.waiting.front().arrivalNs, now});
    c.waiting.pop_front();
  }
  return 0;
}

// What one row found, sent from its child process whole through a pipe.
struct RowResult {
  uint32_t cameras;
  char error[200];  // empty when the row ran
  uint64_t fed, evicted, late, lost;
  uint64_t unshown;  // frames still without a picture after the drain
  double delayMaxMs;
  uint32_t seconds;
  double receiverCpu, serverCpu;  // % of one core
  double mibPerCamera;
  double delayMedianMs, delayP99Ms, tickMedianMs, tickP99Ms;
};

struct RowSetup {
  const ChannelAddress* address;
  sockaddr_in server;
  pid_t serverPid;
  uint32_t cameras;
  uint32_t seconds;
};

class Row {
 public:
  explicit Row(const RowSetup& setup) : s_(setup), cameras_(new Camera[setup.cameras]) {
    g_cameras = cameras_.get();
  }
  ~Row() {
    for (uint32_t i = 0; i < s_.cameras; ++i) {
      if (cameras_[i].open) TQ_CloseStream(cameras_[i].handle);
      if (cameras_[i].fd >= 0) close(cameras_[i].fd);
    }
    g_cameras = nullptr;
  }
  Row(const Row&) = delete;
  Row& operator=(const Row&) = delete;

  // Connects, opens the N streams and runs them for the row's seconds.
  // False with the reason in `error`.
  bool Run(RowResult* r, std::string* error) {
    ReserveRecords();
    const long residentBefore = ResidentKiB();
    if (!Connect(error) || !Pump(Clock::now() + START_LIMIT, Until::STARTED, error)) return false;
    const double cpu0 = CpuSeconds(), server0 = ProcessCpuSeconds(s_.serverPid);
    const auto start = Clock::now();
    if (!Pump(start + std::chrono::seconds(s_.seconds), Until::DEADLINE, error)) return false;
    const double wall = SecondsSince(start);
    r->receiverCpu = 100 * (CpuSeconds() - cpu0) / wall;
    r->serverCpu = 100 * (ProcessCpuSeconds(s_.serverPid) - server0) / wall;
    r->mibPerCamera = (ResidentKiB() - residentBefore) / 1024.0 / s_.cameras;
    Drain();
    Count(r);
    return true;
  }

 private:
  // How long Pump runs: to its deadline, or until every stream has started.
  enum class Until { DEADLINE, STARTED };

  // The records of the pictures are made resident before the memory is
  // first measured: they are the benchmark's, not the library's.
  void ReserveRecords() {
    const size_t frames = (s_.seconds + (START_LIMIT + DRAIN_LIMIT).count()) * TQF_FRAMES_PER_SECOND;
    for (uint32_t i = 0; i < s_.cameras; ++i) {
      cameras_[i].shown.resize(frames);
      cameras_[i].shown.clear();
    }
  }

  bool Connect(std::string* error) {
    ChannelAddress address = *s_.address;
    for (uint32_t i = 0; i < s_.cameras; ++i) {
      Camera& c = cameras_[i];
      address.channel = std::to_string(i % SERVED_CHANNELS + 1);
      const std::string request = ChannelRequestText(address);
      c.fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      if (c.fd < 0 || connect(c.fd, reinterpret_cast<const sockaddr*>(&s_.server), sizeof s_.server) != 0 ||
          send(c.fd, request.data(), request.size(), MSG_NOSIGNAL) != ssize_t(request.size())) {
        *error = Format("camera %u: cannot connect and ask: %s", i + 1, std::strerror(errno));
        return false;
      }
    }
    return true;
  }

  // Receives on every socket until `deadline`, or until every stream has
  // been fed its first key frame. False with the reason when a socket fails,
  // the bytes are wrong, or the streams do not start by the deadline.
  bool Pump(Clock::time_point deadline, Until until, std::string* error) {
    std::vector<pollfd> fds(s_.cameras);
    for (uint32_t i = 0; i < s_.cameras; ++i) fds[i] = {cameras_[i].fd, POLLIN, 0};
    std::vector<uint8_t> buffer(READ_BYTES);
    for (auto now = Clock::now(); now < deadline; now = Clock::now()) {
      if (until == Until::STARTED && started_ == s_.cameras) return true;
      const auto wait = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
      const int ready = poll(fds.data(), fds.size(), static_cast<int>(std::min<int64_t>(wait.count(), 1000)));
      if (ready < 0 && errno != EINTR) return *error = Format("poll: %s", std::strerror(errno)), false;
      for (uint32_t i = 0; ready > 0 && i < s_.cameras; ++i) {
        if (fds[i].revents == 0) continue;
        const ssize_t got = recv(fds[i].fd, buffer.data(), buffer.size(), 0);
        if (got <= 0) {
          *error = Format("camera %u: %s", i + 1, got == 0 ? "the server closed the connection" : std::strerror(errno));
          return false;
        }
        if (!Receive(i, buffer.data(), static_cast<size_t>(got), NowNs(), error)) return false;
      }
    }
    if (until == Until::STARTED && started_ < s_.cameras)
      return *error = Format("%u of %u streams met a key frame in %lld s", started_, s_.cameras,
                             static_cast<long long>(START_LIMIT.count())), false;
    return true;
  }

  // Takes bytes of camera `i` read at `now`: the greeting, then frames.
  bool Receive(uint32_t i, const uint8_t* data, size_t size, int64_t now, std::string* error) {
    Camera& c = cameras_[i];
    std::vector<uint8_t> greeting;  // once complete, with the frames that came along
    if (!c.open) {
      c.greeting.insert(c.greeting.end(), data, data + size);
      size_t framesAt = 0;
      if (!TakeGreeting(i, &framesAt, error)) return false;
      if (!c.open) return true;
      greeting = std::move(c.greeting);
      data = greeting.data() + framesAt;
      size = greeting.size() - framesAt;
    }
    const bool framed = c.scanner.Walk(data, size, [&](uint32_t info, uint32_t stamp) { Fed(c, info, stamp, now); });
    if (!framed) return *error = Format("camera %u: the bytes after the header block are not frames", i + 1), false;
    if (TQ_InputData(c.handle, data, static_cast<int32_t>(size)) != 0)
      return *error = Format("camera %u: TQ_InputData refused %zu bytes", i + 1, size), false;
    return true;
  }

  // Opens the stream once the greeting holds the response head and the
  // header block; `*framesAt` is then where the frames begin in it.
  bool TakeGreeting(uint32_t i, size_t* framesAt, std::string* error) {
    Camera& c = cameras_[i];
    const std::vector<uint8_t>& g = c.greeting;
    const size_t headEnd = ChannelHeadEnd(reinterpret_cast<const char*>(g.data()), g.size());
    if (headEnd == 0) {
      if (g.size() > CHANNEL_HEAD_MAX) return *error = Format("camera %u: no end to the response head", i + 1), false;
      return true;
    }
    int status = 0;
    std::string reason;
    if (!ParseChannelResponse(std::string(g.begin(), g.begin() + long(headEnd)), &status, &reason))
      return *error = Format("camera %u: the answer is not an HTTP response", i + 1), false;
    if (status != 200) return *error = Format("camera %u: refused: %d %s", i + 1, status, reason.c_str()), false;
    if (g.size() < headEnd + TQF_FILE_HEADER_SIZE) return true;
    const uint32_t blockSize = LoadU32(&g[headEnd + 4]) + 8;
    if (LoadU32(&g[headEnd]) != TQF_FILE_MAGIC || blockSize < TQF_FILE_HEADER_SIZE || blockSize > MAX_HEADER_BLOCK)
      return *error = Format("camera %u: no TQF header block after the response head", i + 1), false;
    if (g.size() < headEnd + blockSize) return true;
    if (TQ_OpenStream(&g[headEnd], blockSize, &c.handle) != 0)
      return *error = Format("camera %u: TQ_OpenStream refused the header block", i + 1), false;
    c.open = true;
    if (TQ_Play(c.handle, OnPicture, i) != 0) return *error = Format("camera %u: TQ_Play failed", i + 1), false;
    *framesAt = headEnd + blockSize;
    return true;
  }

  // Notes a video frame complete at `now`, before its bytes go to the
  // library, so that its picture always finds it.
  void Fed(Camera& c, uint32_t info, uint32_t stamp, int64_t now) {
    if (!c.sawKey && !IsKeyFrameInfo(info)) return;  // the player starts at a key frame
    started_ += !c.sawKey;
    if (c.sawKey && stamp > c.lastStamp + TQF_FRAME_DURATION_MS)
      c.lost += (stamp - c.lastStamp) / TQF_FRAME_DURATION_MS - 1;
    c.sawKey = true;
    c.lastStamp = stamp;
    ++c.fed;
    c.earliestTickNs = std::min(c.earliestTickNs, now - stamp * NS_PER_MS);
    std::lock_guard<std::mutex> guard(c.lock);
    c.waiting.push_back({stamp, now});
  }

  // Waits, reading no more, for the pictures of the frames fed: until none
  // waits, or none has come for DRAIN_QUIET, or DRAIN_LIMIT has passed.
  void Drain() {
    const auto limit = Clock::now() + DRAIN_LIMIT;
    auto quietSince = Clock::now();
    size_t before = SIZE_MAX;
    for (;;) {
      size_t waiting = 0;
      for (uint32_t i = 0; i < s_.cameras; ++i) {
        std::lock_guard<std::mutex> guard(cameras_[i].lock);
        waiting += cameras_[i].waiting.size();
      }
      const auto now = Clock::now();
      if (waiting != before) quietSince = now;
      before = waiting;
      if (waiting == 0 || now - quietSince >= DRAIN_QUIET || now >= limit) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }

  // Closes the streams (no callback comes after that) and counts what they gave.
  void Count(RowResult* r) {
    std::vector<double> delays, ticks;
    for (uint32_t i = 0; i < s_.cameras; ++i) {
      Camera& c = cameras_[i];
      if (c.open) TQ_CloseStream(c.handle);
      c.open = false;
      r->fed += c.fed;
      r->lost += c.lost;
      r->evicted += c.evicted;
      r->late += c.waiting.size();
      r->unshown += c.waiting.size();
      for (const ShownFrame& f : c.shown) {
        r->late += f.callbackNs - f.arrivalNs > LATE_NS;
        delays.push_back((f.callbackNs - f.arrivalNs) / double(NS_PER_MS));
        // Each channel has its own clock: its tick 0 by ours is the camera's least lag.
        ticks.push_back((f.callbackNs - c.earliestTickNs - f.stamp * NS_PER_MS) / double(NS_PER_MS));
      }
    }
    r->delayMedianMs = Percentile(delays, 0.5);
    r->delayP99Ms = Percentile(delays, 0.99);
    r->tickMedianMs = Percentile(ticks, 0.5);
    r->tickP99Ms = Percentile(ticks, 0.99);
    r->delayMaxMs = Percentile(delays, 1.0);
    r->seconds = s_.seconds;
  }

  const RowSetup s_;
  std::unique_ptr<Camera[]> cameras_;
  uint32_t started_ = 0;  // streams fed their first key frame
};

// Runs one row in a child process: a fresh library and a fresh heap.
RowResult RunRowApart(const RowSetup& setup) {
  RowResult r{};
  r.cameras = setup.cameras;
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) {
    std::snprintf(r.error, sizeof r.error, "pipe: %s", std::strerror(errno));
    return r;
  }
  Child child = ForkChild([&] {
    RowResult mine = r;
    std::string error = "TQ_Initial failed";
    if (TQ_Initial() == 0) {
      Row row(setup);
      if (row.Run(&mine, &error)) error.clear();
    }
    TQ_Free();
    std::snprintf(mine.error, sizeof mine.error, "%s", error.c_str());
    (void)!write(pipeFds[1], &mine, sizeof mine);  // under PIPE_BUF: whole or not at all
  });
  close(pipeFds[1]);
  pollfd readable{pipeFds[0], POLLIN, 0};
  const auto limit = std::chrono::seconds(setup.seconds) + START_LIMIT + DRAIN_LIMIT + ROW_OVERRUN_LIMIT;
  const bool answered = child.Running() && poll(&readable, 1, int(std::chrono::milliseconds(limit).count())) == 1 &&
                        read(pipeFds[0], &r, sizeof r) == ssize_t(sizeof r);
  close(pipeFds[0]);
  if (!answered) std::snprintf(r.error, sizeof r.error, "the row's process gave no result (crashed or hung)");
  return r;
}

bool Held(const RowResult& r) { return r.error[0] == '\0' && r.fed > 0 && r.evicted + r.late + r.lost == 0; }

// The peer's rule applied to ours: a peer process keeps real time when it
// ends within 105% of its span, so a row does when no frame is lost or
// evicted and every picture came within 5% of the span of its frame.
bool KeepsRealTime(const RowResult& r) {
  return r.error[0] == '\0' && r.fed > 0 && r.evicted + r.lost + r.unshown == 0 &&
         r.delayMaxMs <= (REAL_TIME_SLACK - 1) * r.seconds * 1000;
}

void PrintRowHeading() {
  std::printf("\n%7s %7s %7s %6s %6s %8s %8s %9s %17s %17s\n", "cameras", "fed", "evicted", "late", "lost",
              "CPU %", "server %", "MiB/cam", "delay med/p99 ms", "tick med/p99 ms");
}

void PrintRow(const RowResult& r) {
  if (r.error[0] != '\0') {
    std::printf("%7u  failed: %s\n", r.cameras, r.error);
    return;
  }
  std::printf("%7u %7llu %7llu %6llu %6llu %8.1f %8.1f %9.2f %8.1f %8.1f %8.1f %8.1f%s\n", r.cameras,
              static_cast<unsigned long long>(r.fed), static_cast<unsigned long long>(r.evicted),
              static_cast<unsigned long long>(r.late), static_cast<unsigned long long>(r.lost), r.receiverCpu,
              r.serverCpu, r.mibPerCamera, r.delayMedianMs, r.delayP99Ms, r.tickMedianMs, r.tickP99Ms,
              Held(r) ? "  held" : "");
  std::fflush(stdout);
}

// The peer at N: N concurrent ffmpeg processes decoding the clip at its own
// rate (-re) on one thread each, for `seconds` of video.
struct PeerResult {
  uint32_t processes;
  uint32_t inTime;       // ended within seconds * REAL_TIME_SLACK, successfully
  double slowestSeconds;
  double cpu;            // all of them, % of one core
};

PeerResult RunPeer(const std::string& clip, uint32_t processes, uint32_t seconds) {
  const std::vector<std::string> argv = {TQF_FFMPEG, "-v", "error", "-nostdin", "-re", "-threads", "1", "-i",
                                         clip, "-t", std::to_string(seconds), "-f", "null", "-"};
  PeerResult p{processes, 0, 0, 0};
  const auto start = Clock::now();
  std::vector<Child> children;
  for (uint32_t i = 0; i < processes; ++i) children.push_back(Spawn(argv, ""));
  const auto limit = start + std::chrono::seconds(2 * seconds) + ROW_OVERRUN_LIMIT;
  auto running = std::count_if(children.begin(), children.end(), [](const Child& c) { return c.Running(); });
  while (running > 0 && Clock::now() < limit) {
    std::this_thread::sleep_for(CHILD_POLL);
    for (Child& child : children) {
      int status = 0;
      double cpuSeconds = 0;
      if (!child.Reap(&status, &cpuSeconds)) continue;
      const double took = SecondsSince(start);
      --running;
      p.cpu += cpuSeconds;
      p.slowestSeconds = std::max(p.slowestSeconds, took);
      p.inTime += WIFEXITED(status) && WEXITSTATUS(status) == 0 && took <= seconds * REAL_TIME_SLACK;
    }
  }
  for (const Child& child : children)
    if (child.Running()) p.slowestSeconds = SecondsSince(start);  // killed by its destructor
  p.cpu = 100 * p.cpu / SecondsSince(start);
  return p;
}

// The clip's single-thread decode rate with the library's H.264 decoder,
// frames a second; 0 if it does not decode.
double DecodeRate(const std::vector<std::vector<uint8_t>>& units) {
  Decoder* decoder = CreateDecoder(true, DECODER_KEY_H264);
  if (units.empty() || decoder == nullptr || !decoder->Open(1280, 720)) {
    ReleaseDecoder(decoder);
    return 0;
  }
  int pictures = 0;
  const auto start = Clock::now();
  for (const auto& unit : units) pictures += decoder->Decode(unit.data(), int32_t(unit.size()), nullptr) != nullptr;
  const double seconds = SecondsSince(start);
  decoder->Release();
  return pictures == int(units.size()) ? pictures / seconds : 0;
}

// The same with `threads` decoders at once, one a thread: the sum of their
// rates, which is what a machine with every core decoding gives.
double ParallelDecodeRate(const std::vector<std::vector<uint8_t>>& units, unsigned threads) {
  std::vector<double> rates(threads);
  std::vector<std::thread> decoders;
  for (unsigned i = 0; i < threads; ++i) decoders.emplace_back([&, i] { rates[i] = DecodeRate(units); });
  for (std::thread& t : decoders) t.join();
  double sum = 0;
  for (double rate : rates) {
    if (rate <= 0) return 0;
    sum += rate;
  }
  return sum;
}

// Starts `tqfplay serve` on `tqf` with its lines to `logPath`, and reads the
// channel's address from the line it writes when it listens. The server runs
// while the result lives; on failure it has been stopped, with the reason in
// `error`.
Child StartServer(const std::string& tqf, const std::string& logPath, ChannelAddress* address, std::string* error) {
  std::vector<std::string> argv = {TQFPLAY_TOOL, "serve", "--spread", "--port", "0", "--bind", "127.0.0.1"};
  argv.insert(argv.end(), SERVED_CHANNELS, tqf);
  Child server = Spawn(argv, logPath);
  const auto limit = Clock::now() + SERVER_START_LIMIT;
  int status = 0;
  double cpuSeconds = 0;
  for (; server.Running() && !server.Reap(&status, &cpuSeconds) && Clock::now() < limit;
       std::this_thread::sleep_for(CHILD_POLL)) {
    std::ifstream in(logPath);
    const std::string log{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const size_t at = log.find(" on tcp://");
    const size_t end = log.find('\n', at);
    if (at == std::string::npos || end == std::string::npos) continue;
    if (ParseChannelUrl(log.substr(at + 4, end - at - 4).c_str(), address, error)) return server;
    return Child();
  }
  *error = (server.Running() ? "the server gave no address within " + std::to_string(SERVER_START_LIMIT.count()) + " s"
                              : std::string("the server ended at once")) + " (see " + logPath + ")";
  return Child();
}

struct Options {
  uint32_t seconds = DEFAULT_SECONDS;
  std::vector<uint32_t> cameras;
};

constexpr const char USAGE[] =
    "usage: bench_cameras [--seconds S] [--cameras N,N,...]\n"
    "  --seconds S   seconds of each row and of each peer run (default 60, at most 60)\n"
    "  --cameras     the counts of cameras to run (default 1,8,16,32,40,48,56,64)\n";

// False after a line on stderr for arguments that are wrong, and with
// `*help` set for --help.
bool ParseArguments(int argc, char** argv, Options* o, bool* help) {
  const char* list = DEFAULT_CAMERAS;
  const OptionSpec specs[] = {
      {"--seconds", OptionKind::COUNT, &o->seconds},
      {"--cameras", OptionKind::TEXT, &list},
      {"--help", OptionKind::FLAG, help},
  };
  if (!ParseOptions(NAME, argc - 1, argv + 1, specs, std::size(specs), nullptr, 0, 0) || *help) return false;
  if (o->seconds > CLIP_SECONDS) return StepFailed(NAME, "--seconds is at most %u, the clip's length", CLIP_SECONDS);
  std::istringstream items(list);
  for (std::string item; std::getline(items, item, ',');) {
    char* end = nullptr;
    const unsigned long n = std::strtoul(item.c_str(), &end, 10);
    if (item.empty() || *end != '\0' || n < 1 || n > MAX_CAMERAS)
      return StepFailed(NAME, "--cameras takes counts from 1 to %u separated by commas, not '%s'", MAX_CAMERAS,
                        item.c_str());
    o->cameras.push_back(static_cast<uint32_t>(n));
  }
  return !o->cameras.empty() || StepFailed(NAME, "--cameras names no count");
}

// The largest count of `rows` that passes `held`, or 0.
template <typename RowType, typename Passes>
uint32_t LargestHeld(const std::vector<RowType>& rows, uint32_t RowType::*count, Passes passes) {
  uint32_t largest = 0;
  for (const RowType& row : rows)
    if (passes(row)) largest = std::max(largest, row.*count);
  return largest;
}

// The camera's clip, made by the ffmpeg tool, and its TQF file, made by the
// tool's import. False when either cannot be made.
bool MakeCameraMedia(std::string* clip, std::string* tqf) {
  *clip = BenchMedia("camera_720p25_2M_g50.h264",
                     "-f lavfi -i testsrc2=size=1280x720:rate=25 -t " + std::to_string(CLIP_SECONDS) +
                         " -c:v libx264 -profile:v main -bf 0 -b:v 2M -g 50 -keyint_min 50 -sc_threshold 0"
                         " -x264-params aud=1:repeat-headers=1 -pix_fmt yuv420p -f h264");
  if (clip->empty()) return false;
  *tqf = BenchFile("camera_720p25_2M_g50.tqf", std::string(TQFPLAY_TOOL) + " import -y '" + *clip + "'");
  return !tqf->empty();
}

std::vector<RowResult> RunRows(const RowSetup& base, const std::vector<uint32_t>& counts) {
  PrintRowHeading();
  std::vector<RowResult> rows;
  for (uint32_t n : counts) {
    RowSetup setup = base;
    setup.cameras = n;
    rows.push_back(RunRowApart(setup));
    PrintRow(rows.back());
  }
  std::printf("  late: called back more than %lld ms after the frame's last byte was read, or never by the "
              "end;\n  tick: the server's send time is not reported; it is taken as its tick, whose clock is "
              "the stamp\n  (40 ms a frame) plus the least arrival-less-stamp seen in the row, so tick "
              "includes the\n  server's fan-out and loopback, less the fastest frame's.\n",
              static_cast<long long>(LATE_NS / NS_PER_MS));
  return rows;
}

std::vector<PeerResult> RunPeers(const std::string& clip, const Options& o) {
  std::printf("\npeer: N concurrent '%s -re -threads 1 -i clip -t %u -f null -'\n%7s %8s %10s %8s\n", TQF_FFMPEG,
              o.seconds, "N", "in time", "slowest s", "CPU %");
  std::vector<PeerResult> peers;
  for (uint32_t n : o.cameras) {
    peers.push_back(RunPeer(clip, n, o.seconds));
    const PeerResult& p = peers.back();
    std::printf("%7u %4u/%-3u %10.2f %8.1f\n", n, p.inTime, n, p.slowestSeconds, p.cpu);
    std::fflush(stdout);
  }
  return peers;
}

void PrintSummary(const std::vector<RowResult>& rows, const std::vector<PeerResult>& peers, double decodeRate,
                  double parallelRate, unsigned cores) {
  const uint32_t held = LargestHeld(rows, &RowResult::cameras, Held);
  const uint32_t peerHeld =
      LargestHeld(peers, &PeerResult::processes, [](const PeerResult& p) { return p.inTime == p.processes; });
  const double ceiling = decodeRate * cores / TQF_FRAMES_PER_SECOND;
  double largestMemory = 0;
  for (const RowResult& r : rows)
    if (r.error[0] == '\0') largestMemory = std::max(largestMemory, r.mibPerCamera);
  const uint32_t inTime = LargestHeld(rows, &RowResult::cameras, KeepsRealTime);
  std::printf("\nheld: %u cameras with nothing evicted, late or lost\n", held);
  std::printf("by the peer's rule (nothing evicted or lost, every picture within %.0f%% of the span): %u cameras; "
              "against the peer %.2f (target >= 1.00)\n",
              100 * (REAL_TIME_SLACK - 1), inTime, peerHeld > 0 ? double(inTime) / peerHeld : 0.0);
  std::printf("ceiling: %.0f frames/s single-thread decode x %u cores / %u = %.1f cameras; held/ceiling %.2f "
              "(target >= %.2f)\n",
              decodeRate, cores, TQF_FRAMES_PER_SECOND, ceiling, held / ceiling, CEILING_TARGET);
  // Cores that decode side by side share caches and clocks: their sum is
  // the ceiling a full machine really has, for the peer as for us.
  const double parallelCeiling = parallelRate / TQF_FRAMES_PER_SECOND;
  std::printf("ceiling with all %u cores decoding at once: %.0f frames/s / %u = %.1f cameras; held/that %.2f, "
              "peer/that %.2f\n",
              cores, parallelRate, TQF_FRAMES_PER_SECOND, parallelCeiling,
              parallelCeiling > 0 ? held / parallelCeiling : 0.0, parallelCeiling > 0 ? peerHeld / parallelCeiling : 0.0);
  if (peerHeld > 0)
    std::printf("peer: all in real time up to %u processes; held/peer %.2f (target >= 1.00)\n", peerHeld,
                double(held) / peerHeld);
  else
    std::printf("peer: not all in real time at any count run; held/peer undefined (target: held >= peer's)\n");
  std::printf("memory: at most %.2f MiB a camera (target < %.0f MiB)\n", largestMemory, MEMORY_TARGET_MIB);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  bool help = false;
  if (!ParseArguments(argc, argv, &o, &help)) {
    std::fputs(USAGE, help ? stdout : stderr);
    return help ? 0 : EXIT_USAGE;
  }
  std::string clip, tqf, error;
  if (!MakeCameraMedia(&clip, &tqf)) return CommandError(NAME, "could not make the camera's clip and its TQF file");
  const auto units = SplitAccessUnits(ReadWholeFile(clip));
  const double decodeRate = DecodeRate(units);
  if (decodeRate <= 0) return CommandError(NAME, "the library's H.264 decoder does not decode %s", clip.c_str());
  const unsigned cores = std::max(1u, std::thread::hardware_concurrency());

  ChannelAddress address;
  const Child server =
      StartServer(tqf, std::string(TQF_BINARY_DIR) + "/media/bench/bench_cameras_serve.log", &address, &error);
  if (!server.Running()) return CommandError(NAME, "%s", error.c_str());
  RowSetup setup{&address, {}, server.Pid(), 0, o.seconds};
  setup.server.sin_family = AF_INET;
  setup.server.sin_port = htons(address.port);
  if (inet_pton(AF_INET, address.host.c_str(), &setup.server.sin_addr) != 1)
    return CommandError(NAME, "the server listens on '%s', not an IPv4 address", address.host.c_str());

  std::printf("bench_cameras: 1280x720 H.264 at 25 frames/s, 2 Mbit/s, key frame every 2 s; the %u channels of "
              "tqfplay serve --spread (tcp://%s:%u/N), camera i on channel i %% %u + 1, received by one thread "
              "with poll() and fed to TQ_InputData; %u s a row, %u cores\n",
              SERVED_CHANNELS, address.host.c_str(), address.port, SERVED_CHANNELS, o.seconds, cores);
  const std::vector<RowResult> rows = RunRows(setup, o.cameras);
  PrintSummary(rows, RunPeers(clip, o), decodeRate, ParallelDecodeRate(units, cores), cores);
  const auto failed = std::count_if(rows.begin(), rows.end(), [](const RowResult& r) { return r.error[0] != '\0'; });
  if (failed > 0) return CommandError(NAME, "%lld of %zu rows failed", static_cast<long long>(failed), rows.size());
  return 0;
}
