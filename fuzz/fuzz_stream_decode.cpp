// Fuzzes a live stream end to end with a real decoder: byte 0 chooses the
// codec (H.264, G264, JPEG, AVS, H.265), byte 1 where the rest is cut into chunks.
// The stream plays into a callback that is slow now and then, and records,
// so that the parser, the queues, the decoders under the fault guard, the
// worker and the recorder all meet the input.
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "PlayerManager.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static PlayerManager manager;
  static const bool quiet = (fuzzing::QuietLibrary(), true);
  static const std::string recording = fuzzing::ScratchPath("recording.tqf");
  (void)quiet;
  if (size < 2) return 0;
  const std::vector<uint8_t> header = fuzzing::StreamHeader(fuzzing::ChooseFourCC(data[0]));
  int32_t handle = -1;
  if (manager.OpenStream(header.data(), static_cast<uint32_t>(header.size()), &handle) != 0) return 0;
  manager.Play(handle, fuzzing::SlowCallback, 0);
  manager.StartRecord(handle, recording.c_str());
  fuzzing::InChunks(data + 2, size - 2, 1 + data[1] * 64u, [&](const uint8_t* chunk, size_t n) {
    manager.InputData(handle, chunk, static_cast<int32_t>(n));
  });
  manager.CloseStream(handle);  // drains nothing more: queued frames are dropped
  return 0;
}
