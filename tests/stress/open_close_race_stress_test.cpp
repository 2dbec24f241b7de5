// Modules opened and closed while other threads use the library:
// - device0 with its camera port, stream, buffers and event opened, briefly
//   acquiring and closed again, over and over, beside device1 acquiring
//   without a break and a thread listing and querying the interface's
//   devices;
// - the whole tree (TLOpen .. DevOpenDataStream, a short acquisition, the
//   closes in three different orders, implicit ones included) over and over,
//   while other threads call the exports with the handles it last opened,
//   whether they are still open or not.
// Every call answers a code it may give, nothing crashes or hangs, and the
// acquiring device keeps delivering whole frames.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "api_fixture.h"
#include "consumer_session.h"
#include "private_gentl_dir.h"
#include "stress_support.h"

namespace {

using pelorin::stress::answer_tally;
using pelorin::stress::iterations;
using pelorin::stress::watchdog;
using pelorin::testing_support::device_session;
using pelorin::testing_support::first_interface_id;
using pelorin::testing_support::open_first_interface;
using pelorin::testing_support::is_error_code;
using pelorin::testing_support::kFastCardsProfile;
using pelorin::testing_support::private_gentl_dir;

// Port reads of camera memory hand on the link layer's result (-1 no
// answer, -2 refused, -3 damaged) when the camera goes away mid-read.
bool is_port_answer(GC_ERROR code) {
    return code == GC_ERR_SUCCESS || is_error_code(code) || (code >= -3 && code <= -1);
}
bool is_answer(GC_ERROR code) { return code == GC_ERR_SUCCESS || is_error_code(code); }

class OpenCloseRace : public ProducerTest {
protected:
    private_gentl_dir dir_{PELORIN_CTI_PATH};
    IF_HANDLE iface_ = nullptr;
    device_session acquiring_{api};  // device1

    void SetUp() override {
        dir_.use_emulation(kFastCardsProfile);
    }
    void TearDown() override {
        acquiring_.close();
        if (iface_ != nullptr && system_ != nullptr) api.IFClose(iface_);
        ProducerTest::TearDown();
    }
};

// The handles of the tree a thread opened last, for the threads that race
// with its closes.
struct published_tree {
    std::atomic<void *> system{nullptr}, iface{nullptr}, device{nullptr}, camera{nullptr}, stream{nullptr},
        event{nullptr}, buffer{nullptr};

    // Hands the handles of a device session (null where a step failed) to
    // the racing threads.
    void publish(const device_session &session) {
        device = session.device;
        camera = session.camera;
        stream = session.stream;
        event = session.event;
        buffer = session.buffers.empty() ? nullptr : session.buffers.front();
    }
};

// Calls on whatever `tree` holds now: information, port reads, features,
// buffer information and events. A frame taken is queued again, as its
// consumer does.
void call_on(ProducerApi &api, published_tree &tree, int n, answer_tally &tally) {
    void *const system = tree.system.load(), *const iface = tree.iface.load(),
                *const device = tree.device.load(), *const camera = tree.camera.load(),
                *const stream = tree.stream.load(), *const event = tree.event.load(),
                *const buffer = tree.buffer.load();
    const auto answered = [&tally](const char *call, GC_ERROR result) {
        tally.count(is_answer(result), call, result);
    };
    char text[256];
    size_t size = sizeof text;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    switch (n % 9) {
    case 0: answered("TLGetInfo", api.TLGetInfo(system, n % 11, &type, text, &size)); break;
    case 1: answered("IFGetInfo", api.IFGetInfo(iface, n % 3, &type, text, &size)); break;
    case 2: answered("DevGetInfo", api.DevGetInfo(device, n % 10, &type, text, &size)); break;
    case 3: answered("DSGetInfo", api.DSGetInfo(stream, n % 14, &type, text, &size)); break;
    case 4: {
        size = 4;
        const GC_ERROR result = api.GCReadPort(camera, 0x6000, text, &size);
        tally.count(is_port_answer(result), "GCReadPort(camera)", result);
        break;
    }
    case 5: {
        int64_t width = 0;
        answered("kv_genapi_get_integer(camera)", api.kv_genapi_get_integer(camera, "Width", &width));
        break;
    }
    case 6:
        answered("DSGetBufferInfo", api.DSGetBufferInfo(stream, buffer, n % 32, &type, text, &size));
        break;
    case 7: {
        EVENT_NEW_BUFFER_DATA data{};
        size = sizeof data;
        const GC_ERROR result = api.EventGetData(event, &data, &size, n % 3);
        answered("EventGetData", result);
        if (result == GC_ERR_SUCCESS) answered("DSQueueBuffer", api.DSQueueBuffer(stream, data.BufferHandle));
        break;
    }
    default: {
        answered("GCGetPortURL(device)", api.GCGetPortURL(device, text, &size));
        uint32_t count = 0;
        answered("TLGetNumInterfaces", api.TLGetNumInterfaces(system, &count));
        answered("IFGetNumDevices", api.IFGetNumDevices(iface, &count));
    }
    }
}

TEST_F(OpenCloseRace, DeviceCyclesBesideAnotherDeviceAcquiring) {
    OpenSystem();
    ASSERT_EQ(open_first_interface(api, system_, &iface_), GC_ERR_SUCCESS);
    ASSERT_EQ(acquiring_.open(iface_, "device1", 128, 32, 8), GC_ERR_SUCCESS);
    ASSERT_EQ(acquiring_.start(), GC_ERR_SUCCESS);

    answer_tally tally;
    published_tree tree;
    tree.system = system_;
    tree.iface = iface_;
    std::atomic<bool> cycling{true};
    std::atomic<long> frames{0}, whole{0};
    const int cycles = iterations(8, 4);
    int opened = 0;
    std::vector<std::thread> threads;
    {
        watchdog guard("device open/close cycles beside an acquisition", std::chrono::seconds(600));
        // device1's consumer.
        threads.emplace_back([&] {
            while (cycling) {
                EVENT_NEW_BUFFER_DATA data{};
                size_t size = sizeof data;
                const GC_ERROR got = api.EventGetData(acquiring_.event, &data, &size, 100);
                tally.count(got == GC_ERR_SUCCESS || got == GC_ERR_TIMEOUT, "EventGetData(device1)", got);
                if (got != GC_ERR_SUCCESS) continue;
                ++frames;
                if (acquiring_.holds_camera_frame(data.BufferHandle)) ++whole;
                const GC_ERROR queued = api.DSQueueBuffer(acquiring_.stream, data.BufferHandle);
                tally.count(queued == GC_ERR_SUCCESS, "DSQueueBuffer(device1)", queued);
            }
        });
        // The interface's device list, and device0 as the interface sees it.
        threads.emplace_back([&] {
            char text[256];
            while (cycling) {
                uint32_t count = 0;
                GC_ERROR result = api.IFGetNumDevices(iface_, &count);
                tally.count(result == GC_ERR_SUCCESS && count == 2, "IFGetNumDevices", result);
                size_t size = sizeof text;
                INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
                result =
                    api.IFGetDeviceInfo(iface_, "device0", DEVICE_INFO_ACCESS_STATUS, &type, text, &size);
                tally.count(result == GC_ERR_SUCCESS, "IFGetDeviceInfo(device0)", result);
                size = sizeof text;
                result = api.IFGetDeviceID(iface_, 0, text, &size);
                tally.count(result == GC_ERR_SUCCESS, "IFGetDeviceID", result);
                bool8_t changed = 0;
                result = api.IFUpdateDeviceList(iface_, &changed, 0);
                tally.count(result == GC_ERR_SUCCESS, "IFUpdateDeviceList", result);
            }
        });
        // Two threads on device0's handles, open or closed.
        for (int t = 0; t < 2; ++t)
            threads.emplace_back([&, t] {
                for (int n = t; cycling; n += 2) call_on(api, tree, n, tally);
            });

        for (int cycle = 0; cycle < cycles; ++cycle) {
            device_session session(api);
            const GC_ERROR result = session.open(iface_, "device0", 256, 64, 4);
            EXPECT_EQ(result, GC_ERR_SUCCESS) << "cycle " << cycle;
            tree.publish(session);
            if (result == GC_ERR_SUCCESS) {
                ++opened;
                EXPECT_EQ(session.start(), GC_ERR_SUCCESS) << "cycle " << cycle;
                session.grab(3, 1000);  // the racing threads may take frames too
                EXPECT_EQ(session.stop(), GC_ERR_SUCCESS) << "cycle " << cycle;
            }
            // Stream and device closed in turn, or the device with its stream.
            if (cycle % 2 == 0 && session.stream != nullptr) {
                EXPECT_EQ(api.DSClose(session.stream), GC_ERR_SUCCESS) << "cycle " << cycle;
                session.stream = nullptr;
            }
            EXPECT_EQ(session.close(), GC_ERR_SUCCESS) << "cycle " << cycle;
        }
        cycling = false;
        for (std::thread &thread : threads) thread.join();
    }
    EXPECT_EQ(acquiring_.stop(), GC_ERR_SUCCESS);
    std::printf(
        "%d device open/close cycles beside device1 acquiring: %ld calls, device1 %ld frames (%ld whole)\n",
        opened, tally.calls(), frames.load(), whole.load());
    EXPECT_EQ(opened, cycles);
    EXPECT_EQ(tally.unexpected(), "");
    EXPECT_GT(frames.load(), 0);
    EXPECT_EQ(whole.load(), frames.load());
}

TEST_F(OpenCloseRace, WholeTreeCyclesWhileOtherThreadsUseItsHandles) {
    InitLib();
    answer_tally tally;
    published_tree tree;
    std::atomic<bool> cycling{true};
    const int cycles = iterations(6, 3);
    int completed = 0;
    std::vector<std::thread> threads;
    {
        watchdog guard("whole-tree open/close cycles", std::chrono::seconds(600));
        for (int t = 0; t < 3; ++t)
            threads.emplace_back([&, t] {
                for (int n = t; cycling; n += 3) {
                    call_on(api, tree, n, tally);
                    if (n % 50 == 0) {
                        char text[256];
                        size_t size = sizeof text;
                        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
                        const GC_ERROR result = api.GCGetInfo(n % 11, &type, text, &size);
                        tally.count(is_answer(result), "GCGetInfo", result);
                    }
                }
            });

        for (int cycle = 0; cycle < cycles; ++cycle) {
            TL_HANDLE system = nullptr;
            IF_HANDLE iface = nullptr;
            const GC_ERROR system_opened = api.TLOpen(&system);
            EXPECT_EQ(system_opened, GC_ERR_SUCCESS) << "cycle " << cycle;
            if (system_opened != GC_ERR_SUCCESS) break;  // the threads are stopped and joined below
            tree.system = system;
            const std::string id = first_interface_id(api, system);
            EXPECT_FALSE(id.empty()) << "cycle " << cycle;
            EXPECT_EQ(api.TLOpenInterface(system, id.c_str(), &iface), GC_ERR_SUCCESS) << "cycle " << cycle;
            tree.iface = iface;
            device_session session(api);
            const GC_ERROR opened = session.open(iface, "device0", 256, 64, 4);
            EXPECT_EQ(opened, GC_ERR_SUCCESS) << "cycle " << cycle;
            tree.publish(session);
            if (opened == GC_ERR_SUCCESS) {
                EXPECT_EQ(session.start(), GC_ERR_SUCCESS) << "cycle " << cycle;
                session.grab(3, 1000);  // the racing threads may take frames too
                // Left acquiring every third cycle: the closes stop it.
                if (cycle % 3 != 0) {
                    EXPECT_EQ(session.stop(), GC_ERR_SUCCESS) << "cycle " << cycle;
                }
            }
            // The closes one by one, the device with its stream and then the
            // system, or the system with everything below it.
            switch (cycle % 3) {
            case 0:
                EXPECT_EQ(api.DSClose(session.stream), GC_ERR_SUCCESS) << "cycle " << cycle;
                EXPECT_EQ(api.DevClose(session.device), GC_ERR_SUCCESS) << "cycle " << cycle;
                EXPECT_EQ(api.IFClose(iface), GC_ERR_SUCCESS) << "cycle " << cycle;
                break;
            case 1: EXPECT_EQ(api.DevClose(session.device), GC_ERR_SUCCESS) << "cycle " << cycle; break;
            default: break;
            }
            session.forget();
            EXPECT_EQ(api.TLClose(system), GC_ERR_SUCCESS) << "cycle " << cycle;
            ++completed;
        }
        cycling = false;
        for (std::thread &thread : threads) thread.join();
    }
    std::printf("%d whole-tree open/close cycles beside 3 threads on its handles: %ld calls\n", completed,
                tally.calls());
    EXPECT_EQ(completed, cycles);
    EXPECT_EQ(tally.unexpected(), "");
}

// A consumer's node map updates the interface's device list by writing the
// interface's registers (link mode, then the update command) while other
// threads call on an open device and its stream: each update rebuilds the
// list that every handle lookup walks.
TEST_F(OpenCloseRace, DeviceListUpdatesThroughThePortBesideCallsOnAnOpenDevice) {
    OpenSystem();
    ASSERT_EQ(open_first_interface(api, system_, &iface_), GC_ERR_SUCCESS);
    ASSERT_EQ(acquiring_.open(iface_, "device1", 128, 32, 2), GC_ERR_SUCCESS);
    constexpr uint64_t kLinkModeRegister = 0x002E0000FFFE0030ULL;
    constexpr uint64_t kUpdateListRegister = 0x002E0001FFFF0001ULL;
    const auto write_register = [&](uint64_t address, uint32_t value) {
        size_t size = sizeof value;
        return api.GCWritePort(iface_, address, &value, &size);
    };

    answer_tally tally;
    std::atomic<bool> updating{true};
    const int updates = iterations(400, 100);
    std::vector<std::thread> threads;
    {
        watchdog guard("device list updates beside calls on a device", std::chrono::seconds(600));
        for (int t = 0; t < 2; ++t)
            threads.emplace_back([&, t] {
                char text[256];
                for (int n = t; updating; n += 2) {
                    size_t size = sizeof text;
                    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
                    GC_ERROR result = api.DevGetInfo(acquiring_.device, DEVICE_INFO_ID, &type, text, &size);
                    tally.count(result == GC_ERR_SUCCESS, "DevGetInfo(device1)", result);
                    size = sizeof text;
                    result = api.DSGetInfo(acquiring_.stream, STREAM_INFO_ID, &type, text, &size);
                    tally.count(result == GC_ERR_SUCCESS, "DSGetInfo(device1's stream)", result);
                    DS_HANDLE parent = nullptr;
                    result = api.DSGetParentDev(acquiring_.stream, &parent);
                    tally.count(result == GC_ERR_SUCCESS && parent == acquiring_.device, "DSGetParentDev", result);
                    size = sizeof text;
                    result = api.IFGetDeviceID(iface_, n % 2, text, &size);
                    tally.count(is_answer(result), "IFGetDeviceID", result);
                }
            });
        for (int update = 0; update < updates; ++update) {
            // Mode 3 lists four one-link devices, mode 1 two two-link ones.
            const GC_ERROR mode = write_register(kLinkModeRegister, update % 2 == 0 ? 3 : 1);
            tally.count(mode == GC_ERR_SUCCESS, "GCWritePort(link mode)", mode);
            const GC_ERROR listed = write_register(kUpdateListRegister, 1);
            tally.count(listed == GC_ERR_SUCCESS, "GCWritePort(update list)", listed);
        }
        updating = false;
        for (std::thread &thread : threads) thread.join();
    }
    std::printf("%d device list updates beside 2 threads on an open device: %ld calls\n", updates,
                tally.calls());
    EXPECT_EQ(tally.unexpected(), "");
    uint32_t count = 0;
    EXPECT_EQ(api.IFGetNumDevices(iface_, &count), GC_ERR_SUCCESS);
    EXPECT_EQ(count, 2u);  // the last update was in mode 1
}

}  // namespace
