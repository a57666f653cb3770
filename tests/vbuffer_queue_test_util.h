// Helpers shared by the VBufferQueue tests.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "Diagnostics.h"
#include "VBufferQueue.h"

// A locked queue on a caller's buffer, so the tests know where blocks land.
struct QueueOnBuffer {
  explicit QueueOnBuffer(int32_t size = 1000, int32_t track = 0)
      : buffer(static_cast<size_t>(size)), queue(1, track) {
    EXPECT_EQ(1, queue.Open(size, "test", B(), 4));
  }
  ~QueueOnBuffer() { queue.Clear(); }  // holds left behind would keep Close waiting
  uint8_t* B() { return buffer.data(); }
  // Reserves `size` bytes at the tail, fills them with `fill` and commits;
  // the data pointer, or null when the reservation failed.
  uint8_t* Push(int32_t size, uint8_t fill = 0, uint32_t user = 0, int32_t evict = 0) {
    uint8_t* p = queue.PrepareNewBufferAtTail(size, evict, nullptr);
    if (p == nullptr) return nullptr;
    std::memset(p, fill, static_cast<size_t>(size));
    EXPECT_EQ(1, queue.NewBufferAtTail(p, -1, user, 1, 0));
    return p;
  }
  std::vector<uint8_t> buffer;
  VBufferQueue queue;
};

// Several results for one check; a braced list evaluates its calls in order.
inline std::vector<int64_t> V(std::initializer_list<int64_t> values) { return values; }

// Collects assertion reports and answers "ignore" while it lives.
struct ReportCatcher {
  ReportCatcher() { SetAssertHandler(&ReportCatcher::Catch, this); }
  ~ReportCatcher() { SetAssertHandler(nullptr, nullptr); }
  static int32_t Catch(const char* report, void* context) {
    static_cast<ReportCatcher*>(context)->reports.emplace_back(report);
    return IDIGNORE;
  }
  std::vector<std::string> reports;
};
