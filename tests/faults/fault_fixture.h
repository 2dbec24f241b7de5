// Fixture of the fault tests: the producer's GenTL functions called in this
// process, as a consumer calls them, against the emulated card whose faults
// the tests switch on and off through the emulator's control side.
#pragma once

#include <stdlib.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emulator/cxp_camera.h"
#include "emulator/emulated_card.h"
#include "emulator/pcie_bus.h"
#include "pelorin/gentl.h"
#include "pelorin/kv_api.h"
#include "private_runtime_dir.h"

namespace fault_test {

using pelorin::emu::pcie_bus;

inline pcie_bus &bus() { return pcie_bus::system_bus(); }

// GenTL's own codes and the producer's: what every failing call must return.
inline bool is_gentl_error(GC_ERROR code) {
    return (code <= -1001 && code >= -1023) || (code <= -10001 && code >= -10014);
}

class FaultTest : public testing::Test {
protected:
    TL_HANDLE system_ = nullptr;
    IF_HANDLE iface_ = nullptr;
    DEV_HANDLE device_ = nullptr;
    PORT_HANDLE camera_ = nullptr;
    DS_HANDLE stream_ = nullptr;
    EVENT_HANDLE event_ = nullptr;
    bool initialised_ = false;
    std::vector<BUFFER_HANDLE> buffers_;

    void SetUp() override {
        pelorin::testing_support::use_private_runtime_dir();
        setenv("GENICAM_GENTL64_PATH", PELORIN_GENTL_DIR, 1);
        unsetenv("PELORIN_CXP_EMULATION");
        ResetCards();
        kv_set_language(0);
    }
    void TearDown() override {
        CloseTree();
        ResetCards();
    }

    // The default card with no fault, its cameras sending as fast as
    // buffers come.
    static void ResetCards() {
        bus().reset();
        if (auto card = bus().card(0)) card->set_unlimited_frame_rate(true);
    }
    static std::shared_ptr<pelorin::emu::emulated_card> Card() { return bus().card(0); }
    static std::shared_ptr<pelorin::emu::cxp_camera> Camera() { return Card()->camera(0); }

    // GCInitLib through DevOpenDataStream and the new-buffer event on
    // device0 of the first card; the first failing step's code.
    GC_ERROR OpenTree(int64_t width = 256, int64_t height = 64) {
        GC_ERROR result = GCInitLib();
        if (result != GC_ERR_SUCCESS) return result;
        initialised_ = true;
        if ((result = TLOpen(&system_)) != GC_ERR_SUCCESS) return result;
        bool8_t changed = 0;
        if ((result = TLUpdateInterfaceList(system_, &changed, 1000)) != GC_ERR_SUCCESS) return result;
        char id[256] = {};
        size_t size = sizeof id;
        if ((result = TLGetInterfaceID(system_, 0, id, &size)) != GC_ERR_SUCCESS) return result;
        if ((result = TLOpenInterface(system_, id, &iface_)) != GC_ERR_SUCCESS) return result;
        if ((result = IFUpdateDeviceList(iface_, &changed, 1000)) != GC_ERR_SUCCESS) return result;
        if ((result = IFOpenDevice(iface_, "device0", DEVICE_ACCESS_EXCLUSIVE, &device_)) != GC_ERR_SUCCESS)
            return result;
        if ((result = DevGetPort(device_, &camera_)) != GC_ERR_SUCCESS) return result;
        if ((result = kv_genapi_set_integer(camera_, "Width", width)) != GC_ERR_SUCCESS) return result;
        if ((result = kv_genapi_set_integer(camera_, "Height", height)) != GC_ERR_SUCCESS) return result;
        if ((result = DevOpenDataStream(device_, "stream0", &stream_)) != GC_ERR_SUCCESS) return result;
        return GCRegisterEvent(stream_, EVENT_NEW_BUFFER, &event_);
    }

    void CloseTree() {
        if (stream_ != nullptr) {
            DSStopAcquisition(stream_, ACQ_STOP_FLAGS_DEFAULT);
            RevokeBuffers();
        }
        if (device_ != nullptr) DevClose(device_);
        if (iface_ != nullptr) IFClose(iface_);
        if (system_ != nullptr) TLClose(system_);
        if (initialised_) GCCloseLib();
        system_ = nullptr;
        iface_ = nullptr;
        device_ = nullptr;
        camera_ = nullptr;
        stream_ = nullptr;
        event_ = nullptr;
        initialised_ = false;
    }

    // Announces and queues `count` buffers of the stream's payload.
    GC_ERROR QueueBuffers(size_t count) {
        size_t payload = 0;
        size_t size = sizeof payload;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        GC_ERROR result = DSGetInfo(stream_, STREAM_INFO_PAYLOAD_SIZE, &type, &payload, &size);
        if (result != GC_ERR_SUCCESS) return result;
        for (size_t i = 0; i < count; ++i) {
            BUFFER_HANDLE buffer = nullptr;
            if ((result = DSAllocAndAnnounceBuffer(stream_, payload, nullptr, &buffer)) != GC_ERR_SUCCESS) return result;
            buffers_.push_back(buffer);
            if ((result = DSQueueBuffer(stream_, buffer)) != GC_ERR_SUCCESS) return result;
        }
        return GC_ERR_SUCCESS;
    }
    void RevokeBuffers() {
        DSFlushQueue(stream_, ACQ_QUEUE_ALL_DISCARD);
        for (BUFFER_HANDLE buffer : buffers_) DSRevokeBuffer(stream_, buffer, nullptr, nullptr);
        buffers_.clear();
    }

    // Starts the stream and the camera with `count` buffers queued.
    GC_ERROR Start(size_t count = 4) {
        GC_ERROR result = QueueBuffers(count);
        if (result != GC_ERR_SUCCESS) return result;
        if ((result = DSStartAcquisition(stream_, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE)) != GC_ERR_SUCCESS)
            return result;
        return kv_genapi_call_command(camera_, "AcquisitionStart");
    }
    void Stop() {
        kv_genapi_call_command(camera_, "AcquisitionStop");
        DSStopAcquisition(stream_, ACQ_STOP_FLAGS_DEFAULT);
        RevokeBuffers();
    }

    // Waits for up to `frames` buffers, each queued again; the number that
    // came, and the code that ended the wait early (0 when all came).
    std::pair<int, GC_ERROR> Receive(int frames, uint64_t timeout_ms = 2000) {
        for (int i = 0; i < frames; ++i) {
            EVENT_NEW_BUFFER_DATA data{};
            size_t size = sizeof data;
            const GC_ERROR result = EventGetData(event_, &data, &size, timeout_ms);
            if (result != GC_ERR_SUCCESS) return {i, result};
            DSQueueBuffer(stream_, data.BufferHandle);
        }
        return {frames, GC_ERR_SUCCESS};
    }

    // The whole round a consumer makes after a fault: close everything,
    // open it again and acquire. The faults must be cleared first.
    void ExpectRecovery(const std::string &fault) {
        SCOPED_TRACE("recovery after: " + fault);
        CloseTree();
        ASSERT_EQ(OpenTree(), GC_ERR_SUCCESS);
        ASSERT_EQ(Start(), GC_ERR_SUCCESS);
        EXPECT_EQ(Receive(5).first, 5);
        Stop();
    }
};

// Runs `action` with the producer's log captured; the log.
inline std::string logged(const std::function<void()> &action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

inline double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace fault_test
