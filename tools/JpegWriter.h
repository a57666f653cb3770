// One picture as a JPEG file, compressed by TurboJPEG from its planes: JPEG
// holds YCbCr 4:2:0 as the library gives it, but in full range (0 to 255)
// where video keeps luma in 16 to 235 and chroma in 16 to 240, so the
// samples are stretched first, as a player's conversion to RGB would.
#pragma once

#include <cstdint>
#include <string>

constexpr int JPEG_DEFAULT_QUALITY = 90;

// The library's picture: planar I420, rows packed, of an even width and
// height. False with a message in `error` if compression or the file fails.
bool WriteI420Jpeg(const char* path, const uint8_t* picture, int32_t width, int32_t height, int quality,
                   std::string* error);
