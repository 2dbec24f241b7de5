// Crash handler: on SIGSEGV, SIGBUS, SIGILL, SIGFPE and SIGABRT writes
// "Test_(YYYY-MM-DD HH_MM_SS).dmp" in the current directory, then restores the
// default action and re-raises so the process ends as it would have.
#pragma once

#include <cstddef>
#include <cstdint>

// Installs the handlers (on an alternate signal stack); idempotent, never removed.
void InstallCrashHandler();

// True once InstallCrashHandler has run in this process.
bool CrashHandlerInstalled();

namespace pelorin::diag {

// Writes the dump file name for the moment `utc_seconds` (seconds since the
// epoch) seen at `utc_offset_seconds` east of UTC into `out`, NUL-terminated.
// False, with nothing written, when `size` is too small. Async-signal-safe.
bool FormatCrashDumpName(int64_t utc_seconds, int64_t utc_offset_seconds, char *out,
                         size_t size);

}  // namespace pelorin::diag
