// tqfplay audio: stream 1 decoded by the library's G.726 module, frame after
// frame with one running state, into a 16-bit mono WAV file at 8 kHz, written
// by export's muxing through libavformat's wav muxer.
#include "AudioCommand.h"

#include <cstdio>
#include <string>

#include "ExportCommand.h"
#include "MediaSource.h"
#include "Options.h"

namespace {

constexpr const char NAME[] = "audio";

int RunAudio(int argc, char** argv) {
  const char* paths[2] = {};
  if (!ParseOptions(NAME, argc, argv, nullptr, 0, paths, 2, 2)) return EXIT_USAGE;
  MediaSource source;
  std::string error;
  if (!source.Open(paths[0], &error)) return CommandError(NAME, "%s", error.c_str());
  if (!source.HasAudio()) return CommandError(NAME, "%s has no G.726 audio", paths[0]);
  ExportSummary summary;
  if (!ExportMedia(source, paths[1], {paths[0]}, ExportFormat::WAV, &summary, &error))
    return CommandError(NAME, "%s", error.c_str());
  const uint64_t samples = static_cast<uint64_t>(summary.audioSamples);
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
