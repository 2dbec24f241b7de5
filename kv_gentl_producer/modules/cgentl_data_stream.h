// The Data Stream module: buffers, queues and acquisition of one image stream.
// Ten of its public members are exported from the library under their C++
// names, for consumers that call the stream object directly.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "gentl_base/gentl_critical.h"
#include "modules/cgentl_event.h"
#include "modules/cio_vector.h"
#include "pelorin/gentl.h"

#define PELORIN_EXPORTED_MEMBER __attribute__((visibility("default")))

class CGentlDevice;
struct card_context;
struct stream_slot;

class CGentlDataStream {
public:
    // At most this many buffers per stream.
    static constexpr size_t kMaxAnnounced = 10000;
    // Fill byte of the buffers the producer allocates.
    static constexpr uint8_t kAllocatedFill = 0x80;

    CGentlDataStream();
    // Closes the stream.
    virtual ~CGentlDataStream();

    CGentlDataStream(const CGentlDataStream &) = delete;
    CGentlDataStream &operator=(const CGentlDataStream &) = delete;

    // Opens the stream `id` of the device that `slot` names, fed by the card
    // of `context`. False (and nothing kept) for a null argument, a card that
    // is not open, or a stream that is open already.
    bool Open(const char *id, card_context *context, stream_slot *slot);
    // Stops acquisition, drops the queues, frees the producer's buffers and
    // gives the stream's place back to its device. Always 0.
    GC_ERROR Close();

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
    bool is_open() const { return opened_; }
    const std::string &stream_id() const { return stream_id_; }
    CBufNotifyEvent &notifier() { return notifier_; }
    // Filled buffers the delivery thread could not deliver since the open.
    uint64_t lost_frames() const { return lost_frames_; }

private:
    // State of one run of the delivery thread.
    struct delivery_run {
        uint64_t first_frame_us = 0;
        uint64_t frame_counter = 0;
        uint32_t hardware_frame = 0;
        uint32_t lost_frames = 0;
        bool fetch_failure_logged = false;
    };

    // Reads the camera's geometry and format and computes stride and
    // payload; false when the geometry cannot be read or the ISP cannot
    // serve a two-tap camera.
    bool ComputeGeometry();
    void ComputeBufferHeight();
    uint64_t ComputePayload();
    void ReadStreamIds(uint32_t &first, uint32_t &second);
    // "TLParamsLocked" of the camera and of the device.
    void LockTransportParameters(int64_t locked);
    GC_ERROR StartDeliveryThread();
    GC_ERROR HandQueuedBuffersToEngine();
    // Stops the engine, wakes the delivery thread and waits for its end.
    void StopEngineAndThread();
    bool StillAcquiring();
    void DeliveryLoop();
    // Stamps the buffer the engine filled and hands it to the consumer;
    // false when it was not queued (a lost frame, back to the engine).
    bool Deliver(uint32_t index, delivery_run &run);
    // The camera's links lost it while acquiring: the device is marked lost
    // and waiting consumers are released.
    void ReportCameraLost();

    // The record behind `handle` when it is one of the announced buffers.
    BufferRecord *FindAnnounced(BUFFER_HANDLE handle) const;
    bool IsAnnounced(const void *base) const;
    // The checks that announce and allocate-and-announce share.
    GC_ERROR CheckCanAnnounce() const;
    void Append(BufferRecord *record, BUFFER_HANDLE *phBuffer);
    void QueueEveryAnnounced();
    void ReleaseRecords();
    // The camera's current offset `name`, or `stored` when it cannot be read;
    // a value read is kept in `stored`.
    uint64_t CameraOffset(const char *name, uint64_t &stored);

    CBufNotifyEvent notifier_;
    card_context *context_ = nullptr;
    bool opened_ = false;
    // Read by the delivery thread between frames without the locks.
    std::atomic<bool> acquiring_{false};
    std::atomic<bool> delivery_running_{false};
    CGentlDevice *parent_device_ = nullptr;
    CGentlCritical api_lock_{CGentlCritical::kUnranked, "stream_api"};
    CGentlCritical acq_lock_{CGentlCritical::kUnranked, "stream_acq"};
    std::unique_ptr<CIoVector> queues_;
    std::unique_ptr<std::vector<BufferRecord *>> announced_;
    stream_slot *slot_ = nullptr;
    std::string stream_id_;
    std::thread delivery_thread_;
    std::vector<uint64_t> dma_addresses_;
    std::atomic<uint64_t> lost_frames_{0};

    // Geometry of the delivered images.
    uint64_t width_ = 0;
    uint64_t height_ = 0;
    uint64_t offset_x_ = 0;
    uint64_t offset_y_ = 0;
    uint64_t pixel_format_ = 0;
    uint64_t output_pixel_format_ = 0;
    uint32_t unpacked_ = 1;
    uint64_t payload_size_ = 0;
    uint32_t stride_bytes_ = 0;
    uint32_t engine_stride_ = 0;
    uint32_t isp_mode_ = 0;
    uint32_t isp_out_width_ = 0;
    uint32_t isp_out_height_ = 0;
    uint32_t tap_format_ = 0;
    uint32_t line_scan_ = 0;
    uint32_t frame_lines_ = 0;
    uint32_t buffer_lines_ = 0;
};
