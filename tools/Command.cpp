#include "Command.h"

#include <cctype>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <strings.h>

namespace {

void PrintError(const char* command, const char* format, va_list arguments) {
  std::fprintf(stderr, "tqfplay %s: ", command);
  std::vfprintf(stderr, format, arguments);
  std::fputc('\n', stderr);
}

}  // namespace

int CommandError(const char* command, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  PrintError(command, format, arguments);
  va_end(arguments);
  return 1;
}

bool StepFailed(const char* command, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  PrintError(command, format, arguments);
  va_end(arguments);
  return false;
}

std::string FourCCText(uint32_t value) {
  char text[16];
  bool printable = true;
  for (int i = 0; i < 4; ++i) {
    text[i] = static_cast<char>(value >> (8 * i));
    printable = printable && std::isprint(static_cast<unsigned char>(text[i])) && text[i] != '"' &&
                text[i] != '\\';
  }
  if (printable) return std::string(text, 4);
  std::snprintf(text, sizeof text, "0x%08" PRIX32, value);
  return text;
}

bool HasExtension(const char* path, const char* extension) {
  const size_t n = std::strlen(path), m = std::strlen(extension);
  return n >= m && strcasecmp(path + n - m, extension) == 0;
}

std::string Count(uint64_t n, const char* noun) {
  return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
}
