// The round trip of an eventfd ping-pong between two threads, each waiting
// with poll as the producer's events do: the least a wake-up from one thread
// to another and back costs, the reference of the latency benchmarks.
#pragma once

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <thread>
#include <vector>

namespace pelorin_bench {

inline void wait_and_take(int fd) {
    pollfd ready{fd, POLLIN, 0};
    while (::poll(&ready, 1, -1) < 0) {
    }
    uint64_t value = 0;
    if (::read(fd, &value, sizeof value) != sizeof value) std::abort();
}

inline void signal(int fd) {
    const uint64_t one = 1;
    if (::write(fd, &one, sizeof one) != sizeof one) std::abort();
}

// Round trips of a ping-pong through two eventfds, waited on with poll as
// the producer's events are; the times in microseconds.
inline std::vector<double> eventfd_round_trips(double seconds) {
    const int ping = ::eventfd(0, EFD_CLOEXEC), pong = ::eventfd(0, EFD_CLOEXEC);
    if (ping < 0 || pong < 0) std::abort();
    std::vector<double> times;
    bool done = false;
    std::thread echo([&] {
        for (;;) {
            wait_and_take(ping);
            if (__atomic_load_n(&done, __ATOMIC_ACQUIRE)) return;
            signal(pong);
        }
    });
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    while (std::chrono::duration<double>(Clock::now() - start).count() < seconds || times.size() < 10) {
        const Clock::time_point sent = Clock::now();
        signal(ping);
        wait_and_take(pong);
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
    }
    __atomic_store_n(&done, true, __ATOMIC_RELEASE);
    signal(ping);
    echo.join();
    ::close(ping);
    ::close(pong);
    return times;
}

inline double percentile(std::vector<double> values, double fraction) {
    std::sort(values.begin(), values.end());
    const size_t index = std::min(values.size() - 1, static_cast<size_t>(fraction * static_cast<double>(values.size())));
    return values[index];
}

}  // namespace pelorin_bench
