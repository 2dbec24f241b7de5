// The module tree a grabbing consumer holds, opened through the producer's
// GenTL functions called in this process (the program links the producer's
// core, so that it can also reach the emulated card's faults): the system,
// the first interface, device0 with its camera port, stream0 with buffers
// and the new-buffer event. Used by the fault tests and the soak benchmark.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "pelorin/gentl.h"
#include "pelorin/kv_api.h"

namespace pelorin::testing_support {

class gentl_tree {
public:
    TL_HANDLE system = nullptr;
    IF_HANDLE iface = nullptr;
    DEV_HANDLE device = nullptr;
    PORT_HANDLE camera = nullptr;
    DS_HANDLE stream = nullptr;
    EVENT_HANDLE event = nullptr;
    std::vector<BUFFER_HANDLE> buffers;

    gentl_tree() = default;
    gentl_tree(const gentl_tree &) = delete;
    gentl_tree &operator=(const gentl_tree &) = delete;
    ~gentl_tree() { close(); }

    // GCInitLib through the new-buffer event of stream0 on device0, the
    // camera set to `width` x `height`; the first failing step's code.
    GC_ERROR open(int64_t width, int64_t height) {
        GC_ERROR result = GCInitLib();
        if (result != GC_ERR_SUCCESS) return result;
        initialised_ = true;
        if ((result = TLOpen(&system)) != GC_ERR_SUCCESS) return result;
        bool8_t changed = 0;
        if ((result = TLUpdateInterfaceList(system, &changed, 1000)) != GC_ERR_SUCCESS) return result;
        char id[256] = {};
        size_t size = sizeof id;
        if ((result = TLGetInterfaceID(system, 0, id, &size)) != GC_ERR_SUCCESS) return result;
        if ((result = TLOpenInterface(system, id, &iface)) != GC_ERR_SUCCESS) return result;
        if ((result = IFUpdateDeviceList(iface, &changed, 1000)) != GC_ERR_SUCCESS) return result;
        if ((result = IFOpenDevice(iface, "device0", DEVICE_ACCESS_EXCLUSIVE, &device)) != GC_ERR_SUCCESS)
            return result;
        if ((result = DevGetPort(device, &camera)) != GC_ERR_SUCCESS) return result;
        if ((result = kv_genapi_set_integer(camera, "Width", width)) != GC_ERR_SUCCESS) return result;
        if ((result = kv_genapi_set_integer(camera, "Height", height)) != GC_ERR_SUCCESS) return result;
        if ((result = DevOpenDataStream(device, "stream0", &stream)) != GC_ERR_SUCCESS) return result;
        return GCRegisterEvent(stream, EVENT_NEW_BUFFER, &event);
    }

    // Stops, revokes the buffers and closes everything that is open.
    void close() {
        if (stream != nullptr) {
            DSStopAcquisition(stream, ACQ_STOP_FLAGS_DEFAULT);
            revoke_buffers();
        }
        if (device != nullptr) DevClose(device);
        if (iface != nullptr) IFClose(iface);
        if (system != nullptr) TLClose(system);
        if (initialised_) GCCloseLib();
        system = nullptr;
        iface = nullptr;
        device = nullptr;
        camera = nullptr;
        stream = nullptr;
        event = nullptr;
        initialised_ = false;
    }

    // Announces and queues `count` buffers of the stream's payload.
    GC_ERROR queue_buffers(size_t count) {
        size_t payload = 0;
        size_t size = sizeof payload;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        GC_ERROR result = DSGetInfo(stream, STREAM_INFO_PAYLOAD_SIZE, &type, &payload, &size);
        if (result != GC_ERR_SUCCESS) return result;
        for (size_t i = 0; i < count; ++i) {
            BUFFER_HANDLE buffer = nullptr;
            if ((result = DSAllocAndAnnounceBuffer(stream, payload, nullptr, &buffer)) != GC_ERR_SUCCESS)
                return result;
            buffers.push_back(buffer);
            if ((result = DSQueueBuffer(stream, buffer)) != GC_ERR_SUCCESS) return result;
        }
        return GC_ERR_SUCCESS;
    }
    void revoke_buffers() {
        DSFlushQueue(stream, ACQ_QUEUE_ALL_DISCARD);
        for (BUFFER_HANDLE buffer : buffers) DSRevokeBuffer(stream, buffer, nullptr, nullptr);
        buffers.clear();
    }

    // Starts the stream and the camera with `count` buffers queued.
    GC_ERROR start(size_t count) {
        GC_ERROR result = queue_buffers(count);
        if (result != GC_ERR_SUCCESS) return result;
        return start_queued();
    }
    // Starts the stream and the camera with the buffers queued already.
    GC_ERROR start_queued() {
        const GC_ERROR result = DSStartAcquisition(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE);
        if (result != GC_ERR_SUCCESS) return result;
        return kv_genapi_call_command(camera, "AcquisitionStart");
    }
    // Stops the camera and the stream.
    void stop() {
        kv_genapi_call_command(camera, "AcquisitionStop");
        DSStopAcquisition(stream, ACQ_STOP_FLAGS_DEFAULT);
    }

private:
    bool initialised_ = false;
};

}  // namespace pelorin::testing_support
