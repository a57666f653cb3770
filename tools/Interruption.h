// Interruption: Ctrl-C and SIGTERM turned into a flag that a run polls, so
// that it can close its players, sockets and outputs before it exits.
//
// CatchInterruptions installs the handlers, ReleaseInterruptions gives the
// signals back their default action. The flag is never cleared: once the user
// has asked a process to stop, every later run in it stops too.
#pragma once

// Called from the signal handler after the flag is set: it may only do what
// a signal handler may (store to a lock-free atomic, write to a descriptor).
typedef void (*InterruptionHook)(void* context);

// Installs the handlers for SIGINT and SIGTERM. `hook` (may be null) is
// called by each of them with `context`, to wake a run that sleeps.
void CatchInterruptions(InterruptionHook hook, void* context);
// Restores the default actions and forgets the hook.
void ReleaseInterruptions();

// Whether the user asked the run to stop. Any thread.
bool Interrupted();
// The shell's exit code for that: 128 plus the signal (130 for Ctrl-C, 143
// for SIGTERM).
int InterruptedExitCode();
