// Throughput of the emulated card's DMA engine as a producer sees it: one
// channel, 8 buffers of 4 MiB, completions taken with get_frame and handed
// back with queue_buffer through the bus messages, for about two seconds
// (or the seconds given as the first argument).
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <vector>

#include "emulator/control_codes.h"
#include "emulator/pcie_bus.h"

namespace {

using pelorin::emu::pcie_bus;
namespace emu = pelorin::emu;

constexpr uint32_t kBuffers = 8;
constexpr uint32_t kWidth = 4096;
constexpr uint32_t kLines = 1024;
constexpr uint32_t kPayload = kWidth * kLines;  // 4 MiB

void put32(std::vector<uint8_t> &bytes, uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
}
void put64(std::vector<uint8_t> &bytes, uint64_t value) {
    for (int i = 0; i < 8; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
}
uint32_t get32(const uint8_t *p) {
    uint32_t value = 0;
    std::memcpy(&value, p, 4);
    return value;
}

int send(pcie_bus &bus, uint64_t handle, uint32_t code, std::initializer_list<uint32_t> words,
         uint8_t *out = nullptr, size_t out_size = 0) {
    std::vector<uint8_t> in;
    for (uint32_t word : words) put32(in, word);
    size_t returned = 0;
    return bus.message(handle, code, in, std::span<uint8_t>(out, out_size), returned);
}

}  // namespace

int main(int argc, char **argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 2.0;
    pcie_bus bus;
    uint64_t handle = 0;
    if (bus.open(0, handle) != 0) return 1;
    const int event = eventfd(0, EFD_CLOEXEC);

    // Buffers touched once so that page faults are not measured.
    std::vector<std::unique_ptr<uint8_t[]>> buffers;
    std::vector<uint8_t> start;
    put32(start, 0);
    put32(start, kPayload);
    put32(start, kBuffers);
    put32(start, 0);
    put64(start, static_cast<uint64_t>(event));
    for (uint32_t i = 0; i < kBuffers; ++i) {
        buffers.emplace_back(new uint8_t[kPayload]);
        std::memset(buffers.back().get(), 0, kPayload);
        put64(start, reinterpret_cast<uint64_t>(buffers.back().get()));
    }

    size_t returned = 0;
    uint8_t reply[12];
    if (send(bus, handle, emu::kCodeSetStreamParam, {0, kWidth, kLines, kWidth, kWidth, 0}) != 0 ||
        bus.message(handle, emu::kCodeDmaStart, start, {}, returned) != 0) {
        std::fprintf(stderr, "emu_dma_throughput: the DMA did not start\n");
        return 1;
    }
    for (uint32_t i = 0; i < kBuffers; ++i)
        send(bus, handle, emu::kCodeQueueBuffer, {0, i}, reply, sizeof reply);

    using clock = std::chrono::steady_clock;
    const clock::time_point begin = clock::now();
    const clock::time_point end = begin + std::chrono::duration_cast<clock::duration>(
                                              std::chrono::duration<double>(seconds));
    uint64_t frames = 0;
    uint64_t out_of_order = 0;
    uint64_t expected_number = 0;
    while (clock::now() < end) {
        pollfd waiting{event, POLLIN, 0};
        if (poll(&waiting, 1, 1000) <= 0) continue;
        uint64_t signals = 0;
        if (read(event, &signals, sizeof signals) != sizeof signals) continue;
        for (;;) {
            if (send(bus, handle, emu::kCodeGetFrame, {0}, reply, sizeof reply) != 0) break;
            const uint32_t index = get32(reply);
            const uint32_t number = get32(reply + 4);
            if (get32(reply + 8) == 0) break;
            // The frame number is stamped into the buffer's first bytes.
            if (number != expected_number || get32(buffers[index].get()) != number) ++out_of_order;
            ++expected_number;
            ++frames;
            send(bus, handle, emu::kCodeQueueBuffer, {0, index}, reply, sizeof reply);
        }
    }
    const double elapsed = std::chrono::duration<double>(clock::now() - begin).count();
    const emu::dma_statistics stats = bus.card(0)->dma_stats(0);
    send(bus, handle, emu::kCodeDmaStop, {0});
    bus.close(handle);
    close(event);

    const double bytes = static_cast<double>(frames) * kPayload;
    std::printf("emu_dma_throughput: %u buffers of %u MiB, %.2f s\n", kBuffers, kPayload >> 20, elapsed);
    std::printf("  frames delivered   %llu (%.1f fps)\n", static_cast<unsigned long long>(frames),
                static_cast<double>(frames) / elapsed);
    std::printf("  throughput         %.2f GB/s (%.2f GiB/s)\n", bytes / elapsed / 1e9,
                bytes / elapsed / (1024.0 * 1024 * 1024));
    if (stats.frames_produced > 0)
        std::printf("  fill time          %.0f us per frame (engine)\n",
                    static_cast<double>(stats.fill_ns) / 1e3 / static_cast<double>(stats.frames_produced));
    std::printf("  out of order       %llu\n", static_cast<unsigned long long>(out_of_order));
    return out_of_order == 0 && frames > 0 ? 0 : 1;
}
