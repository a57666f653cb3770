// Fuzzes each decoder on its own: byte 0 chooses the member (H.264, G264,
// JPEG and AVS through their plugins, H.265, or G.726), byte 1 where the rest is cut
// into payloads, which are decoded in order by one decoder. A picture must be
// whole: every byte of it is read.
#include <cstdint>

#include "Decoder.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = (fuzzing::QuietLibrary(), true);
  (void)quiet;
  if (size < 2) return 0;
  const bool audio = data[0] % 6 == 5;  // after the five video members
  Decoder* decoder =
      audio ? CreateDecoder(false, DECODER_KEY_G726) : CreateDecoder(true, fuzzing::ChooseFourCC(data[0]));
  if (decoder == nullptr) return 0;
  constexpr int32_t WIDTH = 64, HEIGHT = 48;
  if (audio || decoder->Open(WIDTH, HEIGHT)) {
    fuzzing::InChunks(data + 2, size - 2, 1 + data[1] * 32u, [&](const uint8_t* chunk, size_t n) {
      int32_t produced = 0;
      const uint8_t* out = decoder->Decode(chunk, static_cast<int32_t>(n), &produced);
      if (out != nullptr && !audio) fuzzing::ReadAll(out, WIDTH * HEIGHT * 3 / 2);
    });
  }
  decoder->Release();
  return 0;
}
