// The machine's own limits, the references of the producer's benchmarks:
// memset and memcpy bandwidth at the frame sizes the stream benchmarks use,
// and the round trip of an eventfd ping-pong between two threads (the least
// a wake-up from one thread to another and back can cost), with the CPU
// both threads spend on one round trip: two sleeps and two wake-ups, the
// kernel's share of every frame that makes a thread wait.
//
// Usage: limits [SECONDS_PER_CASE]   (default 1; 0.05 for a smoke run)
#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench_report.h"
#include "eventfd_ping.h"
#include "thread_cpu.h"

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
    const double cpu_before = pelorin_bench::process_cpu_seconds();
    const std::vector<double> trips = pelorin_bench::eventfd_round_trips(seconds);
    const double cpu = pelorin_bench::process_cpu_seconds() - cpu_before;
    double total = 0;
    for (double t : trips) total += t;
    pelorin_bench::Row row;
    row.name = "eventfd round trip";
    row.fps = 1e6 * static_cast<double>(trips.size()) / total;
    row.cpu_us = cpu * 1e6 / static_cast<double>(trips.size());
    row.p50_us = pelorin_bench::percentile(trips, 0.50);
    row.p99_us = pelorin_bench::percentile(trips, 0.99);
    row.max_us = pelorin_bench::percentile(trips, 1.0);
    pelorin_bench::print_row(row);
    return 0;
}
