// Builds TQF bytes for tests: header blocks, records and frames.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace tqftest {

using Bytes = std::vector<uint8_t>;

inline void PutLE32(Bytes& b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

inline uint32_t FourCC(const char* text) {
  return static_cast<uint32_t>(static_cast<uint8_t>(text[0])) |
         static_cast<uint32_t>(static_cast<uint8_t>(text[1])) << 8 |
         static_cast<uint32_t>(static_cast<uint8_t>(text[2])) << 16 |
         static_cast<uint32_t>(static_cast<uint8_t>(text[3])) << 24;
}

// The 40-byte media descriptor.
inline Bytes Descriptor(uint32_t compression, int32_t width, int32_t height) {
  Bytes d;
  PutLE32(d, 40);
  PutLE32(d, static_cast<uint32_t>(width));
  PutLE32(d, static_cast<uint32_t>(height));
  PutLE32(d, 0x000C0001);  // planes 1, 12 bits per pixel
  PutLE32(d, compression);
  d.resize(40, 0);
  return d;
}

struct Record {
  uint32_t type;
  Bytes payload;
};

// A header block: magic, headerLength, reserved, count, then the records.
// `countOverride` and `lengthDelta` make malformed blocks.
inline Bytes Header(const std::vector<Record>& records, int64_t countOverride = -1,
                    int32_t lengthDelta = 0) {
  Bytes body;
  for (const Record& r : records) {
    PutLE32(body, r.type);
    PutLE32(body, static_cast<uint32_t>(r.payload.size()));
    body.insert(body.end(), r.payload.begin(), r.payload.end());
  }
  Bytes h = {'T', 'Q', 'F', '0'};
  PutLE32(h, static_cast<uint32_t>(8 + body.size() + lengthDelta));
  PutLE32(h, 0);
  PutLE32(h, countOverride >= 0 ? static_cast<uint32_t>(countOverride)
                                : static_cast<uint32_t>(records.size()));
  h.insert(h.end(), body.begin(), body.end());
  return h;
}

// The header block of a recording: one 40-byte descriptor record.
inline Bytes VideoHeader(const char* fourcc, int32_t width, int32_t height) {
  return Header({{FourCC(fourcc), Descriptor(FourCC(fourcc), width, height)}});
}

constexpr uint32_t KEY = 0x100;

inline uint32_t Info(uint32_t length, uint32_t flags, uint32_t stream) {
  return length << 12 | flags | stream;
}

// One frame: sync, info, stamp, payload.
inline Bytes Frame(uint32_t info, uint32_t stamp, const Bytes& payload) {
  Bytes f = {0x55, 0xAA, 0xA5, 0x5A};
  PutLE32(f, info);
  PutLE32(f, stamp);
  f.insert(f.end(), payload.begin(), payload.end());
  return f;
}

// A payload of `n` bytes that does not end in eight zero bytes.
inline Bytes Payload(uint32_t n, uint8_t seed = 1) {
  Bytes p(n);
  for (uint32_t i = 0; i < n; ++i) p[i] = static_cast<uint8_t>(seed + i * 7 + 1);
  if (n > 0) p[n - 1] = 0xEE;
  return p;
}

// A payload that carries `id` in its first two bytes (little-endian), for
// tests that follow frames through decoders and callbacks.
inline Bytes IdPayload(uint32_t n, uint16_t id) {
  Bytes p = Payload(n, static_cast<uint8_t>(id));
  p[0] = static_cast<uint8_t>(id);
  p[1] = static_cast<uint8_t>(id >> 8);
  return p;
}

inline Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

}  // namespace tqftest
