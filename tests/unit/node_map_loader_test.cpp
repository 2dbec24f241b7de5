// The node-map loader over a module's port operations: the URL forms it
// accepts, and each failing step ending in an empty result.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>

#include "memory_port.h"
#include "nodemap/node_map_loader.h"

namespace {

using pelorin::nodemap::LoadNodeMapFromPort;
using pelorin::nodemap::local_url;
using pelorin::nodemap::module_port_ops;
using pelorin::nodemap::parse_local_url;

const std::string kXml = R"(<?xml version="1.0" encoding="utf-8"?>
<RegisterDescription ModelName="LoaderTest" VendorName="Pelorin" StandardNameSpace="None"
    SchemaMajorVersion="1" SchemaMinorVersion="1" SchemaSubMinorVersion="0"
    MajorVersion="1" MinorVersion="0" SubMinorVersion="0"
    ProductGuid="5b0c4c4e-1f1a-4c55-9d2e-000000000011"
    VersionGuid="5b0c4c4e-1f1a-4c55-9d2e-000000000012"
    xmlns="http://www.genicam.org/GenApi/Version_1_1">
  <Category Name="Root"><pFeature>Value</pFeature></Category>
  <IntReg Name="Value"><Address>0x10</Address><Length>4</Length><AccessMode>RO</AccessMode>
    <pPort>ModulePort</pPort><Sign>Unsigned</Sign><Endianess>LittleEndian</Endianess></IntReg>
  <Port Name="ModulePort"/>
</RegisterDescription>
)";

// A module that publishes `url` and serves the description at 0x2E0000FFFF0001.
struct fake_module {
    std::string url;
    std::string port_name = "ModulePort";
    GC_ERROR read_result = GC_ERR_SUCCESS;

    module_port_ops ops() {
        module_port_ops o;
        o.url_count = [](uint32_t *count) -> GC_ERROR {
            *count = 1;
            return GC_ERR_SUCCESS;
        };
        o.url_info = [this](uint32_t, URL_INFO_CMD, INFO_DATATYPE *, void *buffer, size_t *size) -> GC_ERROR {
            std::memcpy(buffer, url.c_str(), url.size() + 1);
            *size = url.size() + 1;
            return GC_ERR_SUCCESS;
        };
        o.read = [this](uint64_t address, void *buffer, size_t *size) -> GC_ERROR {
            if (read_result != GC_ERR_SUCCESS) return read_result;
            if (address != 0x2E0000FFFF0001ULL || *size != kXml.size()) return GC_ERR_INVALID_ADDRESS;
            std::memcpy(buffer, kXml.data(), kXml.size());
            return GC_ERR_SUCCESS;
        };
        o.port_info = [this](PORT_INFO_CMD, INFO_DATATYPE *, void *buffer, size_t *size) -> GC_ERROR {
            if (port_name.empty()) return GC_ERR_NOT_AVAILABLE;
            std::memcpy(buffer, port_name.c_str(), port_name.size() + 1);
            *size = port_name.size() + 1;
            return GC_ERR_SUCCESS;
        };
        return o;
    }
};

std::string hex(size_t value) {
    char text[32];
    std::snprintf(text, sizeof text, "%zx", value);
    return text;
}

TEST(LocalUrl, ParsesFileAddressAndLength) {
    local_url url;
    ASSERT_TRUE(parse_local_url("///Cxplink_TLSystem_1_0_1.zip;1e0000ffff0001;1a2b", url));
    EXPECT_EQ(url.file_name, "Cxplink_TLSystem_1_0_1.zip");
    EXPECT_EQ(url.address, 0x1E0000FFFF0001ULL);
    EXPECT_EQ(url.length, 0x1A2Bu);
    ASSERT_TRUE(parse_local_url("a.xml;10;20?SchemaVersion=1.1.0", url));  // query ignored
    EXPECT_EQ(url.length, 0x20u);
    EXPECT_FALSE(parse_local_url("a.xml;zz;20", url));
    EXPECT_FALSE(parse_local_url("a.xml;10", url));
    EXPECT_FALSE(parse_local_url("a.xml;10;11112222333344445", url));  // beyond 64 bits
}

TEST(NodeMapLoader, LoadsLocalAndFileUrlsAndFailsCleanly) {
    pelorin::testing_support::memory_port port(64);
    port.bytes[0x10] = 42;
    fake_module module;
    module.url = "local:///Desc.xml;2e0000ffff0001;" + hex(kXml.size());
    std::string name;
    auto map = LoadNodeMapFromPort(module.ops(), &port, &name, true);
    ASSERT_TRUE(map);
    EXPECT_EQ(name, "Desc.xml");
    EXPECT_EQ(map->get_integer("Value"), 42);

    char path[] = "/tmp/pelorin-desc-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(path) << kXml;
    module.url = std::string("file://") + path;
    map = LoadNodeMapFromPort(module.ops(), &port, &name, true);
    ASSERT_TRUE(map);
    EXPECT_EQ(name, path);
    unlink(path);

    testing::internal::CaptureStdout();
    module.url = "http://example/desc.xml";
    EXPECT_FALSE(LoadNodeMapFromPort(module.ops(), &port, &name, true));
    module.url = "local:Desc.xml;2e0000ffff0001;" + hex(kXml.size());
    module.port_name = "OtherPort";
    EXPECT_FALSE(LoadNodeMapFromPort(module.ops(), &port, &name, true));
    module.port_name = "";
    EXPECT_FALSE(LoadNodeMapFromPort(module.ops(), &port, &name, true));
    module.port_name = "ModulePort";
    module.read_result = GC_ERR_IO;
    EXPECT_FALSE(LoadNodeMapFromPort(module.ops(), &port, &name, true));
    module.read_result = GC_ERR_SUCCESS;
    module.url = "local:Desc.xml;nothex;10";
    EXPECT_FALSE(LoadNodeMapFromPort(module.ops(), &port, &name, true));
    const std::string out = testing::internal::GetCapturedStdout();
    for (const char *expected : {"Bad url", "Connect Port Error", "Get PortName Error",
                                 "Read xml error:-1010", "Exception:alloc node map error"})
        EXPECT_NE(out.find(expected), std::string::npos) << expected << "\n" << out;
}

}  // namespace
