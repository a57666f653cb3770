// A probe in the AVS plugin's shape: its picture is the init size filled with
// the payload's first byte, and a first byte of 0xFF makes it read a page that
// cannot be read. Also built without avs_decode_one_frame.
#include <sys/mman.h>

#include <cstring>
#include <vector>

#include "DecoderPlugins.h"

#define PROBE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {
struct ProbeContext {
  AVSContext shared = {};
  std::vector<uint8_t> picture;
};
}  // namespace

PROBE_EXPORT AVSContext* avs_init(int32_t width, int32_t height) {
  if (width <= 0 || height <= 0) return nullptr;
  auto* context = new ProbeContext();
  context->picture.resize(static_cast<size_t>(width) * height * 3 / 2);
  return &context->shared;
}

#ifndef AVS_PROBE_WITHOUT_DECODE
PROBE_EXPORT int32_t avs_decode_one_frame(AVSContext* shared) {
  auto& picture = reinterpret_cast<ProbeContext*>(shared)->picture;
  shared->picture = nullptr;
  if (shared->ready != 1 || shared->data == nullptr || shared->length <= 0) return -1;
  if (shared->data[0] == 0xFF)
    static_cast<volatile uint8_t*>(mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))[0] = 1;
  memset(picture.data(), shared->data[0], picture.size());
  shared->picture = picture.data();
  return 0;
}
#endif

PROBE_EXPORT void avs_destroy(AVSContext* shared) { delete reinterpret_cast<ProbeContext*>(shared); }
