#include "JPEGDecoder.h"

#include <cstdlib>
#include <cstring>

#include "FaultGuard.h"

void RepackYUV422To420(uint8_t* buffer, int32_t width, int32_t height) {
  const int32_t lumaSize = width * height;
  const int32_t half = width / 2;
  // Both copies run forward and each destination stays behind its source; the
  // first chroma's output ends before the second chroma's source begins.
  uint8_t* first = buffer + lumaSize;
  for (int32_t row = 1; row < height / 2; ++row) memmove(first + row * half, first + row * width, half);
  const uint8_t* secondFrom = buffer + lumaSize + lumaSize / 2;
  uint8_t* secondTo = buffer + lumaSize + lumaSize / 4;
  for (int32_t row = 0; row < height / 2; ++row)
    memmove(secondTo + row * half, secondFrom + row * width, half);
}

JPEGDecoder::JPEGDecoder(const char* libraryName)
    : library(libraryName), decJPG(reinterpret_cast<DecJPGFunction>(library.GetFunction("DecJPG"))) {}

JPEGDecoder::~JPEGDecoder() { FreeBlocks(); }

void JPEGDecoder::FreeBlocks() {
  free(control);
  free(workBuffer);
  free(spareBuffer);
  control = nullptr;
  workBuffer = spareBuffer = nullptr;
  workSize = 0;
}

bool JPEGDecoder::IsVideo() { return true; }

bool JPEGDecoder::Open(int32_t width, int32_t height) {
  FreeBlocks();
  if (width <= 0 || height <= 0 || width > INT16_MAX || height > INT16_MAX) return false;
  const int64_t pictureSize = int64_t{width} * height * 3 / 2;
  control = static_cast<JPEGControl*>(calloc(1, sizeof(JPEGControl)));
  workBuffer = static_cast<uint8_t*>(malloc(pictureSize * 2));
  spareBuffer = static_cast<uint8_t*>(malloc(pictureSize));
  if (control == nullptr || workBuffer == nullptr || spareBuffer == nullptr) {
    FreeBlocks();
    return false;
  }
  workSize = pictureSize * 2;
  control->width = static_cast<int16_t>(width);
  control->height = static_cast<int16_t>(height);
  return true;
}

uint8_t* JPEGDecoder::Decode(const uint8_t* data, int32_t length, int32_t*) {
  if (control == nullptr) return nullptr;
  control->data = data;
  control->length = length;
  control->output = workBuffer;
  bool decoded = false;
  auto decode = [&] {
    if (decJPG == nullptr || decJPG(control) != 0) return;
    if (control->horizontalSampling == 2 && control->verticalSampling == 1) {
      // The size is read back after the call; a plugin that changed it to
      // something the work buffer cannot repack gives no picture.
      const int64_t w = control->width, h = control->height;
      if (w <= 0 || h <= 0 || 2 * w * h > workSize) return;
      RepackYUV422To420(workBuffer, control->width, control->height);
    }
    decoded = true;
  };
  return RunGuarded(decode) && decoded ? workBuffer : nullptr;
}

uint8_t* JPEGDecoder::Picture() { return control != nullptr ? control->output : nullptr; }
