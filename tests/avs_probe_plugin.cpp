// A probe in the shape of the AVS plugin, for the decoder's binding and fault
// paths. Its "picture" is the init size filled with the payload's first byte;
// a first byte of 0xFF makes the decode touch a page that cannot be read, as
// a broken library would. Built a second time without avs_decode_one_frame.
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

#include "DecoderPlugins.h"

#define PROBE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct ProbeContext {
  AVSContext shared = {};
  size_t pictureSize = 0;
  uint8_t* buffer = nullptr;
};

}  // namespace

PROBE_EXPORT AVSContext* avs_init(int32_t width, int32_t height) {
  if (width <= 0 || height <= 0) return nullptr;
  auto* context = new ProbeContext();
  context->pictureSize = static_cast<size_t>(width) * height * 3 / 2;
  context->buffer = static_cast<uint8_t*>(malloc(context->pictureSize));
  return &context->shared;
}

#ifndef AVS_PROBE_WITHOUT_DECODE
PROBE_EXPORT int32_t avs_decode_one_frame(AVSContext* shared) {
  auto* context = reinterpret_cast<ProbeContext*>(shared);
  shared->picture = nullptr;
  if (shared->ready != 1 || shared->data == nullptr || shared->length <= 0) return -1;
  if (shared->data[0] == 0xFF) {
    void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    static_cast<volatile uint8_t*>(page)[0] = 1;
  }
  memset(context->buffer, shared->data[0], context->pictureSize);
  shared->picture = context->buffer;
  return 0;
}
#endif

PROBE_EXPORT void avs_destroy(AVSContext* shared) {
  auto* context = reinterpret_cast<ProbeContext*>(shared);
  free(context->buffer);
  delete context;
}
