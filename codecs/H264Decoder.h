// H264Decoder: the member for "H264", libavcodec's H.264 decoder behind the
// Decoder contract, as LibavVideoDecoder tells it.
#pragma once

#include "LibavVideoDecoder.h"

class H264Decoder : public LibavVideoDecoder {
 public:
  H264Decoder();
};
