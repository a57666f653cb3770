#include "G726Decoder.h"

#include "FaultGuard.h"

G726Decoder::G726Decoder() { G726Reset(&state); }

bool G726Decoder::IsVideo() { return false; }

bool G726Decoder::Open(int32_t, int32_t) { return true; }

uint8_t* G726Decoder::Decode(const uint8_t* data, int32_t length, int32_t* outputLength) {
  if (outputLength != nullptr) *outputLength = REPORTED_OUTPUT_BYTES;
  const int32_t bytes = length < MAX_INPUT_BYTES ? length : MAX_INPUT_BYTES;
  if (bytes > 0 && data == nullptr) return nullptr;
  auto decode = [&] { G726DecodeBlock(&state, data, bytes, pcm); };
  return RunGuarded(decode) ? reinterpret_cast<uint8_t*>(pcm) : nullptr;
}

uint8_t* G726Decoder::Picture() { return nullptr; }
