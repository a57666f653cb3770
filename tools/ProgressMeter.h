// ProgressMeter: the one-line progress bar of play and stream, and the
// summary line that ends their runs. The bar is drawn on stderr only when
// stderr is a terminal, so logs and pipes get nothing but the summary.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>

class ProgressMeter {
 public:
  // Starts the clock of the run.
  ProgressMeter();

  // Redraws the bar, at most ten times a second: `position` and `length` in
  // seconds of media (a `length` of 0 draws no bar, for a live source), and
  // the speed: media seconds advanced since the first Show, per second.
  void Show(double position, double length);
  // Erases the bar, before any other line is printed.
  void Clear();
  // Seconds since construction.
  double Elapsed() const;
  // "<command>: N pictures (S s of video) in T s, R pictures/s" on stdout.
  void PrintSummary(const char* command, uint32_t pictures) const;

 private:
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point lastDrawn_;
  bool terminal_;
  bool drawn_ = false;
  bool shown_ = false;
  double firstPosition_ = 0;
};
