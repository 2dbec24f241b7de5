// Eight consumer threads calling the exports at once for a few seconds, on
// handles they share and on handles of their own, while both cameras of the
// card acquire: two threads take the frames of one stream from the same
// event, one takes the other stream's, one polls that event with time-outs
// of 0 and 1 ms, and the others query the modules' information, read camera
// registers through the port and read features by name. Every answer is
// one the call may give, every value read is the one read alone beforehand,
// every delivered frame is whole and no buffer is handed to two consumers.
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "api_fixture.h"
#include "consumer_session.h"
#include "private_gentl_dir.h"
#include "stress_support.h"

namespace {

using pelorin::stress::answer_tally;
using pelorin::stress::phase_length;
using pelorin::stress::watchdog;
using pelorin::testing_support::device_session;
using pelorin::testing_support::open_first_interface;
using pelorin::testing_support::is_error_code;
using pelorin::testing_support::is_frame_wait_answer;
using pelorin::testing_support::kFastCardsProfile;
using pelorin::testing_support::private_gentl_dir;

using Clock = std::chrono::steady_clock;

constexpr uint64_t kCameraWidthRegister = 0x6000;
constexpr uint64_t kCameraVendorRegister = 0x2000;
constexpr size_t kCameraVendorSize = 32;

// A buffer handed to a consumer and not queued again yet: a second
// delivery of it before the requeue is a fault.
class held_buffers {
public:
    bool take(BUFFER_HANDLE buffer) {
        std::lock_guard<std::mutex> lock(mutex_);
        return held_.emplace(buffer, true).second || !std::exchange(held_[buffer], true);
    }
    void give_back(BUFFER_HANDLE buffer) {
        std::lock_guard<std::mutex> lock(mutex_);
        held_[buffer] = false;
    }

private:
    std::mutex mutex_;
    std::map<BUFFER_HANDLE, bool> held_;
};

class ConcurrentCalls : public ProducerTest {
protected:
    private_gentl_dir dir_{PELORIN_CTI_PATH};
    IF_HANDLE iface_ = nullptr;
    device_session first_{api};   // device0, 256 x 64
    device_session second_{api};  // device1, 128 x 32

    void SetUp() override {
        dir_.use_emulation(kFastCardsProfile);
    }
    void TearDown() override {
        first_.close();
        second_.close();
        if (iface_ != nullptr) api.IFClose(iface_);
        ProducerTest::TearDown();
    }

    // The text an info query answers, for the values the threads compare.
    template <typename Query>
    std::string Text(Query &&query) {
        char text[1024] = {};
        size_t size = sizeof text;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        EXPECT_EQ(query(&type, text, &size), GC_ERR_SUCCESS);
        return text;
    }
};

TEST_F(ConcurrentCalls, EightThreadsOnSharedAndSeparateHandlesWhileBothCamerasAcquire) {
    OpenSystem();
    ASSERT_EQ(open_first_interface(api, system_, &iface_), GC_ERR_SUCCESS);
    ASSERT_EQ(first_.open(iface_, "device0", 256, 64, 8), GC_ERR_SUCCESS);
    ASSERT_EQ(second_.open(iface_, "device1", 128, 32, 8), GC_ERR_SUCCESS);

    // What the threads must read, read alone first.
    const std::string tl_id = Text(
        [&](INFO_DATATYPE *t, char *b, size_t *s) { return api.TLGetInfo(system_, TL_INFO_ID, t, b, s); });
    const std::string tl_path =
        Text([&](INFO_DATATYPE *t, char *b, size_t *s) { return api.GCGetInfo(TL_INFO_PATHNAME, t, b, s); });
    const std::string if_id = Text([&](INFO_DATATYPE *t, char *b, size_t *s) {
        return api.IFGetInfo(iface_, INTERFACE_INFO_ID, t, b, s);
    });
    const std::array<std::string, 2> device_ids = {
        Text([&](INFO_DATATYPE *t, char *b, size_t *s) {
            return api.DevGetInfo(first_.device, DEVICE_INFO_ID, t, b, s);
        }),
        Text([&](INFO_DATATYPE *t, char *b, size_t *s) {
            return api.DevGetInfo(second_.device, DEVICE_INFO_ID, t, b, s);
        })};
    const std::array<std::string, 2> serials = {
        Text([&](INFO_DATATYPE *t, char *b, size_t *s) {
            return api.DevGetInfo(first_.device, DEVICE_INFO_SERIAL_NUMBER, t, b, s);
        }),
        Text([&](INFO_DATATYPE *t, char *b, size_t *s) {
            return api.DevGetInfo(second_.device, DEVICE_INFO_SERIAL_NUMBER, t, b, s);
        })};
    std::array<std::array<uint8_t, kCameraVendorSize>, 2> vendors{};
    std::array<uint32_t, 2> width_registers{};
    for (int i = 0; i < 2; ++i) {
        device_session &session = i == 0 ? first_ : second_;
        size_t size = kCameraVendorSize;
        ASSERT_EQ(api.GCReadPort(session.camera, kCameraVendorRegister, vendors[i].data(), &size),
                  GC_ERR_SUCCESS);
        size = sizeof width_registers[i];
        ASSERT_EQ(api.GCReadPort(session.camera, kCameraWidthRegister, &width_registers[i], &size),
                  GC_ERR_SUCCESS);
    }
    char vendor_name[64] = {};
    uint64_t vendor_size = sizeof vendor_name;
    ASSERT_EQ(api.kv_genapi_get_string(first_.camera, "DeviceVendorName", vendor_name, &vendor_size),
              GC_ERR_SUCCESS);

    ASSERT_EQ(first_.start(), GC_ERR_SUCCESS);
    ASSERT_EQ(second_.start(), GC_ERR_SUCCESS);

    answer_tally tally;
    const auto expect_success = [&tally](const char *call, GC_ERROR result) {
        tally.count(result == GC_ERR_SUCCESS, call, result);
    };
    const auto expect_code = [&tally](const char *call, GC_ERROR result) {
        tally.count(result == GC_ERR_SUCCESS || is_error_code(result), call, result);
    };
    const auto expect_equal = [&tally](const char *what, bool equal) { tally.count(equal, what, 0); };

    // Frames taken, frames whole, and double deliveries, per device.
    std::array<std::atomic<long>, 2> taken{}, whole{};
    std::array<held_buffers, 2> held;
    const auto take_frame = [&](int device, uint64_t timeout_ms) {
        device_session &session = device == 0 ? first_ : second_;
        EVENT_NEW_BUFFER_DATA data{};
        size_t size = sizeof data;
        const GC_ERROR got = api.EventGetData(session.event, &data, &size, timeout_ms);
        tally.count(is_frame_wait_answer(got), "EventGetData", got);
        if (got != GC_ERR_SUCCESS) return;
        ++taken[device];
        expect_equal("a buffer delivered again before its requeue", held[device].take(data.BufferHandle));
        if (session.holds_camera_frame(data.BufferHandle)) ++whole[device];
        held[device].give_back(data.BufferHandle);
        expect_success("DSQueueBuffer", api.DSQueueBuffer(session.stream, data.BufferHandle));
    };

    const Clock::time_point end = Clock::now() + phase_length(6000, 4000);
    const auto running = [end] { return Clock::now() < end; };
    std::vector<std::thread> threads;
    {
        watchdog guard("eight threads calling the exports", std::chrono::seconds(300));
        // Two consumers sharing device0's event, one on device1's.
        for (int i = 0; i < 2; ++i)
            threads.emplace_back([&] {
                while (running()) take_frame(0, 50);
            });
        threads.emplace_back([&] {
            while (running()) take_frame(1, 50);
        });
        // Polling device1's event with time-outs of 0 and 1 ms, and the
        // counters a consumer reads between frames.
        threads.emplace_back([&] {
            for (uint64_t n = 0; running(); ++n) {
                take_frame(1, n % 2);
                uint32_t count = 0;
                expect_success("TLGetNumInterfaces", api.TLGetNumInterfaces(system_, &count));
                expect_success("IFGetNumDevices", api.IFGetNumDevices(iface_, &count));
                GC_ERROR last = 0;
                char text[256];
                size_t size = sizeof text;
                expect_success("GCGetLastError", api.GCGetLastError(&last, text, &size));
            }
        });
        // Information of every module, on the shared handles of device0 and
        // the separate ones of device1.
        for (int device = 0; device < 2; ++device)
            threads.emplace_back([&, device] {
                device_session &session = device == 0 ? first_ : second_;
                char text[1024];
                for (int n = 0; running(); ++n) {
                    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
                    size_t size = sizeof text;
                    expect_code("GCGetInfo", api.GCGetInfo(n % 11, &type, text, &size));
                    size = sizeof text;
                    GC_ERROR result = api.GCGetInfo(TL_INFO_PATHNAME, &type, text, &size);
                    expect_success("GCGetInfo(path)", result);
                    expect_equal("GCGetInfo(path) value", result != GC_ERR_SUCCESS || tl_path == text);
                    size = sizeof text;
                    result = api.TLGetInfo(system_, TL_INFO_ID, &type, text, &size);
                    expect_success("TLGetInfo(ID)", result);
                    expect_equal("TLGetInfo(ID) value", result != GC_ERR_SUCCESS || tl_id == text);
                    size = sizeof text;
                    expect_code("TLGetInfo", api.TLGetInfo(system_, n % 11, &type, text, &size));
                    size = sizeof text;
                    result = api.IFGetInfo(iface_, INTERFACE_INFO_ID, &type, text, &size);
                    expect_success("IFGetInfo(ID)", result);
                    expect_equal("IFGetInfo(ID) value", result != GC_ERR_SUCCESS || if_id == text);
                    size = sizeof text;
                    result = api.DevGetInfo(session.device, DEVICE_INFO_ID, &type, text, &size);
                    expect_success("DevGetInfo(ID)", result);
                    expect_equal("DevGetInfo(ID) value",
                                 result != GC_ERR_SUCCESS || device_ids[device] == text);
                    size = sizeof text;
                    result = api.DevGetInfo(session.device, DEVICE_INFO_SERIAL_NUMBER, &type, text, &size);
                    expect_success("DevGetInfo(serial)", result);
                    expect_equal("DevGetInfo(serial) value",
                                 result != GC_ERR_SUCCESS || serials[device] == text);
                    size = sizeof text;
                    expect_code("DevGetInfo", api.DevGetInfo(session.device, n % 10, &type, text, &size));
                    size = sizeof text;
                    expect_code("DSGetInfo", api.DSGetInfo(session.stream, n % 14, &type, text, &size));
                    uint8_t grabbing = 0;
                    size = sizeof grabbing;
                    result = api.DSGetInfo(session.stream, STREAM_INFO_IS_GRABBING, &type, &grabbing, &size);
                    expect_success("DSGetInfo(grabbing)", result);
                    expect_equal("DSGetInfo(grabbing) value", grabbing == 1);
                    size = sizeof text;
                    expect_code(
                        "DSGetBufferInfo",
                        api.DSGetBufferInfo(session.stream, session.buffers[n % session.buffers.size()],
                                            n % 32, &type, text, &size));
                }
            });
        // Camera registers through the remote port of each device.
        threads.emplace_back([&] {
            for (int n = 0; running(); ++n) {
                const int device = n % 2;
                device_session &session = device == 0 ? first_ : second_;
                std::array<uint8_t, kCameraVendorSize> vendor{};
                size_t size = vendor.size();
                GC_ERROR result = api.GCReadPort(session.camera, kCameraVendorRegister, vendor.data(), &size);
                expect_success("GCReadPort(vendor)", result);
                expect_equal("GCReadPort(vendor) value",
                             result != GC_ERR_SUCCESS || vendor == vendors[device]);
                uint32_t width = 0;
                size = sizeof width;
                result = api.GCReadPort(session.camera, kCameraWidthRegister, &width, &size);
                expect_success("GCReadPort(width)", result);
                expect_equal("GCReadPort(width) value",
                             result != GC_ERR_SUCCESS || width == width_registers[device]);
                char id[64];
                size = sizeof id;
                expect_success("GCReadPort(device ID)",
                               api.GCReadPort(session.device, 0x003E0001FFFF0001ULL, id, &size));
            }
        });
        // Features by name on the cameras' and the system's node maps. (The
        // interface and device node maps are built under their module's
        // lock and read their registers back through it, the other way
        // round; OpenCloseLock keeps the two apart, but ThreadSanitizer
        // reports the inversion, so they are left to the API tests.)
        threads.emplace_back([&] {
            for (int n = 0; running(); ++n) {
                const int device = n % 2;
                device_session &session = device == 0 ? first_ : second_;
                int64_t value = 0;
                GC_ERROR result = api.kv_genapi_get_integer(session.camera, "Width", &value);
                expect_success("kv_genapi_get_integer(Width)", result);
                expect_equal("Width value", result != 0 || value == session.width);
                result = api.kv_genapi_get_integer(session.camera, "Height", &value);
                expect_success("kv_genapi_get_integer(Height)", result);
                expect_equal("Height value", result != 0 || value == session.height);
                char text[256];
                uint64_t size = sizeof text;
                result = api.kv_genapi_get_string(first_.camera, "DeviceVendorName", text, &size);
                expect_success("kv_genapi_get_string(DeviceVendorName)", result);
                expect_equal("DeviceVendorName value", result != 0 || std::strcmp(text, vendor_name) == 0);
                size = sizeof text;
                result = api.kv_genapi_get_string(system_, "TLPath", text, &size);
                expect_success("kv_genapi_get_string(TLPath)", result);
                expect_equal("TLPath value", result != 0 || tl_path == text);
                double exposure = 0;
                expect_code("kv_genapi_get_float(ExposureTime)",
                            api.kv_genapi_get_float(session.camera, "ExposureTime", &exposure));
            }
        });
        for (std::thread &thread : threads) thread.join();
    }
    EXPECT_EQ(first_.stop(), GC_ERR_SUCCESS);
    EXPECT_EQ(second_.stop(), GC_ERR_SUCCESS);

    std::printf(
        "%zu threads, %lld ms: %ld calls; device0 %ld frames (%ld whole), device1 %ld frames (%ld whole)\n",
        threads.size(), static_cast<long long>(phase_length(6000, 4000).count()), tally.calls(),
        taken[0].load(), whole[0].load(), taken[1].load(), whole[1].load());
    EXPECT_EQ(tally.unexpected(), "");
    for (int device = 0; device < 2; ++device) {
        EXPECT_GT(taken[device].load(), 0) << "device" << device;
        EXPECT_EQ(whole[device].load(), taken[device].load()) << "device" << device;
    }
}

}  // namespace
