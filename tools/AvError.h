// The text of a libav* error code, for one-line messages.
#pragma once

#include <string>

extern "C" {
#include <libavutil/error.h>
}

inline std::string AvError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof text);
  return text;
}
