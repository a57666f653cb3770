// Runs the built tqfplay (or any shell command) from a test, in the test's
// temporary folder: exit code, stdout and stderr.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <vector>

#include "TempFolder.h"

struct RunResult {
  int exitCode;
  std::string out;
  std::string err;
};

inline std::string Quote(const std::string& text) { return "'" + text + "'"; }

// Runs `command` in a shell; stdout is returned, stderr goes through a file.
inline RunResult RunShell(const TempFolder& folder, const std::string& command) {
  std::string errPath = folder.File("stderr.txt");
  RunResult result{-1, "", ""};
  FILE* pipe = popen((command + " 2>" + Quote(errPath)).c_str(), "r");
  if (pipe == nullptr) return result;
  char chunk[4096];
  size_t got;
  while ((got = fread(chunk, 1, sizeof chunk, pipe)) > 0) result.out.append(chunk, got);
  int status = pclose(pipe);
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::vector<uint8_t> err = ReadWholeFile(errPath);
  result.err.assign(err.begin(), err.end());
  return result;
}

inline const std::string TOOL = Quote(std::string(TQF_BINARY_DIR) + "/tqfplay");
inline const std::string SAMPLES = std::string(TQF_SOURCE_DIR) + "/samples/";

inline int Lines(const std::string& text) {
  int lines = 0;
  for (char c : text) lines += c == '\n';
  return lines;
}

// The fixture of the tool tests: a folder, the tool and the ffmpeg tools.
class ToolTest : public ::testing::Test {
 protected:
  RunResult Tool(const std::string& arguments) { return RunShell(folder_, TOOL + " " + arguments); }
  RunResult Shell(const std::string& command) { return RunShell(folder_, command); }
  // Makes a media file with the ffmpeg tool; false if ffmpeg is missing or fails.
  bool Ffmpeg(const std::string& arguments) {
    return RunShell(folder_, "ffmpeg -hide_banner -loglevel error -nostdin -y " + arguments).exitCode == 0;
  }
  TempFolder folder_;
};
