// JPEGDecoder: the member for "JPEG", one JPEG picture a payload, decoded by
// DecJPG of the JPEG plugin (libjpgdec.so, over TurboJPEG) bound at run time.
//
// Open allocates the control block, a work buffer of twice the picture size
// (3 * width * height bytes, room for a 4:4:4 picture) and a spare buffer of
// the picture size; it gives false only for a size the control block cannot
// carry (not positive, or above 32767) or when memory runs out. A missing
// plugin is reported once, when the object is built; Open still gives true
// and every Decode gives null.
//
// Decode hands the payload to DecJPG inside the fault guard. When DecJPG
// reports 4:2:2 sampling (luma factors 2 and 1), the planes are repacked in
// place to 4:2:0 (RepackYUV422To420); any other sampling is handed on as
// written. The result is always the work buffer.
#pragma once

#include "Decoder.h"
#include "DecoderPlugins.h"
#include "Exports.h"

class JPEGDecoder : public Decoder {
 public:
  // `libraryName` as for AVSDecoder: tests bind other builds through it.
  explicit JPEGDecoder(const char* libraryName = "jpgdec.dll");
  ~JPEGDecoder() override;

  bool IsVideo() override;
  bool Open(int32_t width, int32_t height) override;
  uint8_t* Decode(const uint8_t* data, int32_t length, int32_t* outputLength) override;
  uint8_t* Picture() override;  // the work buffer, once open

 private:
  JPEGControl* control = nullptr;
  uint8_t* workBuffer = nullptr;
  uint8_t* spareBuffer = nullptr;  // kept with the picture size; nothing reads it
  int64_t workSize = 0;
  Exports library;
  DecJPGFunction decJPG;

  void FreeBlocks();
};

// Repacks planar 4:2:2 (chroma planes width / 2 by height) into planar 4:2:0
// (chroma planes width / 2 by height / 2) in place: output chroma row i is
// source chroma row 2 * i, no filtering. The luma plane stays where it is;
// afterwards the first width * height * 3 / 2 bytes of `buffer` are the
// picture. `buffer` must hold 2 * width * height bytes. Nothing happens for a
// height below 2 or a width below 2.
void RepackYUV422To420(uint8_t* buffer, int32_t width, int32_t height);
