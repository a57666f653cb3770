// Fuzzes the tool's readers of foreign and damaged files: byte 0 chooses
// `info` (text or JSON) on the rest as a TQF file, or `import` of the rest as
// any media libavformat opens, into a TQF file that is then shown by `info`.
#include <cstdint>
#include <cstdio>
#include <string>

#include "FuzzSupport.h"
#include "ImportCommand.h"
#include "InfoCommand.h"

namespace {

int Run(const Command& command, std::initializer_list<std::string> arguments) {
  std::vector<std::string> words(arguments);
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  return command.run(static_cast<int>(argv.size()), argv.data());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = (fuzzing::QuietLibrary(), true);
  (void)quiet;
  if (size < 1) return 0;
  fuzzing::MemoryFile input(data + 1, size - 1);
  if (!input.ok()) return 0;
  switch (data[0] % 3) {
    case 0: Run(INFO_COMMAND, {input.path()}); break;
    case 1: Run(INFO_COMMAND, {input.path(), "--json"}); break;
    default: {
      const std::string output = fuzzing::ScratchPath("import.tqf");
      if (Run(IMPORT_COMMAND, {input.path(), output, "--audio"}) == 0) Run(INFO_COMMAND, {output});
      std::remove(output.c_str());
    }
  }
  return 0;
}
