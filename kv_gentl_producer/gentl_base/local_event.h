// An event that never leaves the process: set, reset and wait with a
// time-out, auto-reset or manual-reset, with the same behaviour as os_event
// but no descriptor. It is what the stream's queues and the new-buffer
// listener use: their signals never travel in a driver message, and at
// frame rate the kernel entries of an eventfd (a write per set, a poll and
// a read per wait) cost more than the rest of a frame's delivery. Here a
// set enters the kernel only when a thread sleeps on the event, and a wait
// only when the event is not signalled yet.
//
// Auto-reset: a successful wait consumes the signal, so of several waiters
// exactly one wins. Manual-reset: the event stays signalled until reset.
// Setting an event that is already signalled leaves it signalled once.
//
// Thread safety: set, reset and wait may be called from any thread on an
// event that is valid; create, close and destruction must not race with
// them.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

class local_event {
public:
    static constexpr uint32_t kInfinite = 0xFFFFFFFF;

    enum class wait_result { signalled, timed_out, failed };

    local_event() = default;
    local_event(const local_event &) = delete;
    local_event &operator=(const local_event &) = delete;

    // Makes the event valid with the given mode and state; always 0 (the
    // signature matches os_event's).
    int create(bool auto_reset, bool initially_signalled);
    // Makes the event invalid and wakes its waiters, which then fail.
    void close();

    bool valid() const;
    bool auto_reset() const;

    // 0, or -EBADF when the event is not valid.
    int set();
    int reset();
    // Waits up to `timeout_ms` milliseconds (kInfinite: no time-out; 0: a
    // look at the current state).
    wait_result wait(uint32_t timeout_ms);

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool valid_ = false;
    bool auto_reset_ = true;
    bool signalled_ = false;
    // Threads asleep in wait(): only then does set() wake anybody.
    uint32_t sleepers_ = 0;
};
