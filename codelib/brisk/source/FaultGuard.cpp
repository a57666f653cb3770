#include "FaultGuard.h"

#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <mutex>

namespace {

constexpr int GUARDED_SIGNALS[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};

// The jump target of one guarded run, linked to the run it is nested in.
struct GuardFrame {
  sigjmp_buf jump;
  GuardFrame* outer;
};

// Read by the signal handler: initial-exec keeps its access free of any call
// into the dynamic loader, even when the library was loaded by dlopen.
__attribute__((tls_model("initial-exec"))) thread_local GuardFrame* t_innermost = nullptr;

struct sigaction g_previous[NSIG];

void ChainToPrevious(int signal, siginfo_t* info, void* ucontext) {
  const struct sigaction& previous = g_previous[signal];
  if (previous.sa_flags & SA_SIGINFO) {
    previous.sa_sigaction(signal, info, ucontext);
    return;
  }
  if (previous.sa_handler == SIG_IGN && info->si_code <= 0) return;  // sent, not raised by a fault
  if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
    previous.sa_handler(signal);
    return;
  }
  // Default action: restore it and let the signal come again. A fault comes
  // again by itself when the instruction is retried; a sent signal is raised
  // here and stays pending until this handler returns.
  struct sigaction fallback = {};
  fallback.sa_handler = SIG_DFL;
  sigemptyset(&fallback.sa_mask);
  sigaction(signal, &fallback, nullptr);
  if (info->si_code <= 0) raise(signal);
}

void OnFault(int signal, siginfo_t* info, void* ucontext) {
  if (GuardFrame* frame = t_innermost) siglongjmp(frame->jump, 1);
  ChainToPrevious(signal, info, ucontext);
}

void InstallHandler() {
  struct sigaction action = {};
  action.sa_sigaction = OnFault;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (int signal : GUARDED_SIGNALS) sigaction(signal, &action, &g_previous[signal]);
}

// The alternate signal stack of a guarded thread, set up on its first guard
// and taken down when the thread ends.
struct AlternateStack {
  void* memory = nullptr;

  AlternateStack() {
    stack_t current;
    if (sigaltstack(nullptr, &current) == 0 && !(current.ss_flags & SS_DISABLE)) return;
    const size_t size = SIGSTKSZ > 65536 ? SIGSTKSZ : 65536;
    memory = malloc(size);
    if (memory == nullptr) return;
    stack_t stack = {};
    stack.ss_sp = memory;
    stack.ss_size = size;
    if (sigaltstack(&stack, nullptr) != 0) {
      free(memory);
      memory = nullptr;
    }
  }

  ~AlternateStack() {
    if (memory == nullptr) return;
    stack_t off = {};
    off.ss_flags = SS_DISABLE;
    sigaltstack(&off, nullptr);
    free(memory);
  }
};

void PrepareThread() {
  static std::once_flag installed;
  std::call_once(installed, InstallHandler);
  thread_local AlternateStack stack;
}

}  // namespace

bool RunGuarded(void (*body)(void* context), void* context) {
  PrepareThread();
  GuardFrame frame;
  frame.outer = t_innermost;
  if (sigsetjmp(frame.jump, 1) != 0) {
    t_innermost = frame.outer;
    return false;
  }
  t_innermost = &frame;
  body(context);
  t_innermost = frame.outer;
  return true;
}
