// The new-buffer event of a data stream: the listener behind an
// EVENT_HANDLE, and the stream's notifier that the delivery thread wakes.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "gentl_base/gentl_critical.h"
#include "gentl_base/local_event.h"
#include "pelorin/gentl.h"

class CIoVector;

// One event with the GenTL time-out convention: the low 32 bits of the
// 64-bit milliseconds are waited for, all ones for ever. It is an event of
// the process (local_event): the listener's signal never goes to a driver.
class CGentlEvent {
public:
    bool Create(bool auto_reset, bool initially_signalled);
    // True only when the event was signalled within the time-out.
    bool Wait(uint64_t timeout_ms);
    bool Set();
    bool Reset();
    bool created() const { return event_.valid(); }

private:
    local_event event_;
};

// The listener whose address is the EVENT_HANDLE of a stream's new-buffer
// event. A killed listener answers GC_ERR_ABORT, also to a thread that waits
// in GetData when it is killed.
class CNewBufListenner {
public:
    static constexpr uint32_t kType = EVENT_NEW_BUFFER;
    // The bytes of EVENT_NEW_BUFFER_DATA: buffer handle, user pointer.
    static constexpr size_t kDataSize = 16;

    bool Create();
    // Drops a signal left from an earlier registration.
    void Flush();
    // After a delivery: learns the queues and wakes one waiter when the
    // output queue holds a buffer.
    void Notify(CIoVector *queues);
    // Waits up to `timeout_ms` for a filled buffer and takes the oldest.
    GC_ERROR GetData(uint8_t (&out)[kDataSize], uint64_t timeout_ms);
    uint32_t GetType() const { return kType; }
    // The stream's camera is lost: once the output queue is empty, GetData
    // answers GC_ERR_IO instead of waiting; a waiting thread is woken.
    void SetCameraLost();
    bool IsKilled();
    void SetKilled(bool killed);
    void Kill() { SetKilled(true); }

private:
    GC_ERROR TakeBuffer(uint8_t (&out)[kDataSize], uint32_t timeout_ms);
    GC_ERROR CameraLostAnswer();

    bool killed_ = true;
    bool camera_lost_ = false;
    CIoVector *queues_ = nullptr;
    CGentlEvent signal_;
    CGentlCritical lock_{CGentlCritical::kUnranked, "listener"};
};

// The new-buffer notifier of one stream: one listener, free until
// GCRegisterEvent makes it active. Listeners are shared so that a consumer
// thread waiting in EventGetData keeps its listener alive while the stream
// closes.
class CBufNotifyEvent {
public:
    ~CBufNotifyEvent() { TearDown(); }

    // Creates the stream's listener; false when its event cannot be made.
    bool SetUp();
    // GC_ERR_NOT_INITIALIZED before SetUp, GC_ERR_RESOURCE_IN_USE when the
    // listener is registered already.
    GC_ERROR Register(EVENT_HANDLE *handle);
    // Kills every active listener (ending their waits) and frees them;
    // GC_ERR_ERROR when none was registered.
    GC_ERROR Unregister(EVENT_HANDLE *handle);
    // Wakes (or, with `kill`, kills) every active listener.
    void Notify(CIoVector *queues, bool kill);
    // Tells every listener, registered or not, that the camera is lost.
    void NotifyCameraLost();
    // The listener behind `handle` when it is active.
    std::shared_ptr<CNewBufListenner> Active(EVENT_HANDLE handle);
    void TearDown();

private:
    CGentlCritical lock_{CGentlCritical::kUnranked, "notifier"};
    std::vector<std::shared_ptr<CNewBufListenner>> active_;
    std::vector<std::shared_ptr<CNewBufListenner>> free_;
    bool set_up_ = false;
};
