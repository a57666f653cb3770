#include "Diagnostics.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <mutex>
#include <signal.h>
#include <unistd.h>

#include "OSTime.h"
#include "SpinLock.h"

namespace {

constexpr int MAX_PATH = 260;

void DefaultSink(const char* line, void*) {
  static const bool enabled = [] {
    const char* v = getenv("TQF_DEBUG");
    return v != nullptr && *v != '\0';
  }();
  if (enabled) fputs(line, stderr);
}

int32_t DefaultAssertHandler(const char* report, void*) {
  fprintf(stderr, "%s\n", report);
  return IDIGNORE;
}

// The sink and the handler, each with its context, replaced as pairs.
std::mutex g_channelMutex;
DebugSink g_sink = DefaultSink;
void* g_sinkContext = nullptr;
AssertHandler g_handler = DefaultAssertHandler;
void* g_handlerContext = nullptr;

bool TracerAttached() {
  FILE* f = fopen("/proc/self/status", "r");
  if (!f) return false;
  char line[256];
  long tracer = 0;
  while (fgets(line, sizeof line, f)) {
    if (strncmp(line, "TracerPid:", 10) == 0) {
      tracer = strtol(line + 10, nullptr, 10);
      break;
    }
  }
  fclose(f);
  return tracer != 0;
}

// " arg1 arg2 ..." from the process's command line, cut at 511 characters.
void BuildArgumentLine(char* out, size_t size) {
  out[0] = '\0';
  FILE* f = fopen("/proc/self/cmdline", "rb");
  if (!f) return;
  char buffer[4096];
  size_t n = fread(buffer, 1, sizeof buffer - 1, f);
  fclose(f);
  buffer[n] = '\0';
  size_t used = 0;
  bool first = true;
  for (size_t i = 0; i < n; i += strlen(buffer + i) + 1) {
    if (first) {  // the program's own name is not an argument
      first = false;
      continue;
    }
    int w = snprintf(out + used, size - used, " %s", buffer + i);
    if (w < 0 || static_cast<size_t>(w) >= size - used) break;
    used += static_cast<size_t>(w);
  }
}

bool IsSeparator(char c) { return c == '/' || c == '\\'; }

}  // namespace

void SetDebugSink(DebugSink sink, void* context) {
  std::lock_guard<std::mutex> guard(g_channelMutex);
  g_sink = sink ? sink : DefaultSink;
  g_sinkContext = sink ? context : nullptr;
}

void SetAssertHandler(AssertHandler handler, void* context) {
  std::lock_guard<std::mutex> guard(g_channelMutex);
  g_handler = handler ? handler : DefaultAssertHandler;
  g_handlerContext = handler ? context : nullptr;
}

void OutputDebugStringA(const char* line) {
  DebugSink sink;
  void* context;
  {
    std::lock_guard<std::mutex> guard(g_channelMutex);
    sink = g_sink;
    context = g_sinkContext;
  }
  sink(line ? line : "", context);
}

void DebugPrint(const char* format, ...) {
  char buffer[2048];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  OutputDebugStringA(buffer);
}

int32_t ShowMessageBox(const char* text, const char*, uint32_t) {
  AssertHandler handler;
  void* context;
  {
    std::lock_guard<std::mutex> guard(g_channelMutex);
    handler = g_handler;
    context = g_handlerContext;
  }
  return handler(text, context);
}

void BreakIntoDebugger() {
  if (TracerAttached()) raise(SIGTRAP);
}

const char* GetSelfModulePath() {
  static char path[PATH_MAX];
  static volatile int32_t filled = 0;
  static volatile int32_t word = 0;
  if (__atomic_load_n(&filled, __ATOMIC_ACQUIRE)) return path;
  SpinLockAcquire(&word, 0);
  if (!__atomic_load_n(&filled, __ATOMIC_ACQUIRE)) {
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(&GetSelfModulePath), &info) && info.dli_fname) {
      char resolved[4096];
      const char* name = realpath(info.dli_fname, resolved) ? resolved : info.dli_fname;
      snprintf(path, sizeof path, "%s", name);
    }
    __atomic_store_n(&filled, 1, __ATOMIC_RELEASE);
  }
  SpinLockRelease(&word);
  return path;
}

void ShortenPathForReport(const char* path, char* out) {
  size_t length = strlen(path);
  if (length <= 54) {
    snprintf(out, 64, "%s", path);
    return;
  }
  const char* kept = path + length - 40;
  for (size_t i = length - 50; i <= length - 41; ++i) {
    if (IsSeparator(path[i])) {
      kept = path + i;
      break;
    }
  }
  snprintf(out, 64, "...%s", kept);
}

int ReportAssertion(const char* file, int32_t line, const char* expression,
                    const char* format, ...) {
  const int savedError = errno;

  char shortFile[64];
  ShortenPathForReport(file ? file : "", shortFile);

  char arguments[512];
  BuildArgumentLine(arguments, sizeof arguments);

  char exe[MAX_PATH];
  char shortExe[64];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n <= 0) {
    snprintf(shortExe, sizeof shortExe, "unknown exe");
  } else {
    exe[n] = '\0';
    ShortenPathForReport(exe, shortExe);
  }

  char shortModule[64];
  const char* module = GetSelfModulePath();
  if (*module == '\0')
    snprintf(shortModule, sizeof shortModule, "unknown module");
  else
    ShortenPathForReport(module, shortModule);

  char text[512];
  const char* open = "";
  const char* close = "";
  text[0] = '\0';
  if (format != nullptr && *format != '\0') {
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    open = "(";
    close = ")";
  }

  char message[1024];
  const uint32_t tid = GetCurrentThreadId();
  snprintf(message, sizeof message,
           "Debug Assertion Failed%s%s%s!\n\nPID: %d, TID: %d(0x%08X)\nProgram: \"%s%s\"\n"
           "Module: \"%s\"\n\nFile: \"%s(%d)\"\nExpression: (%s)\n\n"
           "(Press Retry to debug the application)",
           open, text, close, static_cast<int>(GetCurrentProcessId()), static_cast<int>(tid),
           tid, shortExe, arguments, shortModule, shortFile, line,
           expression ? expression : "");

  int32_t answer = ShowMessageBox(message, "Brisk Debug Lib - (Version: RELEASE)", 0x12);
  errno = savedError;
  if (answer == IDRETRY) return 1;
  if (answer == IDIGNORE) return 0;
  fflush(nullptr);
  _exit(255);
}
