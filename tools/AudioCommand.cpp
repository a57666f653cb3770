// tqfplay audio: stream 1 decoded by the library's G.726 module, frame after
// frame with one running state, into a 16-bit mono WAV file at 8 kHz.
#include "AudioCommand.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "MediaSource.h"
#include "Options.h"
#include "OutputFile.h"

namespace {

constexpr const char NAME[] = "audio";

#pragma pack(push, 1)
struct WavHeader {
  char riff[4];
  uint32_t riffSize;  // file size - 8
  char wave[4];
  char fmt[4];
  uint32_t fmtSize;  // 16
  uint16_t formatTag;  // 1: PCM
  uint16_t channels;
  uint32_t sampleRate;
  uint32_t byteRate;
  uint16_t blockAlign;
  uint16_t bitsPerSample;
  char data[4];
  uint32_t dataSize;
};
#pragma pack(pop)
static_assert(sizeof(WavHeader) == 44);

WavHeader MakeWavHeader(uint32_t dataBytes) {
  WavHeader h;
  std::memcpy(h.riff, "RIFF", 4);
  h.riffSize = dataBytes + sizeof(WavHeader) - 8;
  std::memcpy(h.wave, "WAVE", 4);
  std::memcpy(h.fmt, "fmt ", 4);
  h.fmtSize = 16;
  h.formatTag = 1;
  h.channels = 1;
  h.sampleRate = G726_SAMPLE_RATE;
  h.byteRate = G726_SAMPLE_RATE * sizeof(int16_t);
  h.blockAlign = sizeof(int16_t);
  h.bitsPerSample = 16;
  std::memcpy(h.data, "data", 4);
  h.dataSize = dataBytes;
  return h;
}

// Writes the WAV: a header, the samples, then the header again with the sizes.
bool WriteWav(MediaSource& source, FILE* file, uint64_t* samples) {
  WavHeader header = MakeWavHeader(0);
  if (std::fwrite(&header, sizeof header, 1, file) != 1) return false;
  std::vector<int16_t> pcm;
  uint64_t bytes = 0;
  while (source.NextAudio(&pcm)) {
    if (std::fwrite(pcm.data(), sizeof(int16_t), pcm.size(), file) != pcm.size()) return false;
    bytes += pcm.size() * sizeof(int16_t);
    if (bytes > UINT32_MAX - sizeof header) return false;  // beyond what WAV can hold
  }
  header = MakeWavHeader(static_cast<uint32_t>(bytes));
  *samples = bytes / sizeof(int16_t);
  return std::fseek(file, 0, SEEK_SET) == 0 && std::fwrite(&header, sizeof header, 1, file) == 1;
}

int RunAudio(int argc, char** argv) {
  const char* paths[2] = {};
  if (!ParseOptions(NAME, argc, argv, nullptr, 0, paths, 2, 2)) return EXIT_USAGE;
  MediaSource source;
  std::string error;
  if (!source.Open(paths[0], &error)) return CommandError(NAME, "%s", error.c_str());
  if (!source.HasAudio()) return CommandError(NAME, "%s has no G.726 audio", paths[0]);
  OutputFile output;
  if (!output.Prepare(paths[1], {paths[0]}, WriteAccess::SEEKING, &error)) return CommandError(NAME, "%s", error.c_str());
  FILE* file = std::fopen(output.WritePath(), "wb");
  if (file == nullptr) return CommandError(NAME, "cannot write %s: %s", paths[1], std::strerror(errno));
  uint64_t samples = 0;
  bool written = WriteWav(source, file, &samples);
  if (std::fclose(file) != 0 || !written) return CommandError(NAME, "writing %s failed", paths[1]);
  if (!output.Commit(&error)) return CommandError(NAME, "%s", error.c_str());
  std::fprintf(stderr, "%s: %s: %llu samples, %.2f s at %d Hz\n", NAME, paths[1],
              static_cast<unsigned long long>(samples), samples / double{G726_SAMPLE_RATE},
              G726_SAMPLE_RATE);
  return 0;
}

}  // namespace

extern const Command AUDIO_COMMAND = {
    NAME, "decode the G.726 audio to a WAV file",
    "audio FILE OUT.wav",
    "Decodes the audio stream with the library's G.726 decoder (32 kbit/s, one\n"
    "running state across frames) to 16-bit mono PCM at 8000 Hz in a WAV file.\n",
    RunAudio,
};
