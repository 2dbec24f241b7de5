// The control path through the exported API: GCReadPort of a 4-byte camera
// register (the Standard register at 0x0000) and of the camera's whole
// description file, both through the remote port and so through the
// emulated CoaXPress control channel (which adds no delay of its own: what
// is measured is the producer's and the card model's cost). One row per
// case: operations per second, MB/s for the file, CPU per operation.
//
// Usage: control_path [path/to/pelorin_cxp.cti] [SECONDS_PER_CASE]
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

// Repeats GCReadPort(address, size) for `seconds`; false on a failed read.
bool measure_reads(pelorin_bench::EmulatedCamera &card, uint64_t address, size_t size, double seconds,
                   pelorin_bench::Row &row) {
    std::vector<uint8_t> bytes(size);
    uint64_t operations = 0;
    const double cpu_start = pelorin_bench::process_cpu_seconds();
    const auto start = std::chrono::steady_clock::now();
    double elapsed = 0;
    do {
        size_t read = size;
        if (!pelorin_bench::check(card.p.GCReadPort(card.camera, address, bytes.data(), &read), "GCReadPort"))
            return false;
        ++operations;
        elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    } while (elapsed < seconds);
    row.frame_bytes = static_cast<double>(size);
    row.fps = static_cast<double>(operations) / elapsed;
    row.gbps = row.fps * static_cast<double>(size) / 1e9;
    row.cpu_us = (pelorin_bench::process_cpu_seconds() - cpu_start) * 1e6 / static_cast<double>(operations);
    return true;
}

// The address and size of the camera's description file from its URL
// "local:NAME.zip;ADDRESS;SIZE" (hexadecimal).
bool description_location(pelorin_bench::EmulatedCamera &card, uint64_t *address, size_t *size) {
    char url[1024] = {};
    size_t length = sizeof url;
    if (!pelorin_bench::check(card.p.GCGetPortURL(card.camera, url, &length), "GCGetPortURL")) return false;
    const std::string text = url;
    const size_t first = text.find(';'), second = text.find(';', first + 1);
    if (first == std::string::npos || second == std::string::npos) {
        std::fprintf(stderr, "unexpected URL %s\n", url);
        return false;
    }
    *address = std::strtoull(text.substr(first + 1, second - first - 1).c_str(), nullptr, 16);
    *size = std::strtoull(text.substr(second + 1).c_str(), nullptr, 16);
    return *size != 0;
}

}  // namespace

int main(int argc, char **argv) {
    const std::string library = argc > 1 ? argv[1] : PELORIN_CTI_PATH;
    const double seconds = argc > 2 ? std::max(0.001, std::atof(argv[2])) : 1.0;
    pelorin_bench::EmulatedCamera card(library, R"({"product_id": "0x181"})");
    if (!card.ok()) return 1;
    pelorin_bench::print_header();
    pelorin_bench::Row reg;
    reg.name = "GCReadPort register";
    if (!measure_reads(card, 0x0000, 4, seconds, reg)) return 1;
    pelorin_bench::print_row(reg);
    uint64_t address = 0;
    size_t size = 0;
    pelorin_bench::Row file;
    file.name = "GCReadPort description";
    if (!description_location(card, &address, &size) || !measure_reads(card, address, size, seconds, file)) return 1;
    pelorin_bench::print_row(file);
    return 0;
}
