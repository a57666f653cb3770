// tqfplay audio FILE OUT.wav: the G.726 audio decoded to a WAV file.
#pragma once

#include "Command.h"

extern const Command AUDIO_COMMAND;
