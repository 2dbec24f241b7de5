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
