// tqfplay serve: a CameraServer on the files given, its events as lines on
// stderr, until Ctrl-C or SIGTERM.
#include "ServeCommand.h"

#include <signal.h>

#include <cinttypes>
#include <cstdio>
#include <string>

#include "CameraServer.h"
#include "Interruption.h"
#include "Options.h"

namespace {

constexpr const char NAME[] = "serve";
constexpr uint32_t MAX_PORT = 65535;
// Channels one run serves at most.
constexpr int MAX_CHANNELS = 64;

void PrintEvent(void*, const ServerEvent& e) {
  switch (e.kind) {
    case ServerEventKind::JOINED:
      std::fprintf(stderr, "tqfplay %s: %s connected to channel %" PRIu32 " '%s'\n", NAME, e.peer,
                   e.channel, e.channelName);
      break;
    case ServerEventKind::LEFT:
      std::fprintf(stderr, "tqfplay %s: %s left channel %" PRIu32 " after %" PRIu64 " frames (%" PRIu64
                   " lost)\n", NAME, e.peer, e.channel, e.framesSent, e.framesLost);
      break;
    case ServerEventKind::REFUSED:
      if (e.status != 0)
        std::fprintf(stderr, "tqfplay %s: %s refused: %d %s\n", NAME, e.peer, e.status, e.reason);
      else
        std::fprintf(stderr, "tqfplay %s: %s closed: %s\n", NAME, e.peer, e.reason);
      break;
    case ServerEventKind::CHANNEL_STOPPED:
      std::fprintf(stderr, "tqfplay %s: channel %" PRIu32 " '%s' stopped: %s\n", NAME, e.channel,
                   e.channelName, e.reason);
      break;
    case ServerEventKind::TROUBLE:
      std::fprintf(stderr, "tqfplay %s: %s%s%s\n", NAME, e.peer, *e.peer != '\0' ? ": " : "", e.reason);
      break;
  }
}

void StopServer(void* server) { static_cast<CameraServer*>(server)->Stop(); }

bool ParseServeOptions(int argc, char** argv, CameraServerConfig* config) {
  const char* files[MAX_CHANNELS] = {};
  const char* bind = nullptr;
  uint32_t port = CHANNEL_DEFAULT_PORT;
  const OptionSpec specs[] = {
      {"--port", OptionKind::NUMBER, &port},
      {"--bind", OptionKind::TEXT, &bind},
      {"--spread", OptionKind::FLAG, &config->spread},
  };
  if (!ParseOptions(NAME, argc, argv, specs, std::size(specs), files, 1, MAX_CHANNELS)) return false;
  if (port > MAX_PORT) return StepFailed(NAME, "--port is a number from 0 to %" PRIu32, MAX_PORT);
  for (const char* file : files)
    if (file != nullptr) config->files.emplace_back(file);
  if (bind != nullptr) config->bindAddress = bind;
  config->port = static_cast<uint16_t>(port);
  return true;
}

int RunServe(int argc, char** argv) {
  CameraServerConfig config;
  if (!ParseServeOptions(argc, argv, &config)) return EXIT_USAGE;
  config.onEvent = PrintEvent;
  CameraServer server(std::move(config));
  std::string error;
  if (!server.Start(&error)) return CommandError(NAME, "%s", error.c_str());
  for (uint32_t number = 1; number <= server.ChannelCount(); ++number)
    std::fprintf(stderr, "tqfplay %s: channel %" PRIu32 " '%s' on tcp://%s/%" PRIu32 "\n", NAME, number,
                 server.ChannelName(number).c_str(), server.ListenAddress().c_str(), number);
  // Sends go with MSG_NOSIGNAL; this is for stderr, which may be a pipe whose
  // reader has gone: the cameras do not stop for their log.
  signal(SIGPIPE, SIG_IGN);
  CatchInterruptions(StopServer, &server);
  const bool served = server.Run(&error);
  ReleaseInterruptions();
  if (!served) return CommandError(NAME, "%s", error.c_str());
  return Interrupted() ? InterruptedExitCode() : 0;
}

}  // namespace

extern const Command SERVE_COMMAND = {
    NAME, "serve files over TCP as live cameras",
    "serve FILE... [--port N] [--bind ADDR] [--spread]",
    "Serves each TQF file as a live camera: channel 1, 2, ... in the order given,\n"
    "also named by its file name without folder and .tqf. A client asks with\n"
    "'GET /CHANNEL HTTP/1.0' (a number, a name, or '/' for channel 1) and gets the\n"
    "file's header block, then its frames from that moment on, 25 video frames a\n"
    "second, the file looping with its stamps running on. Every channel runs\n"
    "whether anyone watches or not. A client that falls behind loses whole frames\n"
    "up to the next key frame; the others are not held up:\n"
    "  curl -s http://HOST:9000/door | tqfplay stream -\n"
    "One line on stderr per connection and departure (with the frames it lost).\n"
    "Ctrl-C or SIGTERM stops the server.\n"
    "\n"
    "  --port N      the TCP port (default 9000; 0: any free port, shown at start)\n"
    "  --bind ADDR   the address to listen on (default 0.0.0.0; '::' for IPv6)\n"
    "  --spread      start channel k of n k/n of the way into its file, so that one\n"
    "                file given n times gives n cameras out of step\n",
    RunServe,
};
