// An operating-system event over eventfd(2): set, reset and wait with a
// time-out, auto-reset or manual-reset. The event's handle value (what
// travels in driver messages) is its file descriptor; whoever holds the
// value signals the event by writing to it.
//
// Auto-reset: a successful wait consumes the signal, so of several waiters
// exactly one wins. Manual-reset: the event stays signalled until reset.
// Setting an event that is already signalled leaves it signalled once.
//
// Thread safety: set, reset and wait may be called from any thread on an
// event that is valid; create, close and destruction must not race with
// them.
#pragma once

#include <cstdint>

class os_event {
public:
    static constexpr uint32_t kInfinite = 0xFFFFFFFF;

    enum class wait_result { signalled, timed_out, failed };

    os_event() = default;
    ~os_event();

    os_event(const os_event &) = delete;
    os_event &operator=(const os_event &) = delete;
    os_event(os_event &&other) noexcept;
    os_event &operator=(os_event &&other) noexcept;

    // Creates the event, closing one held before. 0 or a negative errno.
    int create(bool auto_reset, bool initially_signalled);
    // Closes the event; nothing to do when it is not valid.
    void close();

    bool valid() const { return fd_ >= 0; }
    bool auto_reset() const { return auto_reset_; }
    // The descriptor, -1 when the event is not valid.
    int handle_value() const { return fd_; }

    // 0 or a negative errno (-EBADF when the event is not valid).
    int set();
    int reset();
    // Waits up to `timeout_ms` milliseconds (kInfinite: no time-out; 0: a
    // poll of the current state).
    wait_result wait(uint32_t timeout_ms);

private:
    int fd_ = -1;
    bool auto_reset_ = true;
};
