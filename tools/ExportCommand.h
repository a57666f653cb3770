// tqfplay export FILE OUT.mp4|OUT.mkv: the video remuxed without
// re-encoding, the G.726 audio decoded (AAC in MP4, PCM in MKV).
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>

#include "Command.h"
#include "MediaSource.h"

extern const Command EXPORT_COMMAND;

enum class ExportFormat { MP4, MKV, WAV };  // WAV: the audio alone

struct ExportSummary {
  uint32_t videoPackets = 0;
  double videoSeconds = 0;
  int64_t audioSamples = 0;
  bool timedByStamps = false;
};

// The video frames to export: [first, end) of the file, from the first key
// frame at or after `first`. A range that ends before the file's last frame
// cuts the audio at the end of the last picture.
struct ExportRange {
  uint32_t first = 0;
  uint32_t end = UINT32_MAX;
};

// Writes `range` of `source` to `path` ("-": standard output) in `format`: refused when
// it is one of `inputs` or exists (without --overwrite), or when there is no
// format (an MP4 or MKV name was not given); written to a temporary file
// that takes its place only when whole. False with a one-line `error`
// otherwise. For export and audio.
bool ExportMedia(MediaSource& source, const char* path, std::initializer_list<const char*> inputs,
                 std::optional<ExportFormat> format, ExportSummary* summary, std::string* error,
                 ExportRange range = {});

// The format an output's name asks for (".mp4", ".mkv", any case); none for
// another name.
std::optional<ExportFormat> ExportFormatOf(const char* path);
