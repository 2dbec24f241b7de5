// Acquisition through the exported API against the default emulated camera:
// buffers, the new-buffer event, start and stop, and every delivered byte
// checked against the frame the camera sent.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "api_fixture.h"
#include "delivered_frames.h"
#include "private_gentl_dir.h"

namespace {

using pelorin::testing_support::camera_frames;
using pelorin::testing_support::private_gentl_dir;

constexpr uint32_t kMono8 = 0x01080001;
constexpr uint32_t kMono12 = 0x01100005;

// The default card, its cameras sending as fast as buffers come.
constexpr const char *kProfile = R"({"cards": [{"product_id": "0x181", "unlimited_frame_rate": true}]})";

class Acquisition : public DeviceTest {
protected:
    private_gentl_dir dir_{PELORIN_CTI_PATH};
    EVENT_HANDLE event_ = nullptr;

    // The emulated cards: by default cameras sending as fast as buffers come.
    virtual const char *profile() const { return kProfile; }
    void SetUp() override {
        dir_.use_emulation(profile());
    }
    void TearDown() override {
        if (device_ != nullptr) api.DevClose(device_);
        if (iface_ != nullptr) api.IFClose(iface_);
        ProducerTest::TearDown();
    }
    void OpenStream(int64_t width = 1024, int64_t height = 256) {
        ASSERT_NO_FATAL_FAILURE(OpenCamera());
        ASSERT_EQ(api.kv_genapi_set_integer(camera_, "Width", width), 0);
        ASSERT_EQ(api.kv_genapi_set_integer(camera_, "Height", height), 0);
        OpenDataStream();
    }
    uint64_t Payload() {
        uint64_t payload = 0;
        size_t size = sizeof payload;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        EXPECT_EQ(api.DSGetInfo(stream_, STREAM_INFO_PAYLOAD_SIZE, &type, &payload, &size), GC_ERR_SUCCESS);
        return payload;
    }
    template <typename T>
    T BufferInfo(BUFFER_HANDLE buffer, BUFFER_INFO_CMD command) {
        T value{};
        size_t size = sizeof value;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        EXPECT_EQ(api.DSGetBufferInfo(stream_, buffer, command, &type, &value, &size), GC_ERR_SUCCESS);
        return value;
    }
    void Start() {
        ASSERT_EQ(api.GCRegisterEvent(stream_, EVENT_NEW_BUFFER, &event_), GC_ERR_SUCCESS);
        ASSERT_EQ(api.DSStartAcquisition(stream_, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS);
        ASSERT_EQ(api.kv_genapi_call_command(camera_, "AcquisitionStart"), 0);
    }
    void Stop() {
        EXPECT_EQ(api.kv_genapi_call_command(camera_, "AcquisitionStop"), 0);
        EXPECT_EQ(api.DSStopAcquisition(stream_, ACQ_STOP_FLAGS_DEFAULT), GC_ERR_SUCCESS);
    }
    // Receives `count` frames, checks each and queues it again; the frames
    // whose bytes match what the camera sent.
    int Receive(int count, const camera_frames &camera) {
        uint64_t last_id = 0;
        uint64_t last_time = 0;
        int matching = 0;
        for (int i = 0; i < count; ++i) {
            EVENT_NEW_BUFFER_DATA data{};
            size_t size = sizeof data;
            const GC_ERROR got = api.EventGetData(event_, &data, &size, 5000);
            EXPECT_EQ(got, GC_ERR_SUCCESS) << "frame " << i;
            if (got != GC_ERR_SUCCESS) break;
            const auto id = BufferInfo<uint64_t>(data.BufferHandle, BUFFER_INFO_FRAMEID);
            const auto time = BufferInfo<uint64_t>(data.BufferHandle, BUFFER_INFO_TIMESTAMP);
            EXPECT_GT(id, last_id) << "frame " << i;
            EXPECT_GE(time, last_time) << "frame " << i;
            // Labelled with the format delivered: BGR8 after the card's
            // demosaic, otherwise the camera's (also after it changed).
            EXPECT_EQ(BufferInfo<uint64_t>(data.BufferHandle, BUFFER_INFO_PIXELFORMAT),
                      camera.image.demosaic ? 0x02180015u : camera.image.pixel_format) << "frame " << i;
            if (i == 0) {
                EXPECT_EQ(time, 0u);
            }
            last_id = id;
            last_time = time;
            const auto *bytes = BufferInfo<const uint8_t *>(data.BufferHandle, BUFFER_INFO_BASE);
            if (camera.matches(bytes)) ++matching;
            EXPECT_EQ(api.DSQueueBuffer(stream_, data.BufferHandle), GC_ERR_SUCCESS);
        }
        return matching;
    }
};

TEST_F(Acquisition, DeliversEveryFrameOnceAndWhole) {
    OpenStream();
    const uint64_t payload = Payload();
    ASSERT_EQ(payload, 1024u * 256u);  // Mono8
    std::vector<BUFFER_HANDLE> buffers(8);
    for (BUFFER_HANDLE &buffer : buffers) {
        ASSERT_EQ(api.DSAllocAndAnnounceBuffer(stream_, payload, nullptr, &buffer), GC_ERR_SUCCESS);
        ASSERT_EQ(api.DSQueueBuffer(stream_, buffer), GC_ERR_SUCCESS);
    }
    Start();
    EXPECT_EQ(Receive(300, camera_frames(1024, 256, kMono8, 1024, 1024 * 256)), 300);
    Stop();
    for (BUFFER_HANDLE buffer : buffers)
        ASSERT_EQ(api.DSRevokeBuffer(stream_, buffer, nullptr, nullptr), GC_ERR_BUSY);
    ASSERT_EQ(api.DSFlushQueue(stream_, ACQ_QUEUE_ALL_DISCARD), GC_ERR_SUCCESS);
    for (BUFFER_HANDLE buffer : buffers)
        ASSERT_EQ(api.DSRevokeBuffer(stream_, buffer, nullptr, nullptr), GC_ERR_SUCCESS);

    // Another ROI and format: the payload follows; consumer buffers; frame
    // IDs and time start again.
    ASSERT_EQ(api.kv_genapi_set_integer(camera_, "Width", 512), 0);
    ASSERT_EQ(api.kv_genapi_set_string(camera_, "PixelFormat", "Mono12"), 0);
    ASSERT_EQ(Payload(), 512u * 2 * 256);
    std::vector<std::vector<uint8_t>> memory(4, std::vector<uint8_t>(512 * 2 * 256));
    for (auto &bytes : memory) {
        BUFFER_HANDLE buffer = nullptr;
        ASSERT_EQ(api.DSAnnounceBuffer(stream_, bytes.data(), bytes.size(), &bytes, &buffer), GC_ERR_SUCCESS);
        ASSERT_EQ(api.DSQueueBuffer(stream_, buffer), GC_ERR_SUCCESS);
    }
    ASSERT_EQ(api.DSStartAcquisition(stream_, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS);
    ASSERT_EQ(api.kv_genapi_call_command(camera_, "AcquisitionStart"), 0);
    EXPECT_EQ(Receive(50, camera_frames(512, 256, kMono12, 1024, 512 * 2 * 256)), 50);
    Stop();
}

TEST_F(Acquisition, LifecycleCallsAnswerTheirCodes) {
    OpenStream(256, 64);
    EXPECT_EQ(api.DSStartAcquisition(stream_, ACQ_START_FLAGS_DEFAULT, 0), GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(api.DSStopAcquisition(stream_, ACQ_STOP_FLAGS_DEFAULT), GC_ERR_BUSY);
    EVENT_HANDLE event = nullptr;
    EXPECT_EQ(api.GCRegisterEvent(stream_, EVENT_NEW_BUFFER, nullptr), GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(api.GCRegisterEvent(nullptr, EVENT_NEW_BUFFER, &event), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.EventGetData(nullptr, nullptr, nullptr, 0), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.DSGetInfo(stream_, STREAM_INFO_PAYLOAD_SIZE, nullptr, nullptr, nullptr),
              GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(api.GCRegisterEvent(stream_, EVENT_ERROR, &event), GC_ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(api.GCRegisterEvent(device_, EVENT_NEW_BUFFER, &event), GC_ERR_NOT_AVAILABLE);
    EXPECT_EQ(api.GCUnregisterEvent(stream_, EVENT_NEW_BUFFER), GC_ERR_ERROR);
    ASSERT_EQ(api.GCRegisterEvent(stream_, EVENT_NEW_BUFFER, &event_), GC_ERR_SUCCESS);
    EXPECT_EQ(api.GCRegisterEvent(stream_, EVENT_NEW_BUFFER, &event), GC_ERR_RESOURCE_IN_USE);
    EVENT_NEW_BUFFER_DATA data{};
    size_t size = sizeof data;
    EXPECT_EQ(api.EventGetData(event_, &data, &size, 0), GC_ERR_TIMEOUT);

    // Unregistering ends a wait in another thread with GC_ERR_ABORT; the
    // same handle comes back at the next registration.
    std::atomic<GC_ERROR> waited{1};
    std::thread waiter([&] {
        EVENT_NEW_BUFFER_DATA mine{};
        size_t mine_size = sizeof mine;
        waited = api.EventGetData(event_, &mine, &mine_size, GENTL_INFINITE);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the waiter waits by now
    EXPECT_EQ(api.GCUnregisterEvent(stream_, EVENT_NEW_BUFFER), GC_ERR_SUCCESS);
    waiter.join();
    EXPECT_EQ(waited, GC_ERR_ABORT);
    EXPECT_EQ(api.EventGetData(event_, &data, &size, 0), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.GCRegisterEvent(stream_, EVENT_NEW_BUFFER, &event), GC_ERR_SUCCESS);
    EXPECT_EQ(event, event_);

    // A buffer smaller than the payload is accepted with a log line; start
    // twice is busy; close while acquiring stops first.
    BUFFER_HANDLE small = nullptr;
    ASSERT_EQ(api.DSAllocAndAnnounceBuffer(stream_, 64, nullptr, &small), GC_ERR_SUCCESS);
    ASSERT_EQ(api.DSStartAcquisition(stream_, ACQ_START_FLAGS_DEFAULT, 0), GC_ERR_SUCCESS);
    EXPECT_EQ(api.DSStartAcquisition(stream_, ACQ_START_FLAGS_DEFAULT, 0), GC_ERR_BUSY);
    EXPECT_EQ(api.DSRevokeBuffer(stream_, small, nullptr, nullptr), GC_ERR_BUSY);
    BUFFER_HANDLE more = nullptr;
    EXPECT_EQ(api.DSAllocAndAnnounceBuffer(stream_, 64, nullptr, &more), GC_ERR_BUSY);
    uint8_t grabbing = 0;
    size = 1;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    ASSERT_EQ(api.DSGetInfo(stream_, STREAM_INFO_IS_GRABBING, &type, &grabbing, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(grabbing, 1);
    EXPECT_EQ(api.DSClose(stream_), GC_ERR_SUCCESS);
    EXPECT_EQ(api.EventGetData(event_, &data, &size, 0), GC_ERR_INVALID_HANDLE);
}

// Cameras at their own rate.
class PacedAcquisition : public Acquisition {
protected:
    const char *profile() const override { return R"({"cards": [{"product_id": "0x181"}]})"; }
};

// Triggered frames, and a consumer slower than the camera: the frames the
// card had no buffer for are lost there, and every delivered one is whole.
TEST_F(PacedAcquisition, SoftwareTriggerAndASlowConsumer) {
    OpenStream(256, 64);
    const camera_frames camera(256, 64, kMono8, 256, 256 * 64);
    std::vector<BUFFER_HANDLE> buffers(2);
    for (BUFFER_HANDLE &buffer : buffers) {
        ASSERT_EQ(api.DSAllocAndAnnounceBuffer(stream_, 256 * 64, nullptr, &buffer), GC_ERR_SUCCESS);
        ASSERT_EQ(api.DSQueueBuffer(stream_, buffer), GC_ERR_SUCCESS);
    }
    ASSERT_EQ(api.kv_genapi_set_string(camera_, "TriggerMode", "On"), 0);
    ASSERT_EQ(api.kv_genapi_set_string(camera_, "TriggerSource", "Software"), 0);
    Start();
    EVENT_NEW_BUFFER_DATA data{};
    size_t size = sizeof data;
    EXPECT_EQ(api.EventGetData(event_, &data, &size, 100), GC_ERR_TIMEOUT);  // no trigger yet
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(api.kv_genapi_call_command(camera_, "TriggerSoftware"), 0);
        ASSERT_EQ(api.EventGetData(event_, &data, &size, 2000), GC_ERR_SUCCESS) << i;
        EXPECT_TRUE(camera.matches(BufferInfo<const uint8_t *>(data.BufferHandle, BUFFER_INFO_BASE)));
        EXPECT_EQ(BufferInfo<uint64_t>(data.BufferHandle, BUFFER_INFO_PIXELFORMAT), uint64_t{kMono8});
        EXPECT_EQ(BufferInfo<uint64_t>(data.BufferHandle, BUFFER_INFO_WIDTH), 256u);
        ASSERT_EQ(api.DSQueueBuffer(stream_, data.BufferHandle), GC_ERR_SUCCESS);
    }
    EXPECT_EQ(api.EventGetData(event_, &data, &size, 100), GC_ERR_TIMEOUT);  // one frame per trigger
    Stop();
    EXPECT_EQ(api.DSStopAcquisition(stream_, ACQ_STOP_FLAGS_DEFAULT), GC_ERR_BUSY);

    // Free running at the camera's rate, two buffers, a consumer that takes
    // a frame only every 100 ms.
    ASSERT_EQ(api.kv_genapi_set_string(camera_, "TriggerMode", "Off"), 0);
    ASSERT_EQ(api.DSFlushQueue(stream_, ACQ_QUEUE_ALL_TO_INPUT), GC_ERR_SUCCESS);
    ASSERT_EQ(api.kv_genapi_set_string(camera_, "AcquisitionFrameRate", "100"), 0);
    ASSERT_EQ(api.kv_genapi_set_string(camera_, "ExposureTime", "1000"), 0);
    ASSERT_EQ(api.DSStartAcquisition(stream_, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS);
    ASSERT_EQ(api.kv_genapi_call_command(camera_, "AcquisitionStart"), 0);
    uint64_t last_number = 0;
    int gaps = 0;
    for (int i = 0; i < 8; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ASSERT_EQ(api.EventGetData(event_, &data, &size, 2000), GC_ERR_SUCCESS) << i;
        const auto *bytes = BufferInfo<const uint8_t *>(data.BufferHandle, BUFFER_INFO_BASE);
        EXPECT_TRUE(camera.matches(bytes)) << i;
        const uint64_t number = camera.frame_number(bytes);
        if (i > 0) {
            EXPECT_GT(number, last_number) << i;  // never the same frame twice
            gaps += number > last_number + 1;
        }
        last_number = number;
        ASSERT_EQ(api.DSQueueBuffer(stream_, data.BufferHandle), GC_ERR_SUCCESS);
    }
    EXPECT_GT(gaps, 0);  // the card dropped the frames it had no buffer for
    Stop();
}

// A fibre card demosaics a Bayer camera's frames when the device's
// IspBayerEnable is 1: BGR8 buffers of three times the line size.
class ColourAcquisition : public Acquisition {
protected:
    const char *profile() const override {
        return R"({"cards": [{"product_id": "0x184", "unlimited_frame_rate": true,
                   "cameras": [{"links": [0, 1], "model": "Lyra 12C CXP-12"}]}]})";
    }
};

TEST_F(ColourAcquisition, BayerFramesArriveDemosaiced) {
    OpenStream(512, 64);
    ASSERT_EQ(api.kv_genapi_set_string(camera_, "PixelFormat", "BayerRG8"), 0);
    ASSERT_EQ(api.kv_genapi_set_integer(device_, "IspBayerEnable", 1), 0);
    const uint64_t payload = Payload();
    ASSERT_EQ(payload, 512u * 3 * 64);
    for (int i = 0; i < 4; ++i) {
        BUFFER_HANDLE buffer = nullptr;
        ASSERT_EQ(api.DSAllocAndAnnounceBuffer(stream_, payload, nullptr, &buffer), GC_ERR_SUCCESS);
        ASSERT_EQ(api.DSQueueBuffer(stream_, buffer), GC_ERR_SUCCESS);
    }
    Start();
    EXPECT_EQ(Receive(20, camera_frames(512, 64, 0x01080009, 512 * 3, 512 * 3 * 64, true)), 20);
    Stop();
    BUFFER_HANDLE any = nullptr;
    ASSERT_EQ(api.DSAllocAndAnnounceBuffer(stream_, 16, nullptr, &any), GC_ERR_SUCCESS);
    EXPECT_EQ(BufferInfo<uint64_t>(any, BUFFER_INFO_PIXELFORMAT), 0x02180015u);  // BGR8
}

}  // namespace
