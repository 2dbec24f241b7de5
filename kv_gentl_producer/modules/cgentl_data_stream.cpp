#include "modules/cgentl_data_stream.h"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <new>

#include "card/card_context.h"
#include "diag/log.h"
#include "gentl_base/copy_info.h"
#include "gentl_base/error_codes.h"
#include "modules/cgentl_device.h"

using pelorin::CopyInfoNumber;
using pelorin::CopyInfoString;
using pelorin::diag::kDebug;

namespace {

constexpr const char *kTransportType = "CXP";
constexpr uint64_t kBufferAnnounceMin = 2;

// 90 % of the machine's physical memory: what the producer's own buffers
// may take together; 0 when the size is unknown.
uint64_t AllocationLimit() {
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long page_size = sysconf(_SC_PAGE_SIZE);
    if (pages <= 0 || page_size <= 0) return 0;
    return static_cast<uint64_t>(0.9 * static_cast<double>(pages) * static_cast<double>(page_size));
}

GC_ERROR CopySize(uint64_t value, INFO_DATATYPE *type, void *buffer, size_t *size) {
    return CopyInfoNumber(INFO_DATATYPE_SIZET, value, type, buffer, size);
}

GC_ERROR CopyBool(bool value, INFO_DATATYPE *type, void *buffer, size_t *size) {
    return CopyInfoNumber(INFO_DATATYPE_BOOL8, static_cast<uint8_t>(value), type, buffer, size);
}

GC_ERROR CopyU64(uint64_t value, INFO_DATATYPE *type, void *buffer, size_t *size) {
    return CopyInfoNumber(INFO_DATATYPE_UINT64, value, type, buffer, size);
}

GC_ERROR CopyPointer(void *value, INFO_DATATYPE *type, void *buffer, size_t *size) {
    return pelorin::CopyInfoValue(INFO_DATATYPE_PTR, type, &value, buffer, size);
}

}  // namespace

CGentlDataStream::CGentlDataStream() = default;

CGentlDataStream::~CGentlDataStream() { Close(); }

bool CGentlDataStream::Open(const char *id, card_context *context, stream_slot *slot) {
    if (id == nullptr || context == nullptr || slot == nullptr) return false;
    if (!context->pcie_device.is_open()) return false;
    CGenTLAutoLock guard(api_lock_);
    if (opened_ || queues_ || announced_) return false;
    auto queues = std::make_unique<CIoVector>();
    if (!queues->Open() || !notifier_.SetUp()) return false;
    stream_id_ = id;
    announced_ = std::make_unique<std::vector<BufferRecord *>>();
    queues_ = std::move(queues);
    context_ = context;
    slot_ = slot;
    parent_device_ = slot->device;
    ComputeGeometry();  // the camera may not be reachable yet: computed again at start
    opened_ = true;
    return true;
}

GC_ERROR CGentlDataStream::Close() {
    if (acquiring_) DSStopAcquisition(ACQ_STOP_FLAGS_KILL);
    // Consumers waiting for a buffer leave with GC_ERR_ABORT before the
    // queues go.
    notifier_.TearDown();
    stream_slot *slot = nullptr;
    {
        CGenTLAutoLock guard(api_lock_);
        opened_ = false;
        if (queues_) {
            queues_->Close();  // empties both queues and wakes their waiters
            queues_.reset();
        }
        dma_addresses_.clear();
        stream_id_.clear();
        ReleaseRecords();
        context_ = nullptr;
        std::swap(slot, slot_);
    }
    // Outside the stream's lock: the device lock is always taken before it.
    if (slot != nullptr && slot->device != nullptr) slot->device->release_stream(slot->index);
    return GC_ERR_SUCCESS;
}

void CGentlDataStream::ReleaseRecords() {
    if (!announced_) return;
    for (BufferRecord *record : *announced_) {
        if (record->user_owned == 0) std::free(record->base);
        delete record;
    }
    announced_.reset();
}

BufferRecord *CGentlDataStream::FindAnnounced(BUFFER_HANDLE handle) const {
    if (!announced_ || handle == nullptr) return nullptr;
    const auto found = std::find(announced_->begin(), announced_->end(), handle);
    return found == announced_->end() ? nullptr : *found;
}

bool CGentlDataStream::IsAnnounced(const void *base) const {
    return std::any_of(announced_->begin(), announced_->end(),
                       [base](const BufferRecord *record) { return record->base == base; });
}

GC_ERROR CGentlDataStream::CheckCanAnnounce() const {
    if (!announced_) return GC_ERR_NOT_INITIALIZED;
    if (acquiring_) return GC_ERR_BUSY;
    if (announced_->size() >= kMaxAnnounced) return GC_ERR_OUT_OF_MEMORY;
    return GC_ERR_SUCCESS;
}

void CGentlDataStream::Append(BufferRecord *record, BUFFER_HANDLE *phBuffer) {
    *phBuffer = record;
    announced_->push_back(record);
}

GC_ERROR CGentlDataStream::DSAnnounceBuffer(void *pBuffer, size_t iSize, void *pPrivate,
                                            BUFFER_HANDLE *phBuffer) {
    CGenTLAutoLock guard(api_lock_);
    if (pBuffer == nullptr || iSize == 0 || phBuffer == nullptr) return GC_ERR_INVALID_PARAMETER;
    if (!announced_) return GC_ERR_NOT_INITIALIZED;
    if (IsAnnounced(pBuffer)) return GC_ERR_RESOURCE_IN_USE;
    if (const GC_ERROR refused = CheckCanAnnounce(); refused != GC_ERR_SUCCESS) return refused;
    auto *record = new (std::nothrow) BufferRecord{};
    if (record == nullptr) return GC_ERR_BUSY;
    record->base = pBuffer;
    record->size = iSize;
    record->user_owned = 1;
    record->user_pointer = pPrivate;
    Append(record, phBuffer);
    LOG_ANY(kDebug, "DSAnnounceBuffer handle: %#" PRIxPTR ", %zu\n",
            reinterpret_cast<uintptr_t>(record), iSize);
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlDataStream::DSAllocAndAnnounceBuffer(size_t iSize, void *pPrivate,
                                                    BUFFER_HANDLE *phBuffer) {
    CGenTLAutoLock guard(api_lock_);
    if (iSize == 0 || phBuffer == nullptr) return GC_ERR_INVALID_PARAMETER;
    if (const GC_ERROR refused = CheckCanAnnounce(); refused != GC_ERR_SUCCESS) return refused;
    // The buffers already announced and the new one, each counted at the new
    // size, must stay within 90 % of physical memory: a first buffer larger
    // than that is refused too, before any memory is taken or touched.
    const uint64_t limit = AllocationLimit();
    unsigned __int128 wanted = static_cast<unsigned __int128>(announced_->size() + 1) * iSize;
    if (limit != 0 && wanted > limit) return GC_ERR_OUT_OF_MEMORY;
    auto *record = new (std::nothrow) BufferRecord{};
    if (record == nullptr) return GC_ERR_BUSY;
    void *memory = std::malloc(iSize);
    if (memory == nullptr) {
        delete record;
        return GC_ERR_BUSY;
    }
    std::memset(memory, kAllocatedFill, iSize);
    record->base = memory;
    record->size = iSize;
    record->user_owned = 0;
    record->user_pointer = pPrivate;
    Append(record, phBuffer);
    LOG_ANY(kDebug, "DSAllocAndAnnounceBuffer handle: %#" PRIxPTR ", %zu\n",
            reinterpret_cast<uintptr_t>(record), iSize);
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlDataStream::DSQueueBuffer(BUFFER_HANDLE hBuffer) {
    CGenTLAutoLock guard(api_lock_);
    if (hBuffer == nullptr) return GC_ERR_INVALID_HANDLE;
    if (!queues_ || context_ == nullptr || !context_->pcie_device.is_open())
        return GC_ERR_NOT_INITIALIZED;
    BufferRecord *record = FindAnnounced(hBuffer);
    if (record == nullptr) return GC_ERR_INVALID_HANDLE;
    if (const int pushed = queues_->PushInput(record); pushed != 0) return pushed;
    if (!acquiring_) return GC_ERR_SUCCESS;
    // While acquiring the engine takes the buffer at once. When it refuses,
    // the buffer is neither queued nor in the engine: the consumer holds it.
    const int handed = dma_queue_buffer(context_, static_cast<uint32_t>(record->index));
    if (handed == 0) return GC_ERR_SUCCESS;
    queues_->DropLastInput();
    LOG_ANY(pelorin::diag::kError, "DSQueueBuffer: the DMA engine refused buffer %" PRIu64 " (%d)\n",
            record->index, handed);
    return GC_ERR_IO;
}

void CGentlDataStream::QueueEveryAnnounced() {
    // Results of single buffers do not matter: one already queued stays queued once.
    for (BufferRecord *record : *announced_) DSQueueBuffer(record);
}

GC_ERROR CGentlDataStream::DSFlushQueue(ACQ_QUEUE_TYPE iOperation) {
    CGenTLAutoLock guard(api_lock_);
    if (!queues_) return GC_ERR_NOT_INITIALIZED;
    switch (iOperation) {
    case ACQ_QUEUE_INPUT_TO_OUTPUT: return GC_ERR_SUCCESS;
    case ACQ_QUEUE_OUTPUT_DISCARD:
    case ACQ_QUEUE_UNQUEUED_TO_INPUT: queues_->Flush(0); return GC_ERR_SUCCESS;
    case ACQ_QUEUE_ALL_TO_INPUT: QueueEveryAnnounced(); return GC_ERR_SUCCESS;
    case ACQ_QUEUE_ALL_DISCARD:
        QueueEveryAnnounced();
        queues_->Flush(0);
        return GC_ERR_SUCCESS;
    default: return GC_ERR_NOT_IMPLEMENTED;
    }
}

GC_ERROR CGentlDataStream::DSRevokeBuffer(BUFFER_HANDLE hBuffer, void **ppBuffer, void **ppPrivate,
                                          bool) {
    CGenTLAutoLock guard(api_lock_);
    if (acquiring_) return GC_ERR_BUSY;
    if (hBuffer == nullptr || !announced_) return GC_ERR_INVALID_HANDLE;
    auto *candidate = static_cast<const BufferRecord *>(hBuffer);
    if (queues_ && queues_->CheckNotQueued(candidate) != 0) return GC_ERR_BUSY;
    BufferRecord *record = FindAnnounced(hBuffer);
    if (record == nullptr) return GC_ERR_INVALID_HANDLE;
    void *user_pointer = record->user_pointer;
    if (record->user_owned == 0) {
        std::free(record->base);
        if (ppBuffer != nullptr) *ppBuffer = nullptr;
    } else if (ppBuffer != nullptr) {
        *ppBuffer = record->base;
    }
    announced_->erase(std::find(announced_->begin(), announced_->end(), record));
    delete record;
    if (ppPrivate != nullptr) *ppPrivate = user_pointer;
    LOG_ANY(kDebug, "DSRevokeBuffer handle success: %#" PRIxPTR "\n",
            reinterpret_cast<uintptr_t>(hBuffer));
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlDataStream::DSGetParentDev(DEV_HANDLE *phDevice) {
    if (phDevice == nullptr) return GC_ERR_INVALID_PARAMETER;
    CGenTLAutoLock guard(api_lock_);
    *phDevice = parent_device_;
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlDataStream::DSGetInfo(STREAM_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                                     size_t *piSize) {
    if (piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    const auto queued = [this](size_t (CIoVector::*count)()) -> uint64_t {
        return queues_ ? ((*queues_).*count)() : 0;
    };
    switch (iInfoCmd) {
    case STREAM_INFO_ID: return CopyInfoString(stream_id_.c_str(), piType, pBuffer, piSize);
    case STREAM_INFO_NUM_UNDERRUN: return CopyU64(0, piType, pBuffer, piSize);
    case STREAM_INFO_NUM_ANNOUNCED: return CopySize(queued(&CIoVector::Count), piType, pBuffer, piSize);
    case STREAM_INFO_NUM_QUEUED:
        return CopySize(queued(&CIoVector::InputCount), piType, pBuffer, piSize);
    case STREAM_INFO_NUM_AWAIT_DELIVERY:
        return CopySize(queued(&CIoVector::OutputCount), piType, pBuffer, piSize);
    case STREAM_INFO_PAYLOAD_SIZE: {
        CGenTLAutoLock guard(api_lock_);
        if (!ComputeGeometry()) payload_size_ = 0;
        const GC_ERROR copied = CopySize(payload_size_, piType, pBuffer, piSize);
        return copied == GC_ERR_SUCCESS && payload_size_ == 0 ? GC_ERR_INVALID_VALUE : copied;
    }
    case STREAM_INFO_IS_GRABBING: {
        CGenTLAutoLock guard(api_lock_);
        return CopyBool(acquiring_, piType, pBuffer, piSize);
    }
    case STREAM_INFO_DEFINES_PAYLOADSIZE: return CopyBool(true, piType, pBuffer, piSize);
    case STREAM_INFO_TLTYPE: return CopyInfoString(kTransportType, piType, pBuffer, piSize);
    case STREAM_INFO_BUF_ANNOUNCE_MIN: return CopySize(kBufferAnnounceMin, piType, pBuffer, piSize);
    default: return GC_ERR_NOT_IMPLEMENTED;
    }
}

uint64_t CGentlDataStream::CameraOffset(const char *name, uint64_t &stored) {
    int64_t value = 0;
    if (parent_device_ != nullptr && parent_device_->read_camera_integer(name, value))
        stored = static_cast<uint64_t>(value);
    return stored;
}

GC_ERROR CGentlDataStream::DSGetBufferInfo(BUFFER_HANDLE hBuffer, BUFFER_INFO_CMD iInfoCmd,
                                           INFO_DATATYPE *piType, void *pBuffer, size_t *piSize) {
    CGenTLAutoLock guard(api_lock_);
    const BufferRecord *record = FindAnnounced(hBuffer);
    if (record == nullptr) return GC_ERR_INVALID_HANDLE;
    if (piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    switch (iInfoCmd) {
    case BUFFER_INFO_BASE: return CopyPointer(record->base, piType, pBuffer, piSize);
    case BUFFER_INFO_SIZE:
    case BUFFER_INFO_SIZE_FILLED:
    case BUFFER_INFO_DATA_SIZE: return CopySize(record->size, piType, pBuffer, piSize);
    case BUFFER_INFO_USER_PTR: return CopyPointer(record->user_pointer, piType, pBuffer, piSize);
    case BUFFER_INFO_TIMESTAMP:
        return CopyU64(record->timestamp.load(std::memory_order_relaxed), piType, pBuffer, piSize);
    case BUFFER_INFO_NEW_DATA:
    case BUFFER_INFO_IMAGEPRESENT: return CopyBool(true, piType, pBuffer, piSize);
    case BUFFER_INFO_IS_QUEUED:
        return CopyBool(queues_ && queues_->IsInOutput(record), piType, pBuffer, piSize);
    case BUFFER_INFO_IS_ACQUIRING:
    case BUFFER_INFO_IS_INCOMPLETE:
    case BUFFER_INFO_CONTAINS_CHUNKDATA:
    case BUFFER_INFO_IS_COMPOSITE: return CopyBool(false, piType, pBuffer, piSize);
    case BUFFER_INFO_TLTYPE: return CopyInfoString(kTransportType, piType, pBuffer, piSize);
    case BUFFER_INFO_WIDTH: return CopySize(width_, piType, pBuffer, piSize);
    case BUFFER_INFO_HEIGHT: return CopySize(buffer_lines_, piType, pBuffer, piSize);
    case BUFFER_INFO_XOFFSET:
        return CopySize(CameraOffset("OffsetX", offset_x_), piType, pBuffer, piSize);
    case BUFFER_INFO_YOFFSET:
        return CopySize(CameraOffset("OffsetY", offset_y_), piType, pBuffer, piSize);
    case BUFFER_INFO_XPADDING:
    case BUFFER_INFO_YPADDING:
    case BUFFER_INFO_IMAGEOFFSET: return CopySize(0, piType, pBuffer, piSize);
    case BUFFER_INFO_FRAMEID:
        return CopyU64(record->frame_id.load(std::memory_order_relaxed), piType, pBuffer, piSize);
    case BUFFER_INFO_PAYLOADTYPE: return CopySize(PAYLOAD_TYPE_IMAGE, piType, pBuffer, piSize);
    case BUFFER_INFO_PIXELFORMAT: return CopyU64(output_pixel_format_, piType, pBuffer, piSize);
    case BUFFER_INFO_PIXELFORMAT_NAMESPACE:
        return CopyU64(PIXELFORMAT_NAMESPACE_PFNC_32BIT, piType, pBuffer, piSize);
    case BUFFER_INFO_DELIVERED_IMAGEHEIGHT:
        return CopySize(buffer_lines_ > 4 ? buffer_lines_ - 4 : 2, piType, pBuffer, piSize);
    case BUFFER_INFO_FILENAME: return CopyInfoString("", piType, pBuffer, piSize);
    default: return GC_ERR_NOT_IMPLEMENTED;
    }
}
