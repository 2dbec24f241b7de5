// A camera that leaves during acquisition (its links lose it) and comes
// back: the consumer learns it instead of waiting for ever, the device says
// so, and closing and opening the device acquires again.
#include <thread>

#include "emulator/profile_loader.h"
#include "fault_fixture.h"

namespace fault_test {
namespace {

class LostCamera : public FaultTest {
protected:
    // The card links of device0's camera.
    static std::vector<uint32_t> CameraLinks() { return Camera()->profile().links; }
    static void Unplug(bool unplugged) {
        for (uint32_t link : CameraLinks()) Camera()->unplug_link(link, unplugged);
    }
    int32_t AccessStatus() {
        int32_t status = -1;
        size_t size = sizeof status;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        EXPECT_EQ(DevGetInfo(tree_.device, DEVICE_INFO_ACCESS_STATUS, &type, &status, &size), GC_ERR_SUCCESS);
        return status;
    }
};

TEST_F(LostCamera, IsReportedToAWaitingConsumerAndTheDeviceRecoversAfterReopening) {
    ASSERT_EQ(OpenTree(), GC_ERR_SUCCESS);
    ASSERT_EQ(Start(8), GC_ERR_SUCCESS);
    ASSERT_EQ(Receive(20).first, 20);
    EXPECT_EQ(AccessStatus(), DEVICE_ACCESS_STATUS_OPEN_READWRITE);

    // A consumer waits for ever while the camera goes: it is released with
    // GC_ERR_IO once the buffers filled before have been handed out.
    GC_ERROR last = GC_ERR_SUCCESS;
    int delivered_after = 0;
    std::string log = logged([&] {
        std::thread consumer([&] {
            for (;;) {
                EVENT_NEW_BUFFER_DATA data{};
                size_t size = sizeof data;
                last = EventGetData(tree_.event, &data, &size, GENTL_INFINITE);
                if (last != GC_ERR_SUCCESS) return;
                ++delivered_after;
            }
        });
        Unplug(true);
        consumer.join();
    });
    EXPECT_EQ(last, GC_ERR_IO);
    EXPECT_LE(delivered_after, 8);  // at most the buffers that were queued
    EXPECT_NE(log.find("device0: the camera is lost"), std::string::npos) << log;
    EXPECT_NE(log.find("EventGetData: no more buffers, the stream's camera is lost"), std::string::npos) << log;

    // Every later call that needs the camera answers at once, with a log line.
    EXPECT_EQ(AccessStatus(), DEVICE_ACCESS_STATUS_NOACCESS);
    uint32_t value = 0;
    size_t size = sizeof value;
    log = logged([&] { EXPECT_EQ(GCReadPort(tree_.camera, 0, &value, &size), GC_ERR_IO); });
    EXPECT_NE(log.find("GCReadPort: device0 refused, the camera is lost"), std::string::npos) << log;
    size = sizeof value;
    EXPECT_EQ(GCWritePort(tree_.camera, 0x4014, &value, &size), GC_ERR_IO);
    int64_t width = 0;
    EXPECT_NE(kv_genapi_get_integer(tree_.camera, "Width", &width), GC_ERR_SUCCESS);
    PORT_HANDLE port = nullptr;
    EXPECT_EQ(DevGetPort(tree_.device, &port), GC_ERR_IO);
    EVENT_NEW_BUFFER_DATA data{};
    size = sizeof data;
    EXPECT_EQ(EventGetData(tree_.event, &data, &size, 0), GC_ERR_IO);
    EXPECT_EQ(DSStopAcquisition(tree_.stream, ACQ_STOP_FLAGS_DEFAULT), GC_ERR_SUCCESS);
    EXPECT_EQ(DSStartAcquisition(tree_.stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_IO);

    // While the camera is away a new open finds nothing to connect.
    CloseTree();
    EXPECT_NE(OpenTree(), GC_ERR_SUCCESS);
    CloseTree();

    // The camera comes back: close and open, and it acquires again.
    Unplug(false);
    ExpectRecovery("camera lost during acquisition");
}

TEST_F(LostCamera, OneLinkOfTwoGoingIsALossTooAndAnIdleStreamIsNotReported) {
    ASSERT_EQ(OpenTree(), GC_ERR_SUCCESS);
    ASSERT_GE(CameraLinks().size(), 2u);
    // Not acquiring: nothing watches the links, nothing is reported.
    std::string log = logged([&] {
        Camera()->unplug_link(CameraLinks()[1], true);
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    });
    EXPECT_EQ(log.find("the camera is lost"), std::string::npos) << log;
    EXPECT_EQ(AccessStatus(), DEVICE_ACCESS_STATUS_OPEN_READWRITE);

    // Acquiring with one link of the connection gone: no frame comes, and
    // the loss is found within the links' watch.
    log = logged([&] {
        ASSERT_EQ(Start(4), GC_ERR_SUCCESS);
        EXPECT_EQ(Receive(1, GENTL_INFINITE), (std::pair<int, GC_ERROR>{0, GC_ERR_IO}));
    });
    EXPECT_NE(log.find("device0: the camera is lost"), std::string::npos) << log;
    EXPECT_EQ(AccessStatus(), DEVICE_ACCESS_STATUS_NOACCESS);
    Camera()->unplug_link(CameraLinks()[1], false);
    ExpectRecovery("one link of two lost");
}

// A fibre card's camera: an acquisition waiting for triggers is not a lost
// camera however long it waits; losing the fibre links is.
TEST_F(LostCamera, FibreCameraWaitingForTriggersIsNotLostButOneWithoutLinksIs) {
    std::vector<pelorin::emu::card_profile> cards;
    std::string error;
    ASSERT_TRUE(pelorin::emu::parse_profile(
        R"({"cards": [{"product_id": "0x184", "links": 4, "device_slots": 2, "firmware_version": "2.0",
             "cameras": [{"links": [0, 1], "default_config": "0x20058", "model": "Lyra 25M CoF"}]}]})",
        "fibre card", cards, error))
        << error;
    bus().set_cards(cards);
    Card()->set_unlimited_frame_rate(true);
    ASSERT_EQ(OpenTree(), GC_ERR_SUCCESS);
    ASSERT_EQ(kv_genapi_set_string(tree_.camera, "TriggerMode", "On"), 0);
    ASSERT_EQ(kv_genapi_set_string(tree_.camera, "TriggerSource", "Software"), 0);
    std::string log = logged([&] {
        ASSERT_EQ(Start(4), GC_ERR_SUCCESS);
        // Two and a half link watches without a frame.
        EXPECT_EQ(Receive(1, 2500), (std::pair<int, GC_ERROR>{0, GC_ERR_TIMEOUT}));
        ASSERT_EQ(kv_genapi_call_command(tree_.camera, "TriggerSoftware"), 0);
        EXPECT_EQ(Receive(1, 2000).first, 1);
    });
    EXPECT_EQ(log.find("the camera is lost"), std::string::npos) << log;
    EXPECT_EQ(AccessStatus(), DEVICE_ACCESS_STATUS_OPEN_READWRITE);

    log = logged([&] {
        Unplug(true);
        EXPECT_EQ(Receive(1, GENTL_INFINITE), (std::pair<int, GC_ERROR>{0, GC_ERR_IO}));
    });
    EXPECT_NE(log.find("device0: the camera is lost"), std::string::npos) << log;
    Unplug(false);
    CloseTree();
    ASSERT_EQ(OpenTree(), GC_ERR_SUCCESS);
    // The camera kept its settings while it was away.
    ASSERT_EQ(kv_genapi_set_string(tree_.camera, "TriggerMode", "Off"), 0);
    ASSERT_EQ(Start(4), GC_ERR_SUCCESS);
    EXPECT_EQ(Receive(5).first, 5);
}

}  // namespace
}  // namespace fault_test
