// G726Decoder against the ffmpeg tool's g726le decoder on the same bytes: one
// hour of 32 kbit/s G.726 (a tone encoded by the tool), 14.4 MB. Ours decodes
// 320-byte frames through the Decoder interface; the tool runs
// `-threads 1 ... -f null -`, its process start included. Best of three runs
// each. Target: ours at least as fast as the tool.
#include <cstdio>

#include "../tests/CodecTestSupport.h"
#include "BenchSupport.h"
#include "Decoder.h"

int main() {
  const std::string path = BenchMedia(
      "g726_1h.g726",
      "-f lavfi -i sine=frequency=440:sample_rate=8000:duration=3600 -c:a g726le -code_size 4 -ar 8000 -f g726le");
  const std::vector<uint8_t> bytes = ReadWholeFile(path);
  if (bytes.size() < 320) {
    std::printf("bench_g726_decode: no usable sample at %s\n", path.c_str());
    return 1;
  }
  constexpr size_t FRAME = 320;
  int64_t checksum = 0;
  const double ours = BestOf(3, [&] {
    Decoder* decoder = CreateDecoder(false, DECODER_KEY_G726);
    if (decoder == nullptr) return -1.0;
    checksum = 0;
    const auto start = std::chrono::steady_clock::now();
    for (size_t at = 0; at + FRAME <= bytes.size(); at += FRAME) {
      const auto* pcm = reinterpret_cast<const int16_t*>(decoder->Decode(bytes.data() + at, FRAME, nullptr));
      checksum += pcm[FRAME];
    }
    const double seconds = SecondsSince(start);
    decoder->Release();
    return seconds;
  });
  const double theirs = BestOf(3, [&] {
    return TimeCommand(std::string(TQF_FFMPEG) + " -v error -nostdin -threads 1 -f g726le -code_size 4 -sample_rate 8000 -i '" +
                       path + "' -f null -");
  });
  if (ours < 0 || theirs < 0) {
    std::printf("bench_g726_decode: a run failed\n");
    return 1;
  }
  const double samples = double(bytes.size() / FRAME * FRAME) * 2;
  std::printf("bench_g726_decode: %.1f M samples (%.0f s of audio), checksum %lld\n", samples / 1e6, samples / 8000,
              static_cast<long long>(checksum));
  std::printf("  G726Decoder          %8.3f s  %6.1f M samples/s\n", ours, samples / ours / 1e6);
  std::printf("  ffmpeg g726le        %8.3f s  %6.1f M samples/s\n", theirs, samples / theirs / 1e6);
  std::printf("  ratio ours/ffmpeg    %8.3f  (target <= 1.0)\n", ours / theirs);
  return 0;
}
