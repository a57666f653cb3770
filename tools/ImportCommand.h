// tqfplay import INPUT OUTPUT.tqf [--audio]: any H.264, H.265 or Motion JPEG
// media that libavformat opens, rewritten as a TQF file.
#pragma once

#include "Command.h"

extern const Command IMPORT_COMMAND;
