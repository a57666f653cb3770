// tqfplay view [--stream] [--start SECONDS] [--autoexit] SOURCE...: an SDL2
// window that shows the pictures of 1 to 16 files or live sources at 25 a
// second, one alone or several in a grid.
#pragma once

#include "Command.h"

extern const Command VIEW_COMMAND;
