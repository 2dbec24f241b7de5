// Soak run: acquisition at a high rate for a long time (an hour by default)
// with a fault injected every period, the way a factory line sees them: a
// stalled card, completions that name a wrong buffer or never come, damaged
// control replies, a camera that leaves and comes back. After each fault
// the consumer does what it must (nothing, a stop and start, or closing and
// opening the device) and acquisition goes on. At the end: frames, frames
// lost (gaps in the frame numbers the camera stamps), faults and
// recoveries, memory and descriptors before and after, CPU.
//
// It calls the producer's GenTL functions in this process (linked with the
// producer's core) so that it can reach the emulated card's faults.
//
// Usage: soak [SECONDS] [FAULT_PERIOD_SECONDS]   (default 3600 and 20)
// The producer's log goes to standard output, the summary to standard
// error: `soak > soak.log`.
#include <dirent.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "emulator/cxp_camera.h"
#include "emulator/emulated_card.h"
#include "emulator/pcie_bus.h"
#include "pelorin/gentl.h"
#include "gentl_tree.h"
#include "pelorin/kv_api.h"
#include "thread_cpu.h"

namespace {

using Clock = std::chrono::steady_clock;
using pelorin::emu::pcie_bus;

constexpr int64_t kSide = 1024;  // 1 MiB Mono8 frames
constexpr size_t kBuffers = 16;

struct process_usage {
    long rss_kib = 0;
    size_t fds = 0;
    double cpu_s = 0;
};

process_usage usage_now() {
    process_usage usage;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) usage.rss_kib = std::atol(line.c_str() + 6);
    if (DIR *fds = ::opendir("/proc/self/fd")) {
        while (const dirent *entry = ::readdir(fds))
            if (entry->d_name[0] != '.') ++usage.fds;
        ::closedir(fds);
    }
    usage.cpu_s = pelorin_bench::process_cpu_seconds();
    return usage;
}

class Soak {
public:
    bool Open() {
        return tree_.open(kSide, kSide) == GC_ERR_SUCCESS && tree_.queue_buffers(kBuffers) == GC_ERR_SUCCESS &&
               Start();
    }
    void Close() { tree_.close(); }
    // Stops and starts the stream, every announced buffer queued again.
    bool Restart() {
        tree_.stop();
        DSFlushQueue(tree_.stream, ACQ_QUEUE_ALL_DISCARD);
        for (BUFFER_HANDLE buffer : tree_.buffers) DSQueueBuffer(tree_.stream, buffer);
        return Start();
    }
    // Takes frames for `seconds`; false when the stream answered anything
    // but a frame or a time-out.
    GC_ERROR Acquire(double seconds) {
        const Clock::time_point end =
            Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
        while (Clock::now() < end) {
            EVENT_NEW_BUFFER_DATA data{};
            size_t size = sizeof data;
            const GC_ERROR result = EventGetData(tree_.event, &data, &size, 500);
            if (result == GC_ERR_TIMEOUT) {
                ++timeouts;
                continue;
            }
            if (result != GC_ERR_SUCCESS) return result;
            Count(data.BufferHandle);
            DSQueueBuffer(tree_.stream, data.BufferHandle);
        }
        return GC_ERR_SUCCESS;
    }
    bool ReadWidth() {
        uint32_t width = 0;
        size_t size = sizeof width;
        return GCReadPort(tree_.camera, 0x6000, &width, &size) == GC_ERR_SUCCESS;
    }

    uint64_t frames = 0, lost = 0, timeouts = 0;

private:
    bool Start() {
        last_number_ = -1;
        return tree_.start_queued() == GC_ERR_SUCCESS;
    }
    // Frames the camera made that never arrived show as gaps in the numbers
    // it stamps into the first pixels.
    void Count(BUFFER_HANDLE buffer) {
        ++frames;
        void *base = nullptr;
        size_t size = sizeof base;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        if (DSGetBufferInfo(tree_.stream, buffer, BUFFER_INFO_BASE, &type, &base, &size) != 0 || base == nullptr) return;
        uint64_t number = 0;
        std::memcpy(&number, base, sizeof number);
        if (last_number_ >= 0 && number > static_cast<uint64_t>(last_number_) + 1)
            lost += number - static_cast<uint64_t>(last_number_) - 1;
        last_number_ = static_cast<int64_t>(number);
    }

    pelorin::testing_support::gentl_tree tree_;
    int64_t last_number_ = -1;
};

std::shared_ptr<pelorin::emu::cxp_camera> camera() { return pcie_bus::system_bus().card(0)->camera(0); }

void unplug(bool unplugged) {
    for (uint32_t link : camera()->profile().links) camera()->unplug_link(link, unplugged);
}

}  // namespace

int main(int argc, char **argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 3600.0;
    const double period = argc > 2 ? std::max(1.0, std::atof(argv[2])) : 20.0;
    // The producer's own directory and a runtime directory of this run.
    setenv("GENICAM_GENTL64_PATH", PELORIN_GENTL_DIR, 1);
    char runtime[] = "/tmp/pelorin-soak-XXXXXX";
    if (mkdtemp(runtime) != nullptr) setenv("XDG_RUNTIME_DIR", runtime, 1);
    unsetenv("PELORIN_CXP_EMULATION");
    pcie_bus::system_bus().reset();
    pcie_bus::system_bus().card(0)->set_unlimited_frame_rate(true);
    kv_set_language(0);

    Soak soak;
    const process_usage before = usage_now();
    if (!soak.Open()) {
        std::fprintf(stderr, "soak: the emulated camera does not open\n");
        return 1;
    }
    const char *const names[] = {"stalled card", "misreported completion", "damaged replies", "camera lost",
                                 "dropped completions"};
    uint64_t injected = 0, recovered = 0, failed = 0;
    const Clock::time_point start = Clock::now();
    for (uint64_t round = 0; std::chrono::duration<double>(Clock::now() - start).count() < seconds; ++round) {
        if (soak.Acquire(period) != GC_ERR_SUCCESS) ++failed;
        const int fault = static_cast<int>(round % 5);
        ++injected;
        bool ok = true;
        auto card = pcie_bus::system_bus().card(0);
        switch (fault) {
        case 0:  // frames held back for a while, then released
            card->stall_completions(0, true);
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            card->stall_completions(0, false);
            ok = soak.Acquire(0.5) == GC_ERR_SUCCESS;
            break;
        case 1:  // a completion naming no buffer: that buffer is back at the next start
            card->misreport_completions(0, 1);
            ok = soak.Acquire(0.5) == GC_ERR_SUCCESS && soak.Restart();
            break;
        case 2:  // damaged replies, absorbed by the link layer
            camera()->damage_replies(2);
            ok = soak.ReadWidth();
            break;
        case 3:  // the camera leaves: reported, then it comes back and is opened again
            unplug(true);
            ok = soak.Acquire(5.0) == GC_ERR_IO;
            unplug(false);
            soak.Close();
            ok = soak.Open() && ok;
            break;
        case 4:  // completions that never come: a stop and a start
            card->drop_completions(0, 3);
            ok = soak.Acquire(0.5) == GC_ERR_SUCCESS && soak.Restart();
            break;
        }
        const uint64_t frames_before = soak.frames;
        ok = ok && soak.Acquire(1.0) == GC_ERR_SUCCESS && soak.frames > frames_before;
        (ok ? recovered : failed) += 1;
        if (!ok) std::fprintf(stderr, "soak: no recovery after: %s\n", names[fault]);
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    soak.Close();
    const process_usage after = usage_now();
    std::fprintf(stderr, "soak: %.0f s, %llu frames of 1 MiB (%.0f fps, %.2f GB/s), %llu lost, %llu time-outs\n", elapsed,
                static_cast<unsigned long long>(soak.frames), static_cast<double>(soak.frames) / elapsed,
                static_cast<double>(soak.frames) * kSide * kSide / elapsed / 1e9,
                static_cast<unsigned long long>(soak.lost), static_cast<unsigned long long>(soak.timeouts));
    std::fprintf(stderr, "soak: %llu faults injected, %llu recovered, %llu not\n", static_cast<unsigned long long>(injected),
                static_cast<unsigned long long>(recovered), static_cast<unsigned long long>(failed));
    std::fprintf(stderr, "soak: memory %ld -> %ld KiB, descriptors %zu -> %zu, CPU %.1f s (%.2f cores)\n", before.rss_kib,
                after.rss_kib, before.fds, after.fds, after.cpu_s - before.cpu_s,
                (after.cpu_s - before.cpu_s) / elapsed);
    return failed == 0 ? 0 : 1;
}
