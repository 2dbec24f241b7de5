// The Data Stream module: buffers, queues and acquisition of one image stream.
// Ten of its public members are exported from the library under their C++
// names, for consumers that call the stream object directly.
#pragma once

#include <cstddef>
#include <cstdint>

#include "gentl_base/gentl_critical.h"
#include "pelorin/gentl.h"

#define PELORIN_EXPORTED_MEMBER __attribute__((visibility("default")))

class CGentlDevice;

class CGentlDataStream {
public:
    CGentlDataStream();
    virtual ~CGentlDataStream();

    CGentlDataStream(const CGentlDataStream &) = delete;
    CGentlDataStream &operator=(const CGentlDataStream &) = delete;

    PELORIN_EXPORTED_MEMBER GC_ERROR DSAllocAndAnnounceBuffer(size_t iSize, void *pPrivate,
                                                              BUFFER_HANDLE *phBuffer);
    PELORIN_EXPORTED_MEMBER GC_ERROR DSAnnounceBuffer(void *pBuffer, size_t iSize, void *pPrivate,
                                                      BUFFER_HANDLE *phBuffer);
    PELORIN_EXPORTED_MEMBER GC_ERROR DSFlushQueue(ACQ_QUEUE_TYPE iOperation);
    PELORIN_EXPORTED_MEMBER GC_ERROR DSGetBufferInfo(BUFFER_HANDLE hBuffer, BUFFER_INFO_CMD iInfoCmd,
                                                     INFO_DATATYPE *piType, void *pBuffer,
                                                     size_t *piSize);
    PELORIN_EXPORTED_MEMBER GC_ERROR DSGetInfo(STREAM_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                                               void *pBuffer, size_t *piSize);
    PELORIN_EXPORTED_MEMBER GC_ERROR DSGetParentDev(DEV_HANDLE *phDevice);
    PELORIN_EXPORTED_MEMBER GC_ERROR DSQueueBuffer(BUFFER_HANDLE hBuffer);
    // `internal` is ignored; the exported DSRevokeBuffer passes false.
    PELORIN_EXPORTED_MEMBER GC_ERROR DSRevokeBuffer(BUFFER_HANDLE hBuffer, void **ppBuffer,
                                                    void **ppPrivate, bool internal);
    PELORIN_EXPORTED_MEMBER GC_ERROR DSStartAcquisition(ACQ_START_FLAGS iStartFlags,
                                                        uint64_t iNumToAcquire);
    PELORIN_EXPORTED_MEMBER GC_ERROR DSStopAcquisition(ACQ_STOP_FLAGS iStopFlags);

    CGentlDevice *parent_device() const { return parent_device_; }
    void set_parent_device(CGentlDevice *device) { parent_device_ = device; }

private:
    CGentlCritical api_lock_;
    CGentlDevice *parent_device_ = nullptr;
};
