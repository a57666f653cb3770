// VideoTimeline: the presentation and decode times that export gives the
// video frames it writes.
//
// When the stamps are milliseconds, as import writes them (each frame's
// presentation time, the frames in decode order), the presentation times
// come from the stamps and the decode times are the same set in rising
// order, moved back just enough that no frame is decoded after it is shown:
// B-frame content then keeps its order and its rate (30 fps stays 30 fps).
// Stamps count as milliseconds when they are distinct, 5 to 1000 ms apart on
// average (200 to 1 frames a second), and each is within 16 places of its
// rank (the most an H.264 or H.265 decoder reorders). Other stamps (frame numbers, a
// camera's own clock) give 40 ms a frame in file order, the format's rule.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class VideoTimeline {
 public:
  // `stamps`: those of the frames to write, in file order. `firstFrame`: the
  // number in the file of the first of them.
  VideoTimeline(const std::vector<uint32_t>& stamps, uint32_t firstFrame);

  bool FromStamps() const { return fromStamps_; }
  // Frame `i`'s times in milliseconds; the first picture shown is at 0.
  int64_t Pts(size_t i) const { return pts_[i]; }
  int64_t Dts(size_t i) const { return dts_[i]; }
  // How long frame `i` is shown: up to the next picture; the last picture for
  // the average spacing (40 ms without stamps).
  int64_t Duration(size_t i) const { return duration_[i]; }
  // The time of the first picture in the file's own clock: its stamp, or 40
  // ms for each frame before it. Audio is cut or delayed to start with it.
  int64_t OriginMs() const { return originMs_; }
  // Frames per second, as a fraction.
  int64_t RateNumerator() const { return rateNumerator_; }
  int64_t RateDenominator() const { return rateDenominator_; }

 private:
  bool AreMilliseconds(const std::vector<uint32_t>& stamps, const std::vector<uint32_t>& sorted) const;

  bool fromStamps_ = false;
  std::vector<int64_t> pts_, dts_, duration_;
  int64_t originMs_ = 0;
  int64_t rateNumerator_ = 25;
  int64_t rateDenominator_ = 1;
};
