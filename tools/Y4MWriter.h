// Y4MWriter: the library's I420 pictures as a YUV4MPEG2 file, 25 frames a
// second, which ffplay, mpv and ffmpeg read as they are. The file is created
// by Open, so that an unwritable output fails before anything plays; the
// stream header waits for the first picture, which tells the size.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

class Y4MWriter {
 public:
  Y4MWriter() = default;
  ~Y4MWriter();
  Y4MWriter(const Y4MWriter&) = delete;
  Y4MWriter& operator=(const Y4MWriter&) = delete;

  // Creates (or truncates) `path`. False with a message if it cannot.
  bool Open(const char* path, std::string* error);
  // Appends one picture of width * height * 3 / 2 bytes. False if the size
  // differs from the first picture's or the write fails.
  bool Write(const uint8_t* picture, int32_t width, int32_t height);
  // Flushes and closes; false with a message if a write failed on the way.
  bool Close(std::string* error);

  bool is_open() const { return file_ != nullptr; }

 private:
  FILE* file_ = nullptr;
  std::string path_;
  int32_t width_ = 0;
  int32_t height_ = 0;
  bool failed_ = false;
};
