// G726Decoder: the audio member (key 100), G.726 at 32 kbit/s to 16-bit PCM
// through the G726 module.
//
// The state is reset once, when the object is built, and runs on across
// frames. Open ignores its arguments and gives true; IsVideo gives false;
// Picture gives null. Decode turns `length` bytes (two codes a byte) into
// 2 * length samples in the member's PCM buffer and gives that buffer; it
// stores 1280 (the PCM size of a 320-byte frame) at `outputLength` when that
// is not null, whatever `length` was. The buffer holds the PCM of at most
// MAX_INPUT_BYTES input bytes: a longer payload decodes that much and drops
// the rest, a negative length decodes nothing.
#pragma once

#include "Decoder.h"
#include "G726.h"

class G726Decoder : public Decoder {
 public:
  static constexpr int32_t PCM_SAMPLES = 1024;
  static constexpr int32_t MAX_INPUT_BYTES = PCM_SAMPLES / 2;
  static constexpr int32_t REPORTED_OUTPUT_BYTES = 1280;

  G726Decoder();

  bool IsVideo() override;
  bool Open(int32_t width, int32_t height) override;
  uint8_t* Decode(const uint8_t* data, int32_t length, int32_t* outputLength) override;
  uint8_t* Picture() override;

 private:
  G726State state;
  int16_t pcm[PCM_SAMPLES] = {};
};
