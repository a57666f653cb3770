// Fuzzes the file player: the input is a whole file (a damaged recording),
// opened, sought to a second that its first byte chooses, played for a few
// frames into a callback that is slow now and then, sought again, closed.
#include <atomic>
#include <cstdint>

#include "FilePlayer.h"
#include "FuzzSupport.h"
#include "PlayerManager.h"

namespace {

std::atomic<int> g_pictures{0};

int32_t Count(int32_t handle, uint8_t* picture, int32_t size, int32_t width, int32_t height,
              uint32_t stamp, int32_t format, int32_t rate, uint32_t user) {
  ++g_pictures;
  return fuzzing::SlowCallback(handle, picture, size, width, height, stamp, format, rate, user);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static PlayerManager manager;
  static const bool quiet = (fuzzing::QuietLibrary(), true);
  (void)quiet;
  if (size == 0) return 0;
  fuzzing::MemoryFile file(data, size);
  int32_t handle = -1;
  if (!file.ok() || manager.OpenFile(file.path().c_str(), &handle) != 0) return 0;
  manager.SetPlayTime(handle, data[0] % 4);
  g_pictures = 0;
  manager.Play(handle, Count, 0);
  // A few frames, or the end of the file, or 50 ms.
  auto* player = static_cast<FilePlayer*>(manager.Lookup(handle)->player);
  for (int waited = 0; waited < 50 && g_pictures.load() < 4 && player->playing.load(); ++waited) Sleep(1);
  manager.SetPlayTime(handle, data[size - 1] % 3);
  manager.CloseFile(handle);
  return 0;
}
