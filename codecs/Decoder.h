// Decoder: the one interface behind which every decoder of the library sits,
// and CreateDecoder, the factory that picks a member by the key of a media
// header.
//
// Calling order of a player: CreateDecoder, Open(width, height) once, then
// Decode for each frame, then Release. One thread at a time uses an object.
//
// Contract of Decode(data, length, outputLength):
//   - `data`/`length` is one frame's payload without its frame header,
//     borrowed for the call only: the member keeps no pointer into it, so the
//     caller may decode straight out of a queue block or a frame buffer and
//     reuse that memory as soon as the call returns.
//   - Null means "no picture for this frame", for whatever reason (not open,
//     no picture yet, damaged data, a fault). It is not an error; the caller
//     goes on with the next frame.
//   - A non-null result of a video member is a picture of exactly
//     width * height * 3 / 2 readable bytes at the size given to Open: planar
//     4:2:0, luma (width * height) first, then the two chroma planes, rows
//     packed. This holds whatever the input: a stream of another coded size or
//     pixel format is converted to the Open size or gives null.
//   - The picture belongs to the member and stays valid until the next Decode
//     or Release.
//   - `outputLength` may be null. Video members ignore it; the audio member
//     stores its output size there.
//   - Decode runs inside the fault guard (FaultGuard.h): a fault in the member
//     or in a library under it gives null for this frame, and the object stays
//     usable for the next one.
#pragma once

#include <cstdint>

#include "TQFFormat.h"

class Decoder {
 public:
  Decoder() = default;
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  virtual ~Decoder();

  // True for the video members, false for the audio member.
  virtual bool IsVideo() = 0;

  // Prepares the member for pictures of `width` x `height`. False means the
  // member cannot be used. Called once.
  virtual bool Open(int32_t width, int32_t height) = 0;

  // Decodes one frame's payload; see the contract above.
  virtual uint8_t* Decode(const uint8_t* data, int32_t length, int32_t* outputLength) = 0;

  // The most recent output, without decoding anything.
  virtual uint8_t* Picture() = 0;

  // Destroys the object and frees it. The same for every member.
  virtual void Release() final;
};

// Release for a pointer that may be null: does nothing on null.
void ReleaseDecoder(Decoder* decoder);

// Keys of the factory: the FourCC of a video header, read as a little-endian
// number, and the audio key.
constexpr uint32_t DECODER_KEY_H264 = FOURCC_H264;
constexpr uint32_t DECODER_KEY_H265 = FOURCC_H265;
constexpr uint32_t DECODER_KEY_HEVC = FOURCC_HEVC;  // the same member as H265
constexpr uint32_t DECODER_KEY_G264 = FOURCC_G264;
constexpr uint32_t DECODER_KEY_AVS0 = FOURCC_AVS0;
constexpr uint32_t DECODER_KEY_JPEG = FOURCC_JPEG;
constexpr uint32_t DECODER_KEY_G726 = G726_RECORD_TYPE;

// A new, not yet opened member for (video, key), or null for an unknown pair
// or when memory runs out. The AVS and JPEG members bind their plugin here; a
// missing plugin is reported but still gives an object.
Decoder* CreateDecoder(bool video, uint32_t key);

// Whether CreateDecoder knows (video, key), without making a member.
bool HasDecoder(bool video, uint32_t key);
