// The machine's own limits, the references of the producer's benchmarks:
// memset and memcpy bandwidth at the frame sizes the stream benchmarks use,
// and the round trip of an eventfd ping-pong between two threads (the least
// a wake-up from one thread to another and back can cost).
//
// Usage: limits [SECONDS_PER_CASE]   (default 1; 0.05 for a smoke run)
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "bench_report.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void wait_and_take(int fd) {
    pollfd ready{fd, POLLIN, 0};
    while (::poll(&ready, 1, -1) < 0) {
    }
    uint64_t value = 0;
    if (::read(fd, &value, sizeof value) != sizeof value) std::abort();
}

void signal(int fd) {
    const uint64_t one = 1;
    if (::write(fd, &one, sizeof one) != sizeof one) std::abort();
}

// Round trips of a ping-pong through two eventfds, waited on with poll as
// the producer's events are; the times in microseconds.
std::vector<double> eventfd_round_trips(double seconds) {
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
    const Clock::time_point start = Clock::now();
    while (seconds_since(start) < seconds || times.size() < 10) {
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

double percentile(std::vector<double> values, double fraction) {
    std::sort(values.begin(), values.end());
    const size_t index = std::min(values.size() - 1, static_cast<size_t>(fraction * static_cast<double>(values.size())));
    return values[index];
}

}  // namespace

int main(int argc, char **argv) {
    const double seconds = argc > 1 ? std::max(0.001, std::atof(argv[1])) : 1.0;
    pelorin_bench::print_header();
    for (const size_t bytes : {size_t{4} << 10, size_t{64} << 10, size_t{1} << 20, size_t{4} << 20, size_t{16} << 20}) {
        const double set = pelorin_bench::bandwidth(bytes, seconds, [](uint8_t *to, const uint8_t *, size_t n) {
            std::memset(to, 0x5A, n);
        });
        const double copy = pelorin_bench::bandwidth(bytes, seconds, [](uint8_t *to, const uint8_t *from, size_t n) {
            std::memcpy(to, from, n);
        });
        for (const auto &[name, rate] : {std::pair{"memset", set}, std::pair{"memcpy", copy}}) {
            pelorin_bench::Row row;
            row.name = name;
            row.frame_bytes = static_cast<double>(bytes);
            row.gbps = rate / 1e9;
            row.fps = rate / static_cast<double>(bytes);
            pelorin_bench::print_row(row);
        }
    }
    const std::vector<double> trips = eventfd_round_trips(seconds);
    double total = 0;
    for (double t : trips) total += t;
    pelorin_bench::Row row;
    row.name = "eventfd round trip";
    row.fps = 1e6 * static_cast<double>(trips.size()) / total;
    row.p50_us = percentile(trips, 0.50);
    row.p99_us = percentile(trips, 0.99);
    row.max_us = percentile(trips, 1.0);
    pelorin_bench::print_row(row);
    return 0;
}
