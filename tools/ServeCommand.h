// tqfplay serve FILE... [--port N] [--bind ADDR]
// Serves TQF files over TCP as live cameras, one channel per file.
#pragma once

#include "Command.h"

extern const Command SERVE_COMMAND;
