// CameraChannel: one TQF file played as a live camera would send it.
//
// The channel has a clock of its own that ticks every TQF_FRAME_DURATION_MS
// from Start, whether anyone watches or not. Each tick sends one video frame
// together with the frames of other streams that follow it in the file (the
// frames before the first video frame go with it), all in file order and
// whole: sync word, info, stamp and payload as the file holds them.
//
// At the end of the file the channel starts over, and the stamps run on: on
// the k-th pass each frame carries its file stamp plus k times the stamp span
// of one pass. The span is the video stamps' range plus their usual step
// (the median of the steps between video frames, so that one long gap does
// not skew it): for 250 frames stamped 0, 40, ... 9960 it is 10000, and the
// next pass begins at 10000, one step after the last frame. When the stamps
// give no span (all equal, or one video frame) it is the pass's length in
// milliseconds.
//
// Frames are copied out of the mapped file once per tick, whatever number
// of clients then share the copy. A read that fails (the file was cut short
// under the mapping) stops the channel.
//
// Not thread-safe; one owner at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "TQFReader.h"

// One frame as it goes out: the whole frame, stamp run on. The bytes are
// shared by every client that queues the frame and never change.
struct ChannelFrame {
  std::shared_ptr<const std::vector<uint8_t>> bytes;
  bool video;     // of stream 0
  bool keyFrame;  // a video frame that decoding can begin at
};

class CameraChannel {
 public:
  using Clock = std::chrono::steady_clock;

  // When the clock is this late, it gives up the lost time instead of sending
  // it all at once: a camera that stalled does not burst.
  static constexpr std::chrono::seconds LATE_LIMIT{1};

  CameraChannel() = default;
  CameraChannel(const CameraChannel&) = delete;
  CameraChannel& operator=(const CameraChannel&) = delete;

  // Maps and walks `path` and names the channel after its file (the name
  // without folder and ".tqf"). False, with "<path>: <cause>" in `error`, for
  // a file that is missing, unreadable or not TQF, or that holds no video
  // frame or no key frame to begin at.
  bool Open(const char* path, std::string* error);

  const std::string& Name() const { return name_; }
  // The file's header block, bytes 0 to headerLength + 8.
  const std::vector<uint8_t>& HeaderBlock() const { return header_; }
  uint32_t StampSpan() const { return span_; }
  // Ticks of one pass: the file's video frames.
  uint32_t TicksPerPass() const { return static_cast<uint32_t>(tickStart_.size() - 1); }

  // Starts the clock at tick `firstTick` of the first pass (0: the file's
  // start), due at `now`.
  void Start(Clock::time_point now, uint64_t firstTick);
  // When the next tick is due; Clock::time_point::max() once stopped.
  Clock::time_point NextDue() const { return stopped_ ? Clock::time_point::max() : due_; }
  bool Stopped() const { return stopped_; }
  // Appends the frames of every tick due by `now` to `frames`, in order. False
  // if the file could not be read: the channel has then stopped (the frames
  // of the ticks before the failure are appended).
  bool TakeDueFrames(Clock::time_point now, std::vector<ChannelFrame>* frames);

 private:
  struct FrameSpan {
    uint64_t offset;  // of the sync word
    uint32_t size;    // head and payload
    uint32_t info;
    uint32_t stamp;
  };

  void AddFrame(uint64_t offset, uint32_t info, uint32_t stamp);
  // The whole frame right after the last one the reader's scan kept, if the
  // file holds one: the scan never keeps the last frame of a file.
  void AddLastFrame();
  // Starts a tick at every video frame but the first.
  void DivideIntoTicks();
  uint32_t MeasureSpan() const;
  bool AppendTick(uint64_t tick, std::vector<ChannelFrame>* frames);

  TQFReader reader_;
  std::string name_;
  std::vector<uint8_t> header_;
  std::vector<FrameSpan> frames_;    // in file order
  std::vector<uint32_t> tickStart_;  // first frame of each tick, then frames_.size()
  uint32_t span_ = 0;
  uint64_t tick_ = 0;                // the next tick to send
  Clock::time_point due_;
  bool stopped_ = false;
};
