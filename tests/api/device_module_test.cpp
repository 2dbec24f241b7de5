// The Device module through the exported API against the emulated cameras:
// open, device info, data stream IDs, the device port's registers and the
// remote device port with the camera's own description file.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "api_fixture.h"

namespace {

constexpr uint64_t device_register(uint32_t number, uint32_t sub_code = 0x0001) {
    return 0x003E000000000000ULL | uint64_t{number} << 32 | 0xFFFF0000ULL | sub_code;
}

class DeviceModule : public DeviceTest {
protected:
    std::string InfoText(DEVICE_INFO_CMD command) {
        char text[256] = {};
        size_t size = sizeof text;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        EXPECT_EQ(api.DevGetInfo(device_, command, &type, text, &size), GC_ERR_SUCCESS);
        EXPECT_EQ(type, INFO_DATATYPE_STRING);
        EXPECT_EQ(size, std::strlen(text) + 1);
        return text;
    }
    GC_ERROR Read(void *port, uint64_t address, std::vector<uint8_t> &bytes, size_t length) {
        bytes.assign(length, 0xEE);
        size_t size = length;
        const GC_ERROR result = api.GCReadPort(port, address, bytes.data(), &size);
        bytes.resize(result == GC_ERR_SUCCESS ? size : 0);
        return result;
    }
};

TEST_F(DeviceModule, OpenDeviceAnswersInfoStreamsAndItsPort) {
    OpenDevice();
    EXPECT_EQ(InfoText(DEVICE_INFO_ID), "device0");
    EXPECT_EQ(InfoText(DEVICE_INFO_VENDOR), "Orvane");
    EXPECT_EQ(InfoText(DEVICE_INFO_MODEL), "Lyra 25M CXP-12");
    EXPECT_EQ(InfoText(DEVICE_INFO_SERIAL_NUMBER), "LY25-0457-1");
    EXPECT_EQ(InfoText(DEVICE_INFO_DISPLAYNAME), "Orvane Lyra 25M CXP-12(device0)");
    int32_t status = 0;
    size_t size = sizeof status;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    ASSERT_EQ(api.DevGetInfo(device_, DEVICE_INFO_ACCESS_STATUS, &type, &status, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(status, DEVICE_ACCESS_STATUS_OPEN_READWRITE);
    // The interface answers for an open device through the device.
    size = sizeof status;
    ASSERT_EQ(api.IFGetDeviceInfo(iface_, "device0", DEVICE_INFO_ACCESS_STATUS, &type, &status, &size),
              GC_ERR_SUCCESS);
    EXPECT_EQ(status, DEVICE_ACCESS_STATUS_OPEN_READWRITE);
    size = 0;
    type = INFO_DATATYPE_UNKNOWN;
    EXPECT_EQ(api.DevGetInfo(device_, DEVICE_INFO_MODEL, &type, nullptr, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(size, sizeof "Lyra 25M CXP-12");
    EXPECT_EQ(type, INFO_DATATYPE_UNKNOWN);  // a size query leaves the type alone
    char text[64] = {};
    size = sizeof text;
    EXPECT_EQ(api.DevGetInfo(device_, static_cast<DEVICE_INFO_CMD>(10), &type, text, &size),
              GC_ERR_NOT_IMPLEMENTED);

    uint32_t streams = 0;
    ASSERT_EQ(api.DevGetNumDataStreams(device_, &streams), GC_ERR_SUCCESS);
    EXPECT_EQ(streams, 1u);
    size = sizeof text;
    ASSERT_EQ(api.DevGetDataStreamID(device_, 0, text, &size), GC_ERR_SUCCESS);
    EXPECT_STREQ(text, "stream0");
    size = sizeof text;
    EXPECT_EQ(api.DevGetDataStreamID(device_, 1, text, &size), GC_ERR_INVALID_INDEX);

    // The device port.
    std::vector<uint8_t> bytes;
    ASSERT_EQ(Read(device_, device_register(1), bytes, 64), GC_ERR_SUCCESS);
    EXPECT_EQ(bytes.size(), 8u);
    EXPECT_STREQ(reinterpret_cast<const char *>(bytes.data()), "device0");
    EXPECT_EQ(Read(device_, device_register(7), bytes, 1), GC_ERR_BUFFER_TOO_SMALL);
    ASSERT_EQ(Read(device_, device_register(7), bytes, 2), GC_ERR_SUCCESS);
    EXPECT_EQ(bytes[0], 1);
    ASSERT_EQ(Read(device_, 0x003E0000FFFD0030ULL, bytes, 4), GC_ERR_SUCCESS);
    EXPECT_EQ(bytes[0], 1);  // the camera is online
    EXPECT_EQ(Read(device_, 0x0050000000000000ULL, bytes, 4), GC_ERR_INVALID_ADDRESS);
    char url[256] = {};
    size = sizeof url;
    ASSERT_EQ(api.GCGetPortURL(device_, url, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(std::string(url).rfind("local:Cxplink_TLDevice_1_1_0.zip;3e0000ffff0001;", 0), 0u) << url;
    size = sizeof text;
    ASSERT_EQ(api.GCGetPortInfo(device_, PORT_INFO_PORTNAME, &type, text, &size), GC_ERR_SUCCESS);
    EXPECT_STREQ(text, "DevicePort");
}

TEST_F(DeviceModule, RemotePortReachesTheCameraAndItsDescription) {
    OpenDevice("device1");
    PORT_HANDLE remote = nullptr;
    ASSERT_EQ(api.DevGetPort(device_, &remote), GC_ERR_SUCCESS);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(remote), 18u);  // card 0, slot 1
    PORT_HANDLE again = nullptr;
    ASSERT_EQ(api.DevGetPort(device_, &again), GC_ERR_SUCCESS);
    EXPECT_EQ(again, remote);

    // Camera memory in wire order: the Standard register's magic.
    std::vector<uint8_t> bytes;
    ASSERT_EQ(Read(remote, 0x0000, bytes, 4), GC_ERR_SUCCESS);
    EXPECT_EQ(bytes, (std::vector<uint8_t>{0xC0, 0xA7, 0x9A, 0xE5}));
    char url[256] = {};
    size_t size = sizeof url;
    ASSERT_EQ(api.GCGetPortURL(remote, url, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(std::string(url).rfind("local:Orvane_Lyra25M.zip;10000;", 0), 0u) << url;
    bool8_t big_endian = 0;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    size = sizeof big_endian;
    ASSERT_EQ(api.GCGetPortInfo(remote, PORT_INFO_BIG_ENDIAN, &type, &big_endian, &size),
              GC_ERR_SUCCESS);
    EXPECT_EQ(big_endian, 1);

    // The camera's node map, by name through the remote port handle.
    int64_t width = 0, payload = 0;
    ASSERT_EQ(api.kv_genapi_get_integer(remote, "Width", &width), GC_ERR_SUCCESS);
    ASSERT_EQ(api.kv_genapi_get_integer(remote, "PayloadSize", &payload), GC_ERR_SUCCESS);
    EXPECT_GT(width, 0);
    ASSERT_EQ(api.kv_genapi_set_integer(remote, "Width", width / 2), GC_ERR_SUCCESS);
    int64_t back = 0, half = 0;
    ASSERT_EQ(api.kv_genapi_get_integer(remote, "Width", &back), GC_ERR_SUCCESS);
    EXPECT_EQ(back, width / 2);
    ASSERT_EQ(api.kv_genapi_get_integer(remote, "PayloadSize", &half), GC_ERR_SUCCESS);
    EXPECT_EQ(half, payload / 2);  // PayloadSize follows Width
    // PayloadSize is a formula: its range is the whole int64 range.
    const auto integer_info =
        reinterpret_cast<decltype(&::kv_get_integer_info)>(api.symbol("kv_get_integer_info"));
    int64_t value = 0, low = 0, high = 0, step = 0;
    ASSERT_EQ(integer_info(remote, "PayloadSize", &value, &low, &high, &step), GC_ERR_SUCCESS);
    EXPECT_EQ(value, half);
    EXPECT_EQ(low, std::numeric_limits<int64_t>::min());
    EXPECT_EQ(high, std::numeric_limits<int64_t>::max());
    // Identity read again at DevGetPort, bootstrap revision included.
    ASSERT_EQ(Read(device_, 0x20000001ULL, bytes, 4), GC_ERR_SUCCESS);
    EXPECT_EQ(bytes, (std::vector<uint8_t>{0x01, 0x00, 0x02, 0x00}));  // 0x20001, little-endian
    // The device port's node map answers by name too.
    char id[64] = {};
    uint64_t id_size = sizeof id;
    ASSERT_EQ(api.kv_genapi_get_string(device_, "DeviceID", id, &id_size), GC_ERR_SUCCESS);
    EXPECT_STREQ(id, "device1");

    ASSERT_EQ(api.DevClose(device_), GC_ERR_SUCCESS);
    device_ = nullptr;
    EXPECT_EQ(Read(remote, 0x0000, bytes, 4), GC_ERR_NOT_AVAILABLE);  // the handle is gone
}

TEST_F(DeviceModule, SettingsRegistersFollowTheirRules) {
    OpenDevice();
    auto write = [&](uint64_t address, uint32_t value) {
        size_t size = sizeof value;
        return api.GCWritePort(device_, address, &value, &size);
    };
    auto read = [&](uint64_t address) {
        uint32_t value = 0;
        size_t size = sizeof value;
        EXPECT_EQ(api.GCReadPort(device_, address, &value, &size), GC_ERR_SUCCESS) << std::hex << address;
        return value;
    };
    // Line counts are clamped to 2 .. 2000000000.
    ASSERT_EQ(write(0x003E0000FFFD0020ULL, 1), GC_ERR_SUCCESS);
    EXPECT_EQ(read(0x003E0000FFFD0020ULL), 2u);
    ASSERT_EQ(write(0x003E0000FFFD0020ULL, 3000000000u), GC_ERR_SUCCESS);
    EXPECT_EQ(read(0x003E0000FFFD0020ULL), 2000000000u);
    EXPECT_EQ(read(0x20000005), 2000000000u);  // the line count in use follows
    // Frame count: 0 reads as 1.
    ASSERT_EQ(write(0x20000010, 0), GC_ERR_SUCCESS);
    EXPECT_EQ(read(0x20000010), 1u);
    // Geometry from the camera: line width = Width, lines = Height x frames.
    PORT_HANDLE remote = nullptr;
    ASSERT_EQ(api.DevGetPort(device_, &remote), GC_ERR_SUCCESS);
    int64_t width = 0, height = 0;
    ASSERT_EQ(api.kv_genapi_get_integer(remote, "Width", &width), GC_ERR_SUCCESS);
    ASSERT_EQ(api.kv_genapi_get_integer(remote, "Height", &height), GC_ERR_SUCCESS);
    ASSERT_EQ(write(0x20000010, 4), GC_ERR_SUCCESS);
    EXPECT_EQ(read(0x20000011), static_cast<uint32_t>(width));
    EXPECT_EQ(read(0x20000012), static_cast<uint32_t>(height * 4));
    ASSERT_EQ(write(0x003E0000FFFD0011ULL, 3), GC_ERR_SUCCESS);
    EXPECT_EQ(read(0x003E0000FFFD0012ULL), static_cast<uint32_t>(height * 3));
    // Trigger input: a bit index on the wire of the card, 0xFF for none.
    ASSERT_EQ(write(0x2810, 3), GC_ERR_SUCCESS);
    EXPECT_EQ(read(0x2810), 3u);
    ASSERT_EQ(write(0x2810, 0xFF), GC_ERR_SUCCESS);
    EXPECT_EQ(read(0x2810), 0xFFu);
    // Times in microseconds, kept by the card in 8 ns ticks.
    float period = 12.5f;
    size_t size = sizeof period;
    ASSERT_EQ(api.GCWritePort(device_, 0x2803, &period, &size), GC_ERR_SUCCESS);
    float back = 0;
    ASSERT_EQ(api.GCReadPort(device_, 0x2803, &back, &size), GC_ERR_SUCCESS);
    EXPECT_FLOAT_EQ(back, 1562 / 125.0f);  // 1562.5 ticks, truncated
    // User-set selector: one user set.
    EXPECT_EQ(write(0x003D0000FFFE0000ULL, 2), GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(write(0x003D0000FFFE0000ULL, 1), GC_ERR_SUCCESS);
    // ConnectionConfig through the remote port reconnects the camera.
    const uint8_t config[4] = {0x00, 0x01, 0x00, 0x48};  // one link at CXP-6, big-endian
    size = sizeof config;
    ASSERT_EQ(api.GCWritePort(remote, 0x4014, config, &size), GC_ERR_SUCCESS);
    std::vector<uint8_t> bytes;
    ASSERT_EQ(Read(remote, 0x4014, bytes, 4), GC_ERR_SUCCESS);
    EXPECT_EQ(bytes, (std::vector<uint8_t>{0x00, 0x01, 0x00, 0x48}));
    ASSERT_EQ(api.GCWritePort(remote, 0x4014, config, &size), GC_ERR_SUCCESS);  // already so
    // A write that covers ConnectionConfig only in part, or from an earlier
    // address, is refused and changes nothing.
    const uint8_t eight[8] = {0, 0, 0, 0, 0x00, 0x04, 0x00, 0x58};
    for (const uint64_t address : {0x4010ull, 0x4012ull, 0x4016ull}) {
        size = address == 0x4010 ? 8 : 4;
        EXPECT_EQ(api.GCWritePort(remote, address, eight, &size), GC_ERR_INVALID_ADDRESS) << std::hex << address;
    }
    ASSERT_EQ(Read(remote, 0x4014, bytes, 4), GC_ERR_SUCCESS);
    EXPECT_EQ(bytes, (std::vector<uint8_t>{0x00, 0x01, 0x00, 0x48}));
}

}  // namespace

namespace {

// A fibre card's device port: its description file carries the ISP block,
// and switching the ISP (register 0x20000004) first resets the node map's
// own IspZKFuncMode through the same node map without coming back to itself.
class FibreDeviceModule : public DeviceModule {
protected:
    std::string profile_ = testing::TempDir() + "fibre_card.json";
    void SetUp() override {
        FILE *file = std::fopen(profile_.c_str(), "w");
        ASSERT_NE(file, nullptr);
        std::fputs(R"({"cards": [{"product_id": "0x184"}]})", file);
        std::fclose(file);
        setenv("PELORIN_CXP_EMULATION", profile_.c_str(), 1);
    }
    void TearDown() override {
        DeviceModule::TearDown();
        unsetenv("PELORIN_CXP_EMULATION");
        std::remove(profile_.c_str());
    }
};

TEST_F(FibreDeviceModule, IspSwitchResetsTheFunctionModeOnce) {
    OpenDevice();
    char url[256] = {};
    size_t size = sizeof url;
    ASSERT_EQ(api.GCGetPortURL(device_, url, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(std::string(url).find("local:Cxplink_TLDevice_2_1_0.zip;"), 0u) << url;
    ASSERT_EQ(api.kv_genapi_set_integer(device_, "IspZKFuncMode", 2), 0);
    ASSERT_EQ(api.kv_genapi_set_integer(device_, "IspSwitch", 1), 0);
    int64_t value = -1;
    ASSERT_EQ(api.kv_genapi_get_integer(device_, "IspZKFuncMode", &value), 0);
    EXPECT_EQ(value, 0);
    ASSERT_EQ(api.kv_genapi_get_integer(device_, "IspSwitch", &value), 0);
    EXPECT_EQ(value, 1);
}

}  // namespace
