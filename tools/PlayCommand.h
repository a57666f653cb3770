// tqfplay play FILE [--y4m OUT] [--png DIR [--every N]] [--start SECONDS]
//                   [--realtime] [--timeout SECONDS]
// Plays a TQF file through the library's exported interface.
#pragma once

#include "Command.h"

extern const Command PLAY_COMMAND;
