#include "AVSDecoder.h"

#include "FaultGuard.h"

AVSDecoder::AVSDecoder(const char* libraryName)
    : library(libraryName),
      avsInit(reinterpret_cast<AvsInitFunction>(library.GetFunction("avs_init"))),
      avsDestroy(reinterpret_cast<AvsDestroyFunction>(library.GetFunction("avs_destroy"))),
      avsDecodeOneFrame(
          reinterpret_cast<AvsDecodeOneFrameFunction>(library.GetFunction("avs_decode_one_frame"))) {}

AVSDecoder::~AVSDecoder() { DestroyContext(); }

void AVSDecoder::DestroyContext() {
  if (context != nullptr && avsDestroy != nullptr) avsDestroy(context);
  context = nullptr;
}

bool AVSDecoder::IsVideo() { return true; }

bool AVSDecoder::Open(int32_t width, int32_t height) {
  if (avsInit == nullptr) return false;
  DestroyContext();
  context = avsInit(width, height);
  return context != nullptr;
}

uint8_t* AVSDecoder::Decode(const uint8_t* data, int32_t length, int32_t*) {
  if (context == nullptr) return nullptr;
  uint8_t* result = nullptr;
  auto decode = [&] {
    context->length = length;
    context->data = data;
    context->ready = 1;
    if (avsDecodeOneFrame == nullptr) return;
    avsDecodeOneFrame(context);
    result = context->picture;
  };
  return RunGuarded(decode) ? result : nullptr;
}

uint8_t* AVSDecoder::Picture() { return context != nullptr ? context->picture : nullptr; }
