#include "Decoder.h"

#include <new>

#include "AVSDecoder.h"
#include "G264Decoder.h"
#include "G726Decoder.h"
#include "H264Decoder.h"
#include "H265Decoder.h"
#include "JPEGDecoder.h"
#include "LibavLog.h"

Decoder::~Decoder() = default;

void Decoder::Release() { delete this; }

void ReleaseDecoder(Decoder* decoder) {
  if (decoder != nullptr) decoder->Release();
}

namespace {

template <typename Member>
Decoder* Make() {
  return new (std::nothrow) Member();
}

struct FactoryEntry {
  bool video;
  uint32_t key;
  Decoder* (*make)();
};

constexpr FactoryEntry FACTORY[] = {
    {true, DECODER_KEY_H264, Make<H264Decoder>},
    {true, DECODER_KEY_G264, Make<G264Decoder>},
    {true, DECODER_KEY_H265, Make<H265Decoder>},
    {true, DECODER_KEY_HEVC, Make<H265Decoder>},
    {true, DECODER_KEY_AVS0, Make<AVSDecoder>},
    {true, DECODER_KEY_JPEG, Make<JPEGDecoder>},
    {false, DECODER_KEY_G726, Make<G726Decoder>},
};

const FactoryEntry* FindEntry(bool video, uint32_t key) {
  for (const FactoryEntry& entry : FACTORY)
    if (entry.video == video && entry.key == key) return &entry;
  return nullptr;
}

}  // namespace

Decoder* CreateDecoder(bool video, uint32_t key) {
  RouteLibavLogToDebugSink();
  const FactoryEntry* entry = FindEntry(video, key);
  return entry != nullptr ? entry->make() : nullptr;
}

bool HasDecoder(bool video, uint32_t key) { return FindEntry(video, key) != nullptr; }
