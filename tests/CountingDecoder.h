// A stand-in video decoder for player tests: records the id of every payload
// it is given (its first two bytes, little-endian; see IdPayload) and returns
// a picture that starts with the same two bytes.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "Decoder.h"

class CountingDecoder : public Decoder {
 public:
  CountingDecoder(int32_t w, int32_t h) { CountingDecoder::Open(w, h); }
  bool IsVideo() override { return true; }
  bool Open(int32_t w, int32_t h) override {
    picture_.assign(size_t(w) * h * 3 / 2, 0);
    return true;
  }
  uint8_t* Decode(const uint8_t* data, int32_t length, int32_t*) override {
    std::lock_guard<std::mutex> guard(mutex_);
    ids_.push_back(length >= 2 ? data[0] | data[1] << 8 : -1);
    decodes.store(int(ids_.size()));
    if (length < 2 || picture_.size() < 2) return nullptr;
    std::copy(data, data + 2, picture_.begin());
    return picture_.data();
  }
  uint8_t* Picture() override { return picture_.data(); }
  // The payload id of every Decode since the last Forget (-1 for a payload under 2 bytes).
  std::vector<int> Ids() {
    std::lock_guard<std::mutex> guard(mutex_);
    return ids_;
  }
  void Forget() {
    std::lock_guard<std::mutex> guard(mutex_);
    ids_.clear();
    decodes.store(0);
  }

  std::atomic<int> decodes{0};

 private:
  std::mutex mutex_;
  std::vector<int> ids_;
  std::vector<uint8_t> picture_;
};
