#include "G264Decoder.h"

bool G264Decoder::Open(int32_t width, int32_t height) {
  if (VideoEngine::SizeIsUsable(width, height)) return LibavVideoDecoder::Open(width, height);
  picture = nullptr;
  engine.Close();
  return true;
}
