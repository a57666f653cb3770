// DecoderPlugins: the blocks exchanged with the two decoder plugins bound at
// run time, libavsdec.so and libjpgdec.so, and the types of their functions.
// The library and the plugins compile this same header, so the layouts agree
// by construction; the offsets are pinned below for 64-bit builds.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

// The decode context of the AVS plugin. The plugin allocates it (with room of
// its own behind these fields) and the library writes the input into it.
struct AVSContext {
  const uint8_t* data;  // to the plugin: one frame's payload
  int32_t length;       // to the plugin: its length in bytes
  uint8_t ready;        // to the plugin: set to 1 before every call
  uint8_t* picture;     // from the plugin: the picture of the last call, or null
};

// avs_init(width, height): a context for pictures of that size, or null.
// avs_decode_one_frame(context): decodes the input named in the context and
//   leaves a packed I420 picture of the init size, or null, at `picture`.
//   The result carries nothing.
// avs_destroy(context): frees the context.
typedef AVSContext* (*AvsInitFunction)(int32_t width, int32_t height);
typedef int32_t (*AvsDecodeOneFrameFunction)(AVSContext* context);
typedef void (*AvsDestroyFunction)(AVSContext* context);

// The control block of the JPEG plugin, owned by the library.
struct JPEGControl {
  uint8_t horizontalSampling;  // from the plugin: luma sampling factors
  uint8_t verticalSampling;
  uint8_t unused[2];
  int16_t width;               // the picture size the buffer was made for
  int16_t height;
  uint8_t* output;             // to the plugin: 3 * width * height bytes
  const uint8_t* data;         // to the plugin: one JPEG
  int32_t length;              // to the plugin: its length in bytes
};

// DecJPG(control): decodes the JPEG into `output` as three planes one after
// the other and sets the sampling factors; 0 for success. A JPEG that is not
// width x height, or whose planes would not fit 3 * width * height bytes, is
// refused with a non-zero result and nothing written.
typedef int32_t (*DecJPGFunction)(JPEGControl* control);

}  // extern "C"

static_assert(offsetof(AVSContext, data) == 0 && offsetof(AVSContext, length) == 8 &&
              offsetof(AVSContext, ready) == 12 && offsetof(AVSContext, picture) == 16);
static_assert(offsetof(JPEGControl, width) == 4 && offsetof(JPEGControl, height) == 6 &&
              offsetof(JPEGControl, output) == 8 && offsetof(JPEGControl, data) == 16 &&
              offsetof(JPEGControl, length) == 24);
