// tqfplay view [--stream] [--start SECONDS] [--autoexit] FILE: an SDL2 window
// that shows the pictures at 25 a second.
#pragma once

#include "Command.h"

extern const Command VIEW_COMMAND;
