// Fuzzes the live parser: the first bytes choose where the rest is cut into
// chunks, which are fed to a playing stream with no decoder (its worker drains
// the queues). The parser must neither read nor write outside its buffers.
#include <cstdint>
#include <vector>

#include "PlayerManager.h"
#include "StreamPlayer.h"

namespace {

// A stream header block: one 40-byte descriptor record, 352x288, no decoder.
std::vector<uint8_t> Header() {
  std::vector<uint8_t> h(64, 0);
  const uint8_t head[] = {'T', 'Q', 'F', '0', 56, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0,
                          'X', 'V', 'I', 'D', 40, 0, 0, 0, 40, 0, 0, 0, 0x60, 1, 0, 0,
                          0x20, 1, 0, 0, 1, 0, 12, 0, 'X', 'V', 'I', 'D'};
  for (size_t i = 0; i < sizeof head; ++i) h[i] = head[i];
  return h;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static PlayerManager manager;
  static int32_t handle = [] {
    const std::vector<uint8_t> header = Header();
    int32_t h = -1;
    manager.OpenStream(header.data(), static_cast<uint32_t>(header.size()), &h);
    manager.Play(h, nullptr, 0);
    return h;
  }();
  if (size < 2) return 0;
  const size_t cut = 1 + (data[0] | data[1] << 8) % 4096;
  for (size_t at = 2; at < size; at += cut) {
    const size_t n = size - at < cut ? size - at : cut;
    manager.InputData(handle, data + at, static_cast<int32_t>(n));
  }
  return 0;
}
