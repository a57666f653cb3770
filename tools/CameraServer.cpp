#include "CameraServer.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

// Queued items handed to the kernel by one sendmsg.
constexpr size_t MAX_IOVECS = 64;
constexpr size_t READ_CHUNK = 4096;
// A requested channel is echoed in the 404 answer and the log up to this length.
constexpr size_t ECHOED_NAME_MAX = 64;

static_assert(std::atomic<bool>::is_always_lock_free, "Stop runs in a signal handler");

uint16_t PortOf(const sockaddr_storage& address) {
  return ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                                             : reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

// "127.0.0.1:54321" or "[::1]:54321".
std::string AddressText(const sockaddr_storage& address) {
  char host[INET6_ADDRSTRLEN] = "?";
  const bool v6 = address.ss_family == AF_INET6;
  const void* bytes = v6 ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in6&>(address).sin6_addr)
                         : static_cast<const void*>(&reinterpret_cast<const sockaddr_in&>(address).sin_addr);
  inet_ntop(address.ss_family, bytes, host, sizeof host);  // cannot fail: the family is one of the two
  const std::string port = std::to_string(PortOf(address));
  return v6 ? "[" + std::string(host) + "]:" + port : std::string(host) + ":" + port;
}

// A client's text made safe for a status line and a log line.
std::string Echo(const std::string& text) {
  std::string shown = text.substr(0, ECHOED_NAME_MAX);
  for (char& c : shown)
    if (!std::isprint(static_cast<unsigned char>(c))) c = '?';
  return shown.size() < text.size() ? shown + "..." : shown;
}

bool WouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

}  // namespace

// One queued item: the whole of it is written before anything after it.
struct CameraServer::Pending {
  std::shared_ptr<const std::vector<uint8_t>> bytes;
  bool frame;  // a frame (counted once written), not the greeting or an answer
  bool video;
};

enum class ClientState {
  REQUESTING,  // reading the request head
  STREAMING,   // given a channel
  ANSWERING,   // refused: writing the answer
  DRAINING,    // answer written and our side shut: reading up to the client's close, so
               // that closing with its bytes unread does not reset the answer away
};

struct CameraServer::Client {
  ~Client() {
    if (fd >= 0) close(fd);
  }

  int fd = -1;
  std::string peer;
  ClientState state = ClientState::REQUESTING;
  Clock::time_point deadline;  // when a client not STREAMING is dropped
  std::string head;            // the request read so far
  uint32_t channel = 0;        // counted from 1, once STREAMING
  std::deque<Pending> queue;
  size_t firstWritten = 0;  // bytes of queue.front() written already
  uint64_t queuedBytes = 0;
  uint32_t queuedVideo = 0;
  bool skipping = false;  // lost a frame: losing all up to the next key frame
  uint64_t sent = 0;
  uint64_t lost = 0;
  bool gone = false;  // closed; removed at the end of the loop's turn
};

CameraServer::CameraServer(CameraServerConfig config) : config_(std::move(config)) {}

CameraServer::~CameraServer() {
  clients_.clear();
  if (listenFd_ >= 0) close(listenFd_);
  if (wakeFd_ >= 0) close(wakeFd_);
}

bool CameraServer::Start(std::string* error) {
  if (config_.files.empty()) return *error = "no file to serve", false;
  for (const std::string& file : config_.files) {
    auto channel = std::make_unique<CameraChannel>();
    if (!channel->Open(file.c_str(), error)) return false;
    const std::string head = ChannelResponseText(200, "OK");
    auto greeting = std::make_shared<std::vector<uint8_t>>(head.begin(), head.end());
    greeting->insert(greeting->end(), channel->HeaderBlock().begin(), channel->HeaderBlock().end());
    greetings_.push_back(std::move(greeting));
    channels_.push_back(std::move(channel));
  }
  wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wakeFd_ < 0) return *error = std::string("eventfd: ") + std::strerror(errno), false;
  return Listen(error);
}

bool CameraServer::Listen(std::string* error) {
  std::string host = config_.bindAddress;  // "[::1]" as URLs write it is "::1"
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int code = getaddrinfo(host.c_str(), std::to_string(config_.port).c_str(), &hints, &found);
  if (code != 0) {
    *error = "cannot listen on '" + config_.bindAddress + "': " + gai_strerror(code);
    return false;
  }
  sockaddr_storage address{};
  socklen_t length = found->ai_addrlen;
  std::memcpy(&address, found->ai_addr, length);
  freeaddrinfo(found);
  const int on = 1;
  listenFd_ = socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listenFd_ < 0 || setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(listenFd_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      listen(listenFd_, SOMAXCONN) != 0 ||
      getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    *error = "cannot listen on " + AddressText(address) + ": " + std::strerror(errno);
    return false;
  }
  listenAddress_ = AddressText(address);
  port_ = PortOf(address);
  return true;
}

uint32_t CameraServer::FindChannel(const std::string& text) const {
  if (text.empty()) return 1;
  char* end = nullptr;
  const unsigned long number = std::strtoul(text.c_str(), &end, 10);
  if (std::isdigit(static_cast<unsigned char>(text[0])) && *end == '\0' && number >= 1 &&
      number <= channels_.size())
    return static_cast<uint32_t>(number);
  for (uint32_t i = 0; i < channels_.size(); ++i)
    if (channels_[i]->Name() == text) return i + 1;
  return 0;
}

bool CameraServer::Run(std::string* error) {
  const Clock::time_point start = Clock::now();
  for (size_t k = 0; k < channels_.size(); ++k) {
    const uint64_t ticks = channels_[k]->TicksPerPass();
    channels_[k]->Start(start, /*firstTick=*/config_.spread ? k * ticks / channels_.size() : 0);
  }
  std::vector<pollfd> polled;
  bool failed = false;
  while (!stopping_.load() && !failed) {
    const Clock::time_point now = Clock::now();
    const bool accepting = now >= acceptPausedUntil_;
    polled.assign({pollfd{wakeFd_, POLLIN, 0}, pollfd{accepting ? listenFd_ : -1, POLLIN, 0}});
    for (const auto& client : clients_)
      polled.push_back(pollfd{client->fd, static_cast<short>(POLLIN | (client->queue.empty() ? 0 : POLLOUT)), 0});
    if (poll(polled.data(), polled.size(), Timeout(now)) < 0) {
      failed = errno != EINTR;
      if (failed) *error = std::string("poll: ") + std::strerror(errno);
      continue;
    }
    const Clock::time_point woke = Clock::now();
    const size_t polledClients = clients_.size();  // Accept appends after these
    for (size_t i = 0; i < polledClients; ++i) Serve(*clients_[i], polled[i + 2].revents, woke);
    if (polled[1].revents != 0) Accept(woke);
    Tick(woke);
    Expire(woke);
    std::erase_if(clients_, [](const std::unique_ptr<Client>& client) { return client->gone; });
  }
  for (auto& client : clients_) Close(*client);
  clients_.clear();
  return !failed;
}

void CameraServer::Stop() {
  stopping_.store(true);
  if (wakeFd_ < 0) return;  // not started: there is no Run to wake
  const uint64_t one = 1;
  // The write fails only when the counter is full, and then Run has been woken already.
  [[maybe_unused]] const ssize_t written = write(wakeFd_, &one, sizeof one);
}

int CameraServer::Timeout(Clock::time_point now) const {
  Clock::time_point wake = Clock::time_point::max();
  for (const auto& channel : channels_) wake = std::min(wake, channel->NextDue());
  for (const auto& client : clients_)
    if (client->state != ClientState::STREAMING) wake = std::min(wake, client->deadline);
  if (acceptPausedUntil_ > now) wake = std::min(wake, acceptPausedUntil_);
  if (wake == Clock::time_point::max()) return -1;
  if (wake <= now) return 0;
  // Rounded up: waking a little early would only spin.
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(wake - now).count();
  return static_cast<int>(std::min<int64_t>(wait, INT_MAX));
}

void CameraServer::Accept(Clock::time_point now) {
  for (;;) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    const int fd = accept4(listenFd_, reinterpret_cast<sockaddr*>(&address), &length,
                           SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0 && (errno == ECONNABORTED || errno == EINTR)) continue;
    if (fd < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)) {
      // The connection waits in the backlog; trying at once would only spin.
      Report(ServerEventKind::TROUBLE, nullptr, 0, 0,
             std::string("cannot accept a connection: ") + std::strerror(errno) + "; trying again in 1 s");
      acceptPausedUntil_ = now + ACCEPT_PAUSE;
    }
    if (fd < 0) return;  // EAGAIN: none left
    auto client = std::make_unique<Client>();
    client->fd = fd;
    client->peer = AddressText(address);
    client->deadline = now + REQUEST_TIMEOUT;
    const int sendBuffer = SEND_BUFFER_BYTES;
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer) != 0) {
      Report(ServerEventKind::TROUBLE, client.get(), 0, 0,
             std::string("cannot size the send buffer: ") + std::strerror(errno));
      continue;  // the client's destructor closes it
    }
    clients_.push_back(std::move(client));
  }
}

void CameraServer::Serve(Client& client, short events, Clock::time_point now) {
  if (!client.gone && (events & POLLOUT) != 0) Flush(client);
  if (!client.gone && (events & (POLLIN | POLLHUP | POLLERR)) != 0) Receive(client, now);
}

void CameraServer::Receive(Client& client, Clock::time_point now) {
  char buffer[READ_CHUNK];
  const bool requesting = client.state == ClientState::REQUESTING;
  // A request is read up to one byte past the limit, enough to see that it is over.
  const size_t room = requesting ? CHANNEL_HEAD_MAX + 1 - client.head.size() : sizeof buffer;
  const ssize_t got = recv(client.fd, buffer, std::min(room, sizeof buffer), 0);
  if (got < 0 && WouldBlock(errno)) return;
  if (got <= 0) {  // closed by the client, or broken
    if (requesting) Report(ServerEventKind::REFUSED, &client, 0, 0, "closed before its request was complete");
    return Close(client);
  }
  if (!requesting) return;  // what a client sends after its request is dropped
  client.head.append(buffer, static_cast<size_t>(got));
  const size_t end = ChannelHeadEnd(client.head.data(), client.head.size());
  if (end != 0 && end <= CHANNEL_HEAD_MAX) return Answer(client, client.head.substr(0, end), now);
  if (client.head.size() > CHANNEL_HEAD_MAX) {
    Report(ServerEventKind::REFUSED, &client, 0, 0,
           "a request head over " + std::to_string(CHANNEL_HEAD_MAX) + " bytes");
    Close(client);
  }
}

void CameraServer::Answer(Client& client, const std::string& head, Clock::time_point now) {
  std::string name;
  if (!ParseChannelRequest(head, &name)) return Refuse(client, 400, "bad request", now);
  const uint32_t channel = FindChannel(name);
  if (channel == 0) return Refuse(client, 404, "no channel '" + Echo(name) + "'", now);
  if (channels_[channel - 1]->Stopped())
    return Refuse(client, 503, "channel " + std::to_string(channel) + " has stopped", now);
  client.state = ClientState::STREAMING;
  client.channel = channel;
  client.head.clear();
  client.head.shrink_to_fit();
  client.queue.push_back(Pending{greetings_[channel - 1], /*frame=*/false, /*video=*/false});
  client.queuedBytes += greetings_[channel - 1]->size();
  Report(ServerEventKind::JOINED, &client, channel, 0, "");
}

void CameraServer::Refuse(Client& client, int status, const std::string& reason, Clock::time_point now) {
  Report(ServerEventKind::REFUSED, &client, 0, status, reason);
  const std::string text = ChannelResponseText(status, reason);
  client.queue.push_back(Pending{std::make_shared<std::vector<uint8_t>>(text.begin(), text.end()),
                                 /*frame=*/false, /*video=*/false});
  client.state = ClientState::ANSWERING;
  client.deadline = now + REQUEST_TIMEOUT;
}

void CameraServer::Flush(Client& client) {
  iovec parts[MAX_IOVECS];
  size_t count = 0;
  for (auto item = client.queue.begin(); item != client.queue.end() && count < MAX_IOVECS; ++item) {
    const size_t skip = count == 0 ? client.firstWritten : 0;
    parts[count++] = iovec{const_cast<uint8_t*>(item->bytes->data()) + skip, item->bytes->size() - skip};
  }
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = count;
  const ssize_t written = sendmsg(client.fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (written < 0 && WouldBlock(errno)) return;
  if (written < 0) return Close(client);  // reset, or gone
  size_t done = client.firstWritten + static_cast<size_t>(written);
  while (!client.queue.empty() && done >= client.queue.front().bytes->size()) {
    const Pending& item = client.queue.front();
    done -= item.bytes->size();
    client.queuedBytes -= item.bytes->size();
    client.queuedVideo -= item.video ? 1 : 0;
    client.sent += item.frame ? 1 : 0;
    client.queue.pop_front();
  }
  client.firstWritten = done;
  if (client.queue.empty() && client.state == ClientState::ANSWERING) {
    client.state = ClientState::DRAINING;
    if (shutdown(client.fd, SHUT_WR) != 0) Close(client);
  }
}

void CameraServer::Offer(Client& client, const ChannelFrame& frame) {
  if (client.skipping && !frame.keyFrame) {
    ++client.lost;
    return;
  }
  const uint64_t size = frame.bytes->size();
  const bool fits = client.queuedBytes + size <= MAX_QUEUE_BYTES &&
                    (!frame.video || client.queuedVideo < MAX_QUEUE_VIDEO_FRAMES);
  client.skipping = !fits;
  if (!fits) {
    ++client.lost;
    return;
  }
  client.queue.push_back(Pending{frame.bytes, /*frame=*/true, frame.video});
  client.queuedBytes += size;
  client.queuedVideo += frame.video ? 1 : 0;
}

void CameraServer::Tick(Clock::time_point now) {
  for (uint32_t number = 1; number <= channels_.size(); ++number) {
    CameraChannel& channel = *channels_[number - 1];
    if (channel.NextDue() > now) continue;
    due_.clear();
    const bool readable = channel.TakeDueFrames(now, &due_);
    if (!readable)
      Report(ServerEventKind::CHANNEL_STOPPED, nullptr, number, 0, "its file could not be read (cut short?)");
    for (auto& client : clients_) {
      if (client->gone || client->state != ClientState::STREAMING || client->channel != number) continue;
      for (const ChannelFrame& frame : due_) Offer(*client, frame);
      if (!readable) Close(*client);
    }
  }
}

void CameraServer::Expire(Clock::time_point now) {
  for (auto& client : clients_) {
    if (client->gone || client->state == ClientState::STREAMING || client->deadline > now) continue;
    if (client->state == ClientState::REQUESTING)
      Report(ServerEventKind::REFUSED, client.get(), 0, 0,
             "no complete request within " + std::to_string(REQUEST_TIMEOUT.count()) + " s");
    Close(*client);
  }
}

void CameraServer::Close(Client& client) {
  if (client.state == ClientState::STREAMING) Report(ServerEventKind::LEFT, &client, client.channel, 0, "");
  close(client.fd);
  client.fd = -1;
  client.gone = true;
}

void CameraServer::Report(ServerEventKind kind, const Client* client, uint32_t channel, int status,
                          const std::string& reason) {
  if (config_.onEvent == nullptr) return;
  const ServerEvent event{kind,
                          client != nullptr ? client->peer.c_str() : "",
                          channel,
                          channel != 0 ? channels_[channel - 1]->Name().c_str() : "",
                          client != nullptr ? client->sent : 0,
                          client != nullptr ? client->lost : 0,
                          status,
                          reason.c_str()};
  config_.onEvent(config_.eventContext, event);
}
