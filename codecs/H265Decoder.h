// H265Decoder: the member for "H265" and "HEVC", libavcodec's HEVC decoder
// behind the Decoder contract, as LibavVideoDecoder tells it.
//
// Main 10 and the 4:2:2 and 4:4:4 profiles decode too: VideoEngine converts
// their pictures to 8-bit I420 at the Open size, as it does any picture that
// is not already one.
#pragma once

#include "LibavVideoDecoder.h"

class H265Decoder : public LibavVideoDecoder {
 public:
  H265Decoder();
};
