#include "PerformanceSite.h"

#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

constexpr int MAX_SITES = 2048;
constexpr size_t MAX_KEY = 96;

// Sites live in fixed static storage: they are used until the process ends
// (exit handlers included), and a library unloaded by its host leaves no heap
// behind. Each record is found by a linear search, once per function.
struct SiteSlot {
  char name[MAX_KEY];
  char module[MAX_KEY];
  PerformanceSite site;
};

std::mutex g_sitesMutex;
SiteSlot g_sites[MAX_SITES];
int g_siteCount = 0;
PerformanceSite g_overflowSite;  // shared by every site past MAX_SITES

SiteSlot* FindLocked(const char* name, const char* module) {
  for (int i = 0; i < g_siteCount; ++i)
    if (strncmp(g_sites[i].name, name, MAX_KEY - 1) == 0 &&
        strncmp(g_sites[i].module, module, MAX_KEY - 1) == 0)
      return &g_sites[i];
  return nullptr;
}

}  // namespace

PerformanceSite* YCCRT_API_GetPerformanceSite(const char* name, const char* module) {
  std::lock_guard<std::mutex> guard(g_sitesMutex);
  if (SiteSlot* slot = FindLocked(name, module)) return &slot->site;
  if (g_siteCount == MAX_SITES) return &g_overflowSite;
  SiteSlot& slot = g_sites[g_siteCount++];
  snprintf(slot.name, sizeof slot.name, "%s", name);
  snprintf(slot.module, sizeof slot.module, "%s", module);
  return &slot.site;
}

PerformanceSite* FindPerformanceSite(const char* name, const char* module) {
  std::lock_guard<std::mutex> guard(g_sitesMutex);
  SiteSlot* slot = FindLocked(name, module);
  return slot ? &slot->site : nullptr;
}

int32_t YCCRT_API_init() { return 0; }
