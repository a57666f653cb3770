// libjpgdec.so: the JPEG decoder plugin, TurboJPEG behind DecJPG, which
// JPEGDecoder binds at run time (DecoderPlugins.h).
//
// DecJPG writes the three planes one after the other, each with rows packed
// at TurboJPEG's plane widths. It takes 4:2:0 (luma factors 2, 2), 4:2:2
// (2, 1) and greyscale (1, 1, chroma planes written as 128 in 4:2:0 layout);
// other samplings, other sizes than the control block's, and damaged data are
// refused. It never changes the size in the control block.
#include <cstring>

#include <turbojpeg.h>

#include "DecoderPlugins.h"

#define JPGDEC_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct Sampling {
  int tjSampling;
  uint8_t horizontal;
  uint8_t vertical;
};

constexpr Sampling SAMPLINGS[] = {{TJSAMP_420, 2, 2}, {TJSAMP_422, 2, 1}, {TJSAMP_GRAY, 1, 1}};

const Sampling* FindSampling(int tjSampling) {
  for (const Sampling& sampling : SAMPLINGS)
    if (sampling.tjSampling == tjSampling) return &sampling;
  return nullptr;
}

int32_t Decode(tjhandle tj, JPEGControl* control) {
  int width = 0, height = 0, subsampling = 0, colorspace = 0;
  if (tjDecompressHeader3(tj, control->data, static_cast<unsigned long>(control->length), &width,
                          &height, &subsampling, &colorspace) != 0)
    return -1;
  const Sampling* sampling = FindSampling(subsampling);
  if (sampling == nullptr || width != control->width || height != control->height) return -1;
  // Planes are laid out at the sizes TurboJPEG writes; for 4:2:0, 4:2:2 and
  // greyscale of this size they fit 3 * width * height bytes.
  const int layout = subsampling == TJSAMP_GRAY ? TJSAMP_420 : subsampling;
  unsigned char* planes[3];
  int strides[3];
  unsigned char* next = control->output;
  for (int component = 0; component < 3; ++component) {
    planes[component] = next;
    strides[component] = tjPlaneWidth(component, width, layout);
    next += tjPlaneSizeYUV(component, width, 0, height, layout);
  }
  if (next - control->output > 3L * width * height) return -1;
  if (tjDecompressToYUVPlanes(tj, control->data, static_cast<unsigned long>(control->length), planes,
                              width, strides, height, 0) != 0)
    return -1;
  if (subsampling == TJSAMP_GRAY) memset(planes[1], 128, static_cast<size_t>(next - planes[1]));
  control->horizontalSampling = sampling->horizontal;
  control->verticalSampling = sampling->vertical;
  return 0;
}

}  // namespace

JPGDEC_EXPORT int32_t DecJPG(JPEGControl* control) {
  if (control == nullptr || control->data == nullptr || control->length <= 0 ||
      control->output == nullptr || control->width <= 0 || control->height <= 0)
    return -1;
  tjhandle tj = tjInitDecompress();
  if (tj == nullptr) return -1;
  const int32_t result = Decode(tj, control);
  tjDestroy(tj);
  return result;
}
