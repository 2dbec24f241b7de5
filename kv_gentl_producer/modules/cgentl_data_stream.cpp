#include "modules/cgentl_data_stream.h"

#include "gentl_base/error_codes.h"

using pelorin::NotImplementedYet;

CGentlDataStream::CGentlDataStream() = default;
CGentlDataStream::~CGentlDataStream() = default;

GC_ERROR CGentlDataStream::DSGetParentDev(DEV_HANDLE *phDevice) {
    if (phDevice == nullptr) return GC_ERR_INVALID_PARAMETER;
    CGenTLAutoLock guard(api_lock_);
    *phDevice = parent_device_;
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlDataStream::DSAllocAndAnnounceBuffer(size_t, void *, BUFFER_HANDLE *) {
    return NotImplementedYet("DSAllocAndAnnounceBuffer");
}
GC_ERROR CGentlDataStream::DSAnnounceBuffer(void *, size_t, void *, BUFFER_HANDLE *) {
    return NotImplementedYet("DSAnnounceBuffer");
}
GC_ERROR CGentlDataStream::DSFlushQueue(ACQ_QUEUE_TYPE) { return NotImplementedYet("DSFlushQueue"); }
GC_ERROR CGentlDataStream::DSGetBufferInfo(BUFFER_HANDLE, BUFFER_INFO_CMD, INFO_DATATYPE *, void *,
                                           size_t *) {
    return NotImplementedYet("DSGetBufferInfo");
}
GC_ERROR CGentlDataStream::DSGetInfo(STREAM_INFO_CMD, INFO_DATATYPE *, void *, size_t *) {
    return NotImplementedYet("DSGetInfo");
}
GC_ERROR CGentlDataStream::DSQueueBuffer(BUFFER_HANDLE) { return NotImplementedYet("DSQueueBuffer"); }
GC_ERROR CGentlDataStream::DSRevokeBuffer(BUFFER_HANDLE, void **, void **, bool) {
    return NotImplementedYet("DSRevokeBuffer");
}
GC_ERROR CGentlDataStream::DSStartAcquisition(ACQ_START_FLAGS, uint64_t) {
    return NotImplementedYet("DSStartAcquisition");
}
GC_ERROR CGentlDataStream::DSStopAcquisition(ACQ_STOP_FLAGS) {
    return NotImplementedYet("DSStopAcquisition");
}
