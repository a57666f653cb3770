#include "ChannelConnection.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ChannelProtocol.h"
#include "Interruption.h"

namespace {

using Clock = std::chrono::steady_clock;

int RemainingMs(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<int64_t>(0, left.count()));
}

// Waits for `events` on `fd`: true when they came, false after a timeout
// (errno ETIMEDOUT), an error, or a Ctrl-C (errno EINTR).
bool WaitFor(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    pollfd entry{fd, events, 0};
    const int ready = poll(&entry, 1, RemainingMs(deadline));
    if (ready > 0) return true;
    if (ready == 0) errno = ETIMEDOUT;
    if (ready == 0 || errno != EINTR || Interrupted()) return false;
  }
}

// One address: a non-blocking connect bounded by `deadline`, then the socket
// is made blocking again for the stream.
int ConnectOne(const addrinfo& address, Clock::time_point deadline, std::string* error) {
  const int fd = socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                        address.ai_protocol);
  if (fd < 0) {
    *error = std::strerror(errno);
    return -1;
  }
  int failure = 0;
  socklen_t size = sizeof failure;
  if (connect(fd, address.ai_addr, address.ai_addrlen) != 0 &&
      (errno != EINPROGRESS || !WaitFor(fd, POLLOUT, deadline) ||
       getsockopt(fd, SOL_SOCKET, SO_ERROR, &failure, &size) != 0 || (errno = failure) != 0)) {
    *error = std::strerror(errno);
    close(fd);
    return -1;
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  return fd;
}

bool SendAll(int fd, const std::string& text, std::string* error) {
  for (size_t sent = 0; sent < text.size();) {
    const ssize_t n = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *error = std::strerror(errno);
      return false;
    }
    sent += static_cast<size_t>(n);
  }
  return true;
}

// Reads the answer's head a byte at a time, so that not one byte of the
// stream behind it is taken from the socket.
bool ReadHead(int fd, Clock::time_point deadline, std::string* head, std::string* error) {
  while (ChannelHeadEnd(head->data(), head->size()) == 0) {
    char byte;
    if (head->size() >= CHANNEL_HEAD_MAX) {
      *error = "the server's answer is not a channel's (its head is too long)";
      return false;
    }
    if (!WaitFor(fd, POLLIN, deadline)) {
      *error = errno == ETIMEDOUT ? "no answer from the server" : std::strerror(errno);
      return false;
    }
    const ssize_t n = read(fd, &byte, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *error = n == 0 ? "the server closed the connection without an answer" : std::strerror(errno);
      return false;
    }
    head->push_back(byte);
  }
  return true;
}

// The request and the answer on a connected socket: true at a 200.
bool AskForChannel(int fd, const ChannelAddress& address, std::chrono::milliseconds timeout,
                   std::string* error) {
  std::string head, reason;
  int status = 0;
  if (!SendAll(fd, ChannelRequestText(address), error) ||
      !ReadHead(fd, Clock::now() + timeout, &head, error))
    return false;
  if (!ParseChannelResponse(head, &status, &reason)) {
    *error = "the server's answer is not a channel's";
    return false;
  }
  if (status != 200) *error = "the server refused: " + std::to_string(status) + " " + reason;
  return status == 200;
}

}  // namespace

int ConnectToChannel(const char* url, std::chrono::milliseconds timeout, std::string* error) {
  ChannelAddress address;
  if (!ParseChannelUrl(url, &address, error)) return -1;
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* addresses = nullptr;
  const int lookup = getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints,
                                 &addresses);
  if (lookup != 0) {
    *error = gai_strerror(lookup);
    return -1;
  }
  int fd = -1;
  for (const addrinfo* a = addresses; a != nullptr && fd < 0; a = a->ai_next)
    fd = ConnectOne(*a, Clock::now() + timeout, error);
  freeaddrinfo(addresses);
  if (fd >= 0 && !AskForChannel(fd, address, timeout, error)) {
    close(fd);
    fd = -1;
  }
  return fd;
}
