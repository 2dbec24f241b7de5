#include "gentl_base/local_event.h"

#include <cerrno>
#include <chrono>

#include "diag/log.h"

int local_event::create(bool auto_reset, bool initially_signalled) {
    std::lock_guard lock(mutex_);
    valid_ = true;
    auto_reset_ = auto_reset;
    signalled_ = initially_signalled;
    return 0;
}

void local_event::close() {
    std::lock_guard lock(mutex_);
    valid_ = false;
    signalled_ = false;
    if (sleepers_ > 0) changed_.notify_all();
}

bool local_event::valid() const {
    std::lock_guard lock(mutex_);
    return valid_;
}

bool local_event::auto_reset() const {
    std::lock_guard lock(mutex_);
    return auto_reset_;
}

int local_event::set() {
    std::lock_guard lock(mutex_);
    if (!valid_) {
        LOG_ANY(pelorin::diag::kError, "local_event: set on a closed event\n");
        return -EBADF;
    }
    if (signalled_) return 0;
    signalled_ = true;
    if (sleepers_ == 0) return 0;
    // An auto-reset signal releases one waiter; waking the others would only
    // send them back to sleep.
    if (auto_reset_)
        changed_.notify_one();
    else
        changed_.notify_all();
    return 0;
}

int local_event::reset() {
    std::lock_guard lock(mutex_);
    if (!valid_) {
        LOG_ANY(pelorin::diag::kError, "local_event: reset on a closed event\n");
        return -EBADF;
    }
    signalled_ = false;
    return 0;
}

local_event::wait_result local_event::wait(uint32_t timeout_ms) {
    std::unique_lock lock(mutex_);
    const auto settled = [this] { return signalled_ || !valid_; };
    if (!settled() && timeout_ms != 0) {
        ++sleepers_;
        if (timeout_ms == kInfinite)
            changed_.wait(lock, settled);
        else
            changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), settled);
        --sleepers_;
    }
    if (!valid_) {
        LOG_ANY(pelorin::diag::kError, "local_event: wait on a closed event\n");
        return wait_result::failed;
    }
    if (!signalled_) return wait_result::timed_out;
    if (auto_reset_) signalled_ = false;
    return wait_result::signalled;
}
