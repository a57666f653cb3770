// What the fuzz targets share: inputs as files, stream headers of a chosen
// codec, a quiet library, and a picture callback that is slow now and then.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Diagnostics.h"
#include "OSTime.h"
#include "TQFFormat.h"

namespace fuzzing {

// The bytes as a file in memory, reachable by path while the object lives.
class MemoryFile {
 public:
  MemoryFile(const uint8_t* data, size_t size) : fd_(memfd_create("fuzz", MFD_CLOEXEC)) {
    if (fd_ >= 0 && write(fd_, data, size) != static_cast<ssize_t>(size)) {
      close(fd_);
      fd_ = -1;
    }
  }
  ~MemoryFile() {
    if (fd_ >= 0) close(fd_);
  }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  bool ok() const { return fd_ >= 0; }
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_;
};

// A file of the target's own in TMPDIR (tools/fuzz.sh points it at the build
// folder, so that no run leaves anything behind).
inline std::string ScratchPath(const char* name) {
  const char* folder = getenv("TMPDIR");
  return std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") + "/" +
         std::to_string(getpid()) + "_" + name;
}

// The codecs a live stream or a decoder target is fuzzed with, chosen by a
// byte of the input.
constexpr uint32_t VIDEO_FOURCCS[] = {FOURCC_H264, FOURCC_G264, FOURCC_JPEG, FOURCC_AVS0, FOURCC_H265};
inline uint32_t ChooseFourCC(uint8_t selector) {
  return VIDEO_FOURCCS[selector % (sizeof VIDEO_FOURCCS / sizeof VIDEO_FOURCCS[0])];
}

// A stream header block with one descriptor record of `fourcc` at 64x48.
inline std::vector<uint8_t> StreamHeader(uint32_t fourcc) {
  std::vector<uint8_t> header(TQF_FILE_HEADER_SIZE + TQF_RECORD_HEAD_SIZE + TQF_MEDIA_DESCRIPTOR_SIZE);
  const TQFFileHeader file{TQF_FILE_MAGIC, static_cast<uint32_t>(header.size() - 8), 0, 1};
  const TQFRecord record{fourcc, TQF_MEDIA_DESCRIPTOR_SIZE};
  MediaDescriptor descriptor{};
  descriptor.structureSize = TQF_MEDIA_DESCRIPTOR_SIZE;
  descriptor.width = 64;
  descriptor.height = 48;
  descriptor.compression = fourcc;
  memcpy(header.data(), &file, sizeof file);
  memcpy(header.data() + TQF_FILE_HEADER_SIZE, &record, sizeof record);
  memcpy(header.data() + TQF_FILE_HEADER_SIZE + TQF_RECORD_HEAD_SIZE, &descriptor, sizeof descriptor);
  return header;
}

// Silences the debug lines and answers every assertion report with "ignore".
inline void QuietLibrary() {
  SetDebugSink([](const char*, void*) {}, nullptr);
  SetAssertHandler([](const char*, void*) { return IDIGNORE; }, nullptr);
}

// Reads every byte of `size` at `bytes`: the sanitizer checks that all of it
// is there.
inline void ReadAll(const uint8_t* bytes, int32_t size) {
  static std::atomic<uint32_t> sink{0};
  uint32_t sum = 0;
  for (int32_t i = 0; i < size; ++i) sum += bytes[i];
  sink.store(sum, std::memory_order_relaxed);
}

// A host's callback that reads the whole picture and takes a millisecond now
// and then, so that queues fill and frames are dropped.
inline int32_t SlowCallback(int32_t, uint8_t* picture, int32_t size, int32_t, int32_t, uint32_t stamp,
                            int32_t, int32_t, uint32_t) {
  ReadAll(picture, size);
  if (stamp % 8 == 0) Sleep(1);
  return 0;
}

// Cuts `size` bytes into chunks of `cut` and hands each to `feed`.
template <class Feed>
void InChunks(const uint8_t* data, size_t size, size_t cut, Feed feed) {
  for (size_t at = 0; at < size; at += cut) feed(data + at, size - at < cut ? size - at : cut);
}

}  // namespace fuzzing
