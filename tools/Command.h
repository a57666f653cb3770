// The subcommands of tqfplay: one entry per subcommand in the table of
// tqfplay.cpp. The tool handles --help for every entry by printing its
// usage; `run` gets the arguments after the subcommand's name.
#pragma once

#include <cstdint>
#include <string>

struct Command {
  const char* name;
  const char* summary;  // one line for the tool's own help
  const char* synopsis;  // "play FILE [--y4m OUT.y4m] ...": the usage line after "tqfplay "
  const char* usage;     // the rest of the subcommand's --help text
  int (*run)(int argc, char** argv);
};

// Exit codes shared by all subcommands.
constexpr int EXIT_USAGE = 2;  // wrong arguments; a failure of the work itself is 1

// Prints "tqfplay <command>: <message>" as one line on stderr and gives 1,
// the exit code of a failed command.
int CommandError(const char* command, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
// The same line, for a step that reports success: gives false.
bool StepFailed(const char* command, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// A FourCC as its four letters ("H264"), or as 0x%08X when one of them does
// not print or is a quote or backslash (so that the text fits in JSON as is).
std::string FourCCText(uint32_t value);

// Whether `path` ends in `extension` (".mp4"), in any case (".MP4").
bool HasExtension(const char* path, const char* extension);

// A count and its noun: "1 record", "2 records".
std::string Count(uint64_t n, const char* noun);
