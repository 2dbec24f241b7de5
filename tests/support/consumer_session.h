// What a GenTL consumer does most, through the loaded library only: open a
// device with its camera port, data stream, buffers and new-buffer event,
// grab frames and check them against what the emulated camera sent, and
// close everything again. Shared by the hostile-input and the stress tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "delivered_frames.h"
#include "producer_api.h"

namespace pelorin::testing_support {

// The emulated cards those tests use: the built-in card whose two cameras
// send as fast as buffers are queued.
inline constexpr const char *kFastCardsProfile =
    R"({"cards": [{"product_id": "0x181", "unlimited_frame_rate": true}]})";

inline constexpr uint32_t kMono8 = 0x01080001;

// True for the codes an export answers for a call it refuses: the GenTL
// codes -1001 .. -1023 and the producer's own -10001 .. -10014.
inline bool is_error_code(GC_ERROR code) {
    return (code <= GC_ERR_ERROR && code >= GC_ERR_AMBIGUOUS) || (code <= -10001 && code >= -10014);
}

// Whether EventGetData may answer `code` while frames flow and several
// threads take them from one event: a buffer, a time-out, or GC_ERR_NO_DATA
// when the call was woken for a buffer that another thread took first and
// no other buffer came within 1 ms.
inline bool is_frame_wait_answer(GC_ERROR code) {
    return code == GC_ERR_SUCCESS || code == GC_ERR_TIMEOUT || code == GC_ERR_NO_DATA;
}

// The ID of the first interface of an open system, or "" when it has none.
inline std::string first_interface_id(ProducerApi &api, TL_HANDLE system) {
    if (api.TLUpdateInterfaceList(system, nullptr, 1000) != GC_ERR_SUCCESS) return "";
    char id[256] = {};
    size_t size = sizeof id;
    if (api.TLGetInterfaceID(system, 0, id, &size) != GC_ERR_SUCCESS) return "";
    return id;
}

// The number of buffers of `stream` that wait for delivery, or SIZE_MAX
// when the stream does not answer.
inline size_t awaiting_delivery(ProducerApi &api, DS_HANDLE stream) {
    size_t count = 0, size = sizeof count;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    if (api.DSGetInfo(stream, STREAM_INFO_NUM_AWAIT_DELIVERY, &type, &count, &size) != GC_ERR_SUCCESS)
        return SIZE_MAX;
    return count;
}

// Opens the system's first interface: TLOpenInterface's code, or
// GC_ERR_NOT_AVAILABLE when the system lists no interface.
inline GC_ERROR open_first_interface(ProducerApi &api, TL_HANDLE system, IF_HANDLE *iface) {
    const std::string id = first_interface_id(api, system);
    if (id.empty()) return GC_ERR_NOT_AVAILABLE;
    return api.TLOpenInterface(system, id.c_str(), iface);
}

// One opened device of an open interface with everything a grabbing
// consumer holds. Every member is null until its step succeeded.
struct device_session {
    ProducerApi &api;
    DEV_HANDLE device = nullptr;
    PORT_HANDLE camera = nullptr;
    DS_HANDLE stream = nullptr;
    EVENT_HANDLE event = nullptr;
    std::vector<BUFFER_HANDLE> buffers;
    uint32_t width = 0;
    uint32_t height = 0;

    explicit device_session(ProducerApi &producer) : api(producer) {}

    // Opens `id` on `iface` with its camera port and data stream, a `width`
    // x `height` Mono8 image, `buffer_count` buffers of the library's own
    // memory and the new-buffer event. The first failing code, or 0.
    GC_ERROR open(IF_HANDLE iface, const char *id, uint32_t image_width, uint32_t image_height,
                  int buffer_count) {
        width = image_width;
        height = image_height;
        GC_ERROR result = api.IFOpenDevice(iface, id, DEVICE_ACCESS_EXCLUSIVE, &device);
        if (result != GC_ERR_SUCCESS) return result;
        if ((result = api.DevGetPort(device, &camera)) != GC_ERR_SUCCESS) return result;
        if ((result = api.kv_genapi_set_string(camera, "PixelFormat", "Mono8")) != 0) return result;
        if ((result = api.kv_genapi_set_integer(camera, "Width", width)) != 0) return result;
        if ((result = api.kv_genapi_set_integer(camera, "Height", height)) != 0) return result;
        if ((result = api.DevOpenDataStream(device, "stream0", &stream)) != GC_ERR_SUCCESS) return result;
        for (int i = 0; i < buffer_count; ++i) {
            BUFFER_HANDLE buffer = nullptr;
            result = api.DSAllocAndAnnounceBuffer(stream, size_t{width} * height, nullptr, &buffer);
            if (result != GC_ERR_SUCCESS) return result;
            buffers.push_back(buffer);
        }
        return api.GCRegisterEvent(stream, EVENT_NEW_BUFFER, &event);
    }

    // Starts the stream with every buffer queued, then the camera.
    GC_ERROR start() {
        GC_ERROR result = api.DSFlushQueue(stream, ACQ_QUEUE_ALL_TO_INPUT);
        if (result != GC_ERR_SUCCESS) return result;
        result = api.DSStartAcquisition(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE);
        if (result != GC_ERR_SUCCESS) return result;
        return api.kv_genapi_call_command(camera, "AcquisitionStart");
    }

    // Stops the camera, then the stream, and takes every buffer back out of
    // the queues. The first failing code, or 0.
    GC_ERROR stop() {
        const GC_ERROR camera_stopped = api.kv_genapi_call_command(camera, "AcquisitionStop");
        const GC_ERROR stream_stopped = api.DSStopAcquisition(stream, ACQ_STOP_FLAGS_DEFAULT);
        const GC_ERROR flushed = api.DSFlushQueue(stream, ACQ_QUEUE_ALL_DISCARD);
        if (camera_stopped != 0) return camera_stopped;
        return stream_stopped != GC_ERR_SUCCESS ? stream_stopped : flushed;
    }

    // Whether `buffer` holds, byte for byte, a frame the camera sent.
    bool holds_camera_frame(BUFFER_HANDLE buffer) {
        const uint8_t *bytes = nullptr;
        size_t size = sizeof bytes;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        if (api.DSGetBufferInfo(stream, buffer, BUFFER_INFO_BASE, &type, &bytes, &size) != GC_ERR_SUCCESS)
            return false;
        const uint32_t payload = width * height;
        return camera_frames(width, height, kMono8, width, payload).matches(bytes);
    }

    // Waits for up to `count` frames (each within `timeout_ms`), checks each
    // and queues its buffer again. The number of frames the camera sent
    // that arrived whole.
    int grab(int count, uint64_t timeout_ms = 5000) {
        int whole = 0;
        for (int i = 0; i < count; ++i) {
            EVENT_NEW_BUFFER_DATA data{};
            size_t size = sizeof data;
            if (api.EventGetData(event, &data, &size, timeout_ms) != GC_ERR_SUCCESS) break;
            if (holds_camera_frame(data.BufferHandle)) ++whole;
            api.DSQueueBuffer(stream, data.BufferHandle);
        }
        return whole;
    }

    // Drops the handles of modules that were closed another way.
    void forget() {
        device = camera = stream = event = nullptr;
        buffers.clear();
    }

    // Closes the stream (with its buffers and event) and the device.
    GC_ERROR close() {
        GC_ERROR result = GC_ERR_SUCCESS;
        if (stream != nullptr) result = api.DSClose(stream);
        if (device != nullptr) {
            const GC_ERROR closed = api.DevClose(device);
            if (result == GC_ERR_SUCCESS) result = closed;
        }
        forget();
        return result;
    }
};

}  // namespace pelorin::testing_support
