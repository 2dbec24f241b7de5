// Event exports: the new-buffer event of a data stream.
#include <cstring>
#include <memory>
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
        auto *stream = static_cast<CGentlDataStream *>(hModule);
        const GC_ERROR result = stream->notifier().Register(phEvent);
        if (result == GC_ERR_SUCCESS) library().EventRegistry[*phEvent] = hModule;
        return RecordLastError(result);
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
        EVENT_HANDLE event = nullptr;
        const GC_ERROR result = static_cast<CGentlDataStream *>(hModule)->notifier().Unregister(&event);
        if (event != nullptr) library().EventRegistry.erase(event);
        return RecordLastError(result);
    });
}

GC_API EventGetData(EVENT_HANDLE hEvent, void *pBuffer, size_t *piSize, uint64_t iTimeout) {
    return guarded("EventGetData", [&]() -> GC_ERROR {
        if (hEvent == nullptr) return RecordLastError(GC_ERR_INVALID_HANDLE);
        // The listener is held while its waiter waits without the event
        // lock: a stream closed meanwhile kills it, ending the wait.
        std::shared_ptr<CNewBufListenner> listener;
        {
            LockScope scope(kEvent);
            const auto found = library().EventRegistry.find(hEvent);
            if (found != library().EventRegistry.end())
                listener = static_cast<CGentlDataStream *>(found->second)->notifier().Active(hEvent);
        }
        if (!listener) {
            // A consumer polling a dead handle in a loop must not spin hot.
            std::this_thread::yield();
            return RecordLastError(GC_ERR_INVALID_HANDLE);
        }
        // The data goes only into a buffer that holds it; a call refused
        // here takes no buffer, so the next good call gets it. Without a
        // buffer the call takes the next filled buffer and tells nothing
        // about it (DSFlushQueue gives it back).
        uint8_t data[CNewBufListenner::kDataSize] = {};
        if (pBuffer != nullptr && piSize == nullptr) return RecordLastError(GC_ERR_INVALID_PARAMETER);
        if (pBuffer != nullptr && *piSize < sizeof data) {
            *piSize = sizeof data;
            return RecordLastError(GC_ERR_BUFFER_TOO_SMALL);
        }
        const GC_ERROR result = listener->GetData(data, iTimeout);
        if (result == GC_ERR_SUCCESS && pBuffer != nullptr) {
            std::memcpy(pBuffer, data, sizeof data);
            *piSize = sizeof data;
        }
        return RecordLastError(result);
    });
}
