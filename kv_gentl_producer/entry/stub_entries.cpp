// Exports the producer accepts but does not implement. They take no lock,
// check nothing and record nothing.
#include "pelorin/gentl.h"

namespace {
constexpr GC_ERROR kNotImplemented = GC_ERR_NOT_IMPLEMENTED;
}

GC_API GCReadPortStacked(PORT_HANDLE, PORT_REGISTER_STACK_ENTRY *, size_t *) {
    return kNotImplemented;
}
GC_API GCWritePortStacked(PORT_HANDLE, PORT_REGISTER_STACK_ENTRY *, size_t *) {
    return kNotImplemented;
}
GC_API DSGetNumBufferParts(DS_HANDLE, BUFFER_HANDLE, uint32_t *) { return kNotImplemented; }
GC_API DSGetBufferChunkData(DS_HANDLE, BUFFER_HANDLE, SINGLE_CHUNK_DATA *, size_t *) {
    return kNotImplemented;
}
GC_API DSGetBufferPartInfo(DS_HANDLE, BUFFER_HANDLE, uint32_t, BUFFER_PART_INFO_CMD,
                           INFO_DATATYPE *, void *, size_t *) {
    return kNotImplemented;
}
GC_API DSAnnounceCompositeBuffer(DS_HANDLE, size_t, void **, size_t *, void *, BUFFER_HANDLE *) {
    return kNotImplemented;
}
GC_API DSGetBufferInfoStacked(DS_HANDLE, BUFFER_HANDLE, DS_BUFFER_INFO_STACKED *, size_t) {
    return kNotImplemented;
}
GC_API DSGetBufferPartInfoStacked(DS_HANDLE, BUFFER_HANDLE, DS_BUFFER_PART_INFO_STACKED *, size_t) {
    return kNotImplemented;
}
GC_API DSGetNumFlows(DS_HANDLE, uint32_t *) { return kNotImplemented; }
GC_API DSGetFlowInfo(DS_HANDLE, uint32_t, FLOW_INFO_CMD, INFO_DATATYPE *, void *, size_t *) {
    return kNotImplemented;
}
GC_API DSGetNumBufferSegments(DS_HANDLE, BUFFER_HANDLE, uint32_t *) { return kNotImplemented; }
GC_API DSGetBufferSegmentInfo(DS_HANDLE, BUFFER_HANDLE, uint32_t, SEGMENT_INFO_CMD, INFO_DATATYPE *,
                              void *, size_t *) {
    return kNotImplemented;
}

// Buffers are reached through EventGetData, not by index; the call answers
// like the other unsupported buffer calls and writes nothing.
GC_API DSGetBufferID(DS_HANDLE, uint32_t, BUFFER_HANDLE *) { return kNotImplemented; }

// Accepted and answered with success; nothing is written or done.
GC_API EventGetInfo(EVENT_HANDLE, EVENT_INFO_CMD, INFO_DATATYPE *, void *, size_t *) {
    return GC_ERR_SUCCESS;
}
GC_API EventGetDataInfo(EVENT_HANDLE, const void *, size_t, EVENT_DATA_INFO_CMD, INFO_DATATYPE *,
                        void *, size_t *) {
    return GC_ERR_SUCCESS;
}
GC_API EventFlush(EVENT_HANDLE) { return GC_ERR_SUCCESS; }
GC_API EventKill(EVENT_HANDLE) { return GC_ERR_SUCCESS; }
