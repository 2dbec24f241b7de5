// The node map over an in-memory port: every kind of node read and written
// through the port byte for byte, setters refused without touching the port,
// and every failure (description, archive, node, port) thrown as
// genapi_error.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "memory_port.h"
#include "nodemap/node_map.h"
#include "nodemap/zip_directory.h"
#include "stored_zip.h"

using pelorin::nodemap::node_kind;
using pelorin::nodemap::node_visibility;
using pelorin::nodemap::number_representation;
using pelorin::testing_support::memory_port;
using pelorin::testing_support::stored_zip;

namespace {

// An unsigned IntReg on the port "Device".
std::string int_reg(const std::string &name, int address, int length, const char *access = "RW",
                    const char *endianess = "LittleEndian") {
    return "<IntReg Name=\"" + name + "\"><Address>" + std::to_string(address) +
           "</Address><Length>" + std::to_string(length) + "</Length><AccessMode>" + access +
           "</AccessMode><pPort>Device</pPort><Sign>Unsigned</Sign><Endianess>" + endianess +
           "</Endianess></IntReg>\n";
}

std::string description(const char *schema_minor = "1") {
    return std::string(R"(<?xml version="1.0" encoding="utf-8"?>
<RegisterDescription ModelName="NodeMapTest" VendorName="Pelorin" StandardNameSpace="None"
    SchemaMajorVersion="1" SchemaMinorVersion=")") +
           schema_minor + R"(" SchemaSubMinorVersion="0"
    MajorVersion="1" MinorVersion="0" SubMinorVersion="0"
    ProductGuid="5b0c4c4e-1f1a-4c55-9d2e-000000000001"
    VersionGuid="5b0c4c4e-1f1a-4c55-9d2e-000000000002"
    xmlns="http://www.genicam.org/GenApi/Version_1_1">
  <Category Name="Root"><pFeature>ImageFormat</pFeature><pFeature>Acquisition</pFeature></Category>
  <Category Name="ImageFormat"><pFeature>Width</pFeature><pFeature>PixelFormat</pFeature></Category>
  <Category Name="Acquisition"><pFeature>ExposureTime</pFeature><pFeature>Gain</pFeature></Category>
  <Integer Name="Width">
    <ToolTip>Width of the image</ToolTip>
    <Description>Width of the image in pixels.</Description>
    <DisplayName>Image Width</DisplayName>
    <pValue>WidthReg</pValue><Min>16</Min><pMax>WidthMax</pMax><Inc>16</Inc>
    <Representation>Linear</Representation>
  </Integer>
  <Integer Name="WidthMax"><Visibility>Invisible</Visibility><pValue>WidthMaxReg</pValue></Integer>
  <Float Name="ExposureTime"><Visibility>Expert</Visibility><pValue>ExposureReg</pValue>
    <Min>10</Min><Max>1000000</Max><Inc>0.5</Inc><Unit>us</Unit>
    <Representation>Logarithmic</Representation></Float>
  <FloatReg Name="ExposureReg"><Address>0x8</Address><Length>8</Length><AccessMode>RW</AccessMode>
    <pPort>Device</pPort><Endianess>LittleEndian</Endianess></FloatReg>
  <Converter Name="Gain"><Visibility>Guru</Visibility><pVariable Name="RAW">GainRaw</pVariable>
    <FormulaTo>FROM*10</FormulaTo><FormulaFrom>TO/10</FormulaFrom>
    <pValue>GainRaw</pValue><Unit>dB</Unit></Converter>
  <Boolean Name="ReverseX"><pValue>ReverseXReg</pValue><OnValue>1</OnValue><OffValue>0</OffValue>
  </Boolean>
  <Command Name="AcquisitionStart"><pValue>AcquisitionStartReg</pValue>
    <CommandValue>1</CommandValue></Command>
  <StringReg Name="DeviceUserID"><Address>0x20</Address><pLength>UserIdLength</pLength>
    <AccessMode>RW</AccessMode><pPort>Device</pPort></StringReg>
  <Integer Name="UserIdLength"><Value>16</Value></Integer>
  <StringReg Name="DeviceModelName"><Address>0x30</Address><Length>16</Length>
    <AccessMode>RO</AccessMode><pPort>Device</pPort></StringReg>
  <Enumeration Name="PixelFormat">
    <EnumEntry Name="Mono8"><Value>0x01080001</Value></EnumEntry>
    <EnumEntry Name="Mono16"><DisplayName>Mono 16</DisplayName><Value>0x01100007</Value></EnumEntry>
    <EnumEntry Name="RGB8"><pIsAvailable>ColorSensor</pIsAvailable><Value>0x02180014</Value>
    </EnumEntry>
    <pValue>PixelFormatReg</pValue>
  </Enumeration>
  <Integer Name="ColorSensor"><Value>0</Value></Integer>
  <Integer Name="SensorTemperature"><pIsImplemented>ColorSensor</pIsImplemented><Value>40</Value>
  </Integer>
  <Register Name="LutData"><Address>0x48</Address><Length>8</Length><AccessMode>RW</AccessMode>
    <pPort>Device</pPort></Register>
  <Port Name="Device"/>
)" + int_reg("WidthReg", 0x00, 4) +
           int_reg("WidthMaxReg", 0x04, 4, "RO", "BigEndian") + int_reg("GainRaw", 0x10, 2) +
           int_reg("ReverseXReg", 0x14, 4) + int_reg("AcquisitionStartReg", 0x18, 4) +
           int_reg("PixelFormatReg", 0x40, 4) + "</RegisterDescription>\n";
}

// The registers as the description lays them out, with known values.
void fill(memory_port &port) {
    port.put_le(0x00, 1024, 4);            // Width
    port.put_le(0x04, 0x00100000, 4);      // WidthMax 4096, big endian
    port.put_double(0x08, 2500.0);         // ExposureTime
    port.put_le(0x10, 52, 2);              // Gain 5.2
    port.put_le(0x14, 1, 4);               // ReverseX
    port.put_text(0x20, "cam-7");          // DeviceUserID
    port.put_text(0x30, "PelorinCam");     // DeviceModelName
    port.put_le(0x40, 0x01100007, 4);      // Mono16
    for (uint8_t i = 0; i < 8; ++i) port.bytes[0x48 + i] = static_cast<uint8_t>(i + 1);
}

struct connected_map {
    explicit connected_map(const std::string &xml = description()) : port(0x100) {
        fill(port);
        map._LoadXMLFromString(xml);
        EXPECT_TRUE(map._Connect(&port, "Device"));
    }
    memory_port port;
    CNodeMapRef map;
};

std::string temp_path(const std::string &name) { return ::testing::TempDir() + "node_map_" + name; }

void write_file(const std::string &path, const std::string &data) {
    std::ofstream(path, std::ios::binary) << data;
}

}  // namespace

TEST(NodeMap, EveryKindOfNodeReadsItsRegisterThroughThePort) {
    connected_map m;
    EXPECT_EQ(m.map.get_integer("Width"), 1024);
    EXPECT_EQ(m.map.get_integer("WidthMax"), 4096);
    EXPECT_DOUBLE_EQ(m.map.get_float("ExposureTime"), 2500.0);
    EXPECT_NEAR(m.map.get_float("Gain"), 5.2, 1e-9);
    EXPECT_TRUE(m.map.get_boolean("ReverseX"));
    EXPECT_EQ(m.map.get_string("DeviceUserID"), "cam-7");
    EXPECT_EQ(m.map.get_string("DeviceModelName"), "PelorinCam");
    EXPECT_EQ(m.map.get_enum("PixelFormat"), "Mono16");
    EXPECT_EQ(m.map.get_enum_value("PixelFormat"), 0x01100007);
    EXPECT_EQ(m.map.get_register("LutData"), (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(m.map.get_register("WidthReg"), (std::vector<uint8_t>{0x00, 0x04, 0, 0}));
    EXPECT_EQ(m.map.get_integer("SensorTemperature"), 40);  // a constant: no port access

    // Nothing is kept: a change behind the map's back shows on the next read.
    m.port.put_le(0x00, 2048, 4);
    m.map.invalidate();
    const int reads = m.port.reads;
    EXPECT_EQ(m.map.get_integer("Width"), 2048);
    EXPECT_GT(m.port.reads, reads);
}

TEST(NodeMap, SettersWriteTheRegisterBytes) {
    connected_map m;
    m.map.set_integer("Width", 640);
    EXPECT_EQ(m.port.get_le(0x00, 4), 640u);
    m.map.set_float("ExposureTime", 12.5);
    EXPECT_EQ(m.port.get_double(0x08), 12.5);
    m.map.set_float("Gain", 3.4);
    EXPECT_EQ(m.port.get_le(0x10, 2), 34u);
    m.map.set_boolean("ReverseX", false);
    EXPECT_EQ(m.port.get_le(0x14, 4), 0u);
    m.map.set_string("DeviceUserID", "left");
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(&m.port.bytes[0x20])), "left");
    m.map.set_enum("PixelFormat", "Mono8");
    EXPECT_EQ(m.port.get_le(0x40, 4), 0x01080001u);
    m.map.set_enum_value("PixelFormat", 0x01100007);
    EXPECT_EQ(m.port.get_le(0x40, 4), 0x01100007u);
    const uint8_t lut[8] = {9, 8, 7, 6, 5, 4, 3, 2};
    m.map.set_register("LutData", lut, sizeof lut);
    EXPECT_EQ(std::vector<uint8_t>(m.port.bytes.begin() + 0x48, m.port.bytes.begin() + 0x50),
              std::vector<uint8_t>(lut, lut + 8));

    m.map.execute("AcquisitionStart");
    EXPECT_EQ(m.port.get_le(0x18, 4), 1u);
    EXPECT_FALSE(m.map.is_done("AcquisitionStart"));
    m.port.put_le(0x18, 0, 4);  // the device finished
    EXPECT_TRUE(m.map.is_done("AcquisitionStart"));
}

TEST(NodeMap, RefusedWritesThrowAndLeaveThePortUntouched) {
    connected_map m;
    const std::vector<uint8_t> before = m.port.bytes;
    const int writes = m.port.writes;
    const uint8_t short_lut[4] = {};
    EXPECT_THROW(m.map.set_integer("Width", 8), genapi_error);      // below Min
    EXPECT_THROW(m.map.set_integer("Width", 4112), genapi_error);   // above pMax
    EXPECT_THROW(m.map.set_integer("Width", 100), genapi_error);    // off the increment
    EXPECT_THROW(m.map.set_integer("WidthMax", 2048), genapi_error);  // read-only register
    EXPECT_THROW(m.map.set_float("ExposureTime", 5.0), genapi_error);
    EXPECT_THROW(m.map.set_float("ExposureTime", 2e6), genapi_error);
    EXPECT_THROW(m.map.set_float("ExposureTime", std::nan("")), genapi_error);
    EXPECT_THROW(m.map.set_string("DeviceModelName", "other"), genapi_error);  // read-only
    EXPECT_THROW(m.map.set_string("DeviceUserID", std::string(17, 'x')), genapi_error);
    EXPECT_THROW(m.map.set_enum("PixelFormat", "RGB8"), genapi_error);  // not available
    EXPECT_THROW(m.map.set_enum("PixelFormat", "Bayer"), genapi_error);
    EXPECT_THROW(m.map.set_enum_value("PixelFormat", 999), genapi_error);
    EXPECT_THROW(m.map.set_register("LutData", short_lut, sizeof short_lut), genapi_error);
    EXPECT_EQ(m.port.writes, writes);
    EXPECT_EQ(m.port.bytes, before);
}

TEST(NodeMap, UnknownNodesAndWrongInterfacesThrowNamingTheNode) {
    connected_map m;
    try {
        m.map.get_integer("NoSuchNode");
        FAIL() << "an unknown node was read";
    } catch (const genapi_error &error) {
        EXPECT_EQ(error.node(), "NoSuchNode");
    }
    EXPECT_FALSE(m.map.has_node("NoSuchNode"));
    EXPECT_THROW(m.map.kind("NoSuchNode"), genapi_error);
    EXPECT_THROW(m.map.get_integer("ExposureTime"), genapi_error);
    EXPECT_THROW(m.map.get_integer("PixelFormat"), genapi_error);
    EXPECT_THROW(m.map.get_float("Width"), genapi_error);
    EXPECT_THROW(m.map.get_string("PixelFormat"), genapi_error);
    EXPECT_THROW(m.map.get_boolean("Width"), genapi_error);
    EXPECT_THROW(m.map.get_enum("Width"), genapi_error);
    EXPECT_THROW(m.map.execute("Width"), genapi_error);
    EXPECT_THROW(m.map.get_register("ExposureTime"), genapi_error);
    EXPECT_THROW(m.map.category_features("Width"), genapi_error);
    EXPECT_THROW(m.map.representation("DeviceUserID"), genapi_error);
}

TEST(NodeMap, PortFailuresAndAMissingPortThrow) {
    connected_map m;
    m.port.fail = true;
    try {
        m.map.get_integer("Width");
        FAIL() << "a failing port was read";
    } catch (const genapi_error &error) {
        EXPECT_NE(std::string(error.what()).find("injected port failure"), std::string::npos)
            << error.what();
    }
    EXPECT_THROW(m.map.set_integer("Width", 640), genapi_error);
    EXPECT_THROW(m.map.get_string("DeviceUserID"), genapi_error);
    EXPECT_THROW(m.map.get_enum("PixelFormat"), genapi_error);
    EXPECT_THROW(m.map.execute("AcquisitionStart"), genapi_error);
    m.port.fail = false;
    EXPECT_EQ(m.map.get_integer("Width"), 1024);

    CNodeMapRef unconnected;
    unconnected._LoadXMLFromString(description());
    EXPECT_THROW(unconnected.get_integer("Width"), genapi_error);
}

TEST(NodeMap, ConnectNeedsAPortNodeOfThatName) {
    memory_port port(0x100), other(0x100);
    CNodeMapRef map("TLSystem");
    EXPECT_FALSE(map._Connect(&port, "Device"));  // nothing loaded yet
    map._LoadXMLFromString(description());
    EXPECT_FALSE(map._Connect(&port, "NoSuchPort"));
    EXPECT_FALSE(map._Connect(&port, "WidthReg"));  // a node, not a port
    EXPECT_FALSE(map._Connect(nullptr, "Device"));
    EXPECT_EQ(map.access_mode("Device"), NA);
    EXPECT_TRUE(map._Connect(&port, "Device"));
    EXPECT_TRUE(map._Connect(&other, "Device"));  // replaces the port
    other.access = RO;
    EXPECT_EQ(map.access_mode("Device"), RO);
    fill(other);
    EXPECT_EQ(map.get_integer("Width"), 1024);
    EXPECT_EQ(port.reads, 0);
}

TEST(NodeMap, DescribesItsNodes) {
    connected_map m;
    const std::vector<std::string> names = m.map.node_names();
    for (const char *name :
         {"Root", "Width", "WidthReg", "Gain", "PixelFormat", "EnumEntry_PixelFormat_RGB8",
          "LutData", "Device"})
        EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
    EXPECT_TRUE(m.map.has_node("Width"));

    EXPECT_EQ(m.map.kind("Width"), node_kind::integer);
    EXPECT_EQ(m.map.kind("WidthReg"), node_kind::integer);
    EXPECT_EQ(m.map.kind("ExposureTime"), node_kind::float_number);
    EXPECT_EQ(m.map.kind("Gain"), node_kind::float_number);
    EXPECT_EQ(m.map.kind("ReverseX"), node_kind::boolean);
    EXPECT_EQ(m.map.kind("AcquisitionStart"), node_kind::command);
    EXPECT_EQ(m.map.kind("DeviceUserID"), node_kind::string);
    EXPECT_EQ(m.map.kind("LutData"), node_kind::register_node);
    EXPECT_EQ(m.map.kind("PixelFormat"), node_kind::enumeration);
    EXPECT_EQ(m.map.kind("EnumEntry_PixelFormat_Mono8"), node_kind::enum_entry);
    EXPECT_EQ(m.map.kind("Root"), node_kind::category);
    EXPECT_EQ(m.map.kind("Device"), node_kind::port);

    EXPECT_EQ(m.map.access_mode("Width"), RW);
    EXPECT_EQ(m.map.access_mode("WidthMax"), RO);
    EXPECT_EQ(m.map.access_mode("DeviceModelName"), RO);
    EXPECT_EQ(m.map.access_mode("SensorTemperature"), NI);
    EXPECT_EQ(m.map.access_mode("Device"), RW);
    EXPECT_EQ(m.map.access_mode("EnumEntry_PixelFormat_RGB8"), NA);

    EXPECT_EQ(m.map.visibility("Width"), node_visibility::beginner);
    EXPECT_EQ(m.map.visibility("ExposureTime"), node_visibility::expert);
    EXPECT_EQ(m.map.visibility("Gain"), node_visibility::guru);
    EXPECT_EQ(m.map.visibility("WidthMax"), node_visibility::invisible);
    EXPECT_EQ(m.map.display_name("Width"), "Image Width");
    EXPECT_EQ(m.map.display_name("WidthMax"), "WidthMax");
    EXPECT_EQ(m.map.display_name("EnumEntry_PixelFormat_Mono16"), "Mono 16");
    EXPECT_EQ(m.map.tooltip("Width"), "Width of the image");
    EXPECT_EQ(m.map.description("Width"), "Width of the image in pixels.");
    EXPECT_EQ(m.map.representation("Width"), number_representation::linear);
    EXPECT_EQ(m.map.representation("ExposureTime"), number_representation::logarithmic);
    EXPECT_EQ(m.map.representation("WidthMax"), number_representation::pure_number);

    EXPECT_EQ(m.map.integer_min("Width"), 16);
    EXPECT_EQ(m.map.integer_max("Width"), 4096);
    EXPECT_EQ(m.map.integer_inc("Width"), 16);
    EXPECT_DOUBLE_EQ(m.map.float_min("ExposureTime"), 10.0);
    EXPECT_DOUBLE_EQ(m.map.float_max("ExposureTime"), 1e6);
    EXPECT_EQ(m.map.float_inc("ExposureTime"), std::optional<double>(0.5));
    EXPECT_EQ(m.map.float_inc("Gain"), std::nullopt);
    EXPECT_EQ(m.map.float_unit("ExposureTime"), "us");
    EXPECT_EQ(m.map.float_unit("Gain"), "dB");
    EXPECT_EQ(m.map.string_max_length("DeviceUserID"), 16);
    EXPECT_EQ(m.map.register_length("LutData"), 8);
    EXPECT_EQ(m.map.category_features("Acquisition"),
              (std::vector<std::string>{"ExposureTime", "Gain"}));

    const auto entries = m.map.enum_entries("PixelFormat");
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].name, "Mono8");
    EXPECT_EQ(entries[0].display_name, "Mono8");
    EXPECT_EQ(entries[0].value, 0x01080001);
    EXPECT_EQ(entries[0].access, RO);
    EXPECT_EQ(entries[1].display_name, "Mono 16");
    EXPECT_EQ(entries[2].name, "RGB8");
    EXPECT_EQ(entries[2].access, NA);
}

TEST(NodeMap, OlderSchemaRegistersKeepTheirByteOrder) {
    // Aravis releases have treated 4-byte registers of schema 1.0 descriptions
    // as big endian; here too the node's Endianess decides.
    connected_map m(description("0"));
    EXPECT_EQ(m.map.get_integer("Width"), 1024);
    EXPECT_EQ(m.map.get_integer("WidthMax"), 4096);
    m.map.set_integer("Width", 2048);
    EXPECT_EQ(m.port.get_le(0x00, 4), 2048u);
}

TEST(NodeMap, UnusableDescriptionsThrow) {
    CNodeMapRef map;
    EXPECT_THROW(map._LoadXMLFromString(""), genapi_error);
    EXPECT_THROW(map._LoadXMLFromString("<RegisterDescription"), genapi_error);
    EXPECT_THROW(map._LoadXMLFromString("<?xml version=\"1.0\"?><Other/>"), genapi_error);
    EXPECT_THROW(map._LoadXMLFromFile(temp_path("missing.xml")), genapi_error);
    EXPECT_FALSE(map.loaded());
    EXPECT_THROW(map.get_integer("Width"), genapi_error);

    const std::string path = temp_path("plain.xml");
    write_file(path, description());
    map._LoadXMLFromFile(path);
    EXPECT_TRUE(map.loaded());
    EXPECT_THROW(map._LoadXMLFromString(description()), genapi_error);  // loaded twice
    std::remove(path.c_str());
}

TEST(NodeMap, ZippedDescriptionsLoadAndBadArchivesThrow) {
    EXPECT_EQ(pelorin::nodemap::zip_crc32("123456789", 9), 0xcbf43926u);

    const std::string zip = stored_zip({{"readme.txt", "not this"}, {"Test.XML", description()}});
    {
        memory_port port(0x100);
        fill(port);
        CNodeMapRef map;
        map._LoadXMLFromZIPData(zip.data(), zip.size());
        ASSERT_TRUE(map._Connect(&port, "Device"));
        EXPECT_EQ(map.get_integer("Width"), 1024);
    }

    auto rejects = [](const std::string &data) {
        CNodeMapRef map;
        EXPECT_THROW(map._LoadXMLFromZIPData(data.data(), data.size()), genapi_error);
        return !map.loaded();
    };
    EXPECT_TRUE(rejects(description()));  // not an archive
    EXPECT_TRUE(rejects(stored_zip({{"readme.txt", "no description"}})));
    EXPECT_TRUE(rejects(zip.substr(0, zip.size() - 10)));  // truncated end record
    std::string corrupt = zip;
    corrupt[zip.find("Image Width")] = 'i';  // still good XML, but the CRC no longer matches
    EXPECT_TRUE(rejects(corrupt));
    std::string misplaced = zip;
    misplaced[zip.size() - 4] = '\x7f';  // central directory offset far beyond the data
    EXPECT_TRUE(rejects(misplaced));
    EXPECT_TRUE(rejects(stored_zip({{"Test.xml", "<RegisterDescription"}})));
    CNodeMapRef map;
    EXPECT_THROW(map._LoadXMLFromZIPData(nullptr, 0), genapi_error);
    EXPECT_THROW(map._LoadXMLFromZIPFile(temp_path("missing.zip")), genapi_error);
}

TEST(NodeMap, LoadsADeflatedArchiveFromAFile) {
    // A real zip tool's output: the entry is deflated.
    const std::string directory = temp_path("deflated");
    std::system(("rm -rf '" + directory + "' && mkdir -p '" + directory + "'").c_str());
    write_file(directory + "/Camera.xml", description());
    const std::string command = "cd '" + directory +
                                "' && cmake -E tar cf camera.zip --format=zip Camera.xml";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;

    memory_port port(0x100);
    fill(port);
    CNodeMapRef map;
    map._LoadXMLFromZIPFile(directory + "/camera.zip");
    ASSERT_TRUE(map._Connect(&port, "Device"));
    EXPECT_EQ(map.get_enum("PixelFormat"), "Mono16");
    std::system(("rm -rf '" + directory + "'").c_str());
}
