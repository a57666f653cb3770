#include "VideoTimeline.h"

#include <algorithm>

#include "TQFFormat.h"

namespace {

constexpr uint32_t MIN_SPACING_MS = 5;
constexpr uint32_t MAX_SPACING_MS = 1000;
constexpr size_t MAX_REORDER = 16;

}  // namespace

bool VideoTimeline::AreMilliseconds(const std::vector<uint32_t>& stamps,
                                    const std::vector<uint32_t>& sorted) const {
  if (stamps.size() < 2) return false;
  if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) return false;
  const uint64_t span = sorted.back() - sorted.front();
  const uint64_t gaps = stamps.size() - 1;
  if (span < MIN_SPACING_MS * gaps || span > MAX_SPACING_MS * gaps) return false;
  for (size_t i = 0; i < stamps.size(); ++i) {
    const size_t rank = static_cast<size_t>(
        std::lower_bound(sorted.begin(), sorted.end(), stamps[i]) - sorted.begin());
    if ((rank > i ? rank - i : i - rank) > MAX_REORDER) return false;
  }
  return true;
}

VideoTimeline::VideoTimeline(const std::vector<uint32_t>& stamps, uint32_t firstFrame) {
  std::vector<uint32_t> sorted(stamps);
  std::sort(sorted.begin(), sorted.end());
  fromStamps_ = AreMilliseconds(stamps, sorted);
  const size_t n = stamps.size();
  pts_.resize(n);
  dts_.resize(n);
  duration_.assign(n, TQF_FRAME_DURATION_MS);
  if (!fromStamps_) {
    originMs_ = int64_t{firstFrame} * TQF_FRAME_DURATION_MS;
    for (size_t i = 0; i < n; ++i) pts_[i] = dts_[i] = static_cast<int64_t>(i) * TQF_FRAME_DURATION_MS;
    return;
  }
  originMs_ = sorted.front();
  // The decode time of frame i is the i-th presentation time, less the
  // largest lead any frame has over its presentation.
  int64_t shift = 0;
  for (size_t i = 0; i < n; ++i) {
    pts_[i] = int64_t{stamps[i]} - originMs_;
    shift = std::max(shift, int64_t{sorted[i]} - int64_t{stamps[i]});
  }
  for (size_t i = 0; i < n; ++i) {
    dts_[i] = int64_t{sorted[i]} - originMs_ - shift;
    const size_t rank = static_cast<size_t>(
        std::upper_bound(sorted.begin(), sorted.end(), stamps[i]) - sorted.begin());
    if (rank < n) duration_[i] = int64_t{sorted[rank]} - stamps[i];
  }
  rateNumerator_ = static_cast<int64_t>(n - 1) * 1000;
  rateDenominator_ = sorted.back() - sorted.front();
  // The last picture is shown for the average spacing.
  duration_[static_cast<size_t>(std::find(stamps.begin(), stamps.end(), sorted.back()) - stamps.begin())] =
      (rateDenominator_ + static_cast<int64_t>(n - 1) / 2) / static_cast<int64_t>(n - 1);
}
