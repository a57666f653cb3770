// Helpers shared by the tests of the waits, the poll set and the event thread.
#pragma once

#include <sys/resource.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "Diagnostics.h"
#include "OSTime.h"
#include "WaitableObject.h"

// A row of events, closed at the end of the scope.
struct EventRow {
  std::vector<HANDLE> handles;
  EventRow(int n, int manualReset) {
    for (int i = 0; i < n; ++i) handles.push_back(CreateEventA(nullptr, manualReset, 0, nullptr));
  }
  ~EventRow() { std::for_each(handles.begin(), handles.end(), CloseHandle); }
  bool AllMade() const { return std::find(handles.begin(), handles.end(), nullptr) == handles.end(); }
  HANDLE operator[](int i) const { return handles[static_cast<size_t>(i)]; }
  const HANDLE* data() const { return handles.data(); }
};

// Raises the descriptor limit so that `needed` objects fit.
inline bool EnsureDescriptors(rlim_t needed) {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  limit.rlim_cur = std::max(limit.rlim_cur, needed);
  return setrlimit(RLIMIT_NOFILE, &limit) == 0;  // fails past the hard limit
}

// A value that is not one of our handles, safe to test: its magic word is 0.
inline HANDLE FakeHandle() {
  static uint64_t fake[8] = {};
  return fake;
}

// Collects assertion reports (answered "ignore") and debug lines for its life.
class DiagnosticsCapture {
 public:
  DiagnosticsCapture() {
    SetAssertHandler(&OnReport, this);
    SetDebugSink(&OnLine, this);
  }
  ~DiagnosticsCapture() {
    SetAssertHandler(nullptr, nullptr);
    SetDebugSink(nullptr, nullptr);
  }
  std::vector<std::string> Reports() { std::lock_guard<std::mutex> guard(mutex_); return reports_; }
  std::vector<std::string> Lines() { std::lock_guard<std::mutex> guard(mutex_); return lines_; }

 private:
  static void Add(void* context, std::vector<std::string> DiagnosticsCapture::*list, const char* text) {
    auto* self = static_cast<DiagnosticsCapture*>(context);
    std::lock_guard<std::mutex> guard(self->mutex_);
    (self->*list).emplace_back(text);
  }
  static int32_t OnReport(const char* report, void* c) { return Add(c, &DiagnosticsCapture::reports_, report), IDIGNORE; }
  static void OnLine(const char* line, void* c) { Add(c, &DiagnosticsCapture::lines_, line); }
  std::mutex mutex_;
  std::vector<std::string> reports_, lines_;
};

// Entries of a /proc/self directory: threads ("task") or descriptors ("fd").
inline int CountProcEntries(const char* dir) {
  const std::string path = std::string("/proc/self/") + dir;
  auto entries = std::filesystem::directory_iterator(path);  // holds a descriptor of its own
  return static_cast<int>(std::distance(begin(entries), end(entries))) - (std::string(dir) == "fd");
}

// Polls `condition` every millisecond for up to `timeoutMs`.
template <class F>
bool WaitUntil(F condition, uint32_t timeoutMs = 20000) {
  for (uint32_t start = GetTickCount(); GetTickCount() - start < timeoutMs; Sleep(1))
    if (condition()) return true;
  return condition();
}
