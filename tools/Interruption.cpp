#include "Interruption.h"

#include <csignal>

namespace {

volatile std::sig_atomic_t g_interrupted = 0;
// Set before the handlers are installed and cleared after they are removed,
// so a handler never sees a half-set pair.
InterruptionHook g_hook = nullptr;
void* g_hookContext = nullptr;

void NoteInterrupt(int signal) {
  g_interrupted = signal;
  if (g_hook != nullptr) g_hook(g_hookContext);
}

}  // namespace

void CatchInterruptions(InterruptionHook hook, void* context) {
  g_hook = hook;
  g_hookContext = context;
  std::signal(SIGINT, NoteInterrupt);
  std::signal(SIGTERM, NoteInterrupt);
}

void ReleaseInterruptions() {
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);
  g_hook = nullptr;
  g_hookContext = nullptr;
}

bool Interrupted() { return g_interrupted != 0; }

int InterruptedExitCode() { return 128 + g_interrupted; }
