#include "Command.h"

#include <cctype>
#include <cinttypes>
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

std::string Count(uint64_t n, const char* noun) {
  return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
}
