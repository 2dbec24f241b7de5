#include "gentl_base/os_event.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <utility>

#include "diag/log.h"

os_event::~os_event() { close(); }

os_event::os_event(os_event &&other) noexcept
    : fd_(std::exchange(other.fd_, -1)), auto_reset_(other.auto_reset_) {}

os_event &os_event::operator=(os_event &&other) noexcept {
    if (this != &other) {
        close();
        fd_ = std::exchange(other.fd_, -1);
        auto_reset_ = other.auto_reset_;
    }
    return *this;
}

int os_event::create(bool auto_reset, bool initially_signalled) {
    close();
    const int fd = ::eventfd(initially_signalled ? 1 : 0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) {
        const int error = errno;
        LOG_ANY(pelorin::diag::kError, "os_event: eventfd failed: %s\n", std::strerror(error));
        return -error;
    }
    fd_ = fd;
    auto_reset_ = auto_reset;
    return 0;
}

void os_event::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

int os_event::set() {
    if (fd_ < 0) {
        LOG_ANY(pelorin::diag::kError, "os_event: set on a closed event\n");
        return -EBADF;
    }
    const uint64_t one = 1;
    for (;;) {
        if (::write(fd_, &one, sizeof one) == static_cast<ssize_t>(sizeof one)) return 0;
        if (errno == EINTR) continue;
        // The counter is full: the event is signalled already.
        if (errno == EAGAIN) return 0;
        return -errno;
    }
}

int os_event::reset() {
    if (fd_ < 0) {
        LOG_ANY(pelorin::diag::kError, "os_event: reset on a closed event\n");
        return -EBADF;
    }
    uint64_t count = 0;
    for (;;) {
        if (::read(fd_, &count, sizeof count) == static_cast<ssize_t>(sizeof count)) return 0;
        if (errno == EINTR) continue;
        if (errno == EAGAIN) return 0;  // not signalled
        return -errno;
    }
}

os_event::wait_result os_event::wait(uint32_t timeout_ms) {
    if (fd_ < 0) {
        LOG_ANY(pelorin::diag::kError, "os_event: wait on a closed event\n");
        return wait_result::failed;
    }
    using clock = std::chrono::steady_clock;
    const bool forever = timeout_ms == kInfinite;
    const clock::time_point deadline = clock::now() + std::chrono::milliseconds(timeout_ms);

    for (;;) {
        int poll_timeout = -1;
        if (!forever) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock::now());
            poll_timeout = left.count() <= 0 ? 0
                           : left.count() > INT_MAX ? INT_MAX
                                                    : static_cast<int>(left.count());
        }
        pollfd pfd{fd_, POLLIN, 0};
        const int ready = ::poll(&pfd, 1, poll_timeout);
        if (ready < 0) {
            if (errno == EINTR) continue;
            LOG_ANY(pelorin::diag::kError, "os_event: poll failed: %s\n", std::strerror(errno));
            return wait_result::failed;
        }
        if (ready == 0) {
            if (poll_timeout == 0) return wait_result::timed_out;
            continue;  // recompute what is left of the time-out
        }
        if ((pfd.revents & POLLIN) == 0) {
            LOG_ANY(pelorin::diag::kError, "os_event: unexpected poll events 0x%x\n",
                    static_cast<unsigned>(pfd.revents));
            return wait_result::failed;
        }
        if (!auto_reset_) return wait_result::signalled;

        // Auto-reset: the waiter that drains the counter wins; the others
        // find it empty and go back to waiting.
        uint64_t count = 0;
        if (::read(fd_, &count, sizeof count) == static_cast<ssize_t>(sizeof count))
            return wait_result::signalled;
        if (errno != EAGAIN && errno != EINTR) {
            LOG_ANY(pelorin::diag::kError, "os_event: read failed: %s\n", std::strerror(errno));
            return wait_result::failed;
        }
        if (!forever && clock::now() >= deadline) return wait_result::timed_out;
    }
}
