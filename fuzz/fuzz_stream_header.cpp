// Fuzzes the opening of a live stream: any bytes as the header block. A
// header that opens gets a frame fed and is closed again.
#include <cstdint>

#include "FuzzSupport.h"
#include "PlayerManager.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static PlayerManager manager;
  static const bool quiet = (fuzzing::QuietLibrary(), true);
  (void)quiet;
  int32_t handle = -1;
  if (manager.OpenStream(data, static_cast<uint32_t>(size), &handle) != 0) return 0;
  manager.Play(handle, fuzzing::SlowCallback, 0);
  const uint8_t frame[] = {0x55, 0xAA, 0xA5, 0x5A, 0x00, 0x41, 0x00, 0x00, 0, 0, 0, 0,
                           0x00, 0x00, 0x00, 0x01};  // a key frame of 4 bytes
  manager.InputData(handle, frame, sizeof frame);
  manager.CloseStream(handle);
  return 0;
}
