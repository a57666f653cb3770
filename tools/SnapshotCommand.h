// tqfplay snapshot FILE --at TIME OUT.png|OUT.jpg [--every SECONDS]: the
// picture the library gives at a time, or a series of them.
#pragma once

#include "Command.h"

extern const Command SNAPSHOT_COMMAND;
