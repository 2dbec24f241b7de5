// Stream throughput through the exported API: the producer loaded with
// dlopen as any consumer loads it, the default emulated camera sending as
// fast as buffers are queued, frames of several sizes. Prints one line per
// size: frames per second, GB/s, and CPU per frame (the whole process, which
// includes the emulated card writing the frames, and the consumer thread).
//
// Usage: stream_throughput [path/to/pelorin_cxp.cti] [seconds per size]
#include <stdlib.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "gentl_loader.h"

namespace {

using producer = pelorin_tools::GentlLibrary;

double cpu_seconds(int who) {
    rusage usage{};
    getrusage(who, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

bool check(GC_ERROR result, const char *what) {
    if (result != GC_ERR_SUCCESS) std::fprintf(stderr, "%s: %d\n", what, result);
    return result == GC_ERR_SUCCESS;
}

// Runs one frame size for `seconds`; false when the producer refused a step.
bool run_size(producer &p, PORT_HANDLE camera, DS_HANDLE stream, EVENT_HANDLE event, int64_t width,
              int64_t height, double seconds) {
    if (p.kv_genapi_set_integer(camera, "Width", width) != 0 ||
        p.kv_genapi_set_integer(camera, "Height", height) != 0) {
        std::fprintf(stderr, "cannot set %lldx%lld\n", static_cast<long long>(width),
                     static_cast<long long>(height));
        return false;
    }
    const size_t payload = static_cast<size_t>(width * height);
    std::vector<BUFFER_HANDLE> buffers(8);
    for (BUFFER_HANDLE &buffer : buffers)
        if (!check(p.DSAllocAndAnnounceBuffer(stream, payload, nullptr, &buffer), "announce") ||
            !check(p.DSQueueBuffer(stream, buffer), "queue"))
            return false;
    if (!check(p.DSStartAcquisition(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), "start")) return false;
    p.kv_genapi_call_command(camera, "AcquisitionStart");

    uint64_t frames = 0;
    timespec thread_start{}, thread_end{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &thread_start);
    const double process_start = cpu_seconds(RUSAGE_SELF);
    const auto start = std::chrono::steady_clock::now();
    const auto end = start + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        EVENT_NEW_BUFFER_DATA data{};
        size_t size = sizeof data;
        if (p.EventGetData(event, &data, &size, 1000) != GC_ERR_SUCCESS) continue;
        ++frames;
        p.DSQueueBuffer(stream, data.BufferHandle);
    }
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &thread_end);
    const double process_cpu = cpu_seconds(RUSAGE_SELF) - process_start;
    const double thread_cpu = static_cast<double>(thread_end.tv_sec - thread_start.tv_sec) +
                              static_cast<double>(thread_end.tv_nsec - thread_start.tv_nsec) / 1e9;

    p.kv_genapi_call_command(camera, "AcquisitionStop");
    p.DSStopAcquisition(stream, ACQ_STOP_FLAGS_DEFAULT);
    p.DSFlushQueue(stream, ACQ_QUEUE_ALL_DISCARD);
    for (BUFFER_HANDLE buffer : buffers) p.DSRevokeBuffer(stream, buffer, nullptr, nullptr);

    const double fps = static_cast<double>(frames) / elapsed;
    std::printf("%8.2f MiB  %9.1f fps  %7.3f GB/s  process CPU %8.1f us/frame  consumer thread %6.2f us/frame\n",
                static_cast<double>(payload) / (1 << 20), fps, fps * static_cast<double>(payload) / 1e9,
                frames ? process_cpu * 1e6 / static_cast<double>(frames) : 0.0,
                frames ? thread_cpu * 1e6 / static_cast<double>(frames) : 0.0);
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    const std::string library = argc > 1 ? argv[1] : PELORIN_CTI_PATH;
    const double seconds = argc > 2 ? std::atof(argv[2]) : 3.0;
    char profile[] = "/tmp/pelorin-bench-XXXXXX";
    const int fd = mkstemp(profile);
    if (fd < 0) return 1;
    close(fd);
    std::ofstream(profile) << R"({"cards": [{"product_id": "0x181", "unlimited_frame_rate": true}]})";
    setenv("PELORIN_CXP_EMULATION", profile, 1);
    producer p;
    std::string error;
    if (!p.load(library, &error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    if (!check(p.GCInitLib(), "GCInitLib")) return 1;
    TL_HANDLE system = nullptr;
    IF_HANDLE iface = nullptr;
    DEV_HANDLE device = nullptr;
    PORT_HANDLE camera = nullptr;
    DS_HANDLE stream = nullptr;
    char id[256] = {};
    size_t size = sizeof id;
    bool ok = check(p.TLOpen(&system), "TLOpen") &&
              check(p.TLUpdateInterfaceList(system, nullptr, 1000), "interfaces") &&
              check(p.TLGetInterfaceID(system, 0, id, &size), "interface ID") &&
              check(p.TLOpenInterface(system, id, &iface), "interface") &&
              check(p.IFOpenDevice(iface, "device0", DEVICE_ACCESS_EXCLUSIVE, &device), "device") &&
              check(p.DevGetPort(device, &camera), "camera port") &&
              check(p.DevOpenDataStream(device, "stream0", &stream), "stream");
    EVENT_HANDLE event = nullptr;
    ok = ok && check(p.GCRegisterEvent(stream, EVENT_NEW_BUFFER, &event), "event");
    if (ok) {
        std::printf("frame size  frames/s  GB/s  CPU (%.1f s per size)\n", seconds);
        ok = run_size(p, camera, stream, event, 1024, 1024, seconds) &&
             run_size(p, camera, stream, event, 4096, 4096, seconds);
    }
    if (device != nullptr) p.DevClose(device);
    if (iface != nullptr) p.IFClose(iface);
    if (system != nullptr) p.TLClose(system);
    p.GCCloseLib();
    std::remove(profile);
    return ok ? 0 : 1;
}
