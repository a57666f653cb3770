#include "Exports.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>

#include <string>

#include "Diagnostics.h"

namespace {

constexpr const char* SOURCE = "codelib/brisk/include/Exports";

void* Load(const char* fileName) {
  char name[260];
  LibraryFileNameFor(fileName, name);
  if (strchr(name, '/') == nullptr) {
    const std::string self = GetSelfModulePath();
    const size_t slash = self.rfind('/');
    if (slash != std::string::npos) {
      const std::string beside = self.substr(0, slash + 1) + name;
      if (void* module = dlopen(beside.c_str(), RTLD_NOW | RTLD_LOCAL)) return module;
    }
  }
  return dlopen(name, RTLD_NOW | RTLD_LOCAL);
}

}  // namespace

void LibraryFileNameFor(const char* fileName, char* out) {
  size_t length = strlen(fileName);
  const char* base = fileName;
  for (const char* p = fileName; *p; ++p)
    if (*p == '/' || *p == '\\') base = p + 1;
  if (length > 4 && strcasecmp(fileName + length - 4, ".dll") == 0 && base == fileName) {
    int stem = static_cast<int>(length - 4);
    char lower[260];
    for (int i = 0; i < stem && i < 259; ++i)
      lower[i] = static_cast<char>(tolower(static_cast<unsigned char>(fileName[i])));
    lower[stem < 259 ? stem : 259] = '\0';
    snprintf(out, 260, "lib%s.so", lower);
  } else {
    snprintf(out, 260, "%s", fileName);
  }
}

Exports::Exports(const char* name) { snprintf(fileName, sizeof fileName, "%s", name); }

void* Exports::GetFunction(const char* name) {
  if (module == nullptr) module = Load(fileName);
  if (module == nullptr) {
    char text[260];
    snprintf(text, sizeof text, "Can't find \"%s\" called by \"%.256s\"", fileName,
             GetSelfModulePath());
    BRISK_REPORT_AT(SOURCE, 85, "%s", text);
    return nullptr;
  }
  void* function = dlsym(module, name);
  if (function == nullptr) {
    char text[260];
    snprintf(text, sizeof text, "Can't find \"%s\" in \"%s\"", name, fileName);
    BRISK_REPORT_AT(SOURCE, 100, "%s", text);
    return nullptr;
  }
  return function;
}
