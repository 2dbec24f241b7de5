// Stream throughput through the exported API: the producer loaded with
// dlopen as any consumer loads it, the default emulated camera sending as
// fast as buffers are queued, Mono8 frames of 4 KiB to 16 MiB with 4, 8 and
// 32 buffers. One row per case: frames per second, GB/s, the producer's CPU
// per frame and the emulated card's (its threads are named "emu-..."), and the ratio
// to memcpy of the same frames into as many buffers, measured in the same run
// (the reference text also gives the ratio to memcpy into one buffer).
//
// Usage: stream_throughput [path/to/pelorin_cxp.cti] [seconds per size] [SIDE,SIDE...]
//   SIDE: the square frames' side in Mono8 pixels (64 .. 4096 by default),
//   to run a few sizes only, e.g. under a profiler.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench_report.h"
#include "emulated_camera.h"
#include "eventfd_ping.h"
#include "thread_cpu.h"

namespace {

using producer = pelorin_bench::Producer;
using pelorin_bench::check;


// Runs one frame size with `buffer_count` buffers for `seconds`; false when
// the producer refused a step.
bool run_size(pelorin_bench::EmulatedCamera &card, int64_t width, int64_t height, size_t buffer_count,
              double seconds, pelorin_bench::Row &row) {
    producer &p = card.p;
    const PORT_HANDLE camera = card.camera;
    const DS_HANDLE stream = card.stream;
    if (p.kv_genapi_set_integer(camera, "Width", width) != 0 ||
        p.kv_genapi_set_integer(camera, "Height", height) != 0) {
        std::fprintf(stderr, "cannot set %lldx%lld\n", static_cast<long long>(width),
                     static_cast<long long>(height));
        return false;
    }
    const size_t payload = static_cast<size_t>(width * height);
    if (!card.start(payload, buffer_count)) return false;

    uint64_t frames = 0;
    const double process_start = pelorin_bench::process_cpu_seconds();
    const pelorin_bench::ThreadCpu threads_start = pelorin_bench::thread_cpu();
    const auto start = std::chrono::steady_clock::now();
    const auto end = start + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        EVENT_NEW_BUFFER_DATA data{};
        size_t size = sizeof data;
        if (p.EventGetData(card.event, &data, &size, 1000) != GC_ERR_SUCCESS) continue;
        ++frames;
        p.DSQueueBuffer(stream, data.BufferHandle);
    }
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double process_cpu = pelorin_bench::process_cpu_seconds() - process_start;
    const double card_cpu = pelorin_bench::thread_cpu().emulator - threads_start.emulator;
    card.stop();

    const double fps = static_cast<double>(frames) / elapsed;
    row.name = "stream " + std::to_string(buffer_count) + " buffers";
    row.frame_bytes = static_cast<double>(payload);
    row.fps = fps;
    row.gbps = fps * static_cast<double>(payload) / 1e9;
    // The producer's share is the process's CPU less the emulated card's
    // threads (it includes this consumer loop, which only calls the
    // producer).
    if (frames != 0) {
        row.cpu_us = std::max(0.0, process_cpu - card_cpu) * 1e6 / static_cast<double>(frames);
        row.card_cpu_us = card_cpu * 1e6 / static_cast<double>(frames);
    }
    return true;
}

// Latency from the emulated card's completion of a buffer (the time it
// stamps into the buffer's last 8 bytes) to EventGetData returning it, with
// two buffers of 4 KiB so that a frame seldom waits behind another.
bool run_latency(pelorin_bench::EmulatedCamera &card, double seconds, pelorin_bench::Row &row) {
    producer &p = card.p;
    const DS_HANDLE stream = card.stream;
    if (p.kv_genapi_set_integer(card.camera, "Width", 64) != 0 || p.kv_genapi_set_integer(card.camera, "Height", 64) != 0)
        return false;
    const size_t payload = 64 * 64;
    if (!card.start(payload, 2)) return false;
    std::vector<double> latencies;
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end || latencies.size() < 10) {
        EVENT_NEW_BUFFER_DATA data{};
        size_t size = sizeof data;
        if (p.EventGetData(card.event, &data, &size, 1000) != GC_ERR_SUCCESS) break;
        const uint64_t now = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                                       std::chrono::steady_clock::now().time_since_epoch())
                                                       .count());
        void *base = nullptr;
        size_t base_size = sizeof base;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        p.DSGetBufferInfo(stream, data.BufferHandle, BUFFER_INFO_BASE, &type, &base, &base_size);
        uint64_t completed = 0;
        std::memcpy(&completed, static_cast<const uint8_t *>(base) + payload - sizeof completed, sizeof completed);
        if (completed != 0 && completed <= now) latencies.push_back(static_cast<double>(now - completed) / 1e3);
        p.DSQueueBuffer(stream, data.BufferHandle);
    }
    card.stop();
    if (latencies.empty()) {
        std::fprintf(stderr, "latency: no stamped frame arrived\n");
        return false;
    }
    row.name = "latency 2 buffers";
    row.frame_bytes = static_cast<double>(payload);
    row.p50_us = pelorin_bench::percentile(latencies, 0.50);
    row.p99_us = pelorin_bench::percentile(latencies, 0.99);
    row.max_us = pelorin_bench::percentile(latencies, 1.0);
    return true;
}

std::vector<int64_t> frame_sides(const std::string &list) {
    std::vector<int64_t> sides;
    size_t at = 0;
    while (at < list.size()) {
        const size_t comma = std::min(list.find(',', at), list.size());
        const int64_t side = std::atoll(list.substr(at, comma - at).c_str());
        if (side > 0) sides.push_back(side);
        at = comma + 1;
    }
    return sides;
}

}  // namespace

int main(int argc, char **argv) {
    const std::string library = argc > 1 ? argv[1] : PELORIN_CTI_PATH;
    const double seconds = argc > 2 ? std::atof(argv[2]) : 3.0;
    pelorin_bench::EmulatedCamera card(
        library, R"({"product_id": "0x181", "unlimited_frame_rate": true, "completion_stamp": true})");
    if (!card.ok()) return 1;
    bool ok = true;
    pelorin_bench::print_header();
    std::vector<int64_t> sides = {64, 256, 1024, 2048, 4096};  // 4 KiB .. 16 MiB of Mono8
    if (argc > 3) sides = frame_sides(argv[3]);
    for (const int64_t side : sides) {
        const size_t frame = static_cast<size_t>(side * side);
        const double hot_copy = pelorin_bench::memcpy_bandwidth(frame, seconds);
        for (const size_t buffer_count : {size_t{4}, size_t{8}, size_t{32}}) {
            // The reference does what the card does: copies the frame into as
            // many buffers as the stream has, one after the other.
            // Measured before and after the stream, the better of the two
            // kept: memory bandwidth on a shared machine drifts.
            const double copy_before = pelorin_bench::memcpy_rotating_bandwidth(frame, buffer_count, seconds / 2);
            pelorin_bench::Row row;
            ok = ok && run_size(card, side, side, buffer_count, seconds, row);
            if (!ok) break;
            const double copy =
                std::max(copy_before, pelorin_bench::memcpy_rotating_bandwidth(frame, buffer_count, seconds / 2));
            row.ratio = row.gbps * 1e9 / copy;
            row.reference = "memcpy into " + std::to_string(buffer_count) + " buffers " +
                            pelorin_bench::number_text(copy / 1e9, "%.2f") + " GB/s; " +
                            pelorin_bench::number_text(row.gbps * 1e9 / hot_copy, "%.2f") + " of one buffer's " +
                            pelorin_bench::number_text(hot_copy / 1e9, "%.2f");
            pelorin_bench::print_row(row);
        }
    }
    const std::vector<double> trips = pelorin_bench::eventfd_round_trips(seconds);
    const double trip = pelorin_bench::percentile(trips, 0.50);
    pelorin_bench::Row row;
    ok = ok && run_latency(card, seconds, row);
    if (ok) {
        row.ratio = row.p50_us / trip;
        row.reference = "eventfd round trip p50 " + pelorin_bench::number_text(trip, "%.1f") + " us";
        pelorin_bench::print_row(row);
    }
    return ok ? 0 : 1;
}
