// FaultGuard: runs a piece of code so that a hardware fault inside it
// (SIGSEGV, SIGBUS, SIGFPE, SIGILL) ends that piece at once instead of the
// process.
//
// One process-wide handler serves the four signals. It is installed on the
// first guarded run and stays. When the faulting thread is inside a guard the
// handler jumps back to the guard's start (sigsetjmp/siglongjmp, signal mask
// restored) and the run reports false. When it is not, the signal goes on,
// unchanged, to the handler that was installed before ours, or gets the
// default action: a host's own crash handling is untouched.
//
// Every thread that runs a guard gets an alternate signal stack of its own
// (unless it already has one), so that even a fault from an exhausted stack
// reaches the handler. Guards may nest; the innermost one catches.
//
// A jump out of a fault skips whatever the guarded code had under way: its
// destructors do not run and its locks stay taken. Guard only code that holds
// no C++ objects with destructors across the call and keeps its state in a
// form that the caller can throw away or rebuild.
#pragma once

// Runs body(context) under the guard. True when it returned normally, false
// when a fault ended it.
bool RunGuarded(void (*body)(void* context), void* context);

// The same for any callable object, e.g. a lambda that captures by reference.
template <typename Body>
bool RunGuarded(Body& body) {
  return RunGuarded([](void* context) { (*static_cast<Body*>(context))(); }, &body);
}
