// G264Decoder: the member for "G264", the same libavcodec engine as
// H264Decoder, which learns the coded size from the data.
//
// Open does not depend on width and height: it gives true unless libavcodec
// fails. The size is kept all the same, because pictures go out at that size
// (converted when the stream's own size differs); with a size that cannot
// hold a picture (not positive and even, or too large) nothing is opened and
// every Decode gives null.
#pragma once

#include "H264Decoder.h"

class G264Decoder : public H264Decoder {
 public:
  bool Open(int32_t width, int32_t height) override;
};
