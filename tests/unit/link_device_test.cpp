// The CoaXPress link layer against the emulated cameras: control
// transactions (sizes, chunks, swap, tags, acknowledgement codes, waits,
// damaged and lost replies, broken links), discovery and configuration
// (rates, masters, versions, packet sizes, demotion, foreign hosts), the
// connection report, reconnection and the fibre card.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "card/card_context.h"
#include "diag/log.h"
#include "emulator/cxp_camera.h"
#include "emulator/emulated_card.h"
#include "emulator/link_block.h"
#include "emulator/pcie_bus.h"
#include "link/cof_device.h"
#include "link/connection_flow.h"
#include "link/cxp_device.h"
#include "modules/device_record.h"

namespace {

using pelorin::emu::camera_profile;
using pelorin::emu::card_profile;
using pelorin::emu::command_record;
using pelorin::emu::cxp_camera;
using pelorin::emu::pcie_bus;

constexpr uint32_t kTestRegister = 0x401C;  // plain camera storage
constexpr uint32_t kCxp12x2 = 0x20058;

class LinkDevice : public testing::Test {
protected:
    void SetUp() override {
        bus().reset();
        pelorin::diag::set_log_language(pelorin::diag::kEnglish);
    }
    void TearDown() override {
        link_disconnect(&context);
        bus().reset();
        pelorin::diag::set_log_language(pelorin::diag::kChinese);
    }

    static pcie_bus &bus() { return pcie_bus::system_bus(); }
    static std::shared_ptr<cxp_camera> camera(uint32_t index = 0, uint32_t card = 0) {
        return bus().card(card)->camera(index);
    }
    static std::vector<command_record> commands(uint32_t card = 0) {
        return bus().card(card)->links().take_command_log();
    }
    // One card whose only camera has `profile`'s settings.
    static void use_camera(const camera_profile &profile, uint32_t links = 4) {
        card_profile card = card_profile::halden_q12();
        card.link_count = links;
        card.cameras = std::vector<camera_profile>{profile};
        bus().set_cards({card});
    }

    // Connects the camera of `mask` (slot `slot`) on card `card`.
    int Connect(uint32_t mask = 0x3, uint32_t speed_mode = 0, uint32_t links = 0,
                uint32_t card = 0, uint32_t family = 1) {
        link_config config;
        config.slot_index = mask == 0xC ? 1 : 0;
        config.link_mask = mask;
        config.family = family;
        conn_settings settings;
        settings.speed_mode = speed_mode;
        settings.link_count = links;
        const int result = link_connect(&context, card, config, settings, false);
        connected_config = settings.result;
        return result;
    }
    cxp_device &link() { return *context.link_device; }

    card_context context;
    uint32_t connected_config = 0;
};

TEST_F(LinkDevice, ReadsAndWritesCameraMemoryInChunksWithSwapAndTags) {
    ASSERT_EQ(Connect(), 0);
    EXPECT_EQ(connected_config, kCxp12x2);
    EXPECT_EQ(camera()->connection_config(), kCxp12x2);
    EXPECT_TRUE(link().tagged());  // a CoaXPress 2.1 camera
    EXPECT_EQ(link().get_link_state().ctrl_payload_max, 1024u - 28u);
    EXPECT_EQ(camera()->master_host_id(), 0xD00u);

    // A register value: swapped to host order; unswapped it is wire order.
    uint32_t value = 0;
    ASSERT_EQ(link().read_reg(0x0000, value), 0);
    EXPECT_EQ(value, cxp_camera::kStandardValue);
    uint8_t wire[4] = {};
    ASSERT_EQ(link().mem_access(0x0000, wire, 4, false, true), 0);
    EXPECT_EQ(wire[0], 0xC0);
    EXPECT_EQ(wire[3], 0xE5);

    // Writes of 1 to 8 bytes land in wire order, partial words included.
    for (uint32_t size = 1; size <= 8; ++size) {
        const uint8_t bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        uint8_t zero[8] = {};
        ASSERT_EQ(link().mem_access(kTestRegister, zero, 8, false, false), 0);
        ASSERT_EQ(link().mem_access(kTestRegister, const_cast<uint8_t *>(bytes), size, false, false), 0);
        uint8_t back[8] = {};
        ASSERT_EQ(camera()->read_memory(kTestRegister, back), 0);
        for (uint32_t i = 0; i < 8; ++i) EXPECT_EQ(back[i], i < size ? bytes[i] : 0) << size;
    }
    ASSERT_EQ(link().write_reg(kTestRegister, 0x11223344), 0);
    EXPECT_EQ(camera()->read_register(kTestRegister), 0x11223344u);

    // The description file: 992-byte chunks (the payload limit of 996 less 4,
    // in whole words), one tagged command each, the tag advancing by one per
    // command.
    const std::vector<uint8_t> archive = camera()->description_archive();
    std::vector<uint8_t> read(archive.size());
    commands();
    const uint8_t first_tag = link().next_tag();
    ASSERT_EQ(link().mem_access(cxp_camera::kDescription, read.data(),
                                static_cast<uint32_t>(read.size()), false, true),
              0);
    EXPECT_EQ(read, archive);
    const std::vector<command_record> sent = commands();
    ASSERT_EQ(sent.size(), (archive.size() + 991) / 992);
    for (size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].address, cxp_camera::kDescription + 992 * i);
        EXPECT_EQ(sent[i].size, std::min<size_t>(992, archive.size() - 992 * i));
        EXPECT_EQ(sent[i].type, 5u);
        EXPECT_EQ(sent[i].tag, static_cast<uint8_t>(first_tag + i));
    }
    EXPECT_EQ(link().mem_access(0x0, nullptr, 0, true, true), 0);  // nothing to do
}

TEST_F(LinkDevice, AcknowledgementFaultsGiveTheirResults) {
    ASSERT_EQ(Connect(), 0);
    uint32_t value = 0;
    auto attempts = [&] { return commands().size(); };
    commands();

    // Unknown address: answered at once, no retry.
    EXPECT_EQ(link().read_reg(0x5000, value), -2);
    EXPECT_EQ(attempts(), 1u);
    // Another error code is retried three times.
    camera()->fail_commands(0x41, 3);
    EXPECT_EQ(link().write_reg(kTestRegister, 1), -1);
    EXPECT_EQ(attempts(), 3u);
    // Damaged replies are sent again; three in a row give -3.
    camera()->damage_replies(2);
    EXPECT_EQ(link().read_reg(0x0000, value), 0);
    EXPECT_EQ(value, cxp_camera::kStandardValue);
    EXPECT_EQ(attempts(), 3u);
    camera()->damage_replies(3);
    const uint8_t tag = link().next_tag();
    EXPECT_EQ(link().read_reg(0x0000, value), -3);
    EXPECT_EQ(static_cast<uint8_t>(link().next_tag() - tag), 3);
    // A lost reply, then two damaged ones: not all damaged, so -1.
    camera()->lose_replies(1);
    camera()->damage_replies(2);
    EXPECT_EQ(link().read_reg(0x0000, value), -1);
    attempts();
    // Garbage ahead of a reply is skipped.
    camera()->garbage_before_replies(5, 2);
    EXPECT_EQ(link().read_reg(cxp_camera::kRevision, value), 0);
    EXPECT_EQ(value, 0x20001u);
    EXPECT_EQ(attempts(), 1u);

    // A wait acknowledgement stretches the time-out past 200 ms.
    camera()->wait_before_replies({450});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(link().read_reg(0x0000, value), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(400));
    EXPECT_EQ(attempts(), 1u);

    // A broken link (error counter above 1000) sends nothing.
    bus().card(0)->links().set_error_counter(0, 5000);
    EXPECT_EQ(link().read_reg(0x0000, value), -4);
    EXPECT_FALSE(link().is_online());
    EXPECT_EQ(attempts(), 0u);
    bus().card(0)->links().set_error_counter(0, 0);
    EXPECT_TRUE(link().is_online());
}

TEST_F(LinkDevice, LongWaitsAreCappedWithAWarning) {
    ASSERT_EQ(Connect(), 0);
    camera()->wait_before_replies({10100});
    testing::internal::CaptureStdout();
    uint32_t value = 0;
    EXPECT_EQ(link().read_reg(0x0000, value), 0);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_NE(printed.find("[WARING] Camera Ack message show: wait 10100 ms !"), std::string::npos)
        << printed;
}

TEST_F(LinkDevice, DiscoveryFindsTheMasterAtEachRateAndWidth) {
    // Each line rate once, on one, two and four links in turn, with the
    // master connection on various links.
    const std::vector<uint32_t> layouts[] = {{0}, {1, 0}, {2, 0, 3, 1}};
    const uint32_t rates[] = {0x28, 0x30, 0x38, 0x40, 0x48, 0x50, 0x58};
    for (size_t i = 0; i < std::size(rates); ++i) {
        const uint32_t rate = rates[i];
        const std::vector<uint32_t> &links = layouts[i % std::size(layouts)];
        SCOPED_TRACE(testing::Message() << "rate " << rate << " links " << links.size());
        camera_profile profile;
        profile.links = links;
        profile.discovery_rates = {rate};
        profile.default_config = (static_cast<uint32_t>(links.size()) << 16) | rate;
        use_camera(profile);
        ASSERT_EQ(Connect(0xF), 0);
        const cxp_link_state &state = link().get_link_state();
        EXPECT_EQ(state.master_link, links[0]);
        EXPECT_EQ(state.speed, rate);
        EXPECT_EQ(state.links_connected, links.size());
        EXPECT_EQ(state.used_link_mask, std::accumulate(links.begin(), links.end(), 0u,
                                                         [](uint32_t m, uint32_t l) { return m | 1u << l; }));
        EXPECT_EQ(connected_config, profile.default_config);
        for (size_t c = 0; c < links.size(); ++c)
            EXPECT_EQ(state.link_info[links[c]].connection_id, c);
        link_disconnect(&context);
    }
}

TEST_F(LinkDevice, VersionsPacketSizesAndForeignHosts) {
    camera_profile profile;
    profile.links = {0, 1};
    profile.revision = 0x20001;
    profile.versions_supported = 0x2;  // 1.1 only
    profile.control_packet_size_max = 1022;
    use_camera(profile);
    ASSERT_EQ(Connect(), 0);
    EXPECT_FALSE(link().tagged());
    EXPECT_EQ(link().get_link_state().ctrl_packet_size, 1020u);
    EXPECT_EQ(link().get_link_state().ctrl_payload_max, 996u);
    EXPECT_EQ(camera()->version_used(), 0x10001u);
    link_disconnect(&context);

    camera()->set_control_packet_size_max(4096);
    camera()->set_versions(0x20001, 0x4);
    ASSERT_EQ(Connect(), 0);
    EXPECT_EQ(link().get_link_state().ctrl_packet_size, 2048u);
    EXPECT_TRUE(link().tagged());
    link_disconnect(&context);

    // No common version: -4 and the link indicators show it.
    camera()->set_versions(0x20001, 0);
    EXPECT_EQ(Connect(), -4);
    EXPECT_EQ(context.link_device, nullptr);
    EXPECT_EQ(bus().card(0)->read_register(0x0800), 4u);

    // Another host owns the camera.
    camera()->set_versions(0x20001, 0xE);
    camera()->set_foreign_host(0xD07);
    EXPECT_EQ(Connect(), -8);
    camera()->set_foreign_host(std::nullopt);
    // No camera at all.
    bus().card(0)->camera(0)->unplug_link(0);
    bus().card(0)->camera(0)->unplug_link(1);
    EXPECT_EQ(Connect(), -2);
}

TEST_F(LinkDevice, AutoModeDemotesAndTheReportSaysSo) {
    camera_profile profile;
    profile.links = {0, 1, 2, 3};
    profile.default_config = 0x40058;
    use_camera(profile);
    camera()->unplug_link(3);  // one cable missing: four links cannot be had
    testing::internal::CaptureStdout();
    EXPECT_EQ(Connect(0xF, 1), 0);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(connected_config, 0x20058u);  // demoted to two links
    EXPECT_EQ(camera()->connection_config(), 0x20058u);
    EXPECT_NE(log.find("Auto Mode"), std::string::npos) << log;
    EXPECT_NE(log.find("Demote Connection"), std::string::npos) << log;
    EXPECT_NE(log.find("Link a connect camera id CH-A:detected  master link"), std::string::npos)
        << log;
    EXPECT_NE(log.find("Connect to CXP12_X2"), std::string::npos) << log;
    link_disconnect(&context);

    // Assigned four links without Auto Mode: three attempts, then -6.
    testing::internal::CaptureStdout();
    EXPECT_EQ(Connect(0xF, 0x58, 4), -6);
    const std::string failed = testing::internal::GetCapturedStdout();
    EXPECT_NE(failed.find("Try connect... 2, res(-6)"), std::string::npos) << failed;
    EXPECT_EQ(context.link_device, nullptr);
    EXPECT_FALSE(context.pcie_device.is_open());
}

TEST_F(LinkDevice, ReconnectsAtAnAssignedConfiguration) {
    ASSERT_EQ(Connect(), 0);
    EXPECT_EQ(link_reconnect(&context, 0x10048), 0);
    EXPECT_EQ(camera()->connection_config(), 0x10048u);
    EXPECT_EQ(link().get_link_state().speed, 0x48u);
    uint32_t value = 0;
    EXPECT_EQ(link().read_reg(0x0000, value), 0);
    // Four links are more than the camera has: it refuses, the check finds
    // one link, and the fallback leaves it at one link at CXP-3.
    EXPECT_EQ(link_reconnect_with_fallback(&context, 0x40048), -6);
    EXPECT_EQ(camera()->connection_config(), 0x10038u);
    EXPECT_EQ(link().read_reg(0x0000, value), 0);
}

TEST_F(LinkDevice, FlowRefusesBadCardsAndProbesFillTheRecord) {
    testing::internal::CaptureStdout();
    link_config config;
    conn_settings settings;
    EXPECT_EQ(link_connect(&context, 8, config, settings, false), -1);
    EXPECT_EQ(link_connect(&context, 3, config, settings, false), -1);  // no such card
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_NE(printed.find("Card index is error!"), std::string::npos);
    EXPECT_NE(printed.find("Can't create PCIe Device!"), std::string::npos);
    EXPECT_EQ(link_disconnect(nullptr), -1);
    EXPECT_EQ(link_try_connect(&context, false), -1);

    // A probe connects for discovery only, reads the identity and lets go.
    link_config slot;
    slot.slot_index = 1;
    slot.link_mask = 0xC;
    testing::internal::CaptureStdout();
    probe_device(0, slot, settings);
    const std::string banner = testing::internal::GetCapturedStdout();
    EXPECT_NE(banner.find("Start CXP Driver V1.2.14"), std::string::npos) << banner;
    EXPECT_EQ(banner.find("Connect to"), std::string::npos) << banner;
    EXPECT_EQ(banner.find("Link a connect"), std::string::npos) << banner;
    EXPECT_EQ(settings.result, 0x10038u);  // one link saw it, at the discovery rate
    const device_record *record = detected_camera(0, 1);
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->serial_number, "LY25-0457-2");
    EXPECT_STREQ(record->model_name, "Lyra 25M CXP-12");
    EXPECT_EQ(record->revision, 0x20001u);
    EXPECT_EQ(live_link_devices(), 0u);
    EXPECT_TRUE(camera(1)->in_discovery());  // never configured
    // An empty slot is probed to an empty record.
    bus().card(0)->camera(1)->unplug_link(2);
    bus().card(0)->camera(1)->unplug_link(3);
    probe_device(0, slot, settings);
    EXPECT_STREQ(detected_camera(0, 1)->model_name, "");
}

TEST_F(LinkDevice, FibreCardConnectsItsCameraAndUsesTheUplink) {
    card_profile fibre = card_profile::halden_q12();
    fibre.product_id = 0x184;
    camera_profile profile;
    profile.links = {0, 1};
    profile.uplink = true;
    fibre.cameras = std::vector<camera_profile>{profile};
    bus().set_cards({fibre});

    link_config config;
    config.link_mask = 0x3;
    config.family = 3;
    config.fiber_option_a = 1;
    conn_settings settings;
    ASSERT_EQ(link_connect(&context, 0, config, settings, false), 0);
    auto *device = dynamic_cast<cof_device *>(context.link_device);
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->state(), 3u);
    EXPECT_EQ(device->get_link_state().uplink_state, 1u);
    EXPECT_TRUE(device->is_online());
    commands();
    uint32_t value = 0;
    EXPECT_EQ(device->read_reg(0x0000, value), 0);
    EXPECT_EQ(value, cxp_camera::kStandardValue);
    const std::vector<command_record> sent = commands();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].block, 8u);  // out through the uplink block of link 0
    // A fibre link that drops makes the camera unreachable without sending.
    camera()->unplug_link(1);
    pcie_write_reg(context.pcie_device, 0x010C, 0x3);
    pcie_write_reg(context.pcie_device, 0x010D, 0x3);
    EXPECT_FALSE(device->is_online());
    EXPECT_EQ(device->mem_access(0x0000, &value, 4, true, true), -4);
    EXPECT_TRUE(commands().empty());
}

}  // namespace
