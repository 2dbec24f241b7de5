// pelorin-grab: loads a GenTL producer (.cti) the way any consumer does,
// opens the first device of the first interface and acquires frames into
// eight buffers, printing each frame and a summary; the last 8-bit frame is
// written as a PGM image.
//
//   pelorin-grab [-n COUNT] [-o DIR] [PATH_TO_CTI]
#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "gentl_loader.h"

namespace {

using Producer = pelorin_tools::GentlLibrary;

bool ok(GC_ERROR result, const char *what) {
    if (result != GC_ERR_SUCCESS) std::fprintf(stderr, "pelorin-grab: %s failed: %d\n", what, result);
    return result == GC_ERR_SUCCESS;
}

template <typename T>
T buffer_info(Producer &p, DS_HANDLE stream, BUFFER_HANDLE buffer, BUFFER_INFO_CMD command) {
    T value{};
    size_t size = sizeof value;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    p.DSGetBufferInfo(stream, buffer, command, &type, &value, &size);
    return value;
}

bool write_pgm(const std::string &path, const uint8_t *pixels, uint64_t width, uint64_t height) {
    FILE *file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return false;
    std::fprintf(file, "P5\n%llu %llu\n255\n", static_cast<unsigned long long>(width),
                 static_cast<unsigned long long>(height));
    const bool written = std::fwrite(pixels, 1, width * height, file) == width * height;
    return std::fclose(file) == 0 && written;
}

// Acquires `count` frames from the open stream; the frames received.
int acquire(Producer &p, PORT_HANDLE camera, DS_HANDLE stream, int count, const std::string &out_dir) {
    uint64_t payload = 0;
    size_t size = sizeof payload;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    if (!ok(p.DSGetInfo(stream, STREAM_INFO_PAYLOAD_SIZE, &type, &payload, &size), "payload size")) return 0;
    for (int i = 0; i < 8; ++i) {
        BUFFER_HANDLE buffer = nullptr;
        if (!ok(p.DSAllocAndAnnounceBuffer(stream, payload, nullptr, &buffer), "buffer") ||
            !ok(p.DSQueueBuffer(stream, buffer), "queue"))
            return 0;
    }
    EVENT_HANDLE event = nullptr;
    if (!ok(p.GCRegisterEvent(stream, EVENT_NEW_BUFFER, &event), "new-buffer event") ||
        !ok(p.DSStartAcquisition(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), "start") ||
        p.kv_genapi_call_command(camera, "AcquisitionStart") != 0)
        return 0;
    const auto start = std::chrono::steady_clock::now();
    int received = 0;
    BUFFER_HANDLE last = nullptr;
    while (received < count) {
        EVENT_NEW_BUFFER_DATA data{};
        size = sizeof data;
        if (!ok(p.EventGetData(event, &data, &size, 5000), "waiting for a frame")) break;
        ++received;
        std::printf("frame %3d  id %6llu  %llux%llu  %llu bytes  at %8.3f ms\n", received,
                    static_cast<unsigned long long>(buffer_info<uint64_t>(p, stream, data.BufferHandle, BUFFER_INFO_FRAMEID)),
                    static_cast<unsigned long long>(buffer_info<uint64_t>(p, stream, data.BufferHandle, BUFFER_INFO_WIDTH)),
                    static_cast<unsigned long long>(buffer_info<uint64_t>(p, stream, data.BufferHandle, BUFFER_INFO_HEIGHT)),
                    static_cast<unsigned long long>(payload),
                    static_cast<double>(buffer_info<uint64_t>(p, stream, data.BufferHandle, BUFFER_INFO_TIMESTAMP)) / 1e3);
        if (received == count) {
            last = data.BufferHandle;  // kept for the image file
            break;
        }
        p.DSQueueBuffer(stream, data.BufferHandle);
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    p.kv_genapi_call_command(camera, "AcquisitionStop");
    p.DSStopAcquisition(stream, ACQ_STOP_FLAGS_DEFAULT);
    std::printf("%d frame(s) in %.3f s: %.1f fps, %.3f GB/s\n", received, seconds, received / seconds,
                static_cast<double>(payload) * received / seconds / 1e9);
    const uint64_t width = last ? buffer_info<uint64_t>(p, stream, last, BUFFER_INFO_WIDTH) : 0;
    const uint64_t height = last ? buffer_info<uint64_t>(p, stream, last, BUFFER_INFO_HEIGHT) : 0;
    const uint64_t format = last ? buffer_info<uint64_t>(p, stream, last, BUFFER_INFO_PIXELFORMAT) : 0;
    if (last != nullptr && (format >> 16) == 0x0108 && width * height <= payload) {  // 8-bit mono or Bayer
        const std::string path = out_dir + "/last_frame.pgm";
        const auto *pixels = buffer_info<const uint8_t *>(p, stream, last, BUFFER_INFO_BASE);
        if (write_pgm(path, pixels, width, height))
            std::printf("last frame written to %s\n", path.c_str());
        else
            std::fprintf(stderr, "pelorin-grab: cannot write %s\n", path.c_str());
    }
    return received;
}

}  // namespace

int main(int argc, char **argv) {
    int count = 30;
    std::string out_dir = ".";
    std::string path;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if ((arg == "-n" || arg == "--count") && i + 1 < argc) {
            count = std::max(1, std::atoi(argv[++i]));
        } else if ((arg == "-o" || arg == "--output") && i + 1 < argc) {
            out_dir = argv[++i];
        } else if (arg == "-h" || arg == "--help") {
            std::printf("usage: pelorin-grab [-n COUNT] [-o DIR] [PATH_TO_CTI]\n"
                        "Acquires COUNT frames (30) from the first device and writes the last\n"
                        "8-bit frame to DIR/last_frame.pgm (DIR: the current directory).\n");
            return 0;
        } else {
            path = arg;
        }
    }
    if (path.empty()) path = pelorin_tools::default_producer_path();
    Producer p;
    std::string error;
    if (!p.load(path, &error)) {
        std::fprintf(stderr, "pelorin-grab: %s\n", error.c_str());
        return 2;
    }
    if ( !ok(p.GCInitLib(), "GCInitLib")) return 2;
    TL_HANDLE system = nullptr;
    IF_HANDLE iface = nullptr;
    DEV_HANDLE device = nullptr;
    PORT_HANDLE camera = nullptr;
    DS_HANDLE stream = nullptr;
    char id[256] = {};
    size_t size = sizeof id;
    char device_id[256] = {};
    size_t device_size = sizeof device_id;
    int received = 0;
    if (ok(p.TLOpen(&system), "TLOpen") && ok(p.TLUpdateInterfaceList(system, nullptr, 1000), "interfaces") &&
        ok(p.TLGetInterfaceID(system, 0, id, &size), "first interface") &&
        ok(p.TLOpenInterface(system, id, &iface), "interface") &&
        ok(p.IFUpdateDeviceList(iface, nullptr, 1000), "devices") &&
        ok(p.IFGetDeviceID(iface, 0, device_id, &device_size), "first device") &&
        ok(p.IFOpenDevice(iface, device_id, DEVICE_ACCESS_EXCLUSIVE, &device), "device") &&
        ok(p.DevGetPort(device, &camera), "camera port") &&
        ok(p.DevOpenDataStream(device, "stream0", &stream), "data stream")) {
        std::printf("acquiring %d frame(s) from %s of %s\n", count, device_id, id);
        received = acquire(p, camera, stream, count, out_dir);
    }
    if (device != nullptr) p.DevClose(device);
    if (iface != nullptr) p.IFClose(iface);
    if (system != nullptr) p.TLClose(system);
    p.GCCloseLib();
    return received == count ? 0 : 1;
}
