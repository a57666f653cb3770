#include "JpegWriter.h"

#include <turbojpeg.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

namespace {

struct CompressorFree {
  void operator()(void* handle) const { tjDestroy(handle); }
};
struct JpegBufferFree {
  void operator()(unsigned char* buffer) const { tjFree(buffer); }
};

// Sample `value` of a range of `span` steps above `low` (luma 16 + 219,
// chroma 16 + 224), moved to 0 to 255 around the same middle.
uint8_t Stretch(int value, int low, int span) {
  const double middle = low + span / 2.0;
  const double stretched = 127.5 + (value - middle) * 255.0 / span;
  return static_cast<uint8_t>(std::clamp<long>(std::lround(stretched), 0, 255));
}

// The picture in full range, through a table per plane kind.
std::vector<uint8_t> FullRange(const uint8_t* picture, size_t luma, size_t size) {
  uint8_t lumaTable[256], chromaTable[256];
  for (int value = 0; value < 256; ++value) {
    lumaTable[value] = Stretch(value, 16, 219);
    chromaTable[value] = Stretch(value, 16, 224);
  }
  std::vector<uint8_t> full(size);
  for (size_t i = 0; i < size; ++i) full[i] = (i < luma ? lumaTable : chromaTable)[picture[i]];
  return full;
}

bool Fail(std::string* error, const std::string& what, const std::string& why) {
  *error = what + ": " + why;
  return false;
}

}  // namespace

bool WriteI420Jpeg(const char* path, const uint8_t* picture, int32_t width, int32_t height, int quality,
                   std::string* error) {
  std::unique_ptr<void, CompressorFree> compressor(tjInitCompress());
  if (!compressor) return Fail(error, "jpeg encoder", tjGetErrorStr2(nullptr));
  const size_t luma = static_cast<size_t>(width) * static_cast<size_t>(height);
  const std::vector<uint8_t> full = FullRange(picture, luma, luma * 3 / 2);
  unsigned char* raw = nullptr;
  unsigned long size = 0;
  const int result = tjCompressFromYUV(compressor.get(), full.data(), width, /*pad=*/1, height, TJSAMP_420,
                                       &raw, &size, quality, TJFLAG_ACCURATEDCT);
  std::unique_ptr<unsigned char, JpegBufferFree> jpeg(raw);
  if (result != 0) return Fail(error, "jpeg encoder", tjGetErrorStr2(compressor.get()));
  FILE* file = std::fopen(path, "wb");
  if (file == nullptr) return Fail(error, path, std::strerror(errno));
  const bool written = std::fwrite(jpeg.get(), 1, size, file) == size;
  if (std::fclose(file) != 0 || !written) return Fail(error, path, "write failed");
  return true;
}
