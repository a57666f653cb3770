// StreamFeeder: TQF bytes fed to the library as a live source, the way a
// network client would: the header block to TQ_OpenStream, then the rest to
// TQ_InputData in chunks cut anywhere.
//
// The bytes come from a file, or from a live source read as they arrive: a
// pipe ("-" for standard input, a FIFO, a character device) or a channel of
// a camera server ("tcp://HOST:PORT/N", see ChannelConnection). A live
// source's reads wait in slices, so that a Ctrl-C, the run's deadline, the
// caller's stop flag or a source gone silent ends them.
//
// A live stream has no back-pressure: when a player's queue is full the
// oldest frames give way. The feeder knows the TQF layout, so it knows how
// many video frames each chunk completes, and it paces itself on that count:
//   - paced by pictures (the default): before a chunk it waits until the
//     player has delivered all but WINDOW_FRAMES of the video frames fed so
//     far, so the queue never fills and no frame is lost;
//   - real time: a chunk goes out when its first completed video frame is
//     due, 40 ms after the one before, as from a camera.
// A file's frames come from the reader's index. A pipe's are found as its
// bytes arrive, by their sync words and lengths; after damage the scan takes
// the next sync word, where the library also waits for a second one to
// confirm it, so that the counts may then differ for a frame or two.
//
// Chunks are copied out of the mapping (a read that fails because the file
// was cut short under it ends the feed) and stay valid until the next chunk.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "TQFReader.h"

struct FeedOptions {
  uint32_t chunkBytes = 4096;  // fixed chunk size...
  bool randomChunks = false;   // ...or sizes from 1 to 65536 bytes, at random
  uint32_t seed = 0;           // of the random sizes
  bool realtime = false;
  // A live source: no read waits past this moment (a run's --duration)...
  std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
  // ...and a source that sends nothing for this long has ended (0: never).
  std::chrono::milliseconds silence{0};
  // A flag of the caller's that ends the waits once set (may be null).
  const std::atomic<bool>* stop = nullptr;
};

class StreamFeeder {
 public:
  // The largest chunk a user may ask for: far below the 32 MiB video queue.
  static constexpr uint32_t MAX_CHUNK_BYTES = 4 << 20;
  static constexpr uint32_t RANDOM_CHUNK_MAX = 65536;
  // Video frames the feeder lets the player fall behind by.
  static constexpr uint32_t WINDOW_FRAMES = 25;

  StreamFeeder() = default;
  ~StreamFeeder();
  StreamFeeder(const StreamFeeder&) = delete;
  StreamFeeder& operator=(const StreamFeeder&) = delete;

  // Opens `path` ("-" for standard input, a channel's URL) and reads its
  // header block; a file is mapped and its video frames found. False with a message for a source
  // that is missing or not TQF, or that would give no picture
  // (DescribeNothingToPlay; for a pipe, only its codec is known at once).
  bool Open(const char* path, std::string* error);

  const uint8_t* Header() const { return header_.data(); }
  uint32_t HeaderSize() const { return static_cast<uint32_t>(header_.size()); }
  // Whether the bytes come from a live source, whose end and length are not known.
  bool FromPipe() const { return fd_ >= 0; }
  // Why a live source ended: "" at its end of file, else the reason
  // ("Connection reset by peer", "nothing came for 10 s").
  const std::string& EndReason() const { return endReason_; }
  // Video frames the player can deliver: those from the first key frame on
  // whose payload does not end in eight zero bytes (the player skips those).
  // For a pipe, those found so far.
  uint32_t DeliverableFrames() const { return deliverable_.empty() ? 0 : deliverable_.back(); }
  // The stamp of the last deliverable frame found.
  uint32_t LastDeliverableStamp() const { return lastDeliverableStamp_; }
  // Seconds of video in the file, 40 ms a frame; 0 for a pipe.
  double Length() const { return FromPipe() ? 0 : frameEnds_.size() * 0.04; }

  bool Done() const { return done_; }
  // Video frames complete in the bytes fed so far.
  uint32_t FramesFed() const { return framesFed_; }
  // Deliverable frames among them.
  uint32_t DeliverableFed() const { return framesFed_ == 0 ? 0 : deliverable_[framesFed_ - 1 - forgotten_]; }

  // The next chunk: where it starts, how long it is, and the pictures that
  // must have arrived before it may go (paced by pictures), or the moment it
  // is due (real time). A chunk of size 0 means the source ended (early, for
  // a file cut short under the feed). A pipe's chunk holds what one read
  // gives, up to the size asked for.
  struct Chunk {
    const uint8_t* data;
    uint32_t size;
    uint32_t picturesNeeded;
    std::chrono::steady_clock::time_point due;
    uint32_t framesFedAfter;  // video frames complete once this chunk is fed
  };
  Chunk NextChunk(const FeedOptions& options);
  // Marks the chunk NextChunk gave as fed.
  void Advance(const Chunk& chunk);
  // Starts the real-time schedule again from now (after a pause).
  void RestartClock();

 private:
  bool OpenFile(const char* path, std::string* error);
  // Reads the header block; `silence` bounds each wait for its bytes (0: none).
  bool OpenPipe(const char* name, std::chrono::milliseconds silence, std::string* error);
  // Reads exactly `size` bytes from the pipe; false at its end, on an error,
  // or when a wait ends (see AwaitPipe).
  bool ReadPipe(uint8_t* to, size_t size, const FeedOptions& options);
  // Waits until the pipe has bytes to read: false when the wait ends first
  // (a Ctrl-C, the deadline, silence), with endReason_ set for silence.
  bool AwaitPipe(const FeedOptions& options);
  uint32_t ChunkSize(const FeedOptions& options);
  // Fills chunk_ with up to `size` bytes from the source; the count read.
  uint32_t Fill(uint32_t size, const FeedOptions& options);
  // Finds the frames that the pipe's bytes up to the end of chunk_ complete.
  void ScanPipe();
  // Counts one video frame that ends at `end`.
  void AddVideoFrame(uint64_t end, uint32_t info, uint32_t stamp, bool endsInEightZeros);
  bool FileEndsInEightZeros(uint64_t payloadEnd);

  TQFReader reader_;
  int fd_ = -1;           // the pipe, or -1 for a file
  bool ownsFd_ = false;   // not standard input
  std::vector<uint8_t> header_;
  std::vector<uint8_t> chunk_;
  uint64_t size_ = 0;     // a file's size
  uint64_t offset_ = 0;   // the bytes fed, counted from the start of the source
  bool done_ = false;
  std::string endReason_;
  std::vector<uint8_t> scan_;  // a pipe's bytes from the first frame not yet complete
  uint64_t scanStart_ = 0;     // the source offset of scan_[0]
  bool sawKey_ = false;
  // Per video frame from the forgotten_-th on: a live source's frames fed
  // before the last are forgotten in batches, so that a run of weeks does
  // not grow without end.
  std::vector<uint64_t> frameEnds_;    // source offsets just past each video frame
  std::vector<uint32_t> deliverable_;  // deliverable frames up to and with each
  uint32_t forgotten_ = 0;
  uint32_t lastDeliverableStamp_ = 0;
  uint32_t framesFed_ = 0;
  std::mt19937 random_;
  bool seeded_ = false;
  std::chrono::steady_clock::time_point clockStart_;
  uint32_t clockFrame_ = 0;  // the frame the schedule started at
};
