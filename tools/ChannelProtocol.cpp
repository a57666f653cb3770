#include "ChannelProtocol.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr const char TCP_SCHEME[] = "tcp://";
constexpr const char HTTP_SCHEME[] = "http://";
constexpr uint16_t HTTP_DEFAULT_PORT = 80;

bool StartsWith(const char* text, const char* prefix) {
  return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

// "HOST[:PORT]" with HOST bracketed when it is an IPv6 address.
bool ParseAuthority(const std::string& authority, ChannelAddress* address, std::string* error) {
  size_t colon = std::string::npos;
  if (!authority.empty() && authority[0] == '[') {
    const size_t close = authority.find(']');
    if (close == std::string::npos) return *error = "no ']' after the IPv6 address", false;
    address->host = authority.substr(1, close - 1);
    if (close + 1 < authority.size()) {
      if (authority[close + 1] != ':') return *error = "text after the IPv6 address", false;
      colon = close + 1;
    }
  } else {
    colon = authority.rfind(':');
    address->host = authority.substr(0, colon);
  }
  if (address->host.empty()) return *error = "no host", false;
  if (colon == std::string::npos) return true;
  const std::string port = authority.substr(colon + 1);
  char* end = nullptr;
  const long value = std::strtol(port.c_str(), &end, 10);
  if (port.empty() || *end != '\0' || value < 1 || value > 65535)
    return *error = "the port '" + port + "' is not a number from 1 to 65535", false;
  address->port = static_cast<uint16_t>(value);
  return true;
}

}  // namespace

bool IsChannelUrl(const char* text) {
  return text != nullptr && (StartsWith(text, TCP_SCHEME) || StartsWith(text, HTTP_SCHEME));
}

bool ParseChannelUrl(const char* url, ChannelAddress* address, std::string* error) {
  const bool http = StartsWith(url, HTTP_SCHEME);
  if (!http && !StartsWith(url, TCP_SCHEME)) {
    *error = "not a tcp:// or http:// address";
    return false;
  }
  const std::string rest = url + std::strlen(http ? HTTP_SCHEME : TCP_SCHEME);
  const size_t slash = rest.find('/');
  *address = ChannelAddress();
  if (http) address->port = HTTP_DEFAULT_PORT;
  if (slash != std::string::npos) address->channel = rest.substr(slash + 1);
  if (address->channel.find_first_of("/ \r\n") != std::string::npos) {
    *error = "a channel is a number or a name, without '/' or spaces";
    return false;
  }
  return ParseAuthority(rest.substr(0, slash), address, error);
}

std::string ChannelRequestText(const ChannelAddress& address) {
  return "GET /" + address.channel + " HTTP/1.0\r\nUser-Agent: tqfplay\r\n\r\n";
}

size_t ChannelHeadEnd(const char* data, size_t size) {
  for (size_t i = 0; i + 1 < size; ++i) {
    if (data[i] != '\n') continue;
    if (data[i + 1] == '\n') return i + 2;
    if (data[i + 1] == '\r' && i + 2 < size && data[i + 2] == '\n') return i + 3;
  }
  return 0;
}

bool ParseChannelRequest(const std::string& head, std::string* channel) {
  // "GET /CHANNEL HTTP/1.x", or "GET /CHANNEL" alone as HTTP/0.9 had it.
  const std::string line = head.substr(0, head.find_first_of("\r\n"));
  if (line.compare(0, 5, "GET /") != 0) return false;
  const size_t space = line.find(' ', 5);
  *channel = line.substr(5, space == std::string::npos ? std::string::npos : space - 5);
  if (space != std::string::npos && line.compare(space, 6, " HTTP/") != 0) return false;
  return channel->find('/') == std::string::npos;
}

std::string ChannelResponseText(int status, const std::string& reason) {
  std::string head = "HTTP/1.0 " + std::to_string(status) + " " + reason + "\r\n";
  if (status == 200)
    head += std::string("Content-Type: ") + CHANNEL_CONTENT_TYPE + "\r\nCache-Control: no-cache\r\n";
  return head + "Connection: close\r\n\r\n";
}

bool ParseChannelResponse(const std::string& head, int* status, std::string* reason) {
  const std::string line = head.substr(0, head.find_first_of("\r\n"));
  // "HTTP/1.x NNN reason"
  if (line.compare(0, 7, "HTTP/1.") != 0 || line.size() < 12 || line[8] != ' ') return false;
  char* end = nullptr;
  const long value = std::strtol(line.c_str() + 9, &end, 10);
  if (end != line.c_str() + 12 || value < 100 || value > 599) return false;
  *status = static_cast<int>(value);
  *reason = line.size() > 13 ? line.substr(13) : "";
  return true;
}
