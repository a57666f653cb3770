// What the test build is instrumented with, for the few cases a sanitizer
// cannot run.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
// AddressSanitizer's no-return hook faults while a cancelled thread unwinds,
// so thread cancellation (TerminateThread) cannot be exercised under it.
constexpr bool UNDER_ADDRESS_SANITIZER = true;
#else
constexpr bool UNDER_ADDRESS_SANITIZER = false;
#endif
