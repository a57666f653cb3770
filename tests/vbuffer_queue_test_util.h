// Helpers shared by the VBufferQueue tests.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "Diagnostics.h"
#include "VBufferQueue.h"

// A queue opened on a caller's buffer of `size` bytes, so that the tests know
// where every block lands: the base is buffer.data().
struct QueueOnBuffer {
  explicit QueueOnBuffer(int32_t size = 1000, int32_t track = 0)
      : buffer(static_cast<size_t>(size)), queue(1, track) {
    EXPECT_EQ(1, queue.Open(size, "test", B(), 4));
  }
  // Reservations and holds left by a test would keep the closing destructor
  // waiting; Clear lets them go.
  ~QueueOnBuffer() { queue.Clear(); }
  uint8_t* B() { return buffer.data(); }
  // Reserves at the tail, fills every byte with `fill`, commits; the data
  // pointer, or null when the reservation failed.
  uint8_t* Push(int32_t size, uint8_t fill = 0, uint32_t user = 0, int32_t evict = 0) {
    uint8_t* p = queue.PrepareNewBufferAtTail(size, evict, nullptr);
    if (p == nullptr) return nullptr;
    std::memset(p, fill, static_cast<size_t>(size));
    EXPECT_EQ(1, queue.NewBufferAtTail(p, -1, user, 1, 0));
    return p;
  }
  uint8_t* PushHead(int32_t size, uint8_t fill = 0, uint32_t user = 0) {
    uint8_t* p = queue.PrepareNewBufferAtHead(size, 0, nullptr);
    if (p == nullptr) return nullptr;
    std::memset(p, fill, static_cast<size_t>(size));
    EXPECT_EQ(1, queue.NewBufferAtHead(p, -1, user, 1, 0));
    return p;
  }
  std::vector<uint8_t> buffer;
  VBufferQueue queue;
};

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

// A notification that records (key, event, size, user) as text.
struct EventLog {
  static std::vector<std::string>& Lines() {
    static std::vector<std::string> lines;
    return lines;
  }
  static void Record(VBufferQueue*, VBufNotifyKey key, int32_t event, uint8_t*, int32_t size,
                     uint32_t user) {
    Lines().push_back(std::to_string(key) + ":" + std::to_string(event) + ":" +
                      std::to_string(size) + ":" + std::to_string(user));
  }
};
