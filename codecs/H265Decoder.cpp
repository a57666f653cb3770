#include "H265Decoder.h"

H265Decoder::H265Decoder() : LibavVideoDecoder(AV_CODEC_ID_HEVC) {}
