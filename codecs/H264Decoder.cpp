#include "H264Decoder.h"

H264Decoder::H264Decoder() : LibavVideoDecoder(AV_CODEC_ID_H264) {}
