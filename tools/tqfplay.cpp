// tqfplay: tools for TQF media, one subcommand per entry of the table below.
#include <cstdio>
#include <cstring>

#include "AudioCommand.h"
#include "ClipCommand.h"
#include "Command.h"
#include "ExportCommand.h"
#include "ImportCommand.h"
#include "InfoCommand.h"
#include "PlayCommand.h"
#include "ServeCommand.h"
#include "SnapshotCommand.h"
#include "StreamCommand.h"
#include "ViewCommand.h"

namespace {

const Command* const COMMANDS[] = {
    &INFO_COMMAND,
    &IMPORT_COMMAND,
    &PLAY_COMMAND,
    &STREAM_COMMAND,
    &SERVE_COMMAND,
    &VIEW_COMMAND,
    &EXPORT_COMMAND,
    &CLIP_COMMAND,
    &SNAPSHOT_COMMAND,
    &AUDIO_COMMAND,
};

bool IsHelpOption(const char* argument) {
  return std::strcmp(argument, "--help") == 0 || std::strcmp(argument, "-h") == 0;
}

void PrintToolHelp(FILE* out) {
  std::fprintf(out, "usage: tqfplay COMMAND [ARGS...]\n\ncommands:\n");
  for (const Command* command : COMMANDS)
    std::fprintf(out, "  %-8s %s\n", command->name, command->summary);
  std::fprintf(out,
               "\nEvery command takes -y (--overwrite) to replace outputs that exist, and -n\n"
               "(--no-overwrite, the default) to refuse them. 'tqfplay COMMAND --help'\n"
               "describes a command; 'tqfplay --version' gives the version.\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    PrintToolHelp(stderr);
    return EXIT_USAGE;
  }
  if (std::strcmp(argv[1], "--version") == 0) {
    std::printf("tqfplay %s\n", TQF_VERSION);
    return 0;
  }
  if (IsHelpOption(argv[1])) {
    PrintToolHelp(stdout);
    return 0;
  }
  for (const Command* command : COMMANDS) {
    if (std::strcmp(argv[1], command->name) != 0) continue;
    for (int i = 2; i < argc; ++i) {
      if (IsHelpOption(argv[i])) {
        std::printf("usage: tqfplay %s\n\n%s", command->synopsis, command->usage);
        return 0;
      }
    }
    return command->run(argc - 2, argv + 2);
  }
  std::fprintf(stderr, "tqfplay: unknown command '%s' (try 'tqfplay --help')\n", argv[1]);
  return EXIT_USAGE;
}
