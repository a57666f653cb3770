// Performance sites: per-function counters of completed runs and of time
// stamp counter cycles, kept in a process-wide table keyed by (name, module).
// A site costs two counter reads and two atomic additions per run, and a table
// lookup only on the first run of its function.
//
//   void COSPoll::AddHandle(...) {
//     PERFORMANCE_SITE("COSPoll::AddHandle()");
//     ...
//   }
//
// The run is counted at every exit, also when an exception leaves the function.
#pragma once

#include <atomic>
#include <cstdint>

#include "OSTime.h"

struct PerformanceSite {
  std::atomic<uint64_t> calls{0};
  std::atomic<uint64_t> cycles{0};
};

// The record of (name, module), made on first request and alive for the
// process; the same record for every caller. Never null.
PerformanceSite* YCCRT_API_GetPerformanceSite(const char* name, const char* module);

// The record if it was ever requested, else null. Does not make one.
PerformanceSite* FindPerformanceSite(const char* name, const char* module);

// Start-up call of the runtime the sites come from; does nothing here.
int32_t YCCRT_API_init();

// Counts one run of the enclosing function into its site.
class PerformanceScope {
 public:
  PerformanceScope(std::atomic<PerformanceSite*>& slot, const char* name, const char* module)
      : site_(slot.load(std::memory_order_acquire)) {
    if (site_ == nullptr) {
      site_ = YCCRT_API_GetPerformanceSite(name, module);
      slot.store(site_, std::memory_order_release);
    }
    start_ = ReadTimeStampCounter();
  }
  ~PerformanceScope() {
    uint64_t spent = ReadTimeStampCounter() - start_;
    site_->calls.fetch_add(1, std::memory_order_relaxed);
    site_->cycles.fetch_add(spent, std::memory_order_relaxed);
  }
  PerformanceScope(const PerformanceScope&) = delete;
  PerformanceScope& operator=(const PerformanceScope&) = delete;

 private:
  PerformanceSite* site_;
  uint64_t start_;
};

#define PERFORMANCE_SITE_CONCAT2(a, b) a##b
#define PERFORMANCE_SITE_CONCAT(a, b) PERFORMANCE_SITE_CONCAT2(a, b)
// A site of the toolkit, module "codelib".
#define PERFORMANCE_SITE(name)                                                         \
  static std::atomic<PerformanceSite*> PERFORMANCE_SITE_CONCAT(performanceSlot_, __LINE__){nullptr}; \
  PerformanceScope PERFORMANCE_SITE_CONCAT(performanceScope_, __LINE__)(                \
      PERFORMANCE_SITE_CONCAT(performanceSlot_, __LINE__), name, "codelib")
