// The common body of the exported functions: take the entry's locks, check the
// initialised flag and the handle, call the module, record the result. No C++
// exception ever leaves an entry: it becomes a code and a log line.
#pragma once

#include <exception>
#include <new>

#include "diag/log.h"
#include "entry/handle_resolver.h"
#include "entry/library_state.h"
#include "gentl_base/error_codes.h"
#include "modules/cgentl_data_stream.h"
#include "modules/cgentl_device.h"
#include "modules/cgentl_interface.h"
#include "modules/ctl_system.h"

namespace pelorin::entry {

// Which of the three library locks an entry holds. They are always taken in
// the order ApiLock, OpenCloseLock, EventLock and released in reverse.
enum LockSet : unsigned {
    kNoLock = 0,
    kApi = 1u << 0,
    kOpenClose = 1u << 1,
    kEvent = 1u << 2,
    kOpenOrClose = kApi | kOpenClose,  // opening/closing a module
    kTeardownStream = kApi | kOpenClose | kEvent,
};

class LockScope {
public:
    explicit LockScope(unsigned locks)
        : api_(locks & kApi ? &library().ApiLock : nullptr),
          open_close_(locks & kOpenClose ? &library().OpenCloseLock : nullptr),
          event_(locks & kEvent ? &library().EventLock : nullptr) {}

private:
    CGenTLAutoLock api_;
    CGenTLAutoLock open_close_;
    CGenTLAutoLock event_;
};

// Runs `body`, turning any exception into a recorded code and a log line.
template <typename Body>
GC_ERROR guarded(const char *entry_name, Body &&body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc &) {
        LOG_ANY(diag::kError, "%s: out of memory\n", entry_name);
        return RecordLastError(GC_ERR_OUT_OF_MEMORY);
    } catch (const std::exception &error) {
        LOG_ANY(diag::kError, "%s: unexpected error: %s\n", entry_name, error.what());
        return RecordLastError(GC_ERR_ERROR);
    } catch (...) {
        LOG_ANY(diag::kError, "%s: unexpected error\n", entry_name);
        return RecordLastError(GC_ERR_ERROR);
    }
}

// A call on the System module: the handle must be the system itself.
template <typename Call>
GC_ERROR system_call(const char *entry_name, unsigned locks, TL_HANDLE hTL, Call &&call) noexcept {
    return guarded(entry_name, [&]() -> GC_ERROR {
        LockScope scope(locks);
        if (!library_initialised()) return RecordLastError(GC_ERR_NOT_INITIALIZED);
        CTLSystem *system = library().TheSystem;
        if (hTL == nullptr || system == nullptr || hTL != system)
            return RecordLastError(GC_ERR_INVALID_HANDLE);
        return RecordLastError(call(*system));
    });
}

// A call on the module of exactly `Level`; `Module` is the object the handle
// names (interface, device or data stream).
template <typename Module, int Level, typename Call>
GC_ERROR level_call(const char *entry_name, unsigned locks, void *handle, Call &&call) noexcept {
    return guarded(entry_name, [&]() -> GC_ERROR {
        LockScope scope(locks);
        if (!library_initialised()) return RecordLastError(GC_ERR_NOT_INITIALIZED);
        void *owner = nullptr;
        if (handle == nullptr || ResolveHandle(handle, &owner) != Level)
            return RecordLastError(GC_ERR_INVALID_HANDLE);
        return RecordLastError(call(*static_cast<Module *>(handle)));
    });
}

template <typename Call>
GC_ERROR interface_call(const char *name, unsigned locks, IF_HANDLE h, Call &&call) noexcept {
    return level_call<CGentlInterface, kLevelInterface>(name, locks, h, std::forward<Call>(call));
}
template <typename Call>
GC_ERROR device_call(const char *name, unsigned locks, DEV_HANDLE h, Call &&call) noexcept {
    return level_call<CGentlDevice, kLevelDevice>(name, locks, h, std::forward<Call>(call));
}
template <typename Call>
GC_ERROR stream_call(const char *name, unsigned locks, DS_HANDLE h, Call &&call) noexcept {
    return level_call<CGentlDataStream, kLevelDataStream>(name, locks, h, std::forward<Call>(call));
}

// A port call: any level, dispatched by the caller's `dispatch(level, owner)`;
// a handle that names no module gives GC_ERR_NOT_AVAILABLE. Port calls hold
// OpenCloseLock; `locks` adds ApiLock where a call needs it.
template <typename Dispatch>
GC_ERROR port_call(const char *entry_name, PORT_HANDLE hPort, Dispatch &&dispatch,
                   unsigned locks = kOpenClose) noexcept {
    return guarded(entry_name, [&]() -> GC_ERROR {
        LockScope scope(locks | kOpenClose);
        if (!library_initialised() || library().TheSystem == nullptr)
            return RecordLastError(GC_ERR_NOT_INITIALIZED);
        if (hPort == nullptr) return RecordLastError(GC_ERR_INVALID_HANDLE);
        void *owner = nullptr;
        const int level = ResolveHandle(hPort, &owner);
        if (level == kLevelNone) return RecordLastError(GC_ERR_NOT_AVAILABLE);
        return RecordLastError(dispatch(level, owner));
    });
}

// Drops the registered new-buffer events whose stream is no longer open:
// a device, interface or system close deletes the streams below it, and
// EventGetData must not reach a stream through a stale registration. The
// caller holds OpenCloseLock and EventLock (kTeardownStream).
void ForgetClosedStreamEvents();

// Checks shared by the producer's kv_ feature functions: library and system
// present and a non-null handle (-1002), a handle that resolves (-1014).
// Returns 0 and the level/owner when the call may go on.
GC_ERROR resolve_feature_handle(void *handle, int *level, void **owner);

}  // namespace pelorin::entry
