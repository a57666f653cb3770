#include "ProgressMeter.h"

#include <unistd.h>

#include "TQFFormat.h"

namespace {

constexpr int BAR_WIDTH = 30;
constexpr std::chrono::milliseconds REDRAW_INTERVAL{100};

}  // namespace

ProgressMeter::ProgressMeter()
    : start_(std::chrono::steady_clock::now()),
      lastDrawn_(start_ - REDRAW_INTERVAL),
      terminal_(isatty(STDERR_FILENO) == 1) {}

double ProgressMeter::Elapsed() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void ProgressMeter::Show(double position, double length) {
  if (!terminal_) return;
  if (!shown_) {
    shown_ = true;
    firstPosition_ = position;
  }
  auto now = std::chrono::steady_clock::now();
  if (now - lastDrawn_ < REDRAW_INTERVAL) return;
  lastDrawn_ = now;
  double elapsed = Elapsed();
  double speed = elapsed > 0 ? (position - firstPosition_) / elapsed : 0;
  char bar[BAR_WIDTH + 1] = {};
  if (length > 0) {
    double done = position >= length ? 1.0 : position / length;
    int filled = static_cast<int>(done * BAR_WIDTH);
    for (int i = 0; i < BAR_WIDTH; ++i) bar[i] = i < filled ? '#' : '-';
    std::fprintf(stderr, "\r[%s] %6.1f / %.1f s  %5.1fx ", bar, position, length, speed);
  } else {
    std::fprintf(stderr, "\r%6.1f s  %5.1fx ", position, speed);
  }
  std::fflush(stderr);
  drawn_ = true;
}

void ProgressMeter::Clear() {
  if (!drawn_) return;
  std::fprintf(stderr, "\r\033[K");
  std::fflush(stderr);
  drawn_ = false;
}

void ProgressMeter::PrintSummary(const char* command, uint32_t pictures) const {
  double elapsed = Elapsed();
  std::fprintf(stderr, "%s: %u pictures (%.2f s of video) in %.2f s, %.1f pictures/s\n", command, pictures,
              pictures * (TQF_FRAME_DURATION_MS / 1000.0), elapsed,
              elapsed > 0 ? pictures / elapsed : 0.0);
}
