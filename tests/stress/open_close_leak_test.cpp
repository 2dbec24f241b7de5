// A thousand opens and closes of a data stream (with its buffers and
// new-buffer event) through the exported API, the device itself closed and
// opened again with a short acquisition every hundredth time: afterwards the
// process holds exactly the file descriptors it held after a warm-up, and
// its resident memory has grown by no more than a generous bound.
//
// A device open connects the camera, which takes about 0.7 s of the link's
// own fixed waits (connection reset, line rate changes), so the device is
// cycled a tenth as often as its stream to keep the run short.
#include <cstdio>

#include "api_fixture.h"
#include "consumer_session.h"
#include "private_gentl_dir.h"
#include "stress_support.h"

namespace {

using pelorin::stress::iterations;
using pelorin::stress::open_descriptors;
using pelorin::stress::resident_kib;
using pelorin::testing_support::device_session;
using pelorin::testing_support::open_first_interface;
using pelorin::testing_support::kFastCardsProfile;
using pelorin::testing_support::private_gentl_dir;

class OpenCloseLeak : public ProducerTest {
protected:
    private_gentl_dir dir_{PELORIN_CTI_PATH};
    IF_HANDLE iface_ = nullptr;
    device_session session_{api};  // device0, open from the first cycle on

    void SetUp() override {
        dir_.use_emulation(kFastCardsProfile);
    }
    void TearDown() override {
        session_.close();
        if (iface_ != nullptr) api.IFClose(iface_);
        ProducerTest::TearDown();
    }

    // device0 closed and opened again with its camera port, a stream of four
    // buffers and a few frames; the device stays open, its stream is closed.
    void DeviceCycle(int cycle) {
        ASSERT_EQ(session_.close(), GC_ERR_SUCCESS) << "cycle " << cycle;
        ASSERT_EQ(session_.open(iface_, "device0", 128, 32, 4), GC_ERR_SUCCESS) << "cycle " << cycle;
        ASSERT_EQ(session_.start(), GC_ERR_SUCCESS) << "cycle " << cycle;
        EXPECT_EQ(session_.grab(5), 5) << "cycle " << cycle;
        EXPECT_EQ(session_.stop(), GC_ERR_SUCCESS) << "cycle " << cycle;
        ASSERT_EQ(api.DSClose(session_.stream), GC_ERR_SUCCESS) << "cycle " << cycle;
        session_.stream = session_.event = nullptr;
        session_.buffers.clear();
    }

    // The open device's stream opened with two buffers queued and the
    // new-buffer event registered, then closed with all of them.
    void StreamCycle(int cycle) {
        DS_HANDLE stream = nullptr;
        ASSERT_EQ(api.DevOpenDataStream(session_.device, "stream0", &stream), GC_ERR_SUCCESS)
            << "cycle " << cycle;
        for (int i = 0; i < 2; ++i) {
            BUFFER_HANDLE buffer = nullptr;
            EXPECT_EQ(api.DSAllocAndAnnounceBuffer(stream, 4096, nullptr, &buffer), GC_ERR_SUCCESS)
                << "cycle " << cycle;
            EXPECT_EQ(api.DSQueueBuffer(stream, buffer), GC_ERR_SUCCESS) << "cycle " << cycle;
        }
        EVENT_HANDLE event = nullptr;
        EXPECT_EQ(api.GCRegisterEvent(stream, EVENT_NEW_BUFFER, &event), GC_ERR_SUCCESS) << "cycle " << cycle;
        ASSERT_EQ(api.DSClose(stream), GC_ERR_SUCCESS) << "cycle " << cycle;
    }

    void Cycle(int cycle, int device_every) {
        if (cycle % device_every == 0)
            DeviceCycle(cycle);
        else
            StreamCycle(cycle);
    }
};

TEST_F(OpenCloseLeak, DeviceAndStreamCyclesGiveBackDescriptorsAndMemory) {
    OpenSystem();
    ASSERT_EQ(open_first_interface(api, system_, &iface_), GC_ERR_SUCCESS);

    // Under a sanitizer every call costs many times more; fewer cycles
    // still open and close every kind of resource.
    const int warm_up = iterations(50, 20);
    const int cycles = iterations(1000, 200);
    const int device_every = iterations(100, 50);
    for (int i = 0; i < warm_up; ++i) ASSERT_NO_FATAL_FAILURE(Cycle(i, device_every));

    const int descriptors_before = open_descriptors();
    const long resident_before = resident_kib();
    ASSERT_GT(descriptors_before, 0);
    ASSERT_GT(resident_before, 0);
    for (int i = 0; i < cycles; ++i) ASSERT_NO_FATAL_FAILURE(Cycle(i, device_every));
    const int descriptors_after = open_descriptors();
    const long resident_after = resident_kib();

    std::printf(
        "%d open/close cycles of the stream, the device and a grab every %d, after %d to warm up:\n"
        "  file descriptors %d before, %d after\n"
        "  resident memory %ld KiB before, %ld KiB after (%+ld KiB)\n",
        cycles, device_every, warm_up, descriptors_before, descriptors_after, resident_before, resident_after,
        resident_after - resident_before);
    EXPECT_EQ(descriptors_after, descriptors_before);
    // Sanitizer allocators hold freed memory back on purpose; there the
    // leak checker judges the memory instead.
    if (!pelorin::stress::kSanitized) {
        constexpr long kGrowthBoundKib = 16 * 1024;
        EXPECT_LT(resident_after - resident_before, kGrowthBoundKib);
    }
}

}  // namespace
