#include "Options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Command.h"

namespace {

// A whole decimal number from `minimum` to INT32_MAX, and nothing else.
bool ParseWholeNumber(const char* text, uint32_t minimum, uint32_t* value) {
  if (*text < '0' || *text > '9') return false;
  char* end = nullptr;
  errno = 0;
  unsigned long long number = std::strtoull(text, &end, 10);
  if (errno != 0 || *end != '\0' || number < minimum || number > INT32_MAX) return false;
  *value = static_cast<uint32_t>(number);
  return true;
}

// Whole decimal digits at `*text`, at least one; advances `*text`.
bool ParseDigits(const char** text, uint64_t* value, int* count) {
  *value = 0;
  *count = 0;
  for (; **text >= '0' && **text <= '9' && *count < 12; ++*text, ++*count)
    *value = *value * 10 + static_cast<uint64_t>(**text - '0');
  return *count > 0;
}

}  // namespace

bool ParseTime(const char* text, uint32_t* milliseconds) {
  uint64_t fields[3] = {};
  int fieldCount = 0;
  int digits = 0;
  for (;;) {
    if (fieldCount == 3 || !ParseDigits(&text, &fields[fieldCount++], &digits)) return false;
    if (*text != ':') break;
    ++text;
  }
  uint64_t fraction = 0;  // milliseconds
  if (*text == '.') {
    ++text;
    uint64_t value;
    if (!ParseDigits(&text, &value, &digits) || digits > 3) return false;
    fraction = value * (digits == 1 ? 100 : digits == 2 ? 10 : 1);
  }
  if (*text != '\0') return false;
  uint64_t seconds = 0;
  for (int i = 0; i < fieldCount; ++i) {
    if (i > 0 && fields[i] >= 60) return false;  // minutes and seconds below a larger field
    seconds = seconds * 60 + fields[i];
  }
  const uint64_t total = seconds * 1000 + fraction;
  if (total > INT32_MAX) return false;
  *milliseconds = static_cast<uint32_t>(total);
  return true;
}

namespace {

const OptionSpec* FindSpec(const OptionSpec* specs, size_t count, const char* name) {
  for (size_t i = 0; i < count; ++i)
    if (std::strcmp(specs[i].name, name) == 0) return &specs[i];
  return nullptr;
}

// Stores the value of `rule` from `text`; false if it does not parse.
bool StoreValue(const OptionSpec& rule, const char* text) {
  switch (rule.kind) {
    case OptionKind::FLAG:
      *static_cast<bool*>(rule.value) = true;
      return true;
    case OptionKind::TEXT:
      *static_cast<const char**>(rule.value) = text;
      return *text != '\0';
    case OptionKind::COUNT:
      return ParseWholeNumber(text, 1, static_cast<uint32_t*>(rule.value));
    case OptionKind::NUMBER:
      return ParseWholeNumber(text, 0, static_cast<uint32_t*>(rule.value));
    case OptionKind::TIME:
      return ParseTime(text, static_cast<uint32_t*>(rule.value));
  }
  return false;
}

bool g_overwrite = false;

// The options every command takes; true if `argument` was one.
bool ParseCommonOption(const char* argument) {
  if (std::strcmp(argument, "-y") == 0 || std::strcmp(argument, "--overwrite") == 0) {
    g_overwrite = true;
    return true;
  }
  if (std::strcmp(argument, "-n") == 0 || std::strcmp(argument, "--no-overwrite") == 0) {
    g_overwrite = false;
    return true;
  }
  return false;
}

}  // namespace

bool OverwriteAllowed() { return g_overwrite; }

bool ParseOptions(const char* command, int argc, char** argv, const OptionSpec* specs,
                  size_t specCount, const char** positional, int minPositional,
                  int maxPositional) {
  int positionals = 0;
  for (int i = 0; i < argc; ++i) {
    const char* argument = argv[i];
    if (argument[0] != '-' || argument[1] == '\0') {
      if (positionals == maxPositional) {
        return StepFailed(command, "unexpected argument '%s' (see --help)", argument);
      }
      positional[positionals++] = argument;
      continue;
    }
    if (ParseCommonOption(argument)) continue;
    // "--name=value" is "--name value".
    const char* equals = std::strncmp(argument, "--", 2) == 0 ? std::strchr(argument, '=') : nullptr;
    const std::string name = equals ? std::string(argument, equals) : std::string(argument);
    const OptionSpec* rule = FindSpec(specs, specCount, name.c_str());
    if (rule == nullptr) {
      return StepFailed(command, "unknown option '%s' (see --help)", name.c_str());
    }
    const char* text = equals ? equals + 1 : nullptr;
    if (rule->kind == OptionKind::FLAG && equals) {
      return StepFailed(command, "%s takes no value", name.c_str());
    }
    if (rule->kind != OptionKind::FLAG && !equals) {
      if (i + 1 == argc) {
        return StepFailed(command, "%s needs a value", argument);
      }
      text = argv[++i];
    }
    if (!StoreValue(*rule, text)) {
      return StepFailed(command, "bad value '%s' for %s", text, name.c_str());
    }
  }
  if (positionals < minPositional) {
    return StepFailed(command, "missing arguments (see --help)");
  }
  return true;
}
