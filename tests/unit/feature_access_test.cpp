// The by-name operations on a purpose-written node map over memory: text by
// representation, registers through the module port, node callbacks along
// the description's links, and booleans in settings files.
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "features/feature_access.h"
#include "memory_port.h"

using namespace pelorin::features;
using pelorin::testing_support::memory_port;

namespace {

std::string reg(const char *name, int address, int length = 4, const char *access = "RW") {
    return std::string("<IntReg Name=\"") + name + "\"><Address>" + std::to_string(address) +
           "</Address><Length>" + std::to_string(length) + "</Length><AccessMode>" + access +
           "</AccessMode><pPort>Device</pPort><Sign>Unsigned</Sign>"
           "<Endianess>LittleEndian</Endianess></IntReg>";
}
std::string integer(const char *name, const char *shown, const char *extra = "") {
    return std::string("<Integer Name=\"") + name + "\">" + extra + "<pValue>" + name +
           "Reg</pValue><Representation>" + shown + "</Representation></Integer>";
}

const std::string kXml = R"(<?xml version="1.0"?>
<RegisterDescription ModelName="Calls" VendorName="Pelorin" StandardNameSpace="None"
  SchemaMajorVersion="1" SchemaMinorVersion="1" SchemaSubMinorVersion="0" MajorVersion="1"
  MinorVersion="0" SubMinorVersion="0" ProductGuid="5b0c4c4e-1f1a-4c55-9d2e-000000000021"
  VersionGuid="5b0c4c4e-1f1a-4c55-9d2e-000000000022" xmlns="http://www.genicam.org/GenApi/Version_1_1">
<Category Name="Root"><pFeature>Main</pFeature></Category>
<Category Name="Main"><pFeature>Ip</pFeature><pFeature>Enable</pFeature>
  <pFeature>Offset</pFeature></Category>
<Port Name="Device"/>)" + integer("Ip", "IPV4Address") + integer("Mac", "MACAddress") +
    integer("Mask", "HexNumber") + integer("Offset", "Linear", "<pIsAvailable>Enable</pIsAvailable>") +
    reg("IpReg", 0) + reg("MacReg", 8, 8) + reg("MaskReg", 16) + reg("EnableReg", 20) +
    reg("OffsetReg", 40) + reg("ModeReg", 48) + R"(
<Boolean Name="Enable"><pValue>EnableReg</pValue></Boolean>
<Float Name="Gain"><pValue>GainReg</pValue><Min>0</Min><Max>10</Max></Float>
<FloatReg Name="GainReg"><Address>24</Address><Length>8</Length><AccessMode>RW</AccessMode>
  <pPort>Device</pPort><Endianess>LittleEndian</Endianess></FloatReg>
<Register Name="Raw"><Address>32</Address><Length>4</Length><AccessMode>RW</AccessMode>
  <pPort>Device</pPort></Register>
<Enumeration Name="Mode"><EnumEntry Name="A"><Value>0</Value></EnumEntry>
  <EnumEntry Name="Bee"><Value>1</Value></EnumEntry><pValue>ModeReg</pValue></Enumeration>
</RegisterDescription>
)";

// The module port: register bytes straight from the memory.
struct memory_module_port final : module_port {
    explicit memory_module_port(memory_port &m) : memory(m) {}
    GC_ERROR read(uint64_t address, void *buffer, size_t *size) override {
        memory.Read(buffer, static_cast<int64_t>(address), static_cast<int64_t>(*size));
        return GC_ERR_SUCCESS;
    }
    GC_ERROR write(uint64_t address, const void *buffer, size_t *size) override {
        memory.Write(buffer, static_cast<int64_t>(address), static_cast<int64_t>(*size));
        return GC_ERR_SUCCESS;
    }
    GC_ERROR url(uint32_t, char *, size_t *) override { return GC_ERR_NOT_IMPLEMENTED; }
    memory_port &memory;
};

std::vector<std::string> g_called;
void note_offset(void *) { g_called.push_back("Offset"); }
void note_raw(void *) { g_called.push_back("Raw"); }

class FeatureCalls : public testing::Test {
protected:
    memory_port memory{64};
    memory_module_port port{memory};
    std::shared_ptr<CNodeMapRef> map = std::make_shared<CNodeMapRef>();
    feature_calls calls{feature_target{map, &port, {}}};

    void SetUp() override {
        map->_LoadXMLFromString(kXml);
        ASSERT_TRUE(map->_Connect(&memory, "Device"));
    }
    std::string text(const char *name) {
        char buffer[64] = {};
        uint64_t size = sizeof buffer;
        EXPECT_EQ(calls.get_string(name, buffer, &size), GC_ERR_SUCCESS) << name;
        return buffer;
    }
};

TEST_F(FeatureCalls, TextFollowsTheRepresentationAndBadTextChangesNothing) {
    const struct { const char *name, *written, *read; uint64_t stored; size_t at, bytes; } cases[] = {
        {"Ip", "192.168.1.2", "192.168.1.2", 0xC0A80102, 0, 4},
        {"Mac", "00:1a:2B:3c:4D:5e", "00:1A:2B:3C:4D:5E", 0x001A2B3C4D5E, 8, 8},
        {"Mask", "ff", "0xFF", 255, 16, 4},
        {"Mask", "0x1f", "0x1F", 31, 16, 4},
        {"Enable", "TRUE", "true", 1, 20, 4},
        {"Enable", "False", "false", 0, 20, 4},
        {"Enable", "2", "true", 1, 20, 4},
        {"Mode", "Bee", "Bee", 1, 48, 4},
        {"Raw", "0A 0B0C0D", "0A0B0C0D", 0x0D0C0B0A, 32, 4},
    };
    for (const auto &c : cases) {
        ASSERT_EQ(calls.set_string(c.name, c.written), GC_ERR_SUCCESS) << c.written;
        EXPECT_EQ(memory.get_le(c.at, c.bytes), c.stored) << c.written;
        EXPECT_EQ(text(c.name), c.read);
    }
    ASSERT_EQ(calls.set_string("Gain", "2.5"), GC_ERR_SUCCESS);
    EXPECT_EQ(text("Gain"), "2.5");

    const std::vector<uint8_t> before = memory.bytes;
    for (const auto &[name, bad] : std::vector<std::pair<const char *, const char *>>{
             {"Ip", "1.2.3"}, {"Ip", "256.1.1.1"}, {"Mac", "1:2:3:4:5"}, {"Mask", "0x"},
             {"Enable", "maybe"}, {"Gain", "2,5"}, {"Raw", "0A0B"}, {"Raw", "0G0B0C0D"},
             {"Mode", "C"}})
        EXPECT_EQ(calls.set_string(name, bad), KV_ERR_EXCEPTION) << bad;
    EXPECT_EQ(memory.bytes, before);
}

TEST_F(FeatureCalls, InfoRegistersAndCallbacksAlongTheLinks) {
    int64_t value = -1, low = -1, high = -1, inc = -1;
    ASSERT_EQ(calls.set_string("Mode", "Bee"), GC_ERR_SUCCESS);
    ASSERT_EQ(calls.get_integer_info("Mode", &value, &low, &high, &inc), GC_ERR_SUCCESS);
    EXPECT_EQ(std::vector<int64_t>({value, low, high}), std::vector<int64_t>({1, 0, 0}));
    double gain = -1, step = 0;
    ASSERT_EQ(calls.get_float_info("Gain", &gain, nullptr, nullptr, &step), GC_ERR_SUCCESS);
    EXPECT_EQ(step, 0.01);

    void *offset = nullptr, *raw = nullptr;
    ASSERT_EQ(calls.node_register("Offset", note_offset, &offset), GC_ERR_SUCCESS);
    ASSERT_EQ(calls.node_register("Offset", note_offset, &offset), GC_ERR_SUCCESS);
    ASSERT_EQ(calls.node_register("Raw", note_raw, &raw), GC_ERR_SUCCESS);
    EXPECT_NE(offset, raw);
    g_called.clear();
    ASSERT_EQ(calls.set_string("Enable", "1"), GC_ERR_SUCCESS);  // Offset's availability
    ASSERT_EQ(calls.set_integer("Mask", 3), GC_ERR_SUCCESS);
    ASSERT_EQ(calls.set_integer("Offset", 3), GC_ERR_SUCCESS);
    const uint8_t bytes[4] = {1, 2, 3, 4};
    ASSERT_EQ(calls.set_register("Raw", bytes, 4), GC_ERR_SUCCESS);
    EXPECT_EQ(g_called, (std::vector<std::string>{"Offset", "Offset", "Raw"}));
    EXPECT_EQ(memory.get_le(32, 4), 0x04030201u);
}

TEST_F(FeatureCalls, SettingsFilesSetBooleansToo) {
    ASSERT_EQ(calls.set_string("Enable", "true"), GC_ERR_SUCCESS);
    ASSERT_EQ(calls.set_string("Ip", "10.0.0.1"), GC_ERR_SUCCESS);
    const std::string path = "/tmp/pelorin-feature-calls-" + std::to_string(getpid()) + ".json";
    feature_calls_access features(calls);
    ASSERT_EQ(save_settings(features, path), GC_ERR_SUCCESS);
    std::string saved;
    std::getline(std::ifstream(path), saved);
    EXPECT_EQ(saved, R"({"saver":"lumora_1_0","Ip":167772161,"Enable":1,"Offset":0})");
    ASSERT_EQ(calls.set_string("Enable", "false"), GC_ERR_SUCCESS);
    std::vector<settings_record> records;
    ASSERT_EQ(load_settings(features, path, &records), GC_ERR_SUCCESS);
    std::remove(path.c_str());
    EXPECT_EQ(text("Enable"), "true");
    for (const settings_record &record : records) EXPECT_EQ(record.result, 0) << record.key;
}

}  // namespace
