// CameraServer: TQF files served over TCP as live cameras, one channel per
// file (CameraChannel), asked for as ChannelProtocol.h describes.
//
// One thread runs everything: Run polls the listening socket, the clients
// and a wake-up descriptor, with a timeout that ends when the next channel
// tick is due. Sockets are non-blocking and no call waits on a client.
//
// A client that asks with "GET /CHANNEL" gets the 200 head and
// the channel's header block, then the channel's frames from that moment on
// (not from a key frame: a player waits for one). Each client has a queue of
// whole frames waiting for its socket, bounded by MAX_QUEUE_BYTES and
// MAX_QUEUE_VIDEO_FRAMES. A frame that does not fit is lost to that client,
// and so is every frame after it up to the next video key frame, since
// P-frames without their reference decode to garbage. A frame already
// queued is never dropped, so a frame partly written is always finished and
// a client sees only whole frames. Other clients are not held up. A client
// that closes, or shuts down its sending side, has left.
//
// The server reports what happens through a hook (connections, refusals,
// departures with their counts); it prints nothing itself.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "CameraChannel.h"
#include "ChannelProtocol.h"

enum class ServerEventKind {
  JOINED,           // a client was given a channel
  LEFT,             // a client that had a channel is gone
  REFUSED,          // a request was refused, or the client closed without one
  CHANNEL_STOPPED,  // a channel's file could not be read any more
  TROUBLE,          // a failure of the server's own (accept), carried on past
};

struct ServerEvent {
  ServerEventKind kind;
  const char* peer;         // "127.0.0.1:54321", "[::1]:54321"; "" for a channel's event
  uint32_t channel;         // counted from 1; 0 when there is none
  const char* channelName;  // "" when there is none
  uint64_t framesSent;      // LEFT: whole frames written to the client
  uint64_t framesLost;      // LEFT: frames its queue had no room for, or skipped after one
  int status;               // REFUSED: the status answered, or 0 when closed unanswered
  const char* reason;       // REFUSED, CHANNEL_STOPPED, TROUBLE: why; otherwise ""
};

// Called on the thread that runs Run, one event at a time.
typedef void (*ServerEventHook)(void* context, const ServerEvent& event);

struct CameraServerConfig {
  std::vector<std::string> files;      // channel 1, 2, ... in this order
  std::string bindAddress = "0.0.0.0";  // an IPv4 or IPv6 address or a host name
  uint16_t port = CHANNEL_DEFAULT_PORT;  // 0: any free port
  // Channel k of n starts k/n of the way into its file, so that copies of
  // one file run out of step, as separate cameras do (their key frames then
  // come in different ticks); otherwise every channel starts at its start.
  bool spread = false;
  ServerEventHook onEvent = nullptr;     // may be null
  void* eventContext = nullptr;
};

class CameraServer {
 public:
  using Clock = std::chrono::steady_clock;

  // A client's queue: about two seconds of video at most, and never more
  // than this many bytes.
  static constexpr uint64_t MAX_QUEUE_BYTES = 8 << 20;
  static constexpr uint32_t MAX_QUEUE_VIDEO_FRAMES = 2 * TQF_FRAMES_PER_SECOND;
  // The kernel's send buffer of a client, kept small: bytes that have gone
  // to the kernel can no longer be dropped whole, so the queue's bound would
  // mean little behind a large one.
  static constexpr int SEND_BUFFER_BYTES = 256 << 10;
  // A request must be complete this long after the connection, and a refused
  // client must take its answer within this long.
  static constexpr std::chrono::seconds REQUEST_TIMEOUT{10};
  // When accept fails for want of descriptors, it is tried again after this.
  static constexpr std::chrono::seconds ACCEPT_PAUSE{1};

  explicit CameraServer(CameraServerConfig config);
  ~CameraServer();  // closes every socket
  CameraServer(const CameraServer&) = delete;
  CameraServer& operator=(const CameraServer&) = delete;

  // Opens every file (CameraChannel::Open) and listens on the address. False
  // with one line in `error` ("<file>: <cause>", or "cannot listen on
  // 0.0.0.0:9000: Address already in use"). Once only; `error` not null.
  bool Start(std::string* error);
  // The address listened on, port included ("0.0.0.0:9000", "[::1]:9000"),
  // and its port (the one chosen when the config asked for 0). After Start.
  const std::string& ListenAddress() const { return listenAddress_; }
  uint16_t Port() const { return port_; }
  size_t ChannelCount() const { return channels_.size(); }
  // The name of channel `number` (counted from 1, up to ChannelCount()).
  const std::string& ChannelName(uint32_t number) const { return channels_[number - 1]->Name(); }

  // Serves until Stop; then closes every client (LEFT for each that had a
  // channel). Starts the channels' clocks. False, with the reason, if poll
  // itself fails (`error` not null). After a successful Start, once.
  bool Run(std::string* error);
  // Makes Run return soon. From any thread, and from a signal handler.
  void Stop();

 private:
  struct Client;
  struct Pending;

  bool Listen(std::string* error);
  // The channel a request names: "" is 1, a number in range is itself, any
  // other text the first channel of that name. 0 for none.
  uint32_t FindChannel(const std::string& text) const;
  void Accept(Clock::time_point now);
  void Serve(Client& client, short events, Clock::time_point now);
  void Receive(Client& client, Clock::time_point now);
  void Answer(Client& client, const std::string& head, Clock::time_point now);
  void Refuse(Client& client, int status, const std::string& reason, Clock::time_point now);
  void Flush(Client& client);
  void Offer(Client& client, const ChannelFrame& frame);
  void Tick(Clock::time_point now);
  void Expire(Clock::time_point now);
  // Closes the socket; LEFT if the client had a channel.
  void Close(Client& client);
  void Report(ServerEventKind kind, const Client* client, uint32_t channel, int status,
              const std::string& reason);
  int Timeout(Clock::time_point now) const;

  CameraServerConfig config_;
  std::vector<std::unique_ptr<CameraChannel>> channels_;
  std::vector<std::shared_ptr<const std::vector<uint8_t>>> greetings_;  // 200 head and header block
  std::vector<std::unique_ptr<Client>> clients_;
  std::vector<ChannelFrame> due_;  // the frames of a tick, reused
  int listenFd_ = -1;
  int wakeFd_ = -1;
  std::string listenAddress_;
  uint16_t port_ = 0;
  Clock::time_point acceptPausedUntil_;
  std::atomic<bool> stopping_{false};
};
