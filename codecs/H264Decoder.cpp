#include "H264Decoder.h"

#include "FaultGuard.h"

bool H264Decoder::IsVideo() { return true; }

bool H264Decoder::Open(int32_t width, int32_t height) {
  picture = nullptr;
  return engine.Open(AV_CODEC_ID_H264, width, height);
}

uint8_t* H264Decoder::Decode(const uint8_t* data, int32_t length, int32_t*) {
  picture = nullptr;
  if (engine.codec == nullptr) return nullptr;
  uint8_t* result = nullptr;
  auto decode = [&] { result = engine.Decode(data, length); };
  if (RunGuarded(decode)) return picture = result;
  // The fault left the decoder half way through; start a new one. Should even
  // that fault, give the context up rather than touch it again.
  auto restart = [&] { engine.Restart(); };
  if (!RunGuarded(restart)) engine.codec = nullptr;
  return nullptr;
}

uint8_t* H264Decoder::Picture() { return picture; }
