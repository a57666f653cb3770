// Helpers of the codec benchmarks: wall-clock timing, running the ffmpeg tool,
// and media made on the first run into the build folder.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>

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

// `path` in the build folder's media/bench, made by `ffmpegArguments` (which
// end before the output file) unless it is there already.
inline std::string BenchMedia(const std::string& name, const std::string& ffmpegArguments) {
  const std::string folder = std::string(TQF_BINARY_DIR) + "/media/bench";
  const std::string path = folder + "/" + name;
  struct stat info;
  if (stat(path.c_str(), &info) == 0 && info.st_size > 0) return path;
  std::system(("mkdir -p '" + folder + "'").c_str());
  std::printf("making %s (first run only)...\n", path.c_str());
  std::fflush(stdout);
  const std::string temporary = path + ".part";
  if (std::system((std::string(TQF_FFMPEG) + " -v error -nostdin -y " + ffmpegArguments + " '" + temporary + "'").c_str()) != 0 ||
      std::rename(temporary.c_str(), path.c_str()) != 0)
    return "";
  return path;
}
