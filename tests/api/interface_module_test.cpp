// The Interface module through the exported API: device slots of each
// CoaXPress mode on 1-, 2- and 4-slot cards, the device list, interface and
// device info, the interface register space, device open, and bad input.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "api_fixture.h"
#include "private_gentl_dir.h"

namespace {

using pelorin::testing_support::private_gentl_dir;

constexpr uint64_t if_register(uint32_t number, uint32_t sub_code = 0x0001) {
    return 0x002E000000000000ULL | uint64_t{number} << 32 | 0xFFFF0000ULL | sub_code;
}
constexpr uint64_t link_setting(uint32_t item) { return 0x002E0000FFFE0000ULL | item; }
constexpr uint64_t fiber_setting(uint32_t item) { return 0x002E0000FFFD0000ULL | item; }
constexpr uint64_t user_set_register(uint32_t item) { return 0x002D0000FFFE0000ULL | item; }
constexpr uint64_t kSelectorStride = 0x1000;

// Cards of the tests: a 4-slot copper card, a 2-link card that serves two
// cameras, a 1-link card that serves one, and a fibre card.
constexpr const char *kProfile = R"({"cards": [
  {"product_id": "0x181"},
  {"product_id": "0x181", "links": 2, "device_slots": 2, "identifier": "OV181-2311-0458",
   "name": "HQ12-1 2xCXP12"},
  {"product_id": "0x180", "links": 1, "device_slots": 1, "identifier": "OV180-2307-0112",
   "name": "HQ6-2 1xCXP6"},
  {"product_id": "0x184", "device_slots": 2, "identifier": "OV184-2402-0031", "name": "SF10-3 CoF"}
]})";

class InterfaceModule : public ProducerTest {
protected:
    private_gentl_dir dir_{PELORIN_CTI_PATH};
    IF_HANDLE iface_ = nullptr;

    void SetUp() override {
        dir_.use_emulation(kProfile);
    }
    void TearDown() override {
        if (iface_ != nullptr) api.IFClose(iface_);
        ProducerTest::TearDown();
    }

    std::string InterfaceId(uint32_t card) {
        char id[256] = {};
        size_t size = sizeof id;
        EXPECT_EQ(api.TLGetInterfaceID(system_, card, id, &size), GC_ERR_SUCCESS);
        return id;
    }
    void OpenCard(uint32_t card) {
        OpenSystem();
        ASSERT_EQ(api.TLUpdateInterfaceList(system_, nullptr, 1000), GC_ERR_SUCCESS);
        ASSERT_EQ(api.TLOpenInterface(system_, InterfaceId(card).c_str(), &iface_), GC_ERR_SUCCESS);
    }
    void Reopen(uint32_t card) {
        ASSERT_EQ(api.IFClose(iface_), GC_ERR_SUCCESS);
        iface_ = nullptr;
        ASSERT_EQ(api.TLOpenInterface(system_, InterfaceId(card).c_str(), &iface_), GC_ERR_SUCCESS);
    }

    std::vector<std::string> DeviceIds() {
        uint32_t count = 99;
        EXPECT_EQ(api.IFGetNumDevices(iface_, &count), GC_ERR_SUCCESS);
        std::vector<std::string> ids;
        for (uint32_t i = 0; i < count; ++i) {
            char id[64] = {};
            size_t size = sizeof id;
            EXPECT_EQ(api.IFGetDeviceID(iface_, i, id, &size), GC_ERR_SUCCESS);
            EXPECT_EQ(size, std::strlen(id) + 1);
            ids.push_back(id);
        }
        return ids;
    }
    bool Update() {
        bool8_t changed = 9;
        EXPECT_EQ(api.IFUpdateDeviceList(iface_, &changed, 1000), GC_ERR_SUCCESS);
        return changed != 0;
    }

    GC_ERROR Write(uint64_t address, uint32_t value, size_t size = 4) {
        return api.GCWritePort(iface_, address, &value, &size);
    }
    template <typename T>
    T Read(uint64_t address, GC_ERROR expected = GC_ERR_SUCCESS) {
        uint8_t bytes[16] = {};
        size_t size = sizeof bytes;
        EXPECT_EQ(api.GCReadPort(iface_, address, bytes, &size), expected) << std::hex << address;
        if (expected == GC_ERR_SUCCESS) {
            EXPECT_EQ(size, sizeof(T)) << std::hex << address;
        }
        T value{};
        std::memcpy(&value, bytes, sizeof value);
        return value;
    }
    // A card register, read with its own size.
    uint32_t ReadCard(uint32_t address) {
        uint32_t value = 0;
        size_t size = sizeof value;
        EXPECT_EQ(api.GCReadPort(iface_, address, &value, &size), GC_ERR_SUCCESS);
        return value;
    }
    // A string register read with the size its length item reports.
    std::string ReadText(uint64_t address, uint32_t length_code) {
        const uint32_t length = Read<uint32_t>((address & ~0xFFFFULL) | length_code |
                                               (address & 0xF000));
        std::vector<char> text(length, 'x');
        size_t size = length;
        EXPECT_EQ(api.GCReadPort(iface_, address, text.data(), &size), GC_ERR_SUCCESS);
        EXPECT_EQ(size, length);
        EXPECT_EQ(text.empty() ? 'x' : text.back(), '\0');
        return text.data();
    }
    std::string InfoText(INTERFACE_INFO_CMD command) {
        char text[256] = {};
        size_t size = sizeof text;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        EXPECT_EQ(api.IFGetInfo(iface_, command, &type, text, &size), GC_ERR_SUCCESS);
        EXPECT_EQ(type, INFO_DATATYPE_STRING);
        EXPECT_EQ(size, std::strlen(text) + 1);
        return text;
    }
};

TEST_F(InterfaceModule, DeviceListFollowsTheModeOfEachCard) {
    OpenCard(0);
    bool8_t changed = 9;
    ASSERT_EQ(api.IFUpdateDeviceList(iface_, &changed, 0), GC_ERR_SUCCESS);
    EXPECT_EQ(changed, 0);  // time-out 0: nothing listed
    EXPECT_TRUE(DeviceIds().empty());
    EXPECT_TRUE(Update());
    EXPECT_EQ(DeviceIds(), (std::vector<std::string>{"device0", "device1"}));  // default mode 1
    EXPECT_FALSE(Update());

    const std::vector<std::string> all = {"device0", "device1", "device2", "device3"};
    for (uint32_t mode : {3u, 2u, 0u, 7u, 1u}) {
        SCOPED_TRACE(mode);
        ASSERT_EQ(Write(link_setting(0x30), mode), GC_ERR_SUCCESS);
        EXPECT_EQ(Read<uint32_t>(link_setting(0x30)), mode);
        const size_t count = mode <= 3 ? mode + 1 : 1;  // unknown modes: one device
        EXPECT_EQ(Read<uint16_t>(if_register(2)), count);
        Update();
        EXPECT_EQ(DeviceIds(), std::vector<std::string>(all.begin(), all.begin() + count));
    }
    EXPECT_EQ(InfoText(INTERFACE_INFO_DISPLAYNAME), InterfaceId(0) + "[4d4s]");

    // The 2-slot card arranges its slots the same way; the 1-slot card
    // always has one device on all links, whatever the mode says.
    Reopen(1);
    EXPECT_TRUE(Update());
    EXPECT_EQ(DeviceIds().size(), 2u);
    EXPECT_EQ(InfoText(INTERFACE_INFO_DISPLAYNAME), InterfaceId(1) + "[2d2s]");
    Reopen(2);
    ASSERT_EQ(Write(link_setting(0x30), 3), GC_ERR_SUCCESS);
    EXPECT_TRUE(Update());
    EXPECT_EQ(DeviceIds(), (std::vector<std::string>{"device0"}));
    EXPECT_EQ(Read<uint32_t>(link_setting(0x30)), 0u);  // reads as mode 0 on this card
    EXPECT_EQ(InfoText(INTERFACE_INFO_DISPLAYNAME), InterfaceId(2) + "[1d1s]");
}

TEST_F(InterfaceModule, LinkSettingsComeFromTheSettingsFile) {
    dir_.write_settings(
        "; link settings\n[Interface]\nCXP_Mode=2\nCXP_Mode_Enhanced=1\nTivraDefault=1\n"
        "CxpLinkConfiguration_A=0x40058\nCxpLinkConfiguration_B=1\nCxpLinkConfiguration_C=65608\n");
    OpenCard(0);
    EXPECT_EQ(ReadCard(0x300), 0u);  // TivraDefault 1 clears the register at open
    ASSERT_EQ(Write(0x300, 0x1234), GC_ERR_SUCCESS);
    EXPECT_EQ(ReadCard(0x300), 0x1234u);
    EXPECT_EQ(Read<uint32_t>(link_setting(0x30)), 2u);
    EXPECT_TRUE(Update());
    EXPECT_EQ(DeviceIds().size(), 3u);
    const uint32_t expected[] = {0x40058, 1, 0x10048, 0};
    for (uint32_t selector = 0; selector < 4; ++selector) {
        ASSERT_EQ(Write(if_register(0xD), selector), GC_ERR_SUCCESS);
        EXPECT_EQ(Read<uint32_t>(link_setting(0x10)), expected[selector]);
    }
    // A selector beyond the four configurations selects configuration A.
    ASSERT_EQ(Write(if_register(0xD), 5), GC_ERR_SUCCESS);
    EXPECT_EQ(Read<uint32_t>(link_setting(0x10)), 0x40058u);
    EXPECT_EQ(Read<uint16_t>(if_register(0xD)), 0u);
    ASSERT_EQ(Write(link_setting(0x10), 0x20050), GC_ERR_SUCCESS);
    EXPECT_EQ(Read<uint32_t>(link_setting(0x10)), 0x20050u);

    // TivraDefault 0 presets the register at the next open; the fibre card
    // takes its mode from CXP_Mode_Enhanced.
    dir_.write_settings("[Interface]\nTivraDefault=0\nCXP_Mode_Enhanced=1\n");
    Reopen(0);
    EXPECT_EQ(ReadCard(0x300), 0xAAu);
    EXPECT_EQ(Read<uint32_t>(link_setting(0x30)), 1u);  // CXP_Mode missing: 1
    Reopen(3);
    EXPECT_EQ(Read<uint32_t>(link_setting(0x30)), 1u);
    EXPECT_EQ(Read<uint32_t>(fiber_setting(1)), 1u);
}

TEST_F(InterfaceModule, InfoAndDeviceInfoItems) {
    OpenCard(0);
    const std::string id = InterfaceId(0);
    EXPECT_EQ(InfoText(INTERFACE_INFO_ID), id);
    EXPECT_EQ(InfoText(INTERFACE_INFO_TLTYPE), "CXP");
    char text[256] = {};
    size_t size = sizeof text;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    EXPECT_EQ(api.IFGetInfo(iface_, static_cast<INTERFACE_INFO_CMD>(3), &type, text, &size),
              GC_ERR_NOT_IMPLEMENTED);
    size = 3;
    EXPECT_EQ(api.IFGetInfo(iface_, INTERFACE_INFO_ID, &type, text, &size), GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, id.size() + 1);
    EXPECT_EQ(api.IFGetInfo(iface_, INTERFACE_INFO_ID, &type, text, nullptr),
              GC_ERR_INVALID_PARAMETER);

    // Before the first update there is no device to describe.
    size = sizeof text;
    EXPECT_EQ(api.IFGetDeviceInfo(iface_, "device0", DEVICE_INFO_ID, &type, text, &size),
              GC_ERR_NOT_INITIALIZED);
    Update();
    // The probe of the update read the identity of the camera on links 2-3.
    const struct {
        DEVICE_INFO_CMD command;
        INFO_DATATYPE type;
        std::string text;
    } texts[] = {{DEVICE_INFO_ID, INFO_DATATYPE_STRING, "device1"},
                 {DEVICE_INFO_VENDOR, INFO_DATATYPE_STRING, "Orvane"},
                 {DEVICE_INFO_MODEL, INFO_DATATYPE_STRING, "Lyra 25M CXP-12"},
                 {DEVICE_INFO_TLTYPE, INFO_DATATYPE_STRING, "CXP"},
                 {DEVICE_INFO_DISPLAYNAME, INFO_DATATYPE_STRING, "Orvane Lyra 25M CXP-12(device1)"},
                 {DEVICE_INFO_USER_DEFINED_NAME, INFO_DATATYPE_STRING, ""},
                 {DEVICE_INFO_SERIAL_NUMBER, INFO_DATATYPE_STRING, "LY25-0457-2"},
                 {DEVICE_INFO_VERSION, INFO_DATATYPE_STRING, "1.4.2"}};
    for (const auto &item : texts) {
        SCOPED_TRACE(item.command);
        size = sizeof text;
        ASSERT_EQ(api.IFGetDeviceInfo(iface_, "device1", item.command, &type, text, &size),
                  GC_ERR_SUCCESS);
        EXPECT_EQ(type, item.type);
        EXPECT_EQ(text, item.text);
        EXPECT_EQ(size, item.text.size() + 1);
    }
    int32_t status = 0;
    size = sizeof status;
    ASSERT_EQ(api.IFGetDeviceInfo(iface_, "device1", DEVICE_INFO_ACCESS_STATUS, &type, &status, &size),
              GC_ERR_SUCCESS);
    EXPECT_EQ(type, INFO_DATATYPE_INT32);
    EXPECT_EQ(status, DEVICE_ACCESS_STATUS_READWRITE);
    uint64_t frequency = 0;
    size = sizeof frequency;
    ASSERT_EQ(api.IFGetDeviceInfo(iface_, "device1", DEVICE_INFO_TIMESTAMP_FREQUENCY, &type,
                                  &frequency, &size),
              GC_ERR_SUCCESS);
    EXPECT_EQ(type, INFO_DATATYPE_UINT64);
    EXPECT_EQ(frequency, 1000000u);

    size = sizeof text;
    EXPECT_EQ(api.IFGetDeviceInfo(iface_, "device1", static_cast<DEVICE_INFO_CMD>(10), &type, text,
                                  &size),
              GC_ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(api.IFGetDeviceInfo(iface_, "device7", DEVICE_INFO_ID, &type, text, &size),
              GC_ERR_INVALID_ID);
    EXPECT_EQ(api.IFGetDeviceInfo(iface_, nullptr, DEVICE_INFO_ID, &type, text, &size),
              GC_ERR_INVALID_ID);
    char id_text[64] = {};
    size = sizeof id_text;
    EXPECT_EQ(api.IFGetDeviceID(iface_, 2, id_text, &size), GC_ERR_INVALID_INDEX);
    size = 4;
    EXPECT_EQ(api.IFGetDeviceID(iface_, 0, id_text, &size), GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(api.IFGetNumDevices(iface_, nullptr), GC_ERR_INVALID_PARAMETER);
    TL_HANDLE parent = nullptr;
    ASSERT_EQ(api.IFGetParentTL(iface_, &parent), GC_ERR_SUCCESS);
    EXPECT_EQ(parent, system_);

    // The 2-link card has one camera, on links 0-1: its second slot is empty.
    Reopen(1);
    Update();
    size = sizeof text;
    ASSERT_EQ(api.IFGetDeviceInfo(iface_, "device0", DEVICE_INFO_MODEL, &type, text, &size),
              GC_ERR_SUCCESS);
    EXPECT_STREQ(text, "Lyra 25M CXP-12");
    size = sizeof text;
    ASSERT_EQ(api.IFGetDeviceInfo(iface_, "device1", DEVICE_INFO_VENDOR, &type, text, &size),
              GC_ERR_SUCCESS);
    EXPECT_STREQ(text, "");
}

TEST_F(InterfaceModule, RegisterSpaceAnswersEveryRegister) {
    OpenCard(0);
    Update();
    EXPECT_EQ(ReadText(if_register(0x6), 0x11), "385");
    EXPECT_EQ(ReadText(if_register(0x7), 0x11), "HQ12-0");
    EXPECT_EQ(ReadText(if_register(0x8), 0x11), " ");
    EXPECT_EQ(ReadText(if_register(0x9), 0x81), InterfaceId(0));
    EXPECT_EQ(ReadText(if_register(0xB), 0x11), "1.2");
    EXPECT_EQ(ReadText(if_register(0xE), 0x81), "Orvane");
    EXPECT_EQ(ReadText(if_register(0xF), 0x81), "Halden Q12 CXP-12 x4");
    EXPECT_EQ(ReadText(if_register(0x10), 0x81), "OV181-2311-0457");
    EXPECT_EQ(Read<uint8_t>(if_register(0xC)), 0);
    EXPECT_EQ(Read<uint32_t>(link_setting(0x20)), 4u);
    EXPECT_EQ(Read<uint64_t>(link_setting(0x100)), 4u);
    EXPECT_EQ(Read<uint32_t>(fiber_setting(1)), 0u);

    // Registers of the selected device answer at +0x1000 per selector step.
    ASSERT_EQ(Write(if_register(0xD), 1, 2), GC_ERR_SUCCESS);
    EXPECT_EQ(ReadText(if_register(0xA) + kSelectorStride, 0x81), "device1");
    EXPECT_EQ(ReadText(if_register(0x3) + kSelectorStride, 0x81), "Orvane");
    EXPECT_EQ(ReadText(if_register(0x4) + kSelectorStride, 0x81), "Lyra 25M CXP-12");
    EXPECT_EQ(Read<int32_t>(if_register(0x5) + kSelectorStride), DEVICE_ACCESS_STATUS_READWRITE);
    Read<uint32_t>(if_register(0x3), GC_ERR_INVALID_ADDRESS);  // the selector's address only
    ASSERT_EQ(Write(if_register(0xD), 3), GC_ERR_SUCCESS);   // no device3 in mode 1
    Read<uint32_t>(if_register(0xA) + 3 * kSelectorStride, GC_ERR_INVALID_INDEX);

    // Card sensors: the emulated card's FPGA runs at 52.5 degrees, its rails
    // at 1.0, 1.8, 3.3 and 12.05 V.
    EXPECT_FLOAT_EQ(Read<float>(link_setting(0x300)), 52.5f);
    const float supplies[] = {1.0f, 1.8f, 3.3f, 12.05f};
    for (uint32_t i = 0; i < 4; ++i) {
        const float temperature = Read<float>(link_setting(0x300 + i));
        EXPECT_TRUE(temperature > 20.0f && temperature < 90.0f) << temperature;
        EXPECT_NEAR(Read<float>(link_setting(0x400 + i)), supplies[i], 1e-4);
    }
    // Another raw value in the sensor register gives another reading.
    ASSERT_EQ(Write(0x330, 0x1F40), GC_ERR_SUCCESS);
    EXPECT_FLOAT_EQ(Read<float>(link_setting(0x300)), 10.0f);

    // Fibre options are kept whatever the card; the first byte counts.
    ASSERT_EQ(Write(fiber_setting(0x10), 0x1207), GC_ERR_SUCCESS);
    ASSERT_EQ(Write(fiber_setting(0x11), 0), GC_ERR_SUCCESS);
    EXPECT_EQ(Read<uint32_t>(fiber_setting(0x10)), 7u);
    EXPECT_EQ(Read<uint32_t>(fiber_setting(0x11)), 0u);

    // User-set registers; with user sets off, load and save do nothing.
    EXPECT_EQ(Read<uint32_t>(user_set_register(0x0)), 0u);
    EXPECT_EQ(Read<uint32_t>(user_set_register(0x10)), 1u);
    EXPECT_EQ(Read<uint32_t>(user_set_register(0x14)), 0u);
    EXPECT_EQ(Read<uint32_t>(user_set_register(0x20)), 1u);
    EXPECT_EQ(Read<uint32_t>(user_set_register(0xFFFF)), 0u);
    EXPECT_EQ(Write(user_set_register(0x0), 2), GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Write(user_set_register(0x0), 1), GC_ERR_SUCCESS);
    EXPECT_EQ(Read<uint32_t>(user_set_register(0x0)), 1u);
    EXPECT_EQ(Write(user_set_register(0x8), 1), GC_ERR_SUCCESS);
    EXPECT_EQ(Write(user_set_register(0x4), 1), GC_ERR_SUCCESS);
    EXPECT_FALSE(std::filesystem::exists(dir_.user_set_dir()));

    // The description file behind the URL.
    char url[256] = {};
    size_t size = sizeof url;
    ASSERT_EQ(api.GCGetPortURL(iface_, url, &size), GC_ERR_SUCCESS);
    const std::string prefix = "local:Cxplink_TLInterface_1_0_1.zip;2e0000ffff0001;";
    ASSERT_EQ(std::string(url).substr(0, prefix.size()), prefix);
    const size_t file_size = std::stoul(std::string(url).substr(prefix.size()), nullptr, 16);
    std::vector<uint8_t> zip(file_size);
    size = zip.size();
    ASSERT_EQ(api.GCReadPort(iface_, if_register(0), zip.data(), &size), GC_ERR_SUCCESS);
    EXPECT_EQ(size, file_size);
    EXPECT_EQ(zip[0], 'P');
    EXPECT_EQ(zip[1], 'K');

    char name[64] = {};
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    size = sizeof name;
    ASSERT_EQ(api.GCGetPortInfo(iface_, PORT_INFO_PORTNAME, &type, name, &size), GC_ERR_SUCCESS);
    EXPECT_STREQ(name, "InterfacePort");
    size = sizeof name;
    ASSERT_EQ(api.GCGetPortInfo(iface_, PORT_INFO_MODULE, &type, name, &size), GC_ERR_SUCCESS);
    EXPECT_STREQ(name, "TLInterface");
    bool8_t flag = 9;
    size = sizeof flag;
    ASSERT_EQ(api.GCGetPortInfo(iface_, PORT_INFO_BIG_ENDIAN, &type, &flag, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(type, INFO_DATATYPE_BOOL8);
}

TEST_F(InterfaceModule, BadAccessToTheRegisterSpace) {
    OpenCard(0);
    uint32_t value = 0;
    size_t size = 2;
    EXPECT_EQ(api.GCReadPort(iface_, link_setting(0x20), &value, &size), GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 4u);
    size = 2;
    EXPECT_EQ(api.GCReadPort(iface_, link_setting(0x300), &value, &size), GC_ERR_BUFFER_TOO_SMALL);
    size = 4;
    EXPECT_EQ(api.GCReadPort(iface_, link_setting(0x20), nullptr, &size), GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(api.GCReadPort(iface_, link_setting(0x20), &value, nullptr), GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Write(link_setting(0x30), 1, 0), GC_ERR_INVALID_PARAMETER);  // nothing written
    Read<uint32_t>(0x2E0011FFFF0001ULL, GC_ERR_INVALID_ADDRESS);
    Read<uint32_t>(0x100000000ULL, GC_ERR_INVALID_ADDRESS);
    EXPECT_EQ(Write(0x1234567890ULL, 1), GC_ERR_INVALID_ADDRESS);
    uint64_t wide = 0;
    size = sizeof wide;
    EXPECT_EQ(api.GCWritePort(iface_, 0x300, &wide, &size), -2);  // card registers take 4 bytes
    ASSERT_EQ(api.IFClose(iface_), GC_ERR_SUCCESS);
    size = sizeof value;
    EXPECT_EQ(api.GCReadPort(iface_, link_setting(0x20), &value, &size), GC_ERR_NOT_AVAILABLE);
    EXPECT_EQ(api.IFGetNumDevices(iface_, nullptr), GC_ERR_INVALID_HANDLE);
    iface_ = nullptr;
}

TEST_F(InterfaceModule, OpenDevicesSurviveTheirSlotLeavingTheList) {
    OpenCard(0);
    DEV_HANDLE device = nullptr;
    // An empty list is built before the open.
    ASSERT_EQ(api.IFOpenDevice(iface_, "device1", DEVICE_ACCESS_EXCLUSIVE, &device), GC_ERR_SUCCESS);
    EXPECT_EQ(DeviceIds().size(), 2u);
    DEV_HANDLE again = nullptr;
    EXPECT_EQ(api.IFOpenDevice(iface_, "device1", DEVICE_ACCESS_EXCLUSIVE, &again),
              GC_ERR_RESOURCE_IN_USE);
    EXPECT_EQ(api.IFOpenDevice(iface_, "device2", DEVICE_ACCESS_EXCLUSIVE, &again), GC_ERR_INVALID_ID);
    EXPECT_EQ(api.IFOpenDevice(iface_, "device0", DEVICE_ACCESS_EXCLUSIVE, nullptr),
              GC_ERR_INVALID_PARAMETER);

    // Mode 0 lists device0 only; the open device1 keeps working until closed.
    ASSERT_EQ(Write(link_setting(0x30), 0), GC_ERR_SUCCESS);
    EXPECT_TRUE(Update());
    EXPECT_EQ(DeviceIds(), (std::vector<std::string>{"device0"}));
    IF_HANDLE parent = nullptr;
    ASSERT_EQ(api.DevGetParentIF(device, &parent), GC_ERR_SUCCESS);
    EXPECT_EQ(parent, iface_);
    EXPECT_EQ(api.IFOpenDevice(iface_, "device1", DEVICE_ACCESS_EXCLUSIVE, &again),
              GC_ERR_RESOURCE_IN_USE);
    ASSERT_EQ(api.DevClose(device), GC_ERR_SUCCESS);
    EXPECT_EQ(api.DevGetParentIF(device, &parent), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.IFOpenDevice(iface_, "device1", DEVICE_ACCESS_EXCLUSIVE, &again), GC_ERR_INVALID_ID);

    // Back in mode 1 the slot is listed and opens again; closing the
    // interface closes the device.
    ASSERT_EQ(Write(link_setting(0x30), 1), GC_ERR_SUCCESS);
    EXPECT_TRUE(Update());
    ASSERT_EQ(api.IFOpenDevice(iface_, "device1", DEVICE_ACCESS_EXCLUSIVE, &device), GC_ERR_SUCCESS);
    ASSERT_EQ(api.IFClose(iface_), GC_ERR_SUCCESS);
    iface_ = nullptr;
    EXPECT_EQ(api.DevGetParentIF(device, &parent), GC_ERR_INVALID_HANDLE);
}

}  // namespace
