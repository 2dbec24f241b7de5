// The buffers of one data stream and the two queues that carry them between
// the consumer and the delivery thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "gentl_base/gentl_critical.h"
#include "gentl_base/local_event.h"

// One announced buffer. Its address is the BUFFER_HANDLE the consumer holds.
struct BufferRecord {
    void *base = nullptr;
    void *user_pointer = nullptr;
    uint64_t size = 0;
    // Position in the announced list; the DMA engine names the buffer by it.
    uint64_t index = 0;
    // Microseconds since the first frame of the acquisition, and the frame
    // ID: stamped by the delivery thread, read by DSGetBufferInfo under the
    // stream's lock, which the delivery thread does not take, for any buffer
    // (a queued one included): atomic, so that the two never race.
    std::atomic<uint64_t> timestamp{0};
    std::atomic<uint64_t> frame_id{0};
    // 1: memory of the consumer (DSAnnounceBuffer); 0: ours (DSAllocAndAnnounceBuffer).
    uint32_t user_owned = 0;
};

// The input queue (queued by the consumer, not yet filled) and the output
// queue (filled, waiting for the consumer), each in arrival order. The lock
// is the innermost of the stream; it is never held while waiting.
class CIoVector {
public:
    CIoVector() = default;
    CIoVector(const CIoVector &) = delete;
    CIoVector &operator=(const CIoVector &) = delete;

    // Creates both events (auto-reset, not signalled); true at once when open.
    bool Open();
    void Close() { Flush(0); }
    // Signals both events so that waiters look again; mode 0 empties both
    // queues, mode 1 moves the output queue behind the input queue, any other
    // mode only wakes the waiters.
    void Flush(int mode);
    // GC_ERR_RESOURCE_IN_USE when `record` already waits in the input queue.
    int PushInput(BufferRecord *record);
    void DropLastInput();
    // GC_ERR_RESOURCE_IN_USE when `record` is in either queue.
    int CheckNotQueued(const BufferRecord *record);
    size_t InputCount();
    size_t OutputCount();
    size_t Count();
    BufferRecord *InputAt(size_t index);
    bool IsOutputEmpty();
    bool IsInOutput(const BufferRecord *record);

    // Moves a filled `record` from the input queue (wherever it stands) to
    // the output queue and signals outputReady. With the input queue empty
    // it first waits up to `timeout_ms` for a buffer to be queued.
    // GC_ERR_NOT_INITIALIZED before Open, GC_ERR_INVALID_PARAMETER for a
    // null record, GC_ERR_RESOURCE_IN_USE when the input queue stays empty,
    // GC_ERR_NO_DATA when the record is not queued.
    int MoveToOutput(BufferRecord *record, uint64_t timeout_ms);
    // The oldest filled buffer, or null; resets outputReady when the output
    // queue becomes empty.
    BufferRecord *PopOutput();
    // PopOutput, waiting up to `timeout_ms` for a buffer: GC_ERR_NO_DATA
    // when none comes, GC_ERR_NOT_INITIALIZED before Open.
    int WaitPopOutput(BufferRecord *&record, uint32_t timeout_ms);

    local_event &output_ready() { return output_ready_; }
    local_event &input_ready() { return input_ready_; }

private:
    CGentlCritical lock_{CGentlCritical::kUnranked, "io_vector"};
    std::vector<BufferRecord *> output_;
    std::vector<BufferRecord *> input_;
    bool opened_ = false;
    local_event output_ready_;
    local_event input_ready_;
};
