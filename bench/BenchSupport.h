// Helpers of the benchmarks: wall-clock timing, running the ffmpeg tool,
// media made on the first run into the build folder, and what a process
// costs (resident memory, CPU time).
#pragma once

#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

inline double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Runs a shell command; its wall time in seconds, or -1 when it failed.
inline double TimeCommand(const std::string& command) {
  const auto start = std::chrono::steady_clock::now();
  const int status = std::system(command.c_str());
  const double seconds = SecondsSince(start);
  return status == 0 ? seconds : -1;
}

// The best of `runs` timings of `body` (seconds); -1 if any run fails.
template <typename Body>
double BestOf(int runs, Body body) {
  double best = 1e30;
  for (int i = 0; i < runs; ++i) {
    const double seconds = body();
    if (seconds < 0) return -1;
    if (seconds < best) best = seconds;
  }
  return best;
}

// `name` in the build folder's media/bench, made by the shell command
// `command` with the output's path after it, unless it is there already.
// The command writes a temporary file that is renamed when it succeeds, so
// an interrupted run leaves nothing half made. "" when the command fails.
inline std::string BenchFile(const std::string& name, const std::string& command) {
  const std::string folder = std::string(TQF_BINARY_DIR) + "/media/bench";
  const std::string path = folder + "/" + name;
  struct stat info;
  if (stat(path.c_str(), &info) == 0 && info.st_size > 0) return path;
  std::system(("mkdir -p '" + folder + "'").c_str());
  std::printf("making %s (first run only)...\n", path.c_str());
  std::fflush(stdout);
  const std::string temporary = path + ".part";
  if (std::system((command + " '" + temporary + "'").c_str()) != 0 ||
      std::rename(temporary.c_str(), path.c_str()) != 0)
    return "";
  return path;
}

// `name` made by the ffmpeg tool with `ffmpegArguments` (which end before the
// output file), as BenchFile.
inline std::string BenchMedia(const std::string& name, const std::string& ffmpegArguments) {
  return BenchFile(name, std::string(TQF_FFMPEG) + " -v error -nostdin -y " + ffmpegArguments);
}

// The resident memory of this process (VmRSS), KiB; 0 if it cannot be read.
inline long ResidentKiB() {
  FILE* f = std::fopen("/proc/self/status", "r");
  char line[256];
  long kib = 0;
  while (f != nullptr && std::fgets(line, sizeof line, f) != nullptr)
    if (std::sscanf(line, "VmRSS: %ld", &kib) == 1) break;
  if (f != nullptr) std::fclose(f);
  return kib;
}

// The CPU seconds, user and system, that `usage` counts.
inline double UsageSeconds(const rusage& usage) {
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// CPU seconds, user and system, of all this process's threads so far.
inline double CpuSeconds() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return UsageSeconds(usage);
}

// The value below which `fraction` of `values` lie (0.5: the median); sorts
// `values`. 0 for none.
inline double Percentile(std::vector<double>& values, double fraction) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<size_t>(fraction * values.size()))];
}
