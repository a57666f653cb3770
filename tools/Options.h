// Table-driven option parsing for the subcommands: each entry names an
// option and the variable its value goes to; the other arguments are
// positional. Errors are one line on stderr through CommandError.
#pragma once

#include <cstddef>
#include <cstdint>

enum class OptionKind {
  FLAG,     // bool*: set to true
  TEXT,     // const char**: the next argument
  COUNT,    // uint32_t*: the next argument, a whole number from 1 to 2^31 - 1
  NUMBER,   // uint32_t*: the next argument, a whole number from 0 to 2^31 - 1
  TIME,     // uint32_t*: milliseconds, from seconds with a fraction ("90", "1.5"),
            // MM:SS or HH:MM:SS.mmm
};

// A time as TIME options take it: "90", "1.5", "01:30", "00:01:30.500". False
// for anything else, or beyond 2^31 - 1 milliseconds.
bool ParseTime(const char* text, uint32_t* milliseconds);

struct OptionSpec {
  const char* name;  // with its dashes: "--y4m"
  OptionKind kind;
  void* value;
};

// Every command also takes -y (or --overwrite): outputs that exist are
// replaced; and -n (or --no-overwrite): they are refused, which is the
// default. The last of them given wins.
bool OverwriteAllowed();

// Options are given as "--name value" or "--name=value".
// Parses argv (without the subcommand's name) into `specs` and between
// `minPositional` and `maxPositional` positional arguments, stored in order
// in `positional` (which holds maxPositional pointers). False, after one line
// on stderr, for an unknown option, a missing or bad value, or a wrong count
// of positional arguments.
bool ParseOptions(const char* command, int argc, char** argv, const OptionSpec* specs,
                  size_t specCount, const char** positional, int minPositional,
                  int maxPositional);
