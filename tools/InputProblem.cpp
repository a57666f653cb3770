#include "InputProblem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Command.h"
#include "Decoder.h"
#include "TQFFormat.h"
#include "TQFReader.h"

namespace {

// The largest picture side the decoders convert to.
constexpr int32_t MAX_PICTURE_SIDE = 8192;

std::string Cause(const char* path) {
  const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return std::strerror(errno);
  struct stat info;
  const bool known = fstat(fd, &info) == 0;
  TQFFileHeader header{};
  const ssize_t got = known && S_ISREG(info.st_mode) ? read(fd, &header, sizeof header) : 0;
  close(fd);
  if (!known) return std::strerror(errno);
  if (S_ISDIR(info.st_mode)) return std::strerror(EISDIR);
  if (!S_ISREG(info.st_mode)) return "not a regular file";
  if (info.st_size == 0) return "Invalid data found: the file is empty";
  if (got != static_cast<ssize_t>(sizeof header) || header.magic != TQF_FILE_MAGIC)
    return "Invalid data found: not a TQF file";
  TQFReader reader;
  if (!reader.Open(path))
    return "Invalid data found: a damaged header (0 or more than 16 records, or records past the end)";
  MediaDescriptor video{};
  uint32_t type = 0;
  int32_t length = sizeof video;
  if (!reader.GetRecord(0, &type, reinterpret_cast<uint8_t*>(&video), &length) ||
      !IsFourCCRecordType(type))
    return "Invalid data found: no video record";
  if (!IsPlayablePictureSize(video.width, video.height) || video.width > MAX_PICTURE_SIDE ||
      video.height > MAX_PICTURE_SIDE)
    return "Invalid data found: a picture size of " + std::to_string(video.width) + "x" +
           std::to_string(video.height) + " cannot be played";
  return "refused by the library";
}

}  // namespace

std::string DescribeMissingDecoder(const char* name, uint32_t codec) {
  if (HasDecoder(/*video=*/true, codec)) return "";
  return std::string(name) + ": no decoder for the video codec '" + FourCCText(codec) + "'";
}

std::string DescribeNoKeyFrame(const TQFReader& reader, const char* path) {
  const FrameIndex& frames = reader.index[TQF_STREAM_VIDEO];
  if (frames.count == 0)
    return std::string(path) + ": no complete video frame (a header block alone, or cut short)";
  for (uint32_t i = 0; i < frames.count; ++i)
    if (IsKeyFrameInfo(frames.entries[i].info)) return "";
  return std::string(path) + ": no key frame in its " + std::to_string(frames.count) +
         " video frames: nothing can be shown";
}

std::string DescribeNothingToPlay(const char* path) {
  TQFReader reader;
  uint32_t type = 0;
  int32_t length = INT32_MAX;  // the type alone is wanted
  if (!reader.Open(path) || !reader.GetRecord(0, &type, nullptr, &length))
    return DescribeInputProblem(path);
  std::string cause = DescribeMissingDecoder(path, type);
  return cause.empty() ? DescribeNoKeyFrame(reader, path) : cause;
}

std::string DescribeInputProblem(const char* path) { return std::string(path) + ": " + Cause(path); }
