#include "StreamFeeder.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ChannelConnection.h"
#include "ChannelProtocol.h"
#include "InputProblem.h"
#include "Interruption.h"
#include "StreamHeader.h"

namespace {

constexpr std::chrono::milliseconds FRAME_TIME{TQF_FRAME_DURATION_MS};
// Fed frames a live source forgets at a time.
constexpr uint32_t FORGET_BATCH = 4096;
// A live source's reads wait this long at a time between looks at the stop
// conditions.
constexpr std::chrono::milliseconds PIPE_WAIT_SLICE{100};
// The largest header block a stream player accepts: 16 records of 64 KiB.
constexpr uint32_t MAX_HEADER_BLOCK =
    TQF_FILE_HEADER_SIZE + TQF_READER_MAX_RECORDS * (TQF_RECORD_HEAD_SIZE + TQF_STREAM_MAX_RECORD_PAYLOAD);

bool EightZeros(const uint8_t* bytes) {
  static const uint8_t ZEROS[8] = {};
  return std::memcmp(bytes, ZEROS, sizeof ZEROS) == 0;
}

}  // namespace

StreamFeeder::~StreamFeeder() {
  if (ownsFd_) close(fd_);
}

bool StreamFeeder::Open(const char* path, std::string* error) {
  if (IsChannelUrl(path)) {
    fd_ = ConnectToChannel(path, CHANNEL_CONNECT_TIMEOUT, error);
    ownsFd_ = fd_ >= 0;
    if (fd_ < 0) *error = std::string(path) + ": " + *error;
    return fd_ >= 0 && OpenPipe(path, CHANNEL_CONNECT_TIMEOUT, error);
  }
  struct stat info;
  const bool isStdin = std::strcmp(path, "-") == 0;
  if (!isStdin && (stat(path, &info) != 0 || S_ISREG(info.st_mode) || S_ISDIR(info.st_mode)))
    return OpenFile(path, error);
  // A FIFO opened for reading waits for its writer, as a reader of it should.
  fd_ = isStdin ? STDIN_FILENO : open(path, O_RDONLY | O_CLOEXEC);
  ownsFd_ = !isStdin && fd_ >= 0;
  if (fd_ < 0) {
    *error = std::string(path) + ": " + std::strerror(errno);
    return false;
  }
  return OpenPipe(isStdin ? "standard input" : path, /*silence=*/std::chrono::milliseconds(0), error);
}

bool StreamFeeder::OpenFile(const char* path, std::string* error) {
  if (!reader_.Open(path) || reader_.view == nullptr) {
    *error = DescribeInputProblem(path);
    return false;
  }
  size_ = reader_.fileSize;
  // The reader has checked the header block; its length word gives the size.
  int32_t headerSize = INT32_MAX;
  if (!reader_.GetHeader(nullptr, &headerSize)) {
    *error = std::string(path) + ": the header block runs past the end of the file";
    return false;
  }
  header_.resize(static_cast<size_t>(headerSize));
  if (!reader_.GetHeader(header_.data(), &headerSize)) {
    *error = std::string(path) + ": the file was cut short while it was read";
    return false;
  }
  offset_ = header_.size();
  done_ = offset_ >= size_;
  const FrameIndex& video = reader_.index[TQF_STREAM_VIDEO];
  for (uint32_t i = 0; i < video.count; ++i) {
    const FrameIndexEntry& entry = video.entries[i];
    const uint64_t end = entry.payloadOffset + FramePayloadLength(entry.info);
    AddVideoFrame(end, entry.info, entry.stamp, FileEndsInEightZeros(end));
  }
  StreamHeader parsed;
  *error = parsed.Parse(Header(), HeaderSize()) ? DescribeMissingDecoder(path, parsed.video.compression)
                                                : "";
  if (error->empty()) *error = DescribeNoKeyFrame(reader_, path);
  return error->empty();
}

bool StreamFeeder::OpenPipe(const char* name, std::chrono::milliseconds silence, std::string* error) {
  FeedOptions wait;
  wait.silence = silence;
  header_.resize(TQF_FILE_HEADER_SIZE);
  if (!ReadPipe(header_.data(), header_.size(), wait)) {
    *error = std::string(name) + ": Invalid data found: the stream ended before its header block";
    return false;
  }
  const uint32_t size = LoadU32(&header_[4]) + 8u;
  if (LoadU32(header_.data()) != TQF_FILE_MAGIC || size < TQF_FILE_HEADER_SIZE || size > MAX_HEADER_BLOCK) {
    *error = std::string(name) + ": Invalid data found: not a TQF stream";
    return false;
  }
  header_.resize(size);
  if (!ReadPipe(&header_[TQF_FILE_HEADER_SIZE], size - TQF_FILE_HEADER_SIZE, wait)) {
    *error = std::string(name) + ": Invalid data found: the stream ended inside its header block";
    return false;
  }
  offset_ = size;
  scanStart_ = size;
  StreamHeader parsed;
  *error = parsed.Parse(Header(), HeaderSize()) ? DescribeMissingDecoder(name, parsed.video.compression)
                                                : "";
  return error->empty();
}

bool StreamFeeder::ReadPipe(uint8_t* to, size_t size, const FeedOptions& options) {
  while (size > 0) {
    if (!AwaitPipe(options)) return false;
    const ssize_t got = read(fd_, to, size);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    to += got;
    size -= static_cast<size_t>(got);
  }
  return true;
}

// A payload the player counts as empty: its last eight bytes are zero. The
// eight bytes may reach back into the frame head, as the player's test does.
bool StreamFeeder::FileEndsInEightZeros(uint64_t payloadEnd) {
  uint8_t last[8];
  return reader_.Read(payloadEnd - 8, last, sizeof last) && EightZeros(last);
}

void StreamFeeder::AddVideoFrame(uint64_t end, uint32_t info, uint32_t stamp, bool endsInEightZeros) {
  sawKey_ = sawKey_ || IsKeyFrameInfo(info);
  uint32_t deliverable = DeliverableFrames();
  if (sawKey_ && FramePayloadLength(info) > 0 && !endsInEightZeros) {
    ++deliverable;
    lastDeliverableStamp_ = stamp;
  }
  frameEnds_.push_back(end);
  deliverable_.push_back(deliverable);
}

void StreamFeeder::ScanPipe() {
  scan_.insert(scan_.end(), chunk_.begin(), chunk_.end());
  size_t at = 0;
  while (scan_.size() - at >= TQF_FRAME_HEAD_SIZE) {
    const uint8_t* frame = &scan_[at];
    const uint32_t info = LoadU32(frame + 4);
    const uint32_t length = FramePayloadLength(info);
    if (LoadU32(frame) != TQF_FRAME_SYNC || length > TQF_STREAM_MAX_FRAME_PAYLOAD) {
      const uint64_t next = FindFrameSync(scan_.data(), at + 1, scan_.size());
      at = next < scan_.size() ? static_cast<size_t>(next) : scan_.size() - (TQF_FRAME_HEAD_SIZE - 1);
      continue;
    }
    const size_t end = at + TQF_FRAME_HEAD_SIZE + length;
    if (end > scan_.size()) break;  // not complete yet
    if (FrameStreamNumber(info) == TQF_STREAM_VIDEO)
      AddVideoFrame(scanStart_ + end, info, LoadU32(frame + 8), EightZeros(&scan_[end - 8]));
    at = end;
  }
  scan_.erase(scan_.begin(), scan_.begin() + static_cast<long>(at));
  scanStart_ += at;
}

uint32_t StreamFeeder::ChunkSize(const FeedOptions& options) {
  if (!options.randomChunks) return options.chunkBytes;
  if (!seeded_) {
    random_.seed(options.seed);
    seeded_ = true;
  }
  return std::uniform_int_distribution<uint32_t>(1, RANDOM_CHUNK_MAX)(random_);
}

bool StreamFeeder::AwaitPipe(const FeedOptions& options) {
  const auto start = std::chrono::steady_clock::now();
  for (;;) {
    const auto now = std::chrono::steady_clock::now();
    if (Interrupted() || now >= options.deadline || (options.stop != nullptr && options.stop->load()))
      return false;
    if (options.silence.count() > 0 && now - start >= options.silence) {
      endReason_ = "nothing came for " +
                   std::to_string(std::chrono::duration_cast<std::chrono::seconds>(options.silence).count()) + " s";
      return false;
    }
    pollfd entry{fd_, POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(PIPE_WAIT_SLICE.count())) != 0) return true;  // bytes, end or error
  }
}

uint32_t StreamFeeder::Fill(uint32_t size, const FeedOptions& options) {
  if (!FromPipe()) size = static_cast<uint32_t>(std::min<uint64_t>(size, size_ - offset_));
  chunk_.resize(size);
  if (!FromPipe()) return reader_.Read(offset_, chunk_.data(), size) ? size : 0;
  ssize_t got = 0;
  while (AwaitPipe(options) && (got = read(fd_, chunk_.data(), size)) < 0 && errno == EINTR) {
  }
  if (got < 0) endReason_ = std::strerror(errno);
  chunk_.resize(got > 0 ? static_cast<size_t>(got) : 0);
  if (!chunk_.empty()) ScanPipe();
  return static_cast<uint32_t>(chunk_.size());
}

StreamFeeder::Chunk StreamFeeder::NextChunk(const FeedOptions& options) {
  const uint32_t size = Fill(ChunkSize(options), options);
  const uint64_t end = offset_ + size;
  // The video frames this chunk completes: framesFed_ up to `completed`.
  uint32_t completed = static_cast<uint32_t>(
      std::upper_bound(frameEnds_.begin(), frameEnds_.end(), end) - frameEnds_.begin()) + forgotten_;
  uint32_t before = DeliverableFed();
  uint32_t after = completed == 0 ? 0 : deliverable_[completed - 1 - forgotten_];
  Chunk chunk{chunk_.data(), size, 0, clockStart_, completed};
  // All but WINDOW_FRAMES delivered, and everything before a chunk that alone
  // completes more than the window.
  chunk.picturesNeeded = after > WINDOW_FRAMES ? std::min(before, after - WINDOW_FRAMES) : 0;
  if (completed > framesFed_)
    chunk.due = clockStart_ + (framesFed_ - clockFrame_) * FRAME_TIME;
  return chunk;
}

void StreamFeeder::Advance(const Chunk& chunk) {
  offset_ += chunk.size;
  done_ = chunk.size == 0 || (!FromPipe() && offset_ >= size_);
  framesFed_ = chunk.framesFedAfter;
  // Every frame before the last one fed is done with: NextChunk and
  // DeliverableFed look at that one and those after it.
  const uint32_t done = framesFed_ == 0 ? 0 : framesFed_ - 1 - forgotten_;
  if (FromPipe() && done >= FORGET_BATCH) {
    frameEnds_.erase(frameEnds_.begin(), frameEnds_.begin() + done);
    deliverable_.erase(deliverable_.begin(), deliverable_.begin() + done);
    forgotten_ += done;
  }
}

void StreamFeeder::RestartClock() {
  clockStart_ = std::chrono::steady_clock::now();
  clockFrame_ = framesFed_;
}
