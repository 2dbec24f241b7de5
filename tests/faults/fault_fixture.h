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
#include "gentl_tree.h"
#include "private_runtime_dir.h"

namespace fault_test {

using pelorin::emu::pcie_bus;

inline pcie_bus &bus() { return pcie_bus::system_bus(); }

class FaultTest : public testing::Test {
protected:
    pelorin::testing_support::gentl_tree tree_;

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

    GC_ERROR OpenTree() { return tree_.open(256, 64); }
    void CloseTree() { tree_.close(); }
    GC_ERROR Start(size_t count = 4) { return tree_.start(count); }
    void Stop() {
        tree_.stop();
        tree_.revoke_buffers();
    }

    // Waits for up to `frames` buffers, each queued again; the number that
    // came, and the code that ended the wait early (0 when all came).
    std::pair<int, GC_ERROR> Receive(int frames, uint64_t timeout_ms = 2000) {
        for (int i = 0; i < frames; ++i) {
            EVENT_NEW_BUFFER_DATA data{};
            size_t size = sizeof data;
            const GC_ERROR result = EventGetData(tree_.event, &data, &size, timeout_ms);
            if (result != GC_ERR_SUCCESS) return {i, result};
            DSQueueBuffer(tree_.stream, data.BufferHandle);
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

}  // namespace fault_test
