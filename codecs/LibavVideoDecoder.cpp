#include "LibavVideoDecoder.h"

#include "FaultGuard.h"

bool LibavVideoDecoder::IsVideo() { return true; }

bool LibavVideoDecoder::Open(int32_t width, int32_t height) {
  picture = nullptr;
  return engine.Open(codecId, width, height);
}

uint8_t* LibavVideoDecoder::Decode(const uint8_t* data, int32_t length, int32_t*) {
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

uint8_t* LibavVideoDecoder::Picture() { return picture; }
