// tqfplay stream FILE [--chunk BYTES | --random-chunks [--seed N]]
//                     [--record OUT.tqf [--record-after SECONDS]]
//                     [--y4m OUT] [--png DIR [--every N]] [--realtime]
// Feeds a TQF file to the library as a live stream.
#pragma once

#include "Command.h"

extern const Command STREAM_COMMAND;
