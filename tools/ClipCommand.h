// tqfplay clip FILE OUT.tqf|OUT.mp4|OUT.mkv --from T --to T [--exact]: a time
// range cut without re-encoding, or with the head of its first group of
// pictures re-encoded (ExactStart) so that it starts on the picture at --from.
#pragma once

#include <cstdint>
#include <string>

#include "Command.h"
#include "MediaSource.h"

extern const Command CLIP_COMMAND;

// The video frames of a clip, in file order: [first, end); and the time its
// pictures cover, [startMs, endMs), in the clock the audio is matched on:
// the stamps when the video is timed by them, else 40 ms a frame from the
// start of the file (where the audio starts too).
struct ClipRange {
  uint32_t first;
  uint32_t end;
  uint32_t shown;  // the frame shown at the start time
  int64_t shownMs;  // ...and when, in the same clock as startMs
  int64_t startMs;
  int64_t endMs;
  bool timedByStamps;
};

// The frames that cover [fromMs, toMs) of `source`'s video, times counted
// from its first picture: from the key frame at or before the picture shown
// at `fromMs` (`shown`), up to the first frame from which on every picture is shown at
// `toMs` or later (the end of the file when `toMs` lies past it). Times are
// 40 ms a frame, or the stamps when VideoTimeline takes them for
// milliseconds. False with a message when `fromMs` is not before `toMs` or
// lies past the last picture, or no key frame precedes it.
bool FindClipRange(const MediaSource& source, uint32_t fromMs, uint32_t toMs, ClipRange* range,
                   std::string* error);
