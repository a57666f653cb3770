// tqfplay info FILE [--json]: what a TQF file holds, as the reader sees it.
#pragma once

#include "Command.h"

extern const Command INFO_COMMAND;
