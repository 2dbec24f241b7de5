// Data-stream exports. Each forwards to the stream member of the same name.
// The calls that read the camera's or the device's features (start, stop,
// the stream and buffer info) hold OpenCloseLock as every node-map user does.
#include <algorithm>

#include "entry/entry_body.h"

using namespace pelorin;
using namespace pelorin::entry;

namespace {

// Drops every registered event of `stream` (EventLock is held).
void forget_stream_events(DS_HANDLE stream) {
    std::erase_if(library().EventRegistry,
                  [stream](const auto &entry) { return entry.second == stream; });
}

}  // namespace

GC_API DSClose(DS_HANDLE hDataStream) {
    return stream_call("DSClose", kTeardownStream, hDataStream, [&](CGentlDataStream &stream) {
        forget_stream_events(hDataStream);
        const GC_ERROR result = stream.Close();  // gives its place in the device back
        delete &stream;
        return result;
    });
}

GC_API DSAnnounceBuffer(DS_HANDLE hDataStream, void *pBuffer, size_t iSize, void *pPrivate,
                        BUFFER_HANDLE *phBuffer) {
    return stream_call("DSAnnounceBuffer", kApi, hDataStream, [&](CGentlDataStream &stream) {
        return stream.DSAnnounceBuffer(pBuffer, iSize, pPrivate, phBuffer);
    });
}

GC_API DSAllocAndAnnounceBuffer(DS_HANDLE hDataStream, size_t iSize, void *pPrivate,
                                BUFFER_HANDLE *phBuffer) {
    return stream_call("DSAllocAndAnnounceBuffer", kApi, hDataStream,
                       [&](CGentlDataStream &stream) {
                           return stream.DSAllocAndAnnounceBuffer(iSize, pPrivate, phBuffer);
                       });
}

GC_API DSFlushQueue(DS_HANDLE hDataStream, ACQ_QUEUE_TYPE iOperation) {
    return stream_call("DSFlushQueue", kApi, hDataStream,
                       [&](CGentlDataStream &stream) { return stream.DSFlushQueue(iOperation); });
}

GC_API DSStartAcquisition(DS_HANDLE hDataStream, ACQ_START_FLAGS iStartFlags,
                          uint64_t iNumToAcquire) {
    return stream_call("DSStartAcquisition", kOpenOrClose, hDataStream, [&](CGentlDataStream &stream) {
        return stream.DSStartAcquisition(iStartFlags, iNumToAcquire);
    });
}

GC_API DSStopAcquisition(DS_HANDLE hDataStream, ACQ_STOP_FLAGS iStopFlags) {
    return stream_call("DSStopAcquisition", kOpenOrClose, hDataStream,
                       [&](CGentlDataStream &stream) { return stream.DSStopAcquisition(iStopFlags); });
}

GC_API DSGetInfo(DS_HANDLE hDataStream, STREAM_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                 void *pBuffer, size_t *piSize) {
    return stream_call("DSGetInfo", kOpenOrClose, hDataStream, [&](CGentlDataStream &stream) {
        return stream.DSGetInfo(iInfoCmd, piType, pBuffer, piSize);
    });
}

GC_API DSRevokeBuffer(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, void **pBuffer,
                      void **pPrivate) {
    return stream_call("DSRevokeBuffer", kApi, hDataStream, [&](CGentlDataStream &stream) {
        return stream.DSRevokeBuffer(hBuffer, pBuffer, pPrivate, false);
    });
}

GC_API DSQueueBuffer(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer) {
    return stream_call("DSQueueBuffer", kApi, hDataStream,
                       [&](CGentlDataStream &stream) { return stream.DSQueueBuffer(hBuffer); });
}

GC_API DSGetBufferInfo(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, BUFFER_INFO_CMD iInfoCmd,
                       INFO_DATATYPE *piType, void *pBuffer, size_t *piSize) {
    return stream_call("DSGetBufferInfo", kOpenOrClose, hDataStream, [&](CGentlDataStream &stream) {
        return stream.DSGetBufferInfo(hBuffer, iInfoCmd, piType, pBuffer, piSize);
    });
}

GC_API DSGetParentDev(DS_HANDLE hDataStream, DEV_HANDLE *phDevice) {
    return stream_call("DSGetParentDev", kApi, hDataStream,
                       [&](CGentlDataStream &stream) { return stream.DSGetParentDev(phDevice); });
}
