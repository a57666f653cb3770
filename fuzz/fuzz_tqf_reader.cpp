// Fuzzes the reader on whole files: the bytes are written to a memory file,
// mapped and indexed, and every record and indexed frame is read back. Any
// read outside the mapping is caught by the sanitizer.
#include <cstdint>
#include <cstdio>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "TQFReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const int fd = memfd_create("tqf", 0);
  if (fd < 0) return 0;
  if (write(fd, data, size) != static_cast<ssize_t>(size)) {
    close(fd);
    return 0;
  }
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  TQFReader reader;
  if (reader.Open(path.c_str())) {
    std::vector<uint8_t> buffer(TQF_FILE_READ_BUFFER_SIZE);
    for (int32_t r = -1; r <= 16; ++r) {
      uint32_t type = 0;
      int32_t length = 256;
      reader.GetRecord(r, &type, buffer.data(), &length);
    }
    for (int32_t stream = 0; stream < 2; ++stream) {
      for (uint32_t i = 0; i <= reader.index[stream].count; ++i) {
        TQFFrameHeader header{};
        uint32_t length = TQF_FILE_READ_BUFFER_SIZE;
        reader.ReadFrame(stream, static_cast<int32_t>(i), &header, buffer.data(), &length);
        reader.IsKeyFrame(stream, static_cast<int32_t>(i));
      }
    }
    int32_t length = static_cast<int32_t>(buffer.size());
    reader.GetHeader(buffer.data(), &length);
    reader.Close();
  }
  close(fd);
  return 0;
}
