// Helpers shared by the codec tests: media files made by tests/codecs.cmake,
// H.264 access units, and capture of the assertion reports.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "Diagnostics.h"

inline std::string CodecMediaPath(const std::string& name) {
  return std::string(TQF_BINARY_DIR) + "/media/codecs/" + name;
}

inline std::vector<uint8_t> ReadWholeFile(const std::string& path) {
  std::vector<uint8_t> bytes;
  if (FILE* f = fopen(path.c_str(), "rb")) {
    uint8_t chunk[65536];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, f)) > 0) bytes.insert(bytes.end(), chunk, chunk + got);
    fclose(f);
  }
  return bytes;
}

// Splits an Annex B stream at its access unit delimiters (NAL type 9); each
// unit starts with the zero byte of the delimiter's four-byte start code.
inline std::vector<std::vector<uint8_t>> SplitAccessUnits(const std::vector<uint8_t>& stream) {
  std::vector<size_t> starts;
  for (size_t i = 0; i + 3 < stream.size(); ++i)
    if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1 && (stream[i + 3] & 0x1F) == 9)
      starts.push_back(i > 0 && stream[i - 1] == 0 ? i - 1 : i);
  std::vector<std::vector<uint8_t>> units;
  for (size_t k = 0; k < starts.size(); ++k) {
    size_t end = k + 1 < starts.size() ? starts[k + 1] : stream.size();
    units.emplace_back(stream.begin() + starts[k], stream.begin() + end);
  }
  return units;
}

// Collects the assertion reports made while it lives; every report is
// answered "ignore".
struct ReportCapture {
  std::vector<std::string> reports;

  ReportCapture() {
    SetAssertHandler(
        [](const char* report, void* context) -> int32_t {
          static_cast<ReportCapture*>(context)->reports.emplace_back(report);
          return IDIGNORE;
        },
        this);
  }
  ~ReportCapture() { SetAssertHandler(nullptr, nullptr); }
  ReportCapture(const ReportCapture&) = delete;
  ReportCapture& operator=(const ReportCapture&) = delete;
};
