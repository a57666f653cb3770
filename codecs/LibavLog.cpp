#include "LibavLog.h"

#include <cstdarg>
#include <mutex>

extern "C" {
#include <libavutil/log.h>
}

#include "Diagnostics.h"

namespace {

void ForwardLine(void* component, int level, const char* format, va_list arguments) {
  if (level > av_log_get_level()) return;
  // Whether the next piece starts a line, as libav's own callback tracks it.
  thread_local int startsLine = 1;
  char line[1024];
  av_log_format_line2(component, level, format, arguments, line, sizeof line, &startsLine);
  OutputDebugStringA(line);
}

}  // namespace

void RouteLibavLogToDebugSink() {
  static std::once_flag routed;
  std::call_once(routed, [] { av_log_set_callback(ForwardLine); });
}
