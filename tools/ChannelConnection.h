// ChannelConnection: the client's side of a live channel (ChannelProtocol):
// connect, ask for the channel, read the answer, and hand over the socket at
// the first byte of the stream's header block.
#pragma once

#include <chrono>
#include <string>

// How long a connection and the server's answer may take.
constexpr std::chrono::milliseconds CHANNEL_CONNECT_TIMEOUT{5000};

// Connects to the channel `url` names (see ParseChannelUrl) within `timeout`
// for each step (name lookup aside), trying each address the name has. The
// connected socket (blocking, close-on-exec), its next byte the first of the
// header block; or -1 with one line in `error`: the system's reason
// ("Connection refused"), a timeout, or the server's refusal ("404 no
// channel 'x'"). The caller closes the socket. Any thread.
int ConnectToChannel(const char* url, std::chrono::milliseconds timeout, std::string* error);
