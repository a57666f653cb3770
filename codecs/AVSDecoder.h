// AVSDecoder: the member for "AVS0", the AVS plugin (libavsdec.so, over
// libavcodec's cavs decoder) bound at run time.
//
// The plugin's three functions are looked up when the object is built; each
// one missing is reported through Exports and left null. Open gives false
// without avs_init or when avs_init refuses the size. Decode writes the
// payload into the plugin's context, calls avs_decode_one_frame in the fault
// guard and gives the context's picture; a missing avs_decode_one_frame gives
// null, as a fault would.
#pragma once

#include "Decoder.h"
#include "DecoderPlugins.h"
#include "Exports.h"

class AVSDecoder : public Decoder {
 public:
  // `libraryName` is the plugin's name in the loader's terms ("X.dll" stands
  // for libx.so beside the library); tests bind other builds through it.
  explicit AVSDecoder(const char* libraryName = "AVSDEC.dll");
  ~AVSDecoder() override;

  bool IsVideo() override;
  bool Open(int32_t width, int32_t height) override;
  uint8_t* Decode(const uint8_t* data, int32_t length, int32_t* outputLength) override;
  uint8_t* Picture() override;

 private:
  Exports library;
  AvsInitFunction avsInit;
  AvsDestroyFunction avsDestroy;
  AvsDecodeOneFrameFunction avsDecodeOneFrame;
  AVSContext* context = nullptr;

  void DestroyContext();
};
