#include "CameraChannel.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "InputProblem.h"

namespace {

constexpr std::chrono::milliseconds FRAME_TIME{TQF_FRAME_DURATION_MS};
constexpr char TQF_SUFFIX[] = ".tqf";
// Where a whole frame's stamp lies: behind the sync word and the info word.
constexpr size_t STAMP_OFFSET = sizeof TQF_FRAME_SYNC + offsetof(TQFFrameHeader, stamp);

// "cams/door.tqf" is "door"; a name without the suffix stays whole.
std::string ChannelName(const std::string& path) {
  std::string name = path.substr(path.rfind('/') + 1);
  const size_t suffix = sizeof TQF_SUFFIX - 1;
  if (name.size() > suffix && name.compare(name.size() - suffix, suffix, TQF_SUFFIX) == 0)
    name.resize(name.size() - suffix);
  return name;
}

}  // namespace

bool CameraChannel::Open(const char* path, std::string* error) {
  if (!reader_.Open(path)) {
    *error = DescribeInputProblem(path);
    return false;
  }
  int32_t headerSize = INT32_MAX;
  *error = reader_.GetHeader(nullptr, &headerSize)
               ? DescribeNoKeyFrame(reader_, path)
               : std::string(path) + ": Invalid data found: the header block runs past the end of the file";
  if (error->empty()) header_.resize(static_cast<size_t>(headerSize));
  if (error->empty() && !reader_.GetHeader(header_.data(), &headerSize))
    *error = std::string(path) + ": the file was cut short while it was read";
  if (!error->empty()) return false;
  name_ = ChannelName(path);
  auto visit = [](const ScannedFrame& frame, void* context) {
    static_cast<CameraChannel*>(context)->AddFrame(frame.syncOffset, frame.entry.info, frame.entry.stamp);
    return true;
  };
  TQFReader::ScanFrames(static_cast<const uint8_t*>(reader_.view), reader_.fileSize, visit, this,
                        nullptr);
  AddLastFrame();
  DivideIntoTicks();
  span_ = MeasureSpan();
  return true;
}

void CameraChannel::AddFrame(uint64_t offset, uint32_t info, uint32_t stamp) {
  frames_.push_back(FrameSpan{offset, TQF_FRAME_HEAD_SIZE + FramePayloadLength(info), info, stamp});
}

void CameraChannel::AddLastFrame() {
  const uint64_t end = frames_.empty() ? header_.size() : frames_.back().offset + frames_.back().size;
  uint8_t head[TQF_FRAME_HEAD_SIZE];
  if (!reader_.Read(end, head, sizeof head) || LoadU32(head) != TQF_FRAME_SYNC) return;
  const uint32_t info = LoadU32(head + 4);
  if (end + TQF_FRAME_HEAD_SIZE + FramePayloadLength(info) <= reader_.fileSize)
    AddFrame(end, info, LoadU32(head + 8));
}

void CameraChannel::DivideIntoTicks() {
  tickStart_.assign(1, 0);
  bool sawVideo = false;
  for (uint32_t i = 0; i < frames_.size(); ++i) {
    if (FrameStreamNumber(frames_[i].info) != TQF_STREAM_VIDEO) continue;
    if (sawVideo) tickStart_.push_back(i);
    sawVideo = true;
  }
  tickStart_.push_back(static_cast<uint32_t>(frames_.size()));
}

uint32_t CameraChannel::MeasureSpan() const {
  std::vector<uint32_t> stamps;
  for (const FrameSpan& frame : frames_)
    if (FrameStreamNumber(frame.info) == TQF_STREAM_VIDEO) stamps.push_back(frame.stamp);
  std::vector<uint32_t> steps;
  for (size_t i = 1; i < stamps.size(); ++i) steps.push_back(stamps[i] - stamps[i - 1]);
  uint32_t step = 0;
  if (!steps.empty()) {
    std::nth_element(steps.begin(), steps.begin() + steps.size() / 2, steps.end());
    step = steps[steps.size() / 2];
  }
  // Unsigned: stamps that wrap around 2^32 within the file still measure right.
  const uint32_t span = stamps.back() - stamps.front() + step;
  const bool increasing = step != 0 && static_cast<int32_t>(span) > 0;
  return increasing ? span : TicksPerPass() * TQF_FRAME_DURATION_MS;
}

void CameraChannel::Start(Clock::time_point now, uint64_t firstTick) {
  due_ = now;
  tick_ = firstTick;
  stopped_ = false;
}

bool CameraChannel::TakeDueFrames(Clock::time_point now, std::vector<ChannelFrame>* frames) {
  if (stopped_) return false;
  if (now - due_ > LATE_LIMIT) due_ = now;
  for (; due_ <= now; due_ += FRAME_TIME) {
    if (!AppendTick(tick_++, frames)) {
      stopped_ = true;
      return false;
    }
  }
  return true;
}

bool CameraChannel::AppendTick(uint64_t tick, std::vector<ChannelFrame>* frames) {
  const uint64_t pass = tick / TicksPerPass();
  const uint32_t inPass = static_cast<uint32_t>(tick % TicksPerPass());
  for (uint32_t i = tickStart_[inPass]; i < tickStart_[inPass + 1]; ++i) {
    const FrameSpan& span = frames_[i];
    auto bytes = std::make_shared<std::vector<uint8_t>>(span.size);
    if (!reader_.Read(span.offset, bytes->data(), span.size)) return false;
    const uint32_t stamp = span.stamp + static_cast<uint32_t>(pass * span_);
    std::memcpy(bytes->data() + STAMP_OFFSET, &stamp, sizeof stamp);
    const bool video = FrameStreamNumber(span.info) == TQF_STREAM_VIDEO;
    frames->push_back(ChannelFrame{std::move(bytes), video, video && IsKeyFrameInfo(span.info)});
  }
  return true;
}
