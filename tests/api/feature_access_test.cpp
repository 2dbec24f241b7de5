// The feature-access exports by name through the loaded library, on the
// system and interface node maps: every bad argument with its code, lists
// and short buffers, values, registers through the module port, description
// files, node callbacks and settings files.
#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "api_fixture.h"
#include "private_gentl_dir.h"

namespace {

using pelorin::testing_support::private_gentl_dir;

// The kv_ exports this file uses, resolved like the others.
struct Kv {
#define KV(name) \
    decltype(&::name) name = reinterpret_cast<decltype(&::name)>(ProducerApi::get().symbol(#name));
    KV(kv_genapi_call_command) KV(kv_genapi_set_string) KV(kv_genapi_get_string)
    KV(kv_genapi_set_integer) KV(kv_genapi_get_integer) KV(kv_genapi_set_float)
    KV(kv_genapi_set_register) KV(kv_genapi_get_register) KV(kv_get_access)
    KV(kv_get_features) KV(kv_get_xml_info) KV(kv_get_xml) KV(kv_node_register) KV(kv_get_nodes)
    KV(kv_get_node_info) KV(kv_get_enum_array) KV(kv_get_node_state) KV(kv_genapi_save_ini)
    KV(kv_genapi_load_ini)
#undef KV
};

// A copper card and a fibre card.
constexpr const char *kProfile = R"({"cards": [{"product_id": "0x181"}, {"product_id": "0x184",
  "device_slots": 2, "identifier": "OV184-2402-0031", "name": "SF10-3 CoF"}]})";

int g_calls = 0;
void *g_node = nullptr;
void count_call(void *node) {
    ++g_calls;
    g_node = node;
}

class FeatureAccess : public ProducerTest {
protected:
    Kv kv;
    private_gentl_dir dir_{PELORIN_CTI_PATH};
    IF_HANDLE iface_ = nullptr;

    void SetUp() override {
        dir_.use_emulation(kProfile);
    }
    void TearDown() override {
        if (iface_ != nullptr) api.IFClose(iface_);
        ProducerTest::TearDown();
    }
    void OpenCard(uint32_t card) {
        OpenSystem();
        ASSERT_EQ(api.TLUpdateInterfaceList(system_, nullptr, 1000), GC_ERR_SUCCESS);
        char id[256] = {};
        size_t size = sizeof id;
        ASSERT_EQ(api.TLGetInterfaceID(system_, card, id, &size), GC_ERR_SUCCESS);
        ASSERT_EQ(api.TLOpenInterface(system_, id, &iface_), GC_ERR_SUCCESS);
    }
    std::string Text(void *handle, const char *name) {
        char text[256] = {};
        uint64_t size = sizeof text;
        EXPECT_EQ(kv.kv_genapi_get_string(handle, name, text, &size), GC_ERR_SUCCESS) << name;
        EXPECT_EQ(size, std::strlen(text) + 1);
        return text;
    }
    int64_t Integer(void *handle, const char *name) {
        int64_t value = -99;
        EXPECT_EQ(kv.kv_genapi_get_integer(handle, name, &value), GC_ERR_SUCCESS) << name;
        return value;
    }
};

TEST_F(FeatureAccess, EveryBadCallAnswersItsCodeAndChangesNothing) {
    int64_t value = 0;
    uint64_t size = 0;
    uint32_t access = 0, count = 0;
    uint8_t bytes[8] = {}, state[2] = {7, 7};
    kv_node_info info{};
    kv_enum_entry current{}, *entries = nullptr;
    void *node = nullptr;
    EXPECT_EQ(kv.kv_get_features(system_, nullptr, &size), GC_ERR_NOT_INITIALIZED);
    OpenCard(1);
    EXPECT_EQ(kv.kv_genapi_get_integer(nullptr, "DeviceSelector", &value), GC_ERR_NOT_INITIALIZED);
    EXPECT_EQ(kv.kv_genapi_save_ini(reinterpret_cast<void *>(0x5000), L"/tmp/x"), GC_ERR_NOT_AVAILABLE);
    EXPECT_EQ(LastError().first, GC_ERR_NOT_AVAILABLE);

    const std::pair<GC_ERROR, GC_ERROR> cases[] = {
        // Null arguments: each operation's own code.
        {kv.kv_genapi_call_command(system_, nullptr), GC_ERR_ERROR},
        {kv.kv_genapi_get_string(system_, "TLID", nullptr, &size), GC_ERR_ERROR},
        {kv.kv_get_nodes(system_, nullptr, nullptr, &size), GC_ERR_ERROR},
        {kv.kv_get_node_state(system_, "TLID", nullptr), GC_ERR_ERROR},
        {kv.kv_get_xml_info(system_, nullptr), GC_ERR_ERROR},
        {kv.kv_genapi_get_register(system_, nullptr, bytes, &size), GC_ERR_NOT_INITIALIZED},
        {kv.kv_get_access(system_, "TLID", nullptr), GC_ERR_INVALID_PARAMETER},
        {kv.kv_get_features(system_, nullptr, nullptr), GC_ERR_INVALID_PARAMETER},
        {kv.kv_get_xml(system_, 0, nullptr, nullptr), GC_ERR_INVALID_PARAMETER},
        {kv.kv_node_register(system_, "TLID", nullptr, &node), GC_ERR_INVALID_PARAMETER},
        {kv.kv_get_enum_array(system_, "TLType", &current, nullptr, &count), GC_ERR_INVALID_PARAMETER},
        {kv.kv_genapi_load_ini(system_, nullptr, nullptr, nullptr), GC_ERR_INVALID_PARAMETER},
        // Unknown names, wrong access, wrong kinds, bad values.
        {kv.kv_genapi_get_integer(iface_, "Width", &value), KV_ERR_FEATURE_NOT_FOUND},
        {kv.kv_get_access(iface_, "Width", &access), GC_ERR_ERROR},
        {kv.kv_get_node_info(iface_, "Width", &info), GC_ERR_ERROR},
        {kv.kv_get_node_state(iface_, "Width", state), GC_ERR_ERROR},
        {kv.kv_genapi_set_integer(iface_, "CardDeviceSlotCount", 3), KV_ERR_NOT_WRITABLE},
        {kv.kv_genapi_get_register(iface_, "UserSetLoadReg", bytes, &size), KV_ERR_NOT_READABLE},
        {kv.kv_genapi_get_integer(iface_, "CardTemperatureFPGA", &value), KV_ERR_NOT_INTEGER},
        {kv.kv_genapi_set_float(iface_, "DeviceSelector", 1.0), KV_ERR_NOT_FLOAT},
        {kv.kv_genapi_call_command(iface_, "DeviceSelector"), KV_ERR_NOT_COMMAND},
        {kv.kv_get_enum_array(iface_, "DeviceSelector", &current, &entries, &count), KV_ERR_NOT_ENUM},
        {kv.kv_genapi_get_register(iface_, "DeviceSelector", bytes, &size), KV_ERR_NODE_NOT_FOUND},
        {kv.kv_genapi_set_string(iface_, "DeviceUpdateList", "1"), KV_ERR_NODE_NOT_FOUND},
        {kv.kv_genapi_set_string(iface_, "DeviceSelector", "one"), KV_ERR_EXCEPTION},
        {kv.kv_genapi_set_integer(iface_, "DeviceSelector", 9), KV_ERR_EXCEPTION},
        {kv.kv_genapi_set_register(iface_, "DeviceSelectorReg", bytes, 3), GC_ERR_INVALID_PARAMETER},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << i;
    EXPECT_EQ(state[0] + state[1], 0);
    EXPECT_EQ(Integer(iface_, "DeviceSelector"), 0);

    // Short buffers answer the size needed.
    char text[1] = {};
    size = 1;
    EXPECT_EQ(kv.kv_genapi_get_string(system_, "TLVendorName", text, &size), GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, Text(system_, "TLVendorName").size() + 1);
    size = 2;
    EXPECT_EQ(kv.kv_genapi_get_register(system_, "InterfaceSelectorReg", bytes, &size),
              GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 4u);

    // A device handle selects the device port's node map, which has no
    // camera features: those are behind the remote device port.
    DEV_HANDLE device = nullptr;
    ASSERT_EQ(api.IFOpenDevice(iface_, "device0", DEVICE_ACCESS_EXCLUSIVE, &device), GC_ERR_SUCCESS);
    EXPECT_EQ(kv.kv_genapi_get_integer(device, "Width", &value), KV_ERR_FEATURE_NOT_FOUND);
    EXPECT_EQ(kv.kv_genapi_get_register(device, "Width", bytes, &size), KV_ERR_FEATURE_NOT_FOUND);
    size = 0;
    EXPECT_EQ(kv.kv_get_features(device, nullptr, &size), GC_ERR_SUCCESS);
    EXPECT_GT(size, 0u);
}

TEST_F(FeatureAccess, ListsDescriptionsRegistersAndCallbacksOfTheSystem) {
    OpenCard(0);
    uint64_t count = 0;
    ASSERT_EQ(kv.kv_get_features(system_, nullptr, &count), GC_ERR_SUCCESS);
    ASSERT_EQ(count, 2u);
    std::vector<kv_feature_entry> features(2);
    kv_feature_entry *array = features.data();
    count = 1;
    EXPECT_EQ(kv.kv_get_features(system_, &array, &count), GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 2u);
    ASSERT_EQ(kv.kv_get_features(system_, &array, &count), GC_ERR_SUCCESS);
    EXPECT_STREQ(features[1].name, "InterfaceEnumeration");
    EXPECT_EQ(features[1].interface_type, uint32_t{KV_ICATEGORY});

    // Invisible nodes are left out of a category's list.
    std::vector<kv_node_entry> nodes(8);
    kv_node_entry *node_array = nodes.data();
    count = nodes.size();
    ASSERT_EQ(kv.kv_get_nodes(system_, "InterfaceEnumeration", &node_array, &count), GC_ERR_SUCCESS);
    ASSERT_EQ(count, 3u);
    EXPECT_STREQ(nodes[1].name, "InterfaceSelector");
    EXPECT_EQ(uint32_t{nodes[0].interface_type}, uint32_t{KV_ICOMMAND});
    EXPECT_EQ(kv.kv_get_nodes(system_, "TLID", &node_array, &count), KV_ERR_FEATURE_NOT_FOUND);

    kv_xml_info info{};
    ASSERT_EQ(kv.kv_get_xml_info(system_, &info), GC_ERR_SUCCESS);
    EXPECT_NE(std::strstr(info.description, "ModelName=\"CXP_TLSystem\""), nullptr);
    EXPECT_STREQ(info.file_name, "Cxplink_TLSystem_1_0_1.zip");
    ASSERT_EQ(kv.kv_get_xml_info(iface_, &info), GC_ERR_SUCCESS);
    EXPECT_STREQ(info.file_name, "Cxplink_TLInterface_1_0_1.zip");
    uint64_t size = 0;
    ASSERT_EQ(kv.kv_get_xml(iface_, 0, nullptr, &size), GC_ERR_SUCCESS);
    std::vector<char> zip(size);
    ASSERT_EQ(kv.kv_get_xml(iface_, 0, zip.data(), &size), GC_ERR_SUCCESS);
    EXPECT_EQ(std::string(zip.data(), 2), "PK");

    // Selecting the second interface changes InterfaceID and calls its
    // callback; register bytes go through the system's port.
    void *node = nullptr;
    ASSERT_EQ(kv.kv_node_register(system_, "InterfaceID", count_call, &node), GC_ERR_SUCCESS);
    g_calls = 0;
    const std::string first = Text(system_, "InterfaceID");
    ASSERT_EQ(kv.kv_genapi_set_string(system_, "InterfaceSelector", "1"), GC_ERR_SUCCESS);
    EXPECT_EQ(g_calls, 1);
    EXPECT_EQ(g_node, node);
    EXPECT_NE(Text(system_, "InterfaceID"), first);
    const uint32_t zero = 0;
    ASSERT_EQ(kv.kv_genapi_set_register(system_, "InterfaceSelectorReg", &zero, 4), GC_ERR_SUCCESS);
    EXPECT_EQ(g_calls, 2);
    EXPECT_EQ(Text(system_, "InterfaceID"), first);
    uint8_t bytes[8] = {};
    size = sizeof bytes;
    ASSERT_EQ(kv.kv_genapi_get_register(system_, "GenTLVersionMajor", bytes, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(size, 2u);  // as long as the register
    EXPECT_EQ(bytes[0], Integer(system_, "GenTLVersionMajor"));
}

TEST_F(FeatureAccess, ConvertsTextAndReadsEnumerationsOfTheFibreCard) {
    OpenCard(1);
    uint8_t state[2] = {};
    ASSERT_EQ(kv.kv_get_node_state(iface_, "CxpFiberOption1", state), GC_ERR_SUCCESS);
    EXPECT_EQ(state[0], 1);
    EXPECT_EQ(state[1], 1);
    ASSERT_EQ(kv.kv_genapi_set_string(iface_, "CxpFiberOption1", "FF"), GC_ERR_SUCCESS);
    EXPECT_EQ(Integer(iface_, "CxpFiberOption1"), 255);
    EXPECT_EQ(Text(iface_, "CxpFiberOption1"), "0xFF");
    EXPECT_EQ(Integer(iface_, "CxpOverFiber"), 1);
    EXPECT_EQ(Text(iface_, "CxpOverFiber"), "true");

    kv_node_info info{};

    // The entries of CxpLinkConfiguration in buffers as long as the info says.
    ASSERT_EQ(kv.kv_get_node_info(iface_, "CxpLinkConfiguration", &info), GC_ERR_SUCCESS);
    ASSERT_EQ(info.minimum.e.entry_count, 22u);
    ASSERT_EQ(info.minimum.e.longest_name_size, sizeof "CXP10_X1");
    std::vector<char> texts(23 * 9);
    std::vector<kv_enum_entry> list(22);
    for (size_t i = 0; i < list.size(); ++i) list[i].text = &texts[9 * i];
    kv_enum_entry current{&texts[9 * 22], 0, -1};
    kv_enum_entry *array = list.data();
    uint32_t count = 21;
    EXPECT_EQ(kv.kv_get_enum_array(iface_, "CxpLinkConfiguration", &current, &array, &count),
              GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 22u);
    EXPECT_EQ(int64_t{current.value}, -1);  // nothing else written (packed: by value)
    ASSERT_EQ(kv.kv_get_enum_array(iface_, "CxpLinkConfiguration", &current, &array, &count),
              GC_ERR_SUCCESS);
    EXPECT_STREQ(list[3].text, "CXP3_X1");
    EXPECT_EQ(uint32_t{list[3].text_size}, sizeof "CXP3_X1");
    EXPECT_EQ(current.text, Text(iface_, "CxpLinkConfiguration"));
    EXPECT_EQ(int64_t{current.value}, Integer(iface_, "CxpLinkConfiguration"));
}

TEST_F(FeatureAccess, SettingsFilesGoThroughTheFeatureCalls) {
    OpenCard(0);
    // The system's one read-write feature, under a path that is not ASCII.
    const std::filesystem::path file = dir_.path() / u8"r\u00e9glages.json";
    const std::string directory = dir_.path().string();  // ASCII
    const std::wstring wide = std::wstring(directory.begin(), directory.end()) + L"/r\u00e9glages.json";
    ASSERT_EQ(kv.kv_genapi_save_ini(system_, wide.c_str()), GC_ERR_SUCCESS);
    std::stringstream text;
    text << std::ifstream(file).rdbuf();
    EXPECT_EQ(text.str(), R"({"saver":"lumora_1_0","InterfaceSelector":0})");

    std::ofstream(file) << R"({"saver":"tavimoor_1_0","InterfaceSelector":1,"Nothing":2})";
    kv_settings_record *records = nullptr;
    uint32_t count = 0;
    ASSERT_EQ(kv.kv_genapi_load_ini(system_, wide.c_str(), &records, &count), GC_ERR_SUCCESS);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(records[0].result, 0);
    EXPECT_EQ(records[1].result, KV_ERR_FEATURE_NOT_FOUND);
    EXPECT_EQ(Integer(system_, "InterfaceSelector"), 1);

    std::ofstream(file) << R"({"maker":"lumora_1_0"})";
    EXPECT_EQ(kv.kv_genapi_load_ini(system_, wide.c_str(), nullptr, nullptr), KV_ERR_NOT_CARD_FILE);
    EXPECT_EQ(kv.kv_genapi_save_ini(system_, L"/no/such/dir/x.json"), GC_ERR_IO);
}

TEST_F(FeatureAccess, AnotherModulesOrARefusedSettingsFileChangesNothing) {
    OpenCard(0);
    const std::string path = (dir_.path() / "interface.json").string();
    const std::wstring file(path.begin(), path.end());
    ASSERT_EQ(kv.kv_genapi_save_ini(iface_, file.c_str()), GC_ERR_SUCCESS);
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    const std::string saved = text.str();
    const auto members = std::count(saved.begin(), saved.end(), ',');
    const int64_t selector = Integer(system_, "InterfaceSelector");

    // The interface's file on the system: none of its members is found, the
    // load itself succeeds.
    kv_settings_record *records = nullptr;
    uint32_t count = 0;
    ASSERT_EQ(kv.kv_genapi_load_ini(system_, file.c_str(), &records, &count), GC_ERR_SUCCESS);
    ASSERT_GT(members, 0);
    ASSERT_EQ(count, uint32_t(members));
    for (uint32_t i = 0; i < count; ++i)
        EXPECT_EQ(records[i].result, KV_ERR_FEATURE_NOT_FOUND) << records[i].key;

    // A file whose first member is not the saver: no record, nothing set.
    std::ofstream(path) << R"({"InterfaceSelector":1,"saver":"lumora_1_0","InterfaceSelector":1})";
    EXPECT_EQ(kv.kv_genapi_load_ini(system_, file.c_str(), &records, &count), KV_ERR_NOT_CARD_FILE);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(Integer(system_, "InterfaceSelector"), selector);
    EXPECT_EQ(kv.kv_genapi_load_ini(system_, L"/no/such/dir/x.json", &records, &count), GC_ERR_IO);
}

}  // namespace
