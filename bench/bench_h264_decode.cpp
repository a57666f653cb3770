// H264Decoder against the ffmpeg tool on the same 720p bitstream: x264 main
// profile, no B-frames, 2 Mbit/s, 1000 frames. Ours is payload by payload
// through the Decoder interface, the copy into the packed I420 picture
// included; the tool runs `-threads 1 -f null -`, its process start included.
// Best of three runs each. Target: ours at most 1.05 times the tool's time.
#include <cstdio>

#include "../tests/CodecTestSupport.h"
#include "BenchSupport.h"
#include "Decoder.h"

int main() {
  const std::string path = BenchMedia(
      "h264_720p_main_2M.h264",
      "-f lavfi -i testsrc2=size=1280x720:rate=25 -frames:v 1000 -c:v libx264 -profile:v main -bf 0 "
      "-b:v 2M -x264-params aud=1:repeat-headers=1 -pix_fmt yuv420p -f h264");
  const auto units = SplitAccessUnits(ReadWholeFile(path));
  if (units.size() != 1000) {
    std::printf("bench_h264_decode: no usable sample at %s\n", path.c_str());
    return 1;
  }
  int pictures = 0;
  const double ours = BestOf(3, [&] {
    Decoder* decoder = CreateDecoder(true, DECODER_KEY_H264);
    if (decoder == nullptr || !decoder->Open(1280, 720)) return -1.0;
    pictures = 0;
    const auto start = std::chrono::steady_clock::now();
    for (const auto& unit : units)
      if (decoder->Decode(unit.data(), int32_t(unit.size()), nullptr) != nullptr) ++pictures;
    const double seconds = SecondsSince(start);
    decoder->Release();
    return seconds;
  });
  const double theirs =
      BestOf(3, [&] { return TimeCommand(std::string(TQF_FFMPEG) + " -v error -nostdin -threads 1 -i '" + path + "' -f null -"); });
  if (ours < 0 || theirs < 0) {
    std::printf("bench_h264_decode: a run failed\n");
    return 1;
  }
  std::printf("bench_h264_decode: 1280x720, %zu payloads, %d pictures\n", units.size(), pictures);
  std::printf("  H264Decoder          %8.3f s  %7.1f frames/s  %6.2f ms/frame\n", ours, units.size() / ours,
              1000 * ours / units.size());
  std::printf("  ffmpeg -threads 1    %8.3f s  %7.1f frames/s  %6.2f ms/frame\n", theirs, units.size() / theirs,
              1000 * theirs / units.size());
  std::printf("  ratio ours/ffmpeg    %8.3f  (target <= 1.05)\n", ours / theirs);
  return 0;
}
