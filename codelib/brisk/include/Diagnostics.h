// The program's ways of telling about itself, outside the host interface:
//   - the assertion report, a text with three outcomes (abort, retry, ignore)
//     handed to the process-wide assertion handler;
//   - debug lines, handed as they are to the process-wide debug sink.
//
// Default sink: silent, unless the environment variable TQF_DEBUG is set and
// non-empty, then every line goes to stderr. Default assertion handler: the
// report goes to stderr and the answer is "ignore".
#pragma once

#include <cstdint>

typedef void (*DebugSink)(const char* line, void* context);
typedef int32_t (*AssertHandler)(const char* report, void* context);

constexpr int32_t IDABORT = 3;
constexpr int32_t IDRETRY = 4;
constexpr int32_t IDIGNORE = 5;

// Null restores the defaults. Safe from any thread at any time.
void SetDebugSink(DebugSink sink, void* context);
void SetAssertHandler(AssertHandler handler, void* context);

// One debug line, passed to the sink exactly as given (newline included).
void OutputDebugStringA(const char* line);

// Formats into 2048 bytes (cut there) and passes the text to OutputDebugStringA.
void DebugPrint(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Builds the report of a failed assertion at `file`(`line`) on `expression`,
// with the text of `format` (null or empty: none) in brackets in its title,
// and hands it to the assertion handler. Retry gives 1 (the caller breaks into
// the debugger with BreakIntoDebugger), ignore gives 0, and any other answer
// ends the process with exit code 255. The caller's last error (errno) is kept.
int ReportAssertion(const char* file, int32_t line, const char* expression,
                    const char* format, ...);

// Hands `text` to the assertion handler and returns its answer; `caption` and
// `flags` are those of a message box and are not shown.
int32_t ShowMessageBox(const char* text, const char* caption, uint32_t flags);

// Raises SIGTRAP when a debugger is attached to the process; else nothing.
void BreakIntoDebugger();

// The path of the module (shared library or program) that holds this code,
// filled once; empty if it cannot be found.
const char* GetSelfModulePath();

// The display form of a path in the report: whole up to 54 characters; of a
// longer one, "..." and the part from the first separator ('/' or '\') among
// the 50th last to the 41st last character, or else the last 40 characters.
// `out` holds at least 64 bytes.
void ShortenPathForReport(const char* path, char* out);

// The assertion pattern of the program: report, break into the debugger on
// retry, and go on in every case.
#define BRISK_ASSERT_AT(file, line, condition, format, ...)                              \
  do {                                                                                   \
    if (!(condition) && ReportAssertion(file, line, #condition, format, ##__VA_ARGS__)) \
      BreakIntoDebugger();                                                               \
  } while (0)

// An unconditional report, for the sites whose expression is "false".
#define BRISK_REPORT_AT(file, line, format, ...)                          \
  do {                                                                    \
    if (ReportAssertion(file, line, "false", format, ##__VA_ARGS__)) \
      BreakIntoDebugger();                                                \
  } while (0)
