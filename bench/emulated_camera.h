// The first camera of an emulated card, opened through the exported API as
// a consumer opens it: the producer loaded with the card profile given, the
// device, its remote port, its stream and the stream's new-buffer event.
// Closed in reverse order when it goes.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "gentl_loader.h"

namespace pelorin_bench {

using Producer = pelorin_tools::GentlLibrary;

inline bool check(GC_ERROR result, const char *what) {
    if (result != GC_ERR_SUCCESS) std::fprintf(stderr, "%s: %d\n", what, result);
    return result == GC_ERR_SUCCESS;
}

class EmulatedCamera {
public:
    // `card_json`: one card object of an emulation profile.
    EmulatedCamera(const std::string &library, const std::string &card_json) {
        const int fd = ::mkstemp(profile_);
        if (fd < 0) return;
        ::close(fd);
        std::ofstream(profile_) << R"({"cards": [)" << card_json << "]}";
        ::setenv("PELORIN_CXP_EMULATION", profile_, 1);
        std::string error;
        if (!p.load(library, &error)) {
            std::fprintf(stderr, "%s\n", error.c_str());
            return;
        }
        if (!check(p.GCInitLib(), "GCInitLib")) return;
        initialised_ = true;
        char id[256] = {};
        size_t size = sizeof id;
        ok_ = check(p.TLOpen(&system_), "TLOpen") && check(p.TLUpdateInterfaceList(system_, nullptr, 1000), "interfaces") &&
              check(p.TLGetInterfaceID(system_, 0, id, &size), "interface ID") &&
              check(p.TLOpenInterface(system_, id, &iface_), "interface") &&
              check(p.IFOpenDevice(iface_, "device0", DEVICE_ACCESS_EXCLUSIVE, &device_), "device") &&
              check(p.DevGetPort(device_, &camera), "camera port") &&
              check(p.DevOpenDataStream(device_, "stream0", &stream), "stream") &&
              check(p.GCRegisterEvent(stream, EVENT_NEW_BUFFER, &event), "event");
    }
    ~EmulatedCamera() {
        if (device_ != nullptr) p.DevClose(device_);
        if (iface_ != nullptr) p.IFClose(iface_);
        if (system_ != nullptr) p.TLClose(system_);
        if (initialised_) p.GCCloseLib();
        std::remove(profile_);
    }
    EmulatedCamera(const EmulatedCamera &) = delete;
    EmulatedCamera &operator=(const EmulatedCamera &) = delete;

    bool ok() const { return ok_; }

    // Announces and queues `count` buffers of `payload` bytes, then starts
    // the stream and the camera; false when the producer refused a step.
    bool start(size_t payload, size_t count) {
        buffers_.assign(count, nullptr);
        for (BUFFER_HANDLE &buffer : buffers_)
            if (!check(p.DSAllocAndAnnounceBuffer(stream, payload, nullptr, &buffer), "announce") ||
                !check(p.DSQueueBuffer(stream, buffer), "queue"))
                return false;
        return check(p.DSStartAcquisition(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), "start") &&
               check(p.kv_genapi_call_command(camera, "AcquisitionStart"), "AcquisitionStart");
    }

    // Stops the camera and the stream and revokes the buffers.
    void stop() {
        p.kv_genapi_call_command(camera, "AcquisitionStop");
        p.DSStopAcquisition(stream, ACQ_STOP_FLAGS_DEFAULT);
        p.DSFlushQueue(stream, ACQ_QUEUE_ALL_DISCARD);
        for (BUFFER_HANDLE buffer : buffers_)
            if (buffer != nullptr) p.DSRevokeBuffer(stream, buffer, nullptr, nullptr);
        buffers_.clear();
    }

    Producer p;
    PORT_HANDLE camera = nullptr;
    DS_HANDLE stream = nullptr;
    EVENT_HANDLE event = nullptr;

private:
    std::vector<BUFFER_HANDLE> buffers_;
    char profile_[32] = "/tmp/pelorin-bench-XXXXXX";
    bool initialised_ = false, ok_ = false;
    TL_HANDLE system_ = nullptr;
    IF_HANDLE iface_ = nullptr;
    DEV_HANDLE device_ = nullptr;
};

}  // namespace pelorin_bench
