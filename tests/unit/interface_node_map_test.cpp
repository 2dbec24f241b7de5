// The interface's description file loaded the way an outside consumer loads
// it, every feature read by name, and the interface user sets driven through
// that node map.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "card/interface_description.h"
#include "consumer_node_map.h"
#include "emulator/pcie_bus.h"
#include "modules/cgentl_device.h"
#include "modules/cgentl_interface.h"
#include "emulator/cxp_camera.h"
#include "emulator/emulated_card.h"
#include "nodemap/node_map.h"
#include "pelorin/gentl.h"
#include "pelorin/kv_api.h"
#include "private_gentl_dir.h"
#include "private_runtime_dir.h"

namespace {

using pelorin::testing_support::consumer_port;
using pelorin::testing_support::load_from_url;
using pelorin::testing_support::private_gentl_dir;
using pelorin::testing_support::read_every_feature;

const std::string kLibrary = std::string(PELORIN_GENTL_DIR) + "/pelorin_cxp.cti";

class InterfaceNodeMap : public testing::Test {
protected:
    private_gentl_dir dir_{kLibrary};
    TL_HANDLE system_ = nullptr;
    IF_HANDLE iface_ = nullptr;
    std::string id_;

    void SetUp() override {
        pelorin::testing_support::use_private_runtime_dir();
        pelorin::emu::pcie_bus::system_bus().reset();
        ASSERT_EQ(GCInitLib(), GC_ERR_SUCCESS);
        ASSERT_EQ(TLOpen(&system_), GC_ERR_SUCCESS);
        ASSERT_EQ(TLUpdateInterfaceList(system_, nullptr, 1000), GC_ERR_SUCCESS);
        char id[256] = {};
        size_t size = sizeof id;
        ASSERT_EQ(TLGetInterfaceID(system_, 0, id, &size), GC_ERR_SUCCESS);
        id_ = id;
    }
    void TearDown() override {
        if (system_ != nullptr) TLClose(system_);
        GCCloseLib();
    }
    void OpenInterface() {
        if (iface_ != nullptr) {
            ASSERT_EQ(IFClose(iface_), GC_ERR_SUCCESS);
        }
        iface_ = nullptr;
        ASSERT_EQ(TLOpenInterface(system_, id_.c_str(), &iface_), GC_ERR_SUCCESS);
    }
    // Opens the interface again and loads its node map as a consumer would
    // (a map loaded before must be gone: it reads through the old port).
    std::unique_ptr<CNodeMapRef> OpenWithNodeMap() {
        OpenInterface();
        port_ = std::make_unique<consumer_port>(iface_);
        return load_from_url(iface_, *port_, "InterfacePort");
    }

    std::unique_ptr<consumer_port> port_;
};

TEST_F(InterfaceNodeMap, LoadsThroughItsUrlAndReadsEveryFeature) {
    // A card that does not open leaves the interface closed.
    pelorin::emu::pcie_bus::system_bus().fail_next_open();
    EXPECT_EQ(TLOpenInterface(system_, id_.c_str(), &iface_), GC_ERR_INVALID_ID);
    EXPECT_EQ(iface_, nullptr);
    OpenInterface();
    consumer_port port(iface_);
    std::unique_ptr<CNodeMapRef> map = load_from_url(iface_, port, "InterfacePort");
    ASSERT_TRUE(map);
    map->execute("DeviceUpdateList");  // what a consumer does first
    EXPECT_GE(read_every_feature(*map), 30);
    EXPECT_EQ(map->get_string("InterfaceID"), id_);
    EXPECT_EQ(map->get_string("CardVendorName"), "Orvane");
    EXPECT_NEAR(map->get_float("CardTemperatureFPGA"), 52.5, 1e-4);
    EXPECT_NEAR(map->get_float("CardVoltageCameraPower"), 12.05, 1e-4);

    map->execute("DeviceUpdateList");
    EXPECT_EQ(map->integer_max("DeviceSelector"), 1);  // two devices in the default mode
    map->set_integer("DeviceSelector", 1);
    EXPECT_EQ(map->get_string("DeviceID"), "device1");
    EXPECT_EQ(map->get_enum("DeviceAccessStatus"), "ReadWrite");
    map->set_enum("CxpLinkConfiguration", "CXP12_X2");
    EXPECT_EQ(map->get_enum("CxpLinkConfiguration"), "CXP12_X2");
    map->set_integer("DeviceSelector", 0);
    EXPECT_EQ(map->get_enum("CxpLinkConfiguration"), "Default");

    map->set_enum("CxpMode", "FourDevices");
    map->execute("DeviceUpdateList");
    EXPECT_EQ(map->integer_max("DeviceSelector"), 3);
    map->set_integer("DeviceSelector", 3);
    EXPECT_EQ(map->get_string("DeviceID"), "device3");
    EXPECT_EQ(map->access_mode("CxpFiberOption1"), NA);  // a copper card
    EXPECT_THROW(map->set_enum("UserSetSelector", "UserSet2"), std::exception);

    // The interface built its own node map the same way when it opened.
    const auto *module = static_cast<const CGentlInterface *>(iface_);
    ASSERT_TRUE(module->node_map());
    EXPECT_EQ(module->node_map()->get_string("InterfaceID"), id_);
    map.reset();
    EXPECT_EQ(IFClose(iface_), GC_ERR_SUCCESS);
}

TEST_F(InterfaceNodeMap, UserSetsSaveLoadAndChooseTheSetAtOpen) {
    namespace fs = std::filesystem;
    dir_.write_settings("; user sets on\n[SystemInfo]\nOpenUserSet=1\n");
    std::unique_ptr<CNodeMapRef> map = OpenWithNodeMap();
    ASSERT_TRUE(map);
    EXPECT_TRUE(map->get_boolean("UserSetEnabled"));

    // Save the three-device mode to the user set, change it, load it back.
    map->set_enum("CxpMode", "ThreeDevices");
    map->set_enum("UserSetSelector", "UserSet1");
    map->execute("UserSetSave");
    const fs::path user_set = dir_.user_set_dir() / "userset_if_0";
    const std::string saved = dir_.read(user_set);
    EXPECT_EQ(saved.rfind("{\"saver\":\"lumora_1_0\"", 0), 0u) << saved;
    EXPECT_NE(saved.find("\"CxpMode\":\"ThreeDevices\""), std::string::npos) << saved;
    EXPECT_EQ(saved.find("UserSet"), std::string::npos) << saved;  // not the controls
    map->set_enum("CxpMode", "OneDevice");
    map->execute("UserSetLoad");
    EXPECT_EQ(map->get_enum("CxpMode"), "ThreeDevices");

    // Choosing the user set as the start-up set is stored in the settings
    // file beside its comment; the next open applies the user set.
    map->set_enum("UserSetDefault", "UserSet1");
    const std::string settings = dir_.read(dir_.settings_file());
    EXPECT_NE(settings.find("open_userset_if_0=1"), std::string::npos) << settings;
    EXPECT_NE(settings.find("user sets on"), std::string::npos) << settings;
    map.reset();
    map = OpenWithNodeMap();
    ASSERT_TRUE(map);
    EXPECT_EQ(map->get_enum("CxpMode"), "ThreeDevices");
    EXPECT_EQ(map->get_enum("UserSetDefault"), "UserSet1");

    // With the default set chosen, the default file of a 4-slot card applies.
    map->set_enum("UserSetDefault", "Default");
    std::ofstream(dir_.user_set_dir() / "default_if_4d4s.json")
        << R"({"saver":"lumora_1_0","CxpMode":"FourDevices"})";
    map.reset();
    map = OpenWithNodeMap();
    ASSERT_TRUE(map);
    EXPECT_EQ(map->get_enum("CxpMode"), "FourDevices");

    // A damaged user-set file is refused with its code, and nothing changes.
    std::ofstream(user_set) << "{\"CxpMode\":\"OneDevice\"}";
    map->set_enum("UserSetSelector", "UserSet1");
    uint32_t one = 1;
    size_t size = sizeof one;
    EXPECT_EQ(GCWritePort(iface_, 0x2D0000FFFE0004ULL, &one, &size), -10014);
    EXPECT_EQ(map->get_enum("CxpMode"), "FourDevices");
    map.reset();
    EXPECT_EQ(IFClose(iface_), GC_ERR_SUCCESS);
}

// The device list probes the emulated cameras, and opening a device connects
// its camera at the camera's default configuration.
TEST_F(InterfaceNodeMap, DeviceListProbesAndOpenConnectsTheCameras) {
    OpenInterface();
    ASSERT_EQ(IFUpdateDeviceList(iface_, nullptr, 1000), GC_ERR_SUCCESS);
    const char *serials[] = {"LY25-0457-1", "LY25-0457-2"};
    for (uint32_t i = 0; i < 2; ++i) {
        char serial[64] = {};
        size_t size = sizeof serial;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        const std::string id = "device" + std::to_string(i);
        ASSERT_EQ(IFGetDeviceInfo(iface_, id.c_str(), DEVICE_INFO_SERIAL_NUMBER, &type, serial, &size),
                  GC_ERR_SUCCESS);
        EXPECT_STREQ(serial, serials[i]);
    }
    auto camera = pelorin::emu::pcie_bus::system_bus().card(0)->camera(1);
    EXPECT_TRUE(camera->in_discovery());  // the probe only discovered it

    DEV_HANDLE device = nullptr;
    ASSERT_EQ(IFOpenDevice(iface_, "device1", DEVICE_ACCESS_EXCLUSIVE, &device), GC_ERR_SUCCESS);
    EXPECT_FALSE(camera->in_discovery());
    EXPECT_EQ(camera->connection_config(), 0x20058u);
    EXPECT_EQ(camera->master_host_id(), 0xD01u);  // host connection of slot 1
    EXPECT_EQ(static_cast<CGentlDevice *>(device)->connection_config(), 0x20058u);
    EXPECT_EQ(DevClose(device), GC_ERR_SUCCESS);

    // A camera that does not answer cannot be opened; its slot stays listed.
    camera->unplug_link(2);
    camera->unplug_link(3);
    EXPECT_EQ(IFOpenDevice(iface_, "device1", DEVICE_ACCESS_EXCLUSIVE, &device), GC_ERR_INVALID_ID);
    uint32_t count = 0;
    EXPECT_EQ(IFGetNumDevices(iface_, &count), GC_ERR_SUCCESS);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(IFClose(iface_), GC_ERR_SUCCESS);
}

// The device port's, the camera's and the stream port's description files
// loaded as a consumer loads them, every feature read.
TEST_F(InterfaceNodeMap, DeviceCameraAndStreamNodeMapsReadEveryFeature) {
    OpenInterface();
    DEV_HANDLE device = nullptr;
    ASSERT_EQ(IFOpenDevice(iface_, "device0", DEVICE_ACCESS_EXCLUSIVE, &device), GC_ERR_SUCCESS);
    PORT_HANDLE remote = nullptr;
    ASSERT_EQ(DevGetPort(device, &remote), GC_ERR_SUCCESS);
    {
        consumer_port device_port(device);
        std::unique_ptr<CNodeMapRef> map = load_from_url(device, device_port, "DevicePort");
        ASSERT_TRUE(map);
        EXPECT_GE(read_every_feature(*map), 25);
        EXPECT_EQ(map->get_string("DeviceID"), "device0");
        EXPECT_EQ(map->get_string("DeviceModelName"), "Lyra 25M CXP-12");
        EXPECT_EQ(map->get_integer("CxpRevision"), 0x20001);
        consumer_port camera_port(remote);
        std::unique_ptr<CNodeMapRef> camera = load_from_url(remote, camera_port, "Device");
        ASSERT_TRUE(camera);
        EXPECT_GE(read_every_feature(*camera), 5);
        camera->set_integer("Width", 640);
        auto card = pelorin::emu::pcie_bus::system_bus().card(0);
        EXPECT_EQ(card->camera(0)->read_register(0x6000), 640u);
        // Mono8: the card takes the camera's packing as it is.
        EXPECT_EQ(card->read_register(0x2012), 1u);
        EXPECT_EQ(card->read_register(0x2011), 1u);
        const uint8_t mono10p[4] = {0x01, 0x0A, 0x00, 0x46};  // PFNC Mono10p, not in that set
        ASSERT_EQ(card->camera(0)->write_memory(0x6008, mono10p), 1);  // write acknowledged
        ASSERT_EQ(DevGetPort(device, &remote), GC_ERR_SUCCESS);
        EXPECT_EQ(card->read_register(0x2012), 0u);

        DS_HANDLE stream = nullptr;
        ASSERT_EQ(DevOpenDataStream(device, "stream0", &stream), GC_ERR_SUCCESS);
        BUFFER_HANDLE buffer = nullptr;
        ASSERT_EQ(DSAllocAndAnnounceBuffer(stream, 64, nullptr, &buffer), GC_ERR_SUCCESS);
        ASSERT_EQ(DSQueueBuffer(stream, buffer), GC_ERR_SUCCESS);
        consumer_port stream_port(stream);
        std::unique_ptr<CNodeMapRef> streams = load_from_url(stream, stream_port, "StreamPort");
        ASSERT_TRUE(streams);
        EXPECT_GE(read_every_feature(*streams), 4);
        EXPECT_EQ(streams->get_string("StreamID"), "stream0");
        EXPECT_EQ(streams->get_integer("StreamAnnouncedBufferCount"), 1);
    }
    EXPECT_EQ(DevClose(device), GC_ERR_SUCCESS);
    EXPECT_EQ(IFClose(iface_), GC_ERR_SUCCESS);
}

// Damaged replies while the description file is read through the remote
// port: the read is tried again with strides of 64 and 16 bytes.
TEST_F(InterfaceNodeMap, RemoteReadsRetryWithSmallerStrides) {
    OpenInterface();
    DEV_HANDLE device = nullptr;
    ASSERT_EQ(IFOpenDevice(iface_, "device0", DEVICE_ACCESS_EXCLUSIVE, &device), GC_ERR_SUCCESS);
    PORT_HANDLE remote = nullptr;
    ASSERT_EQ(DevGetPort(device, &remote), GC_ERR_SUCCESS);
    auto camera = pelorin::emu::pcie_bus::system_bus().card(0)->camera(0);
    const std::vector<uint8_t> archive = camera->description_archive();
    std::vector<uint8_t> bytes(200);
    size_t size = bytes.size();
    camera->damage_replies(6);  // strides 100 and 64 fail, 16 succeeds
    ASSERT_EQ(GCReadPort(remote, 0x10000, bytes.data(), &size), GC_ERR_SUCCESS);
    EXPECT_EQ(size, 200u);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), archive.begin()));
    camera->damage_replies(9);
    testing::internal::CaptureStdout();
    size = bytes.size();
    EXPECT_EQ(GCReadPort(remote, 0x10000, bytes.data(), &size), -3);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("Crc"), std::string::npos) << log;
    camera->clear_faults();
    EXPECT_EQ(DevClose(device), GC_ERR_SUCCESS);
    EXPECT_EQ(IFClose(iface_), GC_ERR_SUCCESS);
}

// DevGetPort on a camera that stops answering, sends damaged replies or
// holds a broken description file fails with a code and leaves the device
// usable; once the camera is fine again the remote port comes up.
TEST_F(InterfaceNodeMap, DevGetPortSurvivesBadCamerasAndDescriptions) {
    auto &bus = pelorin::emu::pcie_bus::system_bus();
    OpenInterface();
    DEV_HANDLE device = nullptr;
    ASSERT_EQ(IFOpenDevice(iface_, "device0", DEVICE_ACCESS_EXCLUSIVE, &device), GC_ERR_SUCCESS);
    auto camera = bus.card(0)->camera(0);
    PORT_HANDLE remote = nullptr;
    camera->lose_replies(1000);  // the camera stops answering
    EXPECT_EQ(DevGetPort(device, &remote), GC_ERR_ERROR);
    camera->clear_faults();
    camera->damage_replies(1000);  // every reply damaged
    EXPECT_EQ(DevGetPort(device, &remote), GC_ERR_ERROR);
    camera->clear_faults();
    ASSERT_EQ(DevGetPort(device, &remote), GC_ERR_SUCCESS);
    EXPECT_EQ(DevClose(device), GC_ERR_SUCCESS);
    // The remote port went with the device.
    uint8_t word[4] = {};
    size_t size = sizeof word;
    EXPECT_EQ(GCReadPort(remote, 0, word, &size), GC_ERR_NOT_AVAILABLE);
    EXPECT_EQ(IFClose(iface_), GC_ERR_SUCCESS);
    iface_ = nullptr;

    // A camera whose description file is not GenICam XML.
    pelorin::emu::card_profile card = pelorin::emu::card_profile::halden_q12();
    pelorin::emu::camera_profile broken;
    broken.links = {0, 1};
    broken.description_xml = "<RegisterDescription>cut off";
    // And one that holds no description file at all: its device does not open.
    pelorin::emu::camera_profile missing;
    missing.links = {2, 3};
    missing.no_description = true;
    card.cameras = std::vector<pelorin::emu::camera_profile>{broken, missing};
    bus.set_cards({card});
    OpenInterface();
    ASSERT_EQ(IFOpenDevice(iface_, "device0", DEVICE_ACCESS_EXCLUSIVE, &device), GC_ERR_SUCCESS);
    const GC_ERROR result = DevGetPort(device, &remote);
    EXPECT_TRUE(result == GC_ERR_ERROR || result == KV_ERR_EXCEPTION) << result;
    EXPECT_EQ(DevClose(device), GC_ERR_SUCCESS);
    testing::internal::CaptureStdout();
    EXPECT_EQ(IFOpenDevice(iface_, "device1", DEVICE_ACCESS_EXCLUSIVE, &device), GC_ERR_INVALID_ID);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("sep url error"), std::string::npos) << log;
    EXPECT_EQ(IFClose(iface_), GC_ERR_SUCCESS);
    iface_ = nullptr;
}

}  // namespace

namespace {

// Device user sets: saved from the device's node map, chosen as the start-up
// set through the settings file, and applied when the device opens.
TEST_F(InterfaceNodeMap, DeviceUserSetsApplyWhenTheDeviceOpens) {
    dir_.write_settings("[SystemInfo]\nOpenUserSet=1\n");
    OpenInterface();
    DEV_HANDLE device = nullptr;
    const auto open_device = [&] {
        ASSERT_EQ(IFOpenDevice(iface_, "device0", DEVICE_ACCESS_EXCLUSIVE, &device), GC_ERR_SUCCESS);
    };
    const auto text = [&](const char *name) {
        char value[64] = {};
        uint64_t size = sizeof value;
        EXPECT_EQ(kv_genapi_get_string(device, name, value, &size), 0) << name;
        return std::string(value);
    };
    open_device();
    EXPECT_EQ(text("UserSetEnabled"), "true");
    ASSERT_EQ(kv_genapi_set_string(device, "AreaScanFramesPerBuffer", "4"), 0);
    ASSERT_EQ(kv_genapi_set_string(device, "RemoteReadStride", "256"), 0);
    ASSERT_EQ(kv_genapi_set_string(device, "UserSetSelector", "UserSet1"), 0);
    ASSERT_EQ(kv_genapi_call_command(device, "UserSetSave"), 0);
    const std::string saved = dir_.read(dir_.user_set_dir() / "userset_dev_0");
    EXPECT_NE(saved.find("\"AreaScanFramesPerBuffer\":4"), std::string::npos) << saved;
    EXPECT_EQ(saved.find("UserSet"), std::string::npos) << saved;
    ASSERT_EQ(kv_genapi_set_string(device, "UserSetDefault", "UserSet1"), 0);
    EXPECT_NE(dir_.read(dir_.settings_file()).find("open_userset_dev_0=1"), std::string::npos);
    ASSERT_EQ(kv_genapi_set_string(device, "RemoteReadStride", "128"), 0);
    ASSERT_EQ(DevClose(device), GC_ERR_SUCCESS);

    // The next open applies the user set.
    open_device();
    EXPECT_EQ(text("AreaScanFramesPerBuffer"), "4");
    EXPECT_EQ(text("RemoteReadStride"), "256");
    EXPECT_EQ(text("UserSetDefault"), "UserSet1");

    // With the default set chosen, "default_dev.json" applies; a damaged one
    // is refused by its code and the device still opens.
    ASSERT_EQ(kv_genapi_set_string(device, "UserSetDefault", "Default"), 0);
    ASSERT_EQ(DevClose(device), GC_ERR_SUCCESS);
    std::ofstream(dir_.user_set_dir() / "default_dev.json")
        << R"({"saver":"lumora_1_0","AreaScanFramesPerBuffer":7})";
    open_device();
    EXPECT_EQ(text("AreaScanFramesPerBuffer"), "7");
    std::ofstream(dir_.user_set_dir() / "default_dev.json") << "{\"AreaScanFramesPerBuffer\":9}";
    uint32_t one = 1;
    size_t size = sizeof one;
    EXPECT_EQ(GCWritePort(device, 0x3D0000FFFE0004ULL, &one, &size), -10014);
    EXPECT_EQ(text("AreaScanFramesPerBuffer"), "7");
    ASSERT_EQ(DevClose(device), GC_ERR_SUCCESS);
    EXPECT_EQ(IFClose(iface_), GC_ERR_SUCCESS);
    iface_ = nullptr;
}

}  // namespace
