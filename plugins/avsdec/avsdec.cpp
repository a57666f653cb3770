// libavsdec.so: the AVS decoder plugin, libavcodec's cavs decoder behind the
// three functions that AVSDecoder binds at run time (DecoderPlugins.h).
#include <new>

#include "DecoderPlugins.h"
#include "VideoEngine.h"

#define AVSDEC_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// The context the library sees, followed by the plugin's own engine.
struct AVSPluginContext {
  AVSContext shared = {};
  VideoEngine engine;
};

}  // namespace

AVSDEC_EXPORT AVSContext* avs_init(int32_t width, int32_t height) {
  auto* context = new (std::nothrow) AVSPluginContext();
  if (context == nullptr) return nullptr;
  if (!context->engine.Open(AV_CODEC_ID_CAVS, width, height)) {
    delete context;
    return nullptr;
  }
  return &context->shared;
}

AVSDEC_EXPORT int32_t avs_decode_one_frame(AVSContext* shared) {
  if (shared == nullptr) return -1;
  auto* context = reinterpret_cast<AVSPluginContext*>(shared);
  shared->picture = context->engine.Decode(shared->data, shared->length);
  return shared->picture != nullptr ? 0 : -1;
}

AVSDEC_EXPORT void avs_destroy(AVSContext* shared) {
  delete reinterpret_cast<AVSPluginContext*>(shared);
}
