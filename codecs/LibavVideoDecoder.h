// LibavVideoDecoder: the members on libavcodec, one decoder of a fixed codec
// behind the Decoder contract (Decoder.h). H264Decoder and H265Decoder are
// this class with their codec id; G264Decoder differs in Open alone.
//
// Open(width, height) creates the decoder for pictures of that size: even,
// positive, at most VideoEngine::MAX_SIDE, else false. Decode sends one
// payload as it is, without parsing or reassembly, and gives the picture it
// produced (packed I420 at the Open size, owned by the member) or null. A
// fault inside the library gives null and a fresh decoder for the next frame.
// One thread at a time, as for every member.
#pragma once

#include "Decoder.h"
#include "VideoEngine.h"

class LibavVideoDecoder : public Decoder {
 public:
  bool IsVideo() override;
  bool Open(int32_t width, int32_t height) override;
  uint8_t* Decode(const uint8_t* data, int32_t length, int32_t* outputLength) override;
  uint8_t* Picture() override;  // the result of the last Decode

 protected:
  explicit LibavVideoDecoder(AVCodecID id) : codecId(id) {}

  const AVCodecID codecId;
  VideoEngine engine;
  uint8_t* picture = nullptr;
};
