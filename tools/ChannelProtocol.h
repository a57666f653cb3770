// ChannelProtocol: how a live TQF channel is asked for and answered over TCP.
//
// The exchange is a minimal HTTP/1.0 GET, so that any HTTP client can take a
// channel too (`curl -s http://HOST:PORT/1 | tqfplay stream -`):
//
//   client: "GET /CHANNEL HTTP/1.0\r\n" ... "\r\n"
//   server: "HTTP/1.0 200 OK\r\nContent-Type: video/x-tqf\r\n...\r\n\r\n",
//           then the header block and frames for as long as the connection
//           lasts; or a 400 or 404 status line with its reason, and the close.
//
// CHANNEL is a channel's number, counted from 1, or its name (the served
// file's name without its folder and its .tqf); an empty one is channel 1.
#pragma once

#include <cstdint>
#include <string>

// The longest request or response head read before it is refused.
constexpr size_t CHANNEL_HEAD_MAX = 4096;
constexpr uint16_t CHANNEL_DEFAULT_PORT = 9000;
constexpr const char CHANNEL_CONTENT_TYPE[] = "video/x-tqf";

// "tcp://HOST:PORT[/CHANNEL]" or "http://HOST[:PORT][/CHANNEL]" (port 80 by
// default for http, CHANNEL_DEFAULT_PORT for tcp). HOST may be a name, an
// IPv4 address or a bracketed IPv6 address.
struct ChannelAddress {
  std::string host;
  uint16_t port = CHANNEL_DEFAULT_PORT;
  std::string channel;  // without the slash; empty: channel 1
};

// Whether `text` names a channel by URL, as opposed to a file or a pipe.
bool IsChannelUrl(const char* text);
// Parses a URL as above. False, with the reason in `error`, for a URL that
// is not of those forms, a port outside 1..65535 or an empty host.
bool ParseChannelUrl(const char* url, ChannelAddress* address, std::string* error);
// The request the client sends for `address`.
std::string ChannelRequestText(const ChannelAddress& address);

// The end of a head: the index just past its blank line, or 0 while it is
// incomplete. Both "\r\n\r\n" and "\n\n" end a head.
size_t ChannelHeadEnd(const char* data, size_t size);
// The channel a request head asks for: false for anything but a GET with a
// path of one segment (the server answers 400).
bool ParseChannelRequest(const std::string& head, std::string* channel);
// A response head: 200 with the content type, or another status whose
// reason says why (the connection then closes).
std::string ChannelResponseText(int status, const std::string& reason);
// The status of a response head, and its reason; false when it is not a
// status line.
bool ParseChannelResponse(const std::string& head, int* status, std::string* reason);
