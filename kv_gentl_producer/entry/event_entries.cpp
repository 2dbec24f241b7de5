// Event exports: the new-buffer event of a data stream.
#include <thread>

#include "entry/entry_body.h"

using namespace pelorin;
using namespace pelorin::entry;

GC_API GCRegisterEvent(EVENTSRC_HANDLE hModule, EVENT_TYPE iEventID, EVENT_HANDLE *phEvent) {
    // OpenCloseLock keeps the module lists still while the handle is resolved.
    return guarded("GCRegisterEvent", [&]() -> GC_ERROR {
        LockScope scope(kOpenClose | kEvent);
        if (!library_initialised()) return RecordLastError(GC_ERR_NOT_INITIALIZED);
        if (hModule == nullptr) return RecordLastError(GC_ERR_INVALID_HANDLE);
        if (phEvent == nullptr) return RecordLastError(GC_ERR_INVALID_PARAMETER);
        void *owner = nullptr;
        const int level = ResolveHandle(hModule, &owner);
        if (level == kLevelNone) return RecordLastError(GC_ERR_INVALID_HANDLE);
        if (iEventID != EVENT_NEW_BUFFER) return RecordLastError(GC_ERR_NOT_IMPLEMENTED);
        if (level != kLevelDataStream) return RecordLastError(GC_ERR_NOT_AVAILABLE);
        return RecordLastError(NotImplementedYet("GCRegisterEvent on a data stream"));
    });
}

GC_API GCUnregisterEvent(EVENTSRC_HANDLE hModule, EVENT_TYPE iEventID) {
    return guarded("GCUnregisterEvent", [&]() -> GC_ERROR {
        LockScope scope(kOpenClose | kEvent);
        if (!library_initialised()) return RecordLastError(GC_ERR_NOT_INITIALIZED);
        if (hModule == nullptr || iEventID == EVENT_ERROR)
            return RecordLastError(GC_ERR_INVALID_HANDLE);
        if (iEventID == EVENT_REMOTE_DEVICE) return RecordLastError(GC_ERR_SUCCESS);
        if (iEventID != EVENT_NEW_BUFFER) return RecordLastError(GC_ERR_NOT_IMPLEMENTED);
        void *owner = nullptr;
        if (ResolveHandle(hModule, &owner) != kLevelDataStream)
            return RecordLastError(GC_ERR_INVALID_HANDLE);
        return RecordLastError(NotImplementedYet("GCUnregisterEvent on a data stream"));
    });
}

GC_API EventGetData(EVENT_HANDLE hEvent, void *pBuffer, size_t *piSize, uint64_t iTimeout) {
    return guarded("EventGetData", [&]() -> GC_ERROR {
        if (hEvent == nullptr) return RecordLastError(GC_ERR_INVALID_HANDLE);
        bool registered = false;
        {
            LockScope scope(kEvent);
            registered = library().EventRegistry.count(hEvent) != 0;
        }
        if (!registered) {
            // A consumer polling a dead handle in a loop must not spin hot.
            std::this_thread::yield();
            return RecordLastError(GC_ERR_INVALID_HANDLE);
        }
        return RecordLastError(NotImplementedYet("EventGetData"));
    });
}
