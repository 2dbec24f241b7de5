// Process-wide state of the library: the initialised flag, the one System
// module, the three library locks and the event registry.
//
// Lock order (see docs/architecture.md): ApiLock, then OpenCloseLock, then
// EventLock. Each lock carries its rank so that a thread taking them out of
// order is caught at once.
#pragma once

#include <atomic>
#include <map>

#include "gentl_base/gentl_critical.h"
#include "pelorin/gentl.h"

class CTLSystem;

namespace pelorin {

enum LockRank : uint32_t { kApiLockRank = 1, kOpenCloseLockRank = 2, kEventLockRank = 3 };

struct LibraryState {
    std::atomic<uint8_t> LibInitialized{0};
    CTLSystem *TheSystem = nullptr;  // written under ApiLock + OpenCloseLock
    CGentlCritical ApiLock{kApiLockRank, "ApiLock"};
    CGentlCritical OpenCloseLock{kOpenCloseLockRank, "OpenCloseLock"};
    CGentlCritical EventLock{kEventLockRank, "EventLock"};
    std::map<EVENT_HANDLE, DS_HANDLE> EventRegistry;  // guarded by EventLock
};

LibraryState &library();

inline bool library_initialised() {
    return library().LibInitialized.load(std::memory_order_acquire) == 1;
}

}  // namespace pelorin
