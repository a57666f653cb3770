#include "PerformanceSite.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace {

using SiteKey = std::pair<std::string, std::string>;

std::mutex g_sitesMutex;

// Never destroyed: sites are used until the process ends, exit handlers
// included.
std::map<SiteKey, std::unique_ptr<PerformanceSite>>& Sites() {
  static auto* sites = new std::map<SiteKey, std::unique_ptr<PerformanceSite>>;
  return *sites;
}

}  // namespace

PerformanceSite* YCCRT_API_GetPerformanceSite(const char* name, const char* module) {
  std::lock_guard<std::mutex> guard(g_sitesMutex);
  auto& slot = Sites()[SiteKey(name, module)];
  if (!slot) slot = std::make_unique<PerformanceSite>();
  return slot.get();
}

PerformanceSite* FindPerformanceSite(const char* name, const char* module) {
  std::lock_guard<std::mutex> guard(g_sitesMutex);
  auto it = Sites().find(SiteKey(name, module));
  return it == Sites().end() ? nullptr : it->second.get();
}

int32_t YCCRT_API_init() { return 0; }
