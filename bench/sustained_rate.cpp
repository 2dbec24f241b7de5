// A sustained run at a CoaXPress camera's own rate: one 5120 x 5120 Mono8
// camera on four CXP-12 links, paced by the links (about 190 frames or
// 5 GB/s a second), delivered into 16 buffers through the exported API.
// Reports the frames, the frames lost (from the frame numbers the camera
// stamps into each image), and the CPU of the producer's delivery thread in
// cores.
//
// Usage: sustained_rate [path/to/pelorin_cxp.cti] [SECONDS]   (default 30)
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_report.h"
#include "emulated_camera.h"
#include "thread_cpu.h"

namespace {

// The frame number the camera stamped into the first 8 pixels (Mono8: pixel
// i holds byte i).
uint64_t stamped_frame_number(const uint8_t *pixels) {
    uint64_t number = 0;
    for (int i = 0; i < 8; ++i) number |= uint64_t{pixels[i]} << (8 * i);
    return number;
}

const void *buffer_base(pelorin_bench::EmulatedCamera &card, BUFFER_HANDLE buffer) {
    void *base = nullptr;
    size_t size = sizeof base;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    card.p.DSGetBufferInfo(card.stream, buffer, BUFFER_INFO_BASE, &type, &base, &size);
    return base;
}

}  // namespace

int main(int argc, char **argv) {
    const std::string library = argc > 1 ? argv[1] : PELORIN_CTI_PATH;
    const double seconds = argc > 2 ? std::max(0.01, std::atof(argv[2])) : 30.0;
    pelorin_bench::EmulatedCamera card(
        library, R"({"product_id": "0x181", "device_slots": 1,
                   "cameras": [{"links": [0, 1, 2, 3], "default_config": "0x40058"}]})");
    if (!card.ok()) return 1;
    auto &p = card.p;
    // The links, not the exposure or the frame rate, set the pace.
    if (!pelorin_bench::check(p.kv_genapi_set_float(card.camera, "AcquisitionFrameRate", 200.0), "frame rate") ||
        !pelorin_bench::check(p.kv_genapi_set_float(card.camera, "ExposureTime", 10.0), "exposure"))
        return 1;
    uint64_t payload = 0;
    size_t size = sizeof payload;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    if (!pelorin_bench::check(p.DSGetInfo(card.stream, STREAM_INFO_PAYLOAD_SIZE, &type, &payload, &size), "payload"))
        return 1;
    if (!card.start(payload, 16)) return 1;

    uint64_t frames = 0, first_number = 0, last_number = 0;
    const pelorin_bench::ThreadCpu threads_start = pelorin_bench::thread_cpu();
    const auto start = std::chrono::steady_clock::now();
    double elapsed = 0;
    while (elapsed < seconds) {
        EVENT_NEW_BUFFER_DATA data{};
        size_t data_size = sizeof data;
        if (p.EventGetData(card.event, &data, &data_size, 2000) != GC_ERR_SUCCESS) {
            std::fprintf(stderr, "no frame for 2 s\n");
            return 1;
        }
        const uint64_t number = stamped_frame_number(static_cast<const uint8_t *>(buffer_base(card, data.BufferHandle)));
        if (frames == 0) first_number = number;
        last_number = number;
        ++frames;
        p.DSQueueBuffer(card.stream, data.BufferHandle);
        elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    const pelorin_bench::ThreadCpu threads_end = pelorin_bench::thread_cpu();
    card.stop();

    const uint64_t sent = last_number - first_number + 1;
    const double delivery_cores = (threads_end.delivery - threads_start.delivery) / elapsed;
    pelorin_bench::Row row;
    row.name = "CXP-12 x4 sustained";
    row.frame_bytes = static_cast<double>(payload);
    row.fps = static_cast<double>(frames) / elapsed;
    row.gbps = row.fps * static_cast<double>(payload) / 1e9;
    row.cpu_us = (threads_end.others - threads_start.others) * 1e6 / static_cast<double>(frames);
    row.card_cpu_us = (threads_end.emulator - threads_start.emulator) * 1e6 / static_cast<double>(frames);
    row.ratio = delivery_cores;
    row.reference = "cores of the delivery thread; " + std::to_string(sent - frames) + " of " +
                    std::to_string(sent) + " frames lost in " + pelorin_bench::number_text(elapsed, "%.1f") + " s";
    pelorin_bench::print_header();
    pelorin_bench::print_row(row);
    return 0;
}
