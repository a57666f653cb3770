#include "Y4MWriter.h"

#include <cerrno>
#include <cstring>

Y4MWriter::~Y4MWriter() {
  if (file_ != nullptr) std::fclose(file_);
}

bool Y4MWriter::Open(const char* path, std::string* error) {
  file_ = std::fopen(path, "wb");
  if (file_ == nullptr) {
    *error = std::string("cannot write ") + path + ": " + std::strerror(errno);
    return false;
  }
  path_ = path;
  return true;
}

bool Y4MWriter::Write(const uint8_t* picture, int32_t width, int32_t height) {
  if (failed_) return false;
  if (width_ == 0) {
    width_ = width;
    height_ = height;
    // C420jpeg: 4:2:0 with centred chroma, the default of the format.
    failed_ = std::fprintf(file_, "YUV4MPEG2 W%d H%d F25:1 Ip A1:1 C420jpeg\n", width, height) < 0;
  } else if (width != width_ || height != height_) {
    failed_ = true;
  }
  size_t bytes = static_cast<size_t>(width) * static_cast<size_t>(height) * 3 / 2;
  failed_ = failed_ || std::fputs("FRAME\n", file_) < 0 ||
            std::fwrite(picture, 1, bytes, file_) != bytes;
  return !failed_;
}

bool Y4MWriter::Close(std::string* error) {
  if (file_ == nullptr) return true;
  bool closed = std::fclose(file_) == 0;
  file_ = nullptr;
  if (failed_ || !closed) {
    *error = "writing " + path_ + " failed (disk full, or the picture size changed)";
    return false;
  }
  return true;
}
