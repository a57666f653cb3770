#include "G726.h"

#include <algorithm>
#include <bit>

namespace {

// The standard's tables for 32 kbit/s, indexed by the four-bit code and
// mirrored so that entry i equals entry 15 - i; codes 0 and 15 are the lowest
// interval, bit 3 is the sign.
constexpr int16_t LOG_QUANTIZER_OUTPUT[16] = {-2048, 4,   135, 213, 273, 323, 373, 425,
                                              425,   373, 323, 273, 213, 135, 4,   -2048};
// Scale factor multipliers W(I), 4 fractional bits; shifted left by 5 in use.
constexpr int16_t SCALE_MULTIPLIER[16] = {-12, 18,  41,  64,  112, 198, 355, 1122,
                                          1122, 355, 198, 112, 64,  41,  18,  -12};
// Speed control weights F(I), shifted left by 9.
constexpr int16_t SPEED_WEIGHT[16] = {0,     0,     0,     0x200, 0x200, 0x200, 0x600, 0xE00,
                                      0xE00, 0x600, 0x200, 0x200, 0x200, 0,     0,     0};
// Decision levels of the log quantizer, for the encoder.
constexpr int32_t DECISION_LEVELS[7] = {-124, 80, 178, 246, 300, 349, 400};

// Number of bits of a magnitude below 2^15: the index of the first power of
// two above it.
int32_t BitLength(int32_t value) {
  const int32_t bits = static_cast<int32_t>(std::bit_width(static_cast<uint32_t>(value)));
  return bits < 15 ? bits : 15;
}

// The standard's floating multiply of a predictor coefficient (shifted right
// by 2) with a value in the float form (6-bit mantissa, 4-bit exponent, sign
// as bit 10).
int32_t FloatMultiply(int32_t coefficient, int32_t floating) {
  const int32_t magnitude = coefficient > 0 ? coefficient : (-coefficient) & 0x1FFF;
  const int32_t bits = BitLength(magnitude);
  const int32_t mantissa = magnitude == 0 ? 32 : (magnitude << 6) >> bits;  // 6 bits, normalised
  const int32_t productExponent = bits + ((floating >> 6) & 0xF) - 19;
  const int32_t productMantissa = (mantissa * (floating & 0x3F) + 0x30) >> 4;
  const int32_t product = productExponent >= 0 ? (productMantissa << productExponent) & 0x7FFF
                                               : productMantissa >> -productExponent;
  return (coefficient ^ floating) < 0 ? -product : product;
}

// The float form: 4-bit exponent, 6-bit mantissa, and negative values
// offset by -0x400, so that the word is negative as a whole. A negative zero
// is 0x20 - 0x400 (the standard's 16-bit 0xFC20, sign-extended).
constexpr int32_t NEGATIVE_FLOAT_ZERO = 0x20 - 0x400;

int32_t ToFloat(int32_t magnitude, bool negative) {
  if (magnitude == 0) return negative ? NEGATIVE_FLOAT_ZERO : 0x20;
  const int32_t exponent = BitLength(magnitude);
  const int32_t floating = (exponent << 6) + ((magnitude << 6) >> exponent);
  return negative ? floating - 0x400 : floating;
}

int32_t ZeroPrediction(const G726State* s) {
  int32_t sum = 0;
  for (int i = 0; i < 6; ++i) sum += FloatMultiply(s->b[i] >> 2, s->dq[i]);
  return sum;
}

int32_t PolePrediction(const G726State* s) {
  return FloatMultiply(s->a[1] >> 2, s->sr[1]) + FloatMultiply(s->a[0] >> 2, s->sr[0]);
}

// Quantizer scale factor y: the fast and slow factors mixed under ap.
int32_t ScaleFactor(const G726State* s) {
  if (s->ap >= 256) return s->yu;
  int32_t y = s->yl >> 6;
  const int32_t difference = s->yu - y;
  const int32_t weight = s->ap >> 2;
  if (difference > 0)
    y += (difference * weight) >> 6;
  else if (difference < 0)
    y += (difference * weight + 0x3F) >> 6;
  return y;
}

// The quantized difference from a log-domain output and the scale factor;
// with the sign set it is the magnitude minus 0x8000.
int32_t Reconstruct(bool negative, int32_t logOutput, int32_t y) {
  const int32_t logValue = logOutput + (y >> 2);
  if (logValue < 0) return negative ? -0x8000 : 0;
  const int32_t exponent = (logValue >> 7) & 15;
  const int32_t mantissa = 128 + (logValue & 127);
  const int32_t dq = (mantissa << 7) >> (14 - exponent);
  return negative ? dq - 0x8000 : dq;
}

// The difference d quantized against the decision levels by the scale factor.
int32_t Quantize(int32_t d, int32_t y) {
  const int32_t magnitude = d < 0 ? -d : d;
  const int32_t exponent = BitLength(magnitude >> 1);
  const int32_t mantissa = ((magnitude << 7) >> exponent) & 0x7F;
  const int32_t logValue = (exponent << 7) + mantissa - (y >> 2);
  int32_t interval = 0;
  while (interval < 7 && logValue >= DECISION_LEVELS[interval]) ++interval;
  if (d < 0) return 15 - interval;
  return interval == 0 ? 15 : interval;
}

// The standard's adaptation blocks, for four-bit codes.
// Transition detector: a large difference while a tone was detected.
bool DetectTransition(const G726State* s, int32_t magnitude) {
  const int32_t ylInteger = s->yl >> 15;
  const int32_t ylFraction = (s->yl >> 10) & 0x1F;
  const int32_t threshold1 = (32 + ylFraction) << ylInteger;
  const int32_t threshold2 = ylInteger > 9 ? 31 << 10 : threshold1;
  const int32_t dqThreshold = (threshold2 + (threshold2 >> 1)) >> 1;
  return s->td != 0 && magnitude > dqThreshold;
}

// Scale factor adaptation: the fast factor, limited, and the slow one after it.
void AdaptScaleFactor(G726State* s, int32_t y, int32_t code) {
  const int32_t scaleMultiplier = SCALE_MULTIPLIER[code] << 5;
  s->yu = std::clamp(y + ((scaleMultiplier - y) >> 5), 544, 5120);
  s->yl += s->yu + ((-s->yl) >> 6);
}

// The second pole coefficient, leaked, moved by the signs and limited.
int32_t NextA2(const G726State* s, int32_t pk0, int32_t dqsez) {
  int32_t a2 = s->a[1] - (s->a[1] >> 7);
  if (dqsez == 0) return a2;
  const int32_t f = pk0 ^ s->pk[0] ? s->a[0] : -s->a[0];
  if (f < -8191)
    a2 -= 0x100;
  else if (f > 8191)
    a2 += 0xFF;
  else
    a2 += f >> 5;
  if (pk0 ^ s->pk[1]) {
    if (a2 <= -12160) return -12288;
    if (a2 >= 12416) return 12288;
    return a2 - 0x80;
  }
  if (a2 <= -12416) return -12288;
  if (a2 >= 12160) return 12288;
  return a2 + 0x80;
}

// Pole predictor adaptation: both coefficients, the first limited by the
// second. Returns the new second coefficient.
int32_t UpdatePolePredictor(G726State* s, int32_t pk0, int32_t dqsez) {
  const int32_t a2 = NextA2(s, pk0, dqsez);
  s->a[1] = a2;
  s->a[0] -= s->a[0] >> 8;
  if (dqsez != 0) s->a[0] += (pk0 ^ s->pk[0]) == 0 ? 192 : -192;
  const int32_t a1Limit = 15360 - a2;
  s->a[0] = std::clamp(s->a[0], -a1Limit, a1Limit);
  return a2;
}

// Zero predictor adaptation: each coefficient leaks and follows the sign of
// its difference against the new one.
void UpdateZeroPredictor(G726State* s, int32_t dq, int32_t magnitude) {
  for (int i = 0; i < 6; ++i) {
    s->b[i] -= s->b[i] >> 8;
    if (magnitude != 0) s->b[i] += (dq ^ s->dq[i]) >= 0 ? 128 : -128;
  }
}

// The delay lines: differences, reconstructed signals and signs.
void ShiftHistory(G726State* s, int32_t dq, int32_t magnitude, int32_t sr, int32_t pk0) {
  for (int i = 5; i > 0; --i) s->dq[i] = s->dq[i - 1];
  s->dq[0] = ToFloat(magnitude, dq < 0);
  s->sr[1] = s->sr[0];
  s->sr[0] = sr > -32768 ? ToFloat(sr < 0 ? -sr : sr, sr < 0) : NEGATIVE_FLOAT_ZERO;
  s->pk[1] = s->pk[0];
  s->pk[0] = pk0;
}

// Speed control: the short and long averages of the code's weight, and the
// speed parameter they steer.
void ControlSpeed(G726State* s, int32_t y, int32_t code, bool transition) {
  const int32_t speedWeight = SPEED_WEIGHT[code];
  s->dms += (speedWeight - s->dms) >> 5;
  s->dml += ((speedWeight << 2) - s->dml) >> 7;
  if (transition) {
    s->ap = 256;
    return;
  }
  const int32_t spread = (s->dms << 2) - s->dml;
  const bool steady = (spread < 0 ? -spread : spread) < (s->dml >> 3);
  if (y < 1536 || s->td == 1 || !steady)
    s->ap += (0x200 - s->ap) >> 4;
  else
    s->ap += (-s->ap) >> 4;
}

void Update(G726State* s, int32_t y, int32_t code, int32_t dq, int32_t sr, int32_t dqsez) {
  const int32_t pk0 = dqsez < 0 ? 1 : 0;
  const int32_t magnitude = dq & 0x7FFF;
  const bool transition = DetectTransition(s, magnitude);
  AdaptScaleFactor(s, y, code);
  int32_t a2 = 0;
  if (transition) {
    for (int32_t& coefficient : s->a) coefficient = 0;
    for (int32_t& coefficient : s->b) coefficient = 0;
  } else {
    a2 = UpdatePolePredictor(s, pk0, dqsez);
    UpdateZeroPredictor(s, dq, magnitude);
  }
  ShiftHistory(s, dq, magnitude, sr, pk0);
  s->td = !transition && a2 < -11776 ? 1 : 0;  // tone detector
  ControlSpeed(s, y, code, transition);
}

struct Estimate {
  int32_t sez;  // partial estimate, from the zero predictor
  int32_t se;   // signal estimate
  int32_t y;    // scale factor
};

Estimate Predict(const G726State* s) {
  const int32_t zero = ZeroPrediction(s);
  return {zero >> 1, (zero + PolePrediction(s)) >> 1, ScaleFactor(s)};
}

// Reconstructs and adapts for `code`; gives the reconstructed signal.
int32_t Adapt(G726State* s, const Estimate& e, int32_t code) {
  const int32_t dq = Reconstruct((code & 8) != 0, LOG_QUANTIZER_OUTPUT[code], e.y);
  const int32_t sr = dq < 0 ? e.se - (dq & 0x3FFF) : e.se + dq;
  Update(s, e.y, code, dq, sr, sr - e.se + e.sez);
  return sr;
}

int16_t ToOutput(int32_t sr) {
  const int32_t sample = sr * 4;
  return static_cast<int16_t>(sample > 32767 ? 32767 : sample < -32768 ? -32768 : sample);
}

}  // namespace

void G726Reset(G726State* s) {
  *s = G726State{};
  s->yl = 34816;
  s->yu = 544;
  for (int32_t& word : s->dq) word = 32;
  for (int32_t& word : s->sr) word = 32;
}

int16_t G726DecodeCode(G726State* state, int32_t code) {
  return ToOutput(Adapt(state, Predict(state), code & 0xF));
}

void G726DecodeBlock(G726State* state, const uint8_t* in, int32_t length, int16_t* out) {
  for (int32_t i = 0; i < length; ++i) {
    *out++ = G726DecodeCode(state, in[i]);
    *out++ = G726DecodeCode(state, in[i] >> 4);
  }
}

int32_t G726DecodeBlockToChannel(G726State* state, const uint8_t* in, int32_t codeCount, int16_t* out) {
  if (codeCount <= 0) return 0;
  for (int32_t i = 0; i < codeCount; ++i) out[2 * i] = G726DecodeCode(state, in[i / 2] >> (4 * (i & 1)));
  return codeCount * 4;
}

int32_t G726EncodeSample(G726State* state, int16_t sample) {
  const Estimate e = Predict(state);
  const int32_t code = Quantize((sample >> 2) - e.se, e.y);
  Adapt(state, e, code);
  return code;
}

int32_t G726EncodeChannel(G726State* state, const int16_t* in, int32_t sampleCount, int32_t channel,
                          uint8_t* out) {
  if (channel != 0 && channel != 1) return 0;
  const int32_t bytes = sampleCount > 0 ? sampleCount / 2 : 0;
  for (int32_t i = 0; i < bytes; ++i) {
    const int32_t low = G726EncodeSample(state, in[4 * i + channel]);
    const int32_t high = G726EncodeSample(state, in[4 * i + 2 + channel]);
    out[i] = static_cast<uint8_t>(low | (high << 4));
  }
  return bytes;
}

int32_t G726EncodeBlock(G726State* state, const int16_t* in, int32_t lengthBytes, uint8_t* out) {
  const int32_t bytes = lengthBytes > 0 ? lengthBytes / 4 : 0;
  for (int32_t i = 0; i < bytes; ++i) {
    const int32_t low = G726EncodeSample(state, in[2 * i]);
    const int32_t high = G726EncodeSample(state, in[2 * i + 1]);
    out[i] = static_cast<uint8_t>(low | (high << 4));
  }
  return bytes;
}
