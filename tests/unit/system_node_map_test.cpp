// The system's description file loaded the way an outside consumer loads it:
// the port URL, a read of the zip through GCReadPort, a node map on a port
// that reads and writes through GCReadPort / GCWritePort, and every feature
// read by name.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "emulator/pcie_bus.h"
#include "consumer_node_map.h"
#include "private_runtime_dir.h"
#include "modules/ctl_system.h"
#include "nodemap/node_map.h"
#include "pelorin/gentl.h"

namespace {

using pelorin::testing_support::consumer_port;
using pelorin::testing_support::load_from_url;
using pelorin::testing_support::read_every_feature;

TEST(SystemNodeMap, LoadsThroughItsUrlAndReadsEveryFeature) {
    setenv("GENICAM_GENTL64_PATH", PELORIN_GENTL_DIR, 0);
    pelorin::testing_support::use_private_runtime_dir();
    pelorin::emu::pcie_bus::system_bus().reset();
    ASSERT_EQ(GCInitLib(), GC_ERR_SUCCESS);
    TL_HANDLE system = nullptr;
    ASSERT_EQ(TLOpen(&system), GC_ERR_SUCCESS);

    consumer_port port(system);
    std::unique_ptr<CNodeMapRef> map = load_from_url(system, port, "TLPort");
    ASSERT_TRUE(map);
    EXPECT_GE(read_every_feature(*map), 11);
    EXPECT_EQ(map->get_string("TLVendorName"), "Orvane");
    EXPECT_EQ(map->get_string("TLModelName"), "CXP");
    EXPECT_EQ(map->get_string("TLID"), "Orvane CXP");
    EXPECT_EQ(map->get_string("TLVersion"), "1.1.4.11");
    EXPECT_EQ(map->get_string("TLPath"), std::string(PELORIN_GENTL_DIR) + "/pelorin_cxp.cti");
    EXPECT_EQ(map->get_integer("GenTLVersionMajor"), 1);
    EXPECT_EQ(map->get_integer("GenTLVersionMinor"), 5);

    map->execute("InterfaceUpdateList");
    EXPECT_EQ(map->get_integer("InterfaceSelector"), 0);
    EXPECT_EQ(map->integer_max("InterfaceSelector"), 0);
    EXPECT_EQ(map->get_string("InterfaceID"), "OV181-2311-0457(HQ12-0)");
    EXPECT_THROW(map->set_integer("InterfaceSelector", 1), std::exception);  // one card only
    EXPECT_EQ(map->get_integer("InterfaceSelector"), 0);
    EXPECT_THROW(map->set_string("TLVendorName", "x"), std::exception);  // read-only
    EXPECT_GT(port.reads, 11);

    // The system built its own node map the same way when it opened.
    const CTLSystem *module = static_cast<const CTLSystem *>(system);
    ASSERT_TRUE(module->node_map());
    EXPECT_EQ(module->xml_file_name(), "Cxplink_TLSystem_1_0_1.zip");
    EXPECT_EQ(module->node_map()->get_string("TLID"), "Orvane CXP");
    map.reset();
    ASSERT_EQ(TLClose(system), GC_ERR_SUCCESS);
    ASSERT_EQ(GCCloseLib(), GC_ERR_SUCCESS);
}

TEST(SystemNodeMap, MissingOrDamagedDescriptionLeavesTheSystemWithoutNodeMap) {
    namespace fs = std::filesystem;
    char name[] = "/tmp/pelorin-xml-XXXXXX";
    const fs::path root = mkdtemp(name);
    std::ofstream(root / "pelorin_cxp.cti") << "";
    fs::create_directories(root / "xml/cxp");
    std::ofstream(root / "xml/cxp/Cxplink_TLSystem_1_0_1.zip") << "PK but not an archive";
    const char *saved = getenv("GENICAM_GENTL64_PATH");
    const std::string previous = saved != nullptr ? saved : "";
    setenv("GENICAM_GENTL64_PATH", root.c_str(), 1);

    pelorin::testing_support::use_private_runtime_dir();
    pelorin::emu::pcie_bus::system_bus().reset();
    ASSERT_EQ(GCInitLib(), GC_ERR_SUCCESS);
    TL_HANDLE system = nullptr;
    testing::internal::CaptureStdout();
    ASSERT_EQ(TLOpen(&system), GC_ERR_SUCCESS);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_NE(printed.find("Exception:alloc node map error"), std::string::npos) << printed;
    EXPECT_NE(printed.find("system xml map error!"), std::string::npos) << printed;
    EXPECT_FALSE(static_cast<const CTLSystem *>(system)->node_map());

    // Without the file the URL and register 0 are not available.
    fs::remove(root / "xml/cxp/Cxplink_TLSystem_1_0_1.zip");
    char url[256];
    size_t size = sizeof url;
    EXPECT_EQ(GCGetPortURL(system, url, &size), GC_ERR_NOT_AVAILABLE);
    size = sizeof url;
    EXPECT_EQ(GCReadPort(system, 0x1E0000FFFF0001ULL, url, &size), GC_ERR_NOT_AVAILABLE);
    EXPECT_EQ(TLClose(system), GC_ERR_SUCCESS);
    EXPECT_EQ(GCCloseLib(), GC_ERR_SUCCESS);

    if (saved != nullptr)
        setenv("GENICAM_GENTL64_PATH", previous.c_str(), 1);
    else
        unsetenv("GENICAM_GENTL64_PATH");
    fs::remove_all(root);
}

}  // namespace
