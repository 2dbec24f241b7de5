// Single-instance guard: one process at a time initialises the producer.
// On Linux the named mutex "Pelorin Cxp" is an exclusive flock(2) on a lock
// file named after it in $XDG_RUNTIME_DIR (else /tmp); the kernel releases
// it when the holder dies.
#pragma once

#include <string>

namespace pelorin::diag {

// Full path of the lock file that stands for the named mutex.
std::string InstanceLockPath();

}  // namespace pelorin::diag

// True when this process now owns the guard (also when it already owned it).
// Logs "Error in creating mutex, program exiting!\n" when the lock file cannot
// be created and "The program is already running, program exiting!\n" when
// another process holds it, both at level error whatever the language.
bool AcquireInstanceMutex();

// Releases the guard; harmless when not held.
void ReleaseInstanceMutex();
