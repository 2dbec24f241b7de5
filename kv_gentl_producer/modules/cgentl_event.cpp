#include "modules/cgentl_event.h"

#include <algorithm>
#include <cstring>
#include <exception>

#include "diag/log.h"
#include "modules/cio_vector.h"

using pelorin::diag::kError;

bool CGentlEvent::Create(bool auto_reset, bool initially_signalled) {
    if (!event_.valid()) event_.create(auto_reset, initially_signalled);
    return event_.valid();
}

bool CGentlEvent::Wait(uint64_t timeout_ms) {
    return event_.valid() &&
           event_.wait(static_cast<uint32_t>(timeout_ms)) == local_event::wait_result::signalled;
}

bool CGentlEvent::Set() { return event_.valid() && event_.set() == 0; }

bool CGentlEvent::Reset() { return event_.valid() && event_.reset() == 0; }

// ---------------------------------------------------------------------------

bool CNewBufListenner::Create() { return signal_.Create(true, false); }

void CNewBufListenner::Flush() {
    if (signal_.created()) signal_.Reset();
}

void CNewBufListenner::Notify(CIoVector *queues) {
    if (!signal_.created()) return;
    CGenTLAutoLock guard(lock_);
    if (killed_) return;
    queues_ = queues;
    if (queues_ != nullptr && queues_->IsOutputEmpty()) return;
    signal_.Set();
}

void CNewBufListenner::SetCameraLost() {
    CGenTLAutoLock guard(lock_);
    camera_lost_ = true;
    signal_.Set();
}

bool CNewBufListenner::IsKilled() {
    CGenTLAutoLock guard(lock_);
    return killed_;
}

void CNewBufListenner::SetKilled(bool killed) {
    CGenTLAutoLock guard(lock_);
    killed_ = killed;
    if (killed) signal_.Set();
}

GC_ERROR CNewBufListenner::TakeBuffer(uint8_t (&out)[kDataSize], uint32_t timeout_ms) {
    if (queues_ == nullptr) return GC_ERR_NOT_INITIALIZED;
    BufferRecord *record = nullptr;
    const int result = queues_->WaitPopOutput(record, timeout_ms);
    if (result == GC_ERR_SUCCESS) {
        const void *handle = record;
        std::memcpy(out, &handle, sizeof handle);
        std::memcpy(out + sizeof handle, &record->user_pointer, sizeof record->user_pointer);
    } else if (result == GC_ERR_NO_DATA) {
        if (queues_->IsOutputEmpty()) signal_.Reset();
    } else {
        LOG_ANY(kError, "get_gentl_data de_ring error(%d)\n", result);
    }
    return result;
}

GC_ERROR CNewBufListenner::CameraLostAnswer() {
    // Keeps the signal up so that every other waiter hears it too.
    signal_.Set();
    LOG_ANY(kError, "EventGetData: no more buffers, the stream's camera is lost\n");
    return GC_ERR_IO;
}

GC_ERROR CNewBufListenner::GetData(uint8_t (&out)[kDataSize], uint64_t timeout_ms) {
    if (!signal_.created()) return GC_ERR_NOT_INITIALIZED;
    try {
        {
            CGenTLAutoLock guard(lock_);
            if (killed_) return GC_ERR_ABORT;
            // A consumer that keeps up finds its buffer without waiting.
            if (queues_ != nullptr && TakeBuffer(out, 0) == GC_ERR_SUCCESS) return GC_ERR_SUCCESS;
            if (camera_lost_) return CameraLostAnswer();
        }
        const bool signalled = signal_.Wait(timeout_ms);
        CGenTLAutoLock guard(lock_);
        if (killed_) return GC_ERR_ABORT;
        if (camera_lost_) {
            if (queues_ != nullptr && TakeBuffer(out, 0) == GC_ERR_SUCCESS) return GC_ERR_SUCCESS;
            return CameraLostAnswer();
        }
        if (!signalled) return GC_ERR_TIMEOUT;
        return TakeBuffer(out, 1);
    } catch (const std::exception &) {
        LOG_ANY(kError, "get buf exception\n");
        return GC_ERR_ERROR;
    }
}

// ---------------------------------------------------------------------------

bool CBufNotifyEvent::SetUp() {
    CGenTLAutoLock guard(lock_);
    if (set_up_) return true;
    auto listener = std::make_shared<CNewBufListenner>();
    if (!listener->Create()) return false;
    free_.push_back(std::move(listener));
    set_up_ = true;
    return true;
}

GC_ERROR CBufNotifyEvent::Register(EVENT_HANDLE *handle) {
    CGenTLAutoLock guard(lock_);
    if (!set_up_) return GC_ERR_NOT_INITIALIZED;
    if (free_.empty()) return GC_ERR_RESOURCE_IN_USE;
    std::shared_ptr<CNewBufListenner> listener = free_.front();
    try {
        listener->SetKilled(false);
        listener->Flush();
        active_.push_back(listener);
        free_.erase(free_.begin());
    } catch (const std::exception &) {
        listener->SetKilled(true);
        return GC_ERR_OUT_OF_MEMORY;
    }
    *handle = listener.get();
    return GC_ERR_SUCCESS;
}

GC_ERROR CBufNotifyEvent::Unregister(EVENT_HANDLE *handle) {
    Notify(nullptr, true);
    CGenTLAutoLock guard(lock_);
    if (active_.empty()) return GC_ERR_ERROR;
    for (std::shared_ptr<CNewBufListenner> &listener : active_) {
        if (handle != nullptr) *handle = listener.get();
        listener->SetKilled(true);
        free_.push_back(std::move(listener));
    }
    active_.clear();
    return GC_ERR_SUCCESS;
}

void CBufNotifyEvent::Notify(CIoVector *queues, bool kill) {
    CGenTLAutoLock guard(lock_);
    for (const std::shared_ptr<CNewBufListenner> &listener : active_) {
        if (listener->GetType() != CNewBufListenner::kType) continue;
        if (kill)
            listener->Kill();
        else
            listener->Notify(queues);
    }
}

void CBufNotifyEvent::NotifyCameraLost() {
    CGenTLAutoLock guard(lock_);
    for (const std::shared_ptr<CNewBufListenner> &listener : active_) listener->SetCameraLost();
    for (const std::shared_ptr<CNewBufListenner> &listener : free_) listener->SetCameraLost();
}

std::shared_ptr<CNewBufListenner> CBufNotifyEvent::Active(EVENT_HANDLE handle) {
    CGenTLAutoLock guard(lock_);
    for (const std::shared_ptr<CNewBufListenner> &listener : active_)
        if (listener.get() == handle) return listener;
    return nullptr;
}

void CBufNotifyEvent::TearDown() {
    CGenTLAutoLock guard(lock_);
    if (!set_up_) return;
    for (const auto &listener : active_) listener->Kill();
    for (const auto &listener : free_) listener->Kill();
    active_.clear();
    free_.clear();
    set_up_ = false;
}
