// G726: ITU-T G.726 ADPCM at 32 kbit/s (four-bit codes) with 16-bit linear
// PCM, by the standard's integer algorithm in signed 32-bit words.
//
// Codes are packed two to a byte, the first in the low four bits. A decoded
// sample is the reconstructed signal times 4, clamped to the 16-bit range;
// the state keeps the unclamped signal. There is no A-law or mu-law stage.
// The state runs on from one call to the next, so a stream cut into blocks at
// any byte gives the same samples as in one piece.
#pragma once

#include <cstdint>

// The audio G.726 carries here: 8000 samples a second, mono.
constexpr int32_t G726_SAMPLE_RATE = 8000;

// The standard's state, 24 words in this order; no word is cut to 16 bits.
struct G726State {
  int32_t ap;     // speed control parameter
  int32_t yl;     // slow quantizer scale factor
  int32_t yu;     // fast quantizer scale factor
  int32_t dms;    // short-term average of the coded magnitude
  int32_t dml;    // long-term average of the coded magnitude
  int32_t td;     // tone detect, delayed
  int32_t pk[2];  // signs of the last two partial reconstructions, 1 negative
  int32_t b[6];   // zero predictor coefficients
  int32_t a[2];   // pole predictor coefficients
  int32_t dq[6];  // last six quantized differences, in the standard's float form
  int32_t sr[2];  // last two reconstructed signals, in the same form
};
static_assert(sizeof(G726State) == 24 * sizeof(int32_t));

// The standard's reset values.
void G726Reset(G726State* state);

// One four-bit code (the low four bits of `code`) to one sample.
int16_t G726DecodeCode(G726State* state, int32_t code);

// `length` bytes to 2 * length samples at `out`. Nothing for length <= 0.
void G726DecodeBlock(G726State* state, const uint8_t* in, int32_t length, int16_t* out);

// `codeCount` codes (two a byte, low nibble first) to every second sample
// place of `out`, as one channel of interleaved stereo. Gives the bytes of
// `out` spanned, 4 * codeCount (0 for a count <= 0).
int32_t G726DecodeBlockToChannel(G726State* state, const uint8_t* in, int32_t codeCount, int16_t* out);

// One sample to one four-bit code, by the standard's encoder.
int32_t G726EncodeSample(G726State* state, int16_t sample);

// Mono PCM of `lengthBytes` bytes, one output byte for each pair of samples
// (a last odd sample is left alone). Gives the bytes written.
int32_t G726EncodeBlock(G726State* state, const int16_t* in, int32_t lengthBytes, uint8_t* out);

// Channel `channel` (0 the first, 1 the second sample of each pair) of
// interleaved two-channel PCM: `sampleCount` samples of that channel, one
// output byte for each two of them. Gives the bytes written; 0 for any other
// channel number.
int32_t G726EncodeChannel(G726State* state, const int16_t* in, int32_t sampleCount, int32_t channel,
                          uint8_t* out);
