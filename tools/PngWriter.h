// One picture as a PNG file: libswscale turns it into RGB24 and libavcodec's
// png encoder packs it.
#pragma once

#include <cstdint>
#include <string>

// `planes` and `strides` describe a picture of the AVPixelFormat `format`
// (AV_PIX_FMT_YUV420P for the library's pictures, AV_PIX_FMT_RGB24 or
// another packed format for a screen grab). False with a message in `error`
// if the conversion, the encoder or the file fails.
bool WritePng(const char* path, const uint8_t* const planes[4], const int strides[4],
              int32_t width, int32_t height, int format, std::string* error);

// The library's picture: planar I420, rows packed.
bool WriteI420Png(const char* path, const uint8_t* picture, int32_t width, int32_t height,
                  std::string* error);
