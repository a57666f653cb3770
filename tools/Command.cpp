#include "Command.h"

#include <cstdarg>
#include <cstdio>

int CommandError(const char* command, const char* format, ...) {
  std::fprintf(stderr, "tqfplay %s: ", command);
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
  return 1;
}
