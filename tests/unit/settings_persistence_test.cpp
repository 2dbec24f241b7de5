// Settings files through a node map over an in-memory port: the exact text a
// save writes, round trips of every kind of feature, the members a load
// treats specially, the second pass, the float tolerance, the record limit,
// members cut by the read buffer, every bad file refused with a code, and
// hostile files: values the features refuse, cuts at every byte, 20 MB of
// members, deep nesting and NUL bytes.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "features/settings_persistence.h"
#include "memory_port.h"
#include "nodemap/node_map.h"

using pelorin::features::load_settings;
using pelorin::features::node_map_features;
using pelorin::features::parse_settings_member;
using pelorin::features::save_settings;
using pelorin::features::settings_record;
using pelorin::testing_support::memory_port;

namespace {

std::string int_reg(const std::string &name, int address, const char *access = "RW") {
    return "<IntReg Name=\"" + name + "\"><Address>" + std::to_string(address) +
           "</Address><Length>4</Length><AccessMode>" + access +
           "</AccessMode><pPort>Device</pPort><Sign>Unsigned</Sign>"
           "<Endianess>LittleEndian</Endianess></IntReg>\n";
}

std::string description(const std::string &body) {
    return R"(<?xml version="1.0" encoding="utf-8"?>
<RegisterDescription ModelName="SettingsTest" VendorName="Pelorin" StandardNameSpace="None"
    SchemaMajorVersion="1" SchemaMinorVersion="1" SchemaSubMinorVersion="0"
    MajorVersion="1" MinorVersion="0" SubMinorVersion="0"
    ProductGuid="5b0c4c4e-1f1a-4c55-9d2e-000000000011"
    VersionGuid="5b0c4c4e-1f1a-4c55-9d2e-000000000012"
    xmlns="http://www.genicam.org/GenApi/Version_1_1">
  <Port Name="Device"/>
)" + body + "</RegisterDescription>\n";
}

// OffsetX is available only while OffsetEnable is set, and is listed before
// it. AcquisitionStart, DeviceModelName (read-only), everything in the
// invisible category and the nodes outside any category are never saved.
std::string camera() {
    return description(R"(
  <Category Name="Root"><pFeature>ImageFormat</pFeature><pFeature>Acquisition</pFeature>
    <pFeature>DeviceInfo</pFeature><pFeature>Hidden</pFeature></Category>
  <Category Name="ImageFormat"><pFeature>Width</pFeature><pFeature>PixelFormat</pFeature>
    <pFeature>ReverseX</pFeature><pFeature>Region</pFeature></Category>
  <Category Name="Region"><pFeature>OffsetX</pFeature><pFeature>OffsetEnable</pFeature></Category>
  <Category Name="Acquisition"><pFeature>ExposureTime</pFeature><pFeature>DeviceUserID</pFeature>
    <pFeature>AcquisitionStart</pFeature></Category>
  <Category Name="DeviceInfo"><pFeature>DeviceModelName</pFeature></Category>
  <Category Name="Hidden"><Visibility>Invisible</Visibility><pFeature>Secret</pFeature></Category>
  <Integer Name="Width"><pValue>WidthReg</pValue><Min>16</Min><Max>4096</Max><Inc>16</Inc></Integer>
  <Integer Name="OffsetX"><pIsAvailable>OffsetEnableReg</pIsAvailable><pValue>OffsetXReg</pValue>
  </Integer>
  <Boolean Name="OffsetEnable"><pValue>OffsetEnableReg</pValue><OnValue>1</OnValue>
    <OffValue>0</OffValue></Boolean>
  <Boolean Name="ReverseX"><pValue>ReverseXReg</pValue><OnValue>1</OnValue><OffValue>0</OffValue>
  </Boolean>
  <Float Name="ExposureTime"><pValue>ExposureReg</pValue><Min>10</Min><Max>1000000</Max></Float>
  <FloatReg Name="ExposureReg"><Address>0x8</Address><Length>8</Length><AccessMode>RW</AccessMode>
    <pPort>Device</pPort><Endianess>LittleEndian</Endianess></FloatReg>
  <StringReg Name="DeviceUserID"><Address>0x20</Address><Length>16</Length>
    <AccessMode>RW</AccessMode><pPort>Device</pPort></StringReg>
  <StringReg Name="DeviceModelName"><Address>0x30</Address><Length>16</Length>
    <AccessMode>RO</AccessMode><pPort>Device</pPort></StringReg>
  <Command Name="AcquisitionStart"><pValue>AcquisitionStartReg</pValue>
    <CommandValue>1</CommandValue></Command>
  <Enumeration Name="PixelFormat">
    <EnumEntry Name="Mono8"><Value>0x01080001</Value></EnumEntry>
    <EnumEntry Name="Mono16"><Value>0x01100007</Value></EnumEntry>
    <pValue>PixelFormatReg</pValue>
  </Enumeration>
  <Integer Name="ConnectionConfig"><pValue>ConnectionConfigReg</pValue></Integer>
  <Integer Name="Counter"><pValue>CounterReg</pValue></Integer>
  <Integer Name="Secret"><pValue>SecretReg</pValue></Integer>
)" + int_reg("WidthReg", 0x00) +
                       int_reg("OffsetXReg", 0x04) + int_reg("ReverseXReg", 0x10) +
                       int_reg("OffsetEnableReg", 0x14) + int_reg("AcquisitionStartReg", 0x18) +
                       int_reg("ConnectionConfigReg", 0x1C) + int_reg("PixelFormatReg", 0x40) +
                       int_reg("CounterReg", 0x44) + int_reg("SecretReg", 0x48));
}

const char *const kCameraFile =
    R"({"saver":"lumora_1_0","Width":1024,"PixelFormat":"Mono16","ReverseX":1,"OffsetX":32,)"
    R"("OffsetEnable":1,"ExposureTime":2500.000000,"DeviceUserID":"cam-7"})";

struct module_map {
    explicit module_map(const std::string &xml = camera()) : port(0x100), features(map) {
        port.put_le(0x00, 1024, 4);        // Width
        port.put_le(0x04, 32, 4);          // OffsetX
        port.put_double(0x08, 2500.0);     // ExposureTime
        port.put_le(0x10, 1, 4);           // ReverseX
        port.put_le(0x14, 1, 4);           // OffsetEnable
        port.put_le(0x1C, 0x40048, 4);     // ConnectionConfig
        port.put_text(0x20, "cam-7");      // DeviceUserID
        port.put_text(0x30, "PelorinCam"); // DeviceModelName
        port.put_le(0x40, 0x01100007, 4);  // PixelFormat Mono16
        map._LoadXMLFromString(xml);
        EXPECT_TRUE(map._Connect(&port, "Device"));
    }
    memory_port port;
    CNodeMapRef map;
    node_map_features features;
};

std::string temp_path(const std::string &name) {
    return ::testing::TempDir() + "settings_persistence_" + std::to_string(getpid()) + "_" + name;
}

void write_file(const std::string &path, const std::string &data) {
    std::ofstream(path, std::ios::binary) << data;
}

std::string read_file(const std::string &path) {
    std::ostringstream data;
    data << std::ifstream(path, std::ios::binary).rdbuf();
    return data.str();
}

std::string key(const settings_record &record) { return record.key; }

}  // namespace

TEST(SettingsPersistence, SaveWritesTheReadWriteFeaturesOfEachCategoryOnOneLine) {
    module_map m;
    const std::string path = temp_path("camera.json");
    EXPECT_EQ(save_settings(m.features, path), 0);
    EXPECT_EQ(read_file(path), kCameraFile);

    // Only read-only features under the top-level categories.
    module_map read_only(description(R"(
  <Category Name="Root"><pFeature>Info</pFeature></Category>
  <Category Name="Info"><pFeature>DeviceModelName</pFeature><pFeature>Id</pFeature></Category>
  <StringReg Name="DeviceModelName"><Address>0x30</Address><Length>16</Length>
    <AccessMode>RO</AccessMode><pPort>Device</pPort></StringReg>
  <Integer Name="Id"><pValue>IdReg</pValue></Integer>
)" + int_reg("IdReg", 0, "RO")));
    EXPECT_EQ(save_settings(read_only.features, path), 0);
    EXPECT_EQ(read_file(path), R"({"saver":"lumora_1_0"})");
    std::remove(path.c_str());
}

TEST(SettingsPersistence, SaveStopsAtTheFirstFailureAndStillClosesTheObject) {
    const std::string path = temp_path("failure.json");
    // A writable top-level feature that is not a category ends the walk.
    module_map loose(description(R"(
  <Category Name="Root"><pFeature>Format</pFeature><pFeature>Loose</pFeature>
    <pFeature>Later</pFeature></Category>
  <Category Name="Format"><pFeature>Width</pFeature></Category>
  <Category Name="Later"><pFeature>Other</pFeature></Category>
  <Integer Name="Width"><pValue>WidthReg</pValue></Integer>
  <Integer Name="Loose"><pValue>WidthReg</pValue></Integer>
  <Integer Name="Other"><pValue>WidthReg</pValue></Integer>
)" + int_reg("WidthReg", 0)));
    EXPECT_EQ(save_settings(loose.features, path), KV_ERR_FEATURE_NOT_FOUND);
    EXPECT_EQ(read_file(path), R"({"saver":"lumora_1_0","Width":1024})");

    // A category of more than 64 nodes.
    std::string crowded = R"(<Category Name="Root"><pFeature>Many</pFeature></Category>
  <Category Name="Many">)";
    std::string nodes;
    for (int i = 0; i < 65; ++i) {
        crowded += "<pFeature>F" + std::to_string(i) + "</pFeature>";
        nodes += "<Integer Name=\"F" + std::to_string(i) + "\"><pValue>WidthReg</pValue></Integer>\n";
    }
    module_map many(description(crowded + "</Category>\n" + nodes + int_reg("WidthReg", 0)));
    EXPECT_EQ(save_settings(many.features, path), GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(read_file(path), R"({"saver":"lumora_1_0"})");

    // No node map, no file; a path that cannot be created.
    CNodeMapRef empty;
    node_map_features nothing(empty);
    std::remove(path.c_str());
    EXPECT_EQ(save_settings(nothing, path), GC_ERR_NOT_AVAILABLE);
    EXPECT_FALSE(std::ifstream(path).good());
    EXPECT_EQ(save_settings(loose.features, ""), GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(save_settings(loose.features, temp_path("no_such_dir/x.json")), GC_ERR_IO);
}

TEST(SettingsPersistence, LoadRestoresEveryKindOfFeatureAndWritesOnlyWhatDiffers) {
    module_map m;
    const std::string path = temp_path("round_trip.json");
    ASSERT_EQ(save_settings(m.features, path), 0);

    m.map.set_integer("Width", 2048);
    m.map.set_enum("PixelFormat", "Mono8");
    m.map.set_boolean("ReverseX", false);
    m.map.set_integer("OffsetX", 48);
    m.map.set_float("ExposureTime", 100.5);
    m.map.set_string("DeviceUserID", "other");

    std::vector<settings_record> records;
    EXPECT_EQ(load_settings(m.features, path, &records), 0);
    EXPECT_EQ(m.map.get_integer("Width"), 1024);
    EXPECT_EQ(m.map.get_enum("PixelFormat"), "Mono16");
    EXPECT_TRUE(m.map.get_boolean("ReverseX"));
    EXPECT_EQ(m.map.get_integer("OffsetX"), 32);
    EXPECT_DOUBLE_EQ(m.map.get_float("ExposureTime"), 2500.0);
    EXPECT_EQ(m.map.get_string("DeviceUserID"), "cam-7");

    ASSERT_EQ(records.size(), 7u);
    EXPECT_EQ(key(records[0]), "Width");
    EXPECT_EQ(records[0].type, 2u);
    EXPECT_EQ(int64_t{records[0].value.i}, 1024);
    EXPECT_EQ(key(records[1]), "PixelFormat");
    EXPECT_EQ(records[1].type, 6u);
    EXPECT_STREQ(records[1].value.s, "Mono16");
    EXPECT_EQ(records[5].type, 5u);
    EXPECT_DOUBLE_EQ(double{records[5].value.f}, 2500.0);
    for (const settings_record &record : records) EXPECT_EQ(record.result, 0) << record.key;

    // The device already holds the file: nothing is written.
    const int writes = m.port.writes;
    EXPECT_EQ(load_settings(m.features, path, nullptr), 0);
    EXPECT_EQ(m.port.writes, writes);
    std::remove(path.c_str());
}

TEST(SettingsPersistence, CommandsRunConnectionConfigStaysAndFailuresAreRecorded) {
    module_map m;
    const std::string path = temp_path("special.json");
    write_file(path, R"({"saver":"tavimoor_1_0","ConnectionConfig":7,)"
                     R"("AcquisitionStart":"tavimoor_command","NoSuchFeature":5,)"
                     R"("DeviceModelName":"Other","ExposureTime":3,"Width":"wide"})");
    std::vector<settings_record> records;
    EXPECT_EQ(load_settings(m.features, path, &records), 0);
    EXPECT_EQ(m.port.get_le(0x18, 4), 1u);        // AcquisitionStart executed
    EXPECT_EQ(m.port.get_le(0x1C, 4), 0x40048u);  // ConnectionConfig untouched
    ASSERT_EQ(records.size(), 6u);
    EXPECT_EQ(records[0].result, 0);
    EXPECT_EQ(records[1].result, 0);
    EXPECT_EQ(records[2].result, KV_ERR_NODE_NOT_FOUND);
    EXPECT_EQ(records[3].result, KV_ERR_NOT_WRITABLE);
    EXPECT_EQ(records[4].result, KV_ERR_NOT_INTEGER);  // an integer member for a float
    EXPECT_EQ(records[5].result, KV_ERR_NOT_STRING);
    EXPECT_EQ(m.map.get_string("DeviceModelName"), "PelorinCam");

    // What follows the closing brace is not read.
    write_file(path, R"({"saver":"lumora_1_0","AcquisitionStart":"lumora_command"})"
                     "\n\"Width\":64}");
    m.port.put_le(0x18, 0, 4);
    EXPECT_EQ(load_settings(m.features, path, &records), 0);
    EXPECT_EQ(m.port.get_le(0x18, 4), 1u);
    EXPECT_EQ(records.size(), 1u);
    EXPECT_EQ(m.map.get_integer("Width"), 1024);
    std::remove(path.c_str());
}

TEST(SettingsPersistence, SecondPassSetsFeaturesThatDependOnLaterOnes) {
    module_map m;
    const std::string path = temp_path("dependent.json");
    ASSERT_EQ(save_settings(m.features, path), 0);
    m.map.set_integer("OffsetX", 48);
    m.map.set_boolean("OffsetEnable", false);  // OffsetX is no longer available

    std::vector<settings_record> records;
    EXPECT_EQ(load_settings(m.features, path, &records), 0);
    EXPECT_TRUE(m.map.get_boolean("OffsetEnable"));
    EXPECT_EQ(m.map.get_integer("OffsetX"), 32);
    ASSERT_EQ(records.size(), 7u);
    EXPECT_EQ(key(records[3]), "OffsetX");
    EXPECT_EQ(records[3].result, 0);
    std::remove(path.c_str());
}

TEST(SettingsPersistence, FloatsWithinTheToleranceAreNotWritten) {
    module_map m;
    const std::string path = temp_path("float.json");
    write_file(path, R"({"saver":"lumora_1_0","ExposureTime":1000.000000})");
    m.port.put_double(0x08, 1000.0000001);
    int writes = m.port.writes;
    EXPECT_EQ(load_settings(m.features, path, nullptr), 0);
    EXPECT_EQ(m.port.writes, writes);
    EXPECT_DOUBLE_EQ(m.port.get_double(0x08), 1000.0000001);

    m.port.put_double(0x08, 1000.00002);
    writes = m.port.writes;
    EXPECT_EQ(load_settings(m.features, path, nullptr), 0);
    EXPECT_GT(m.port.writes, writes);
    EXPECT_DOUBLE_EQ(m.port.get_double(0x08), 1000.0);
    std::remove(path.c_str());
}

TEST(SettingsPersistence, AtMost1024MembersAreApplied) {
    module_map m;
    const std::string path = temp_path("many.json");
    std::string text = R"({"saver":"lumora_1_0")";
    for (int i = 1; i <= 1100; ++i) text += ",\"Counter\":" + std::to_string(i);
    write_file(path, text + "}");
    std::vector<settings_record> records;
    EXPECT_EQ(load_settings(m.features, path, &records), 0);
    ASSERT_EQ(records.size(), 1024u);
    for (size_t i = 0; i < records.size(); ++i)
        ASSERT_EQ(int64_t{records[i].value.i}, int64_t(i + 1));
    EXPECT_EQ(m.map.get_integer("Counter"), 1024);
    std::remove(path.c_str());
}

TEST(SettingsPersistence, MembersCutByTheReadBufferAreReadWhole) {
    module_map m;
    const std::string path = temp_path("boundary.json");
    const std::string head = R"({"saver":"lumora_1_0")";
    const std::string tail = R"(,"DeviceUserID":"boundary-17" , "ExposureTime" : 1234.5 })";
    // Blanks before the comma move the 2048-byte boundary across every byte
    // of the last two members.
    for (size_t cut = 1; cut < tail.size(); ++cut) {
        write_file(path, head + std::string(2048 - head.size() - cut, ' ') + tail);
        m.map.set_string("DeviceUserID", "x");
        m.map.set_float("ExposureTime", 10);
        std::vector<settings_record> records;
        ASSERT_EQ(load_settings(m.features, path, &records), 0) << cut;
        ASSERT_EQ(records.size(), 2u) << cut;
        EXPECT_EQ(m.map.get_string("DeviceUserID"), "boundary-17") << cut;
        EXPECT_DOUBLE_EQ(m.map.get_float("ExposureTime"), 1234.5) << cut;
    }
    std::remove(path.c_str());
}

TEST(SettingsPersistence, FilesThatAreNotSettingsFilesAreRefused) {
    module_map m;
    const std::string path = temp_path("bad.json");
    const auto load_text = [&](const std::string &text) {
        write_file(path, text);
        std::vector<settings_record> records(1);
        const int result = load_settings(m.features, path, &records);
        EXPECT_TRUE(records.empty()) << text;
        return result;
    };
    EXPECT_EQ(load_text(R"({"name":"lumora_1_0","Width":16})"), KV_ERR_NOT_CARD_FILE);
    EXPECT_EQ(load_text(R"({"saver":"lumora_2_0","Width":16})"), KV_ERR_NOT_CARD_FILE);
    EXPECT_EQ(load_text(R"({"saver":1,"Width":16})"), KV_ERR_NOT_CARD_FILE);
    EXPECT_EQ(load_text(""), KV_ERR_NOT_CARD_FILE);
    EXPECT_EQ(load_text(R"({"saver":"lumora_1_0","Width":16a})"), KV_ERR_NOT_CARD_FILE);
    EXPECT_EQ(load_text(R"({"saver":"lumora_1_0","Width":32)"), KV_ERR_NOT_CARD_FILE);
    EXPECT_EQ(load_text(R"({"saver":"lumora_1_0")" + std::string(3000, ' ') + "}"),
              KV_ERR_NOT_CARD_FILE);
    EXPECT_EQ(m.map.get_integer("Width"), 1024);  // no refused file changed anything

    // A double quote in a string value is saved unchanged; such a file does
    // not load.
    m.map.set_string("DeviceUserID", R"(a"b)");
    EXPECT_EQ(save_settings(m.features, path), 0);
    EXPECT_NE(read_file(path).find(R"("DeviceUserID":"a"b")"), std::string::npos);
    EXPECT_EQ(load_settings(m.features, path, nullptr), KV_ERR_NOT_CARD_FILE);

    EXPECT_EQ(load_settings(m.features, "", nullptr), GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(load_settings(m.features, std::string("a\0b", 3), nullptr),
              GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(load_settings(m.features, temp_path("missing.json"), nullptr), GC_ERR_IO);
    EXPECT_EQ(load_settings(m.features, ::testing::TempDir(), nullptr), GC_ERR_IO);  // a directory
    std::remove(path.c_str());
}

TEST(SettingsPersistence, TokenizerReadsOneMemberOrSaysWhyNot) {
    settings_record r{};
    EXPECT_EQ(parse_settings_member(",\"Width\":1024,\"H\":1", 19, r), 14);
    EXPECT_EQ(key(r), "Width");
    EXPECT_EQ(r.type, 2u);
    EXPECT_EQ(int64_t{r.value.i}, 1024);

    const std::string spaced = "  \"Gain\" : -3.25 \r\n\t}";
    EXPECT_EQ(parse_settings_member(spaced.data(), spaced.size(), r), int(spaced.size()));
    EXPECT_EQ(r.type, 5u);
    EXPECT_DOUBLE_EQ(double{r.value.f}, -3.25);

    const std::string text = "\"Name\":\"a b:,}\",";
    EXPECT_EQ(parse_settings_member(text.data(), text.size(), r), int(text.size()));
    EXPECT_EQ(r.type, 6u);
    EXPECT_STREQ(r.value.s, "a b:,}");

    // Integers are taken as 32-bit signed values.
    const std::string wide = "\"V\":3000000000}";
    EXPECT_EQ(parse_settings_member(wide.data(), wide.size(), r), int(wide.size()));
    EXPECT_EQ(int64_t{r.value.i}, -1294967296);

    // Every prefix of a member is incomplete, not an error.
    for (size_t n = 0; n < text.size(); ++n)
        EXPECT_EQ(parse_settings_member(text.data(), n, r), 0) << n;
    EXPECT_EQ(parse_settings_member(nullptr, 0, r), 0);

    const std::string long_key = "\"" + std::string(255, 'k') + "\":1,";
    EXPECT_EQ(parse_settings_member(long_key.data(), long_key.size(), r), int(long_key.size()));
    for (const std::string &bad :
         {"\"" + std::string(256, 'k') + "\":1,", "\"K\":\"" + std::string(256, 'v') + "\",",
          std::string("\"K\":\"a\0b\",", 10), std::string("\"K\":\"v\"x,"), std::string("\"K\"=1,"),
          std::string("\"K\":1.2.3,"), std::string("\"K\":12x,"), std::string("\"K\":-,"),
          std::string("\"K\":true,"), std::string("\"K\":1e5,"), std::string("\"K\":+1,")}) {
        EXPECT_EQ(parse_settings_member(bad.data(), bad.size(), r), -1) << bad;
    }
    EXPECT_EQ(parse_settings_member(nullptr, 4, r), -1);

    // Floats beyond a double's range read as atof reads them: too small is
    // zero (not infinite), too large infinite.
    const std::string zeros(400, '0');
    for (const auto &[number, value] :
         {std::pair{"0." + zeros + "1", 0.0}, {"-." + zeros + "1", -0.0},
          {"00" + zeros + ".0" + zeros + "1", 0.0}, {"1" + zeros + ".5", HUGE_VAL},
          {"-01" + zeros + ".0", -HUGE_VAL}}) {
        const std::string member = "\"F\":" + number + ",";
        ASSERT_EQ(parse_settings_member(member.data(), member.size(), r), int(member.size()));
        EXPECT_EQ(double{r.value.f}, value) << number;
        EXPECT_EQ(std::signbit(double{r.value.f}), std::signbit(value)) << number;
    }
}

TEST(SettingsPersistence, MembersThatCannotBeAppliedLeaveTheirFeatureAndTheLoadGoesOn) {
    module_map m;
    const std::string path = temp_path("hostile_values.json");
    // Wrong kinds, values the features refuse (one that overflows a double),
    // names that are no feature (not UTF-8 either), and text that is not
    // UTF-8, which a string feature takes byte for byte.
    const std::string not_utf8 = "\xc3\x28\xff";
    write_file(path, "{\"saver\":\"lumora_1_0\",\"Width\":16.5,\"DeviceUserID\":7,"
                     "\"PixelFormat\":17301505,\"Width\":8192,\"Width\":1000,\"Width\":-16,"
                     "\"Width\":99999999999999999999,\"ExposureTime\":5.0,"
                     "\"ExposureTime\":1" + std::string(400, '0') + ".5,"
                     "\"PixelFormat\":\"Mono12\",\"PixelFormat\":\"Mono\xff\","
                     "\"\xff\xfeWidth\":32,\"Wi\xc3\x28th\":32,"
                     "\"DeviceUserID\":\"much-too-long-for-16\",\"DeviceUserID\":\"" + not_utf8 +
                     "\"}");
    std::vector<settings_record> records;
    EXPECT_EQ(load_settings(m.features, path, &records), 0);
    EXPECT_EQ(m.map.get_integer("Width"), 1024);
    EXPECT_EQ(m.map.get_enum("PixelFormat"), "Mono16");
    EXPECT_DOUBLE_EQ(m.map.get_float("ExposureTime"), 2500.0);
    EXPECT_EQ(m.map.get_string("DeviceUserID"), not_utf8);
    ASSERT_EQ(records.size(), 15u);
    for (size_t i = 0; i + 1 < records.size(); ++i) EXPECT_NE(records[i].result, 0) << i;
    EXPECT_EQ(key(records[11]), "\xff\xfeWidth");
    EXPECT_EQ(records[11].result, KV_ERR_NODE_NOT_FOUND);
    EXPECT_EQ(records[14].result, 0);
    std::remove(path.c_str());
}

TEST(SettingsPersistence, TruncatedAndHugeFiles) {
    module_map m;
    const std::string path = temp_path("truncated.json");
    // Cut at every byte: only a file that ends between members loads, and a
    // cut member is never applied in part.
    const std::string whole =
        R"({"saver":"lumora_1_0","Counter":123456,"DeviceUserID":"cam-long","Width":2048})";
    for (size_t cut = 0; cut < whole.size(); ++cut) {
        m.map.set_integer("Counter", 7);
        m.map.set_string("DeviceUserID", "before");
        m.map.set_integer("Width", 1024);
        write_file(path, whole.substr(0, cut));
        const bool between = cut > 0 && whole[cut - 1] == ',';
        EXPECT_EQ(load_settings(m.features, path, nullptr), between ? 0 : KV_ERR_NOT_CARD_FILE)
            << cut;
        const int64_t counter = m.map.get_integer("Counter");
        EXPECT_TRUE(counter == 7 || counter == 123456) << cut << ": " << counter;
        const std::string id = m.map.get_string("DeviceUserID");
        EXPECT_TRUE(id == "before" || id == "cam-long") << cut << ": " << id;
        EXPECT_EQ(m.map.get_integer("Width"), 1024) << cut;
    }

    // 20 MB of members and then bytes that are no member: the first 1024
    // members are applied and the rest is not read.
    std::string huge = R"({"saver":"lumora_1_0")";
    huge.reserve(20u << 20);
    for (int i = 1; huge.size() < (20u << 20); ++i) huge += ",\"Counter\":" + std::to_string(i);
    write_file(path, huge + ",\"Counter\":!!}");
    std::vector<settings_record> records;
    EXPECT_EQ(load_settings(m.features, path, &records), 0);
    EXPECT_EQ(records.size(), 1024u);
    EXPECT_EQ(m.map.get_integer("Counter"), 1024);
    // 20 MB inside one member, and 20 MB of blanks before the first one.
    write_file(path, R"({"saver":"lumora_1_0","DeviceUserID":")" + std::string(20u << 20, 'x') + "\"}");
    EXPECT_EQ(load_settings(m.features, path, &records), KV_ERR_NOT_CARD_FILE);
    write_file(path, std::string(20u << 20, ' ') + R"({"saver":"lumora_1_0","Width":2048})");
    EXPECT_EQ(load_settings(m.features, path, &records), KV_ERR_NOT_CARD_FILE);
    EXPECT_EQ(m.map.get_integer("Width"), 1024);
    std::remove(path.c_str());
}

TEST(SettingsPersistence, NestingAndNulBytesAreRefusedWithoutApplyingTheirMember) {
    module_map m;
    const std::string path = temp_path("structure.json");
    const auto load_text = [&](const std::string &text) {
        write_file(path, text);
        return load_settings(m.features, path, nullptr);
    };
    // Objects nested 100000 deep, after the saver and in its place.
    std::string deep = R"({"saver":"lumora_1_0","Width":2048,"a":)";
    std::string deep_saver = "{\"saver\":";
    for (int i = 0; i < 100000; ++i) {
        deep += "{\"a\":";
        deep_saver += "{\"saver\":";
    }
    EXPECT_EQ(load_text(deep + "1" + std::string(100001, '}')), KV_ERR_NOT_CARD_FILE);
    EXPECT_EQ(m.map.get_integer("Width"), 2048);  // applied before the nesting
    m.map.set_integer("Width", 1024);
    EXPECT_EQ(load_text(deep_saver + "\"lumora_1_0\"" + std::string(100001, '}')),
              KV_ERR_NOT_CARD_FILE);
    EXPECT_EQ(load_text(R"({"saver":["lumora_1_0"],"Width":2048})"), KV_ERR_NOT_CARD_FILE);
    // A NUL inside a key, a text or a number ends nothing early.
    using namespace std::string_literals;
    EXPECT_EQ(load_text("{\"saver\":\"lumora_1_0\",\"Width\0x\":2048}"s), KV_ERR_NOT_CARD_FILE);
    EXPECT_EQ(load_text("{\"saver\":\"lumora_1_0\",\"DeviceUserID\":\"ab\0cd\"}"s),
              KV_ERR_NOT_CARD_FILE);
    EXPECT_EQ(load_text("{\"saver\":\"lumora_1_0\",\"Width\":20\0" "48}"s), KV_ERR_NOT_CARD_FILE);
    EXPECT_EQ(load_text("{\"saver\":\"lumora\0_1_0\",\"Width\":2048}"s), KV_ERR_NOT_CARD_FILE);
    EXPECT_EQ(m.map.get_integer("Width"), 1024);
    EXPECT_EQ(m.map.get_string("DeviceUserID"), "cam-7");
    std::remove(path.c_str());
}
