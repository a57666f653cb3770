// The subcommands of tqfplay: one entry per subcommand in the table of
// tqfplay.cpp. The tool handles --help for every entry by printing its
// usage; `run` gets the arguments after the subcommand's name.
#pragma once

struct Command {
  const char* name;
  const char* summary;  // one line for the tool's own help
  const char* usage;    // the subcommand's --help text
  int (*run)(int argc, char** argv);
};

// Exit codes shared by all subcommands.
constexpr int EXIT_USAGE = 2;  // wrong arguments; a failure of the work itself is 1

// Prints "tqfplay <command>: <message>" as one line on stderr and gives 1.
int CommandError(const char* command, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
