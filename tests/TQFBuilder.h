// Builds TQF bytes for tests: header blocks, records and frames.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "TQFFormat.h"

namespace tqftest {

using Bytes = std::vector<uint8_t>;

inline void PutLE32(Bytes& b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

inline uint32_t FourCC(const char* text) { return MakeFourCC(text[0], text[1], text[2], text[3]); }

// The 40-byte media descriptor: one plane, 12 bits per pixel.
inline Bytes Descriptor(uint32_t compression, int32_t width, int32_t height) {
  Bytes d;
  for (uint32_t v : {TQF_MEDIA_DESCRIPTOR_SIZE, uint32_t(width), uint32_t(height), 0x000C0001u, compression})
    PutLE32(d, v);
  d.resize(TQF_MEDIA_DESCRIPTOR_SIZE, 0);
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
    for (uint32_t v : {r.type, static_cast<uint32_t>(r.payload.size())}) PutLE32(body, v);  // record head
    body.insert(body.end(), r.payload.begin(), r.payload.end());
  }
  Bytes h;
  for (uint32_t v : {TQF_FILE_MAGIC, uint32_t(TQF_EMPTY_HEADER_LENGTH + body.size() + lengthDelta), 0u,
                     uint32_t(countOverride >= 0 ? countOverride : int64_t(records.size()))})
    PutLE32(h, v);
  h.insert(h.end(), body.begin(), body.end());
  return h;
}

// The header block of a recording: one 40-byte descriptor record.
inline Bytes VideoHeader(const char* fourcc, int32_t width, int32_t height) {
  return Header({{FourCC(fourcc), Descriptor(FourCC(fourcc), width, height)}});
}

constexpr uint32_t KEY = TQF_INFO_KEY_FRAME;

inline uint32_t Info(uint32_t length, uint32_t flags, uint32_t stream) {
  return MakeFrameInfo(length, (flags & KEY) != 0, stream);
}

// One frame: sync, info, stamp, payload.
inline Bytes Frame(uint32_t info, uint32_t stamp, const Bytes& payload) {
  Bytes f;
  for (uint32_t v : {uint32_t(TQF_FRAME_SYNC), info, stamp}) PutLE32(f, v);
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
  p[0] = static_cast<uint8_t>(id), p[1] = static_cast<uint8_t>(id >> 8);
  return p;
}

// A payload of `n` bytes counting up from `first`.
inline Bytes Counting(uint32_t n, uint8_t first = 1) {
  Bytes p(n);
  for (uint32_t i = 0; i < n; ++i) p[i] = static_cast<uint8_t>(first + i);
  return p;
}

// A header block of records with these payload lengths: the first of type
// "H264", the others of types 101, 102...; each payload counts up from its
// number. `countOverride` writes another record count.
inline Bytes RecordsHeader(const std::vector<uint32_t>& lengths, int64_t countOverride = -1) {
  std::vector<Record> records;
  for (size_t i = 0; i < lengths.size(); ++i)
    records.push_back({i == 0 ? FOURCC_H264 : 100 + static_cast<uint32_t>(i),
                       Counting(lengths[i], static_cast<uint8_t>(i))});
  return Header(records, countOverride);
}

inline Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

}  // namespace tqftest
