// Helpers shared by the codec tests: the media files made by CodecMedia.cmake
// and the H.264 access units in them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "TempFolder.h"  // ReadWholeFile

inline std::string CodecMediaPath(const std::string& name) {
  return std::string(TQF_BINARY_DIR) + "/media/codecs/" + name;
}

// Splits an Annex B stream before each access unit delimiter (NAL header 0x09 of H.264,
// 0x46 of H.265), taking the zero byte of a four-byte start code along.
inline std::vector<std::vector<uint8_t>> SplitAccessUnits(const std::vector<uint8_t>& stream) {
  std::vector<size_t> starts;
  for (size_t i = 0; i + 3 < stream.size(); ++i)
    if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1 &&
        (stream[i + 3] == 0x09 || stream[i + 3] == 0x46))
      starts.push_back(i > 0 && stream[i - 1] == 0 ? i - 1 : i);
  std::vector<std::vector<uint8_t>> units;
  starts.push_back(stream.size());
  for (size_t k = 0; k + 1 < starts.size(); ++k)
    units.emplace_back(stream.begin() + starts[k], stream.begin() + starts[k + 1]);
  return units;
}
