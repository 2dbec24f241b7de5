// One row per benchmark case, printed as a table and, when the environment
// names a file in PELORIN_BENCH_JSON, appended to it as one JSON object per
// line (for docs/performance.md and its plot). A value that a case does not
// measure is negative and printed as "-".
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace pelorin_bench {

struct Row {
    std::string name;        // the case, e.g. "memcpy" or "stream 8 buffers"
    double frame_bytes = -1;
    double fps = -1;
    double gbps = -1;        // 1e9 bytes per second
    double cpu_us = -1;      // CPU per frame, microseconds (the producer's, where it can be told apart)
    double card_cpu_us = -1; // CPU per frame of the emulated card's threads
    double p50_us = -1, p99_us = -1, max_us = -1;
    double ratio = -1;       // to the reference below, measured in the same run
    std::string reference;   // what `ratio` compares with
};

// Bytes per second of `operation(target, source, bytes)` repeated for about
// `seconds`; the buffers are touched first so that page faults are not
// measured.
template <typename Operation>
double bandwidth(size_t bytes, double seconds, Operation operation) {
    using Clock = std::chrono::steady_clock;
    std::vector<uint8_t> source(bytes, 1), target(bytes, 0);
    operation(target.data(), source.data(), bytes);
    uint64_t rounds = 0;
    const Clock::time_point start = Clock::now();
    double elapsed = 0;
    do {
        operation(target.data(), source.data(), bytes);
        ++rounds;
        elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    } while (elapsed < seconds);
    if (target[bytes / 2] == 0xEE) std::printf(" ");  // keeps the work from being optimised away
    return static_cast<double>(bytes) * static_cast<double>(rounds) / elapsed;
}

inline double memcpy_bandwidth(size_t bytes, double seconds) {
    return bandwidth(bytes, seconds, [](uint8_t *to, const uint8_t *from, size_t n) { std::memcpy(to, from, n); });
}

// Bytes per second of memcpy of one frame into `buffers` targets in turn,
// the way a card's DMA writes a stream of frames into the consumer's
// buffers: with several large buffers the targets are not all in the caches,
// which a copy into one buffer never shows.
inline double memcpy_rotating_bandwidth(size_t bytes, size_t buffers, double seconds) {
    using Clock = std::chrono::steady_clock;
    std::vector<uint8_t> source(bytes, 1);
    std::vector<std::vector<uint8_t>> targets(std::max<size_t>(buffers, 1), std::vector<uint8_t>(bytes, 0));
    uint64_t rounds = 0;
    const Clock::time_point start = Clock::now();
    double elapsed = 0;
    do {
        for (std::vector<uint8_t> &target : targets) std::memcpy(target.data(), source.data(), bytes);
        rounds += targets.size();
        elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    } while (elapsed < seconds);
    if (targets.back()[bytes / 2] == 0xEE) std::printf(" ");  // keeps the work from being optimised away
    return static_cast<double>(bytes) * static_cast<double>(rounds) / elapsed;
}

inline std::string size_text(double bytes) {
    char text[32];
    if (bytes < 0) return "-";
    if (bytes >= 1024.0 * 1024.0) std::snprintf(text, sizeof text, "%.0f MiB", bytes / (1024.0 * 1024.0));
    else if (bytes >= 1024.0) std::snprintf(text, sizeof text, "%.0f KiB", bytes / 1024.0);
    else std::snprintf(text, sizeof text, "%.0f B", bytes);
    return text;
}

inline std::string number_text(double value, const char *format) {
    if (value < 0) return "-";
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

inline void print_header() {
    std::printf("%-28s %9s %11s %8s %10s %10s %9s %9s %9s %7s  %s\n", "case", "frame", "fps", "GB/s", "CPU us/fr",
                "card us/fr", "p50 us", "p99 us", "max us", "ratio", "reference");
    std::fflush(stdout);
}

inline void print_row(const Row &row) {
    std::printf("%-28s %9s %11s %8s %10s %10s %9s %9s %9s %7s  %s\n", row.name.c_str(),
                size_text(row.frame_bytes).c_str(), number_text(row.fps, "%.1f").c_str(),
                number_text(row.gbps, "%.2f").c_str(), number_text(row.cpu_us, "%.2f").c_str(),
                number_text(row.card_cpu_us, "%.2f").c_str(), number_text(row.p50_us, "%.1f").c_str(),
                number_text(row.p99_us, "%.1f").c_str(), number_text(row.max_us, "%.1f").c_str(),
                number_text(row.ratio, "%.2f").c_str(), row.reference.c_str());
    std::fflush(stdout);
    const char *path = std::getenv("PELORIN_BENCH_JSON");
    if (path == nullptr || *path == '\0') return;
    FILE *file = std::fopen(path, "a");
    if (file == nullptr) return;
    std::fprintf(file,
                 "{\"case\": \"%s\", \"frame_bytes\": %.0f, \"fps\": %.3f, \"gbps\": %.4f, \"cpu_us\": %.3f, "
                 "\"card_cpu_us\": %.3f, "
                 "\"p50_us\": %.3f, \"p99_us\": %.3f, \"max_us\": %.3f, \"ratio\": %.4f, \"reference\": \"%s\"}\n",
                 row.name.c_str(), row.frame_bytes, row.fps, row.gbps, row.cpu_us, row.card_cpu_us, row.p50_us, row.p99_us,
                 row.max_us, row.ratio, row.reference.c_str());
    std::fclose(file);
}

}  // namespace pelorin_bench
