// Runs the built tqfplay (or any shell command) from a test, in the test's
// temporary folder: exit code, stdout and stderr.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "TempFolder.h"

struct RunResult {
  int exitCode;
  std::string out, err;
};

inline std::string Quote(const std::string& text) { return "'" + text + "'"; }
inline std::string Text(const std::string& path) {
  const std::vector<uint8_t> bytes = ReadWholeFile(path);
  return std::string(bytes.begin(), bytes.end());
}

// Runs `command` in a shell; stdout is returned, stderr goes through a file.
inline RunResult RunShell(const TempFolder& folder, const std::string& command) {
  const std::string errPath = folder.File("stderr.txt");
  RunResult result{-1, "", ""};
  FILE* pipe = popen((command + " 2>" + Quote(errPath)).c_str(), "r");
  if (pipe == nullptr) return result;
  char chunk[4096];
  for (size_t got; (got = fread(chunk, 1, sizeof chunk, pipe)) > 0;) result.out.append(chunk, got);
  const int status = pclose(pipe);
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.err = Text(errPath);
  return result;
}

inline const std::string TOOL = Quote(std::string(TQF_BINARY_DIR) + "/tqfplay");
inline const std::string SAMPLES = std::string(TQF_SOURCE_DIR) + "/samples/";
inline const std::string DEMO = SAMPLES + "demo.tqf";  // 250 pictures of 640x352, 10 s, G.726
inline const std::string JPEG = SAMPLES + "jpeg422.tqf";

inline int Lines(const std::string& text) { return static_cast<int>(std::count(text.begin(), text.end(), '\n')); }

inline ::testing::AssertionResult Has(const std::string& text, const std::string& piece) {
  if (text.find(piece) != std::string::npos) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "no '" << piece << "' in:\n" << text;
}

// The fixture of the tool tests: a folder, the tool and the ffmpeg tools.
class ToolTest : public ::testing::Test {
 protected:
  RunResult Tool(const std::string& arguments) { return RunShell(folder_, TOOL + " " + arguments); }
  RunResult Shell(const std::string& command) { return RunShell(folder_, command); }
  // Makes a media file with the ffmpeg tool; false if it fails.
  bool Ffmpeg(const std::string& arguments) {
    return Shell("ffmpeg -hide_banner -loglevel error -nostdin -y " + arguments).exitCode == 0;
  }
  TempFolder folder_;
};
