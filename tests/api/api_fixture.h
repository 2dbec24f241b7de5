// Shared fixture of the API tests: the producer loaded with dlopen, and
// helpers that bring the library into a known state and back.
#pragma once

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "producer_api.h"

class ProducerTest : public testing::Test {
protected:
    ProducerApi &api = ProducerApi::get();
    TL_HANDLE system_ = nullptr;

    void TearDown() override {
        if (system_ != nullptr) api.TLClose(system_);
        api.GCCloseLib();
        api.kv_set_language(1);
    }

    void InitLib() { ASSERT_EQ(api.GCInitLib(), GC_ERR_SUCCESS); }
    void OpenSystem() {
        InitLib();
        ASSERT_EQ(api.TLOpen(&system_), GC_ERR_SUCCESS);
        ASSERT_NE(system_, nullptr);
    }

    // The last error and its text as GCGetLastError reports them.
    std::pair<GC_ERROR, std::string> LastError() {
        GC_ERROR code = 1;
        char text[256] = {};
        size_t size = sizeof text;
        EXPECT_EQ(api.GCGetLastError(&code, text, &size), GC_ERR_SUCCESS);
        return {code, std::string(text)};
    }

    // Makes `code`'s failure the last error through a call known to fail so.
    void ProvokeInvalidHandle() {
        EXPECT_EQ(api.IFGetNumDevices(reinterpret_cast<IF_HANDLE>(0x1234), nullptr),
                  GC_ERR_INVALID_HANDLE);
    }
};

// A device of the first emulated card opened as a consumer opens it, with
// its camera port and data stream on request; closed again after the test.
class DeviceTest : public ProducerTest {
protected:
    IF_HANDLE iface_ = nullptr;
    DEV_HANDLE device_ = nullptr;
    PORT_HANDLE camera_ = nullptr;
    DS_HANDLE stream_ = nullptr;

    void TearDown() override {
        if (device_ != nullptr) api.DevClose(device_);  // closes its stream too
        if (iface_ != nullptr) api.IFClose(iface_);
        ProducerTest::TearDown();
    }
    void OpenDevice(const char *id = "device0") {
        OpenSystem();
        ASSERT_EQ(api.TLUpdateInterfaceList(system_, nullptr, 1000), GC_ERR_SUCCESS);
        char name[256] = {};
        size_t size = sizeof name;
        ASSERT_EQ(api.TLGetInterfaceID(system_, 0, name, &size), GC_ERR_SUCCESS);
        ASSERT_EQ(api.TLOpenInterface(system_, name, &iface_), GC_ERR_SUCCESS);
        ASSERT_EQ(api.IFOpenDevice(iface_, id, DEVICE_ACCESS_EXCLUSIVE, &device_), GC_ERR_SUCCESS);
    }
    // device0 with the camera's port.
    void OpenCamera() {
        OpenDevice();
        if (HasFatalFailure()) return;
        ASSERT_EQ(api.DevGetPort(device_, &camera_), GC_ERR_SUCCESS);
    }
    // The data stream of the open device.
    void OpenDataStream() { ASSERT_EQ(api.DevOpenDataStream(device_, "stream0", &stream_), GC_ERR_SUCCESS); }
};

