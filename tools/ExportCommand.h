// tqfplay export FILE OUT.mp4|OUT.mkv: the video remuxed without
// re-encoding, the G.726 audio decoded (AAC in MP4, PCM in MKV).
#pragma once

#include "Command.h"

extern const Command EXPORT_COMMAND;
