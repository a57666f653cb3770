// H264Decoder: the member for "H264", libavcodec's H.264 decoder behind the
// Decoder contract (Decoder.h).
//
// Open(width, height) creates the decoder for pictures of that size: even,
// positive, at most VideoEngine::MAX_SIDE, else false. Decode sends one
// payload as it is, without parsing or reassembly, and gives the picture it
// produced (packed I420 at the Open size, owned by the member) or null. A
// fault inside the library gives null and a fresh decoder for the next frame.
#pragma once

#include "Decoder.h"
#include "VideoEngine.h"

class H264Decoder : public Decoder {
 public:
  bool IsVideo() override;
  bool Open(int32_t width, int32_t height) override;
  uint8_t* Decode(const uint8_t* data, int32_t length, int32_t* outputLength) override;
  uint8_t* Picture() override;  // the result of the last Decode

 protected:
  VideoEngine engine;
  uint8_t* picture = nullptr;
};
