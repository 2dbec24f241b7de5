// The cameras of emulation profiles: the shipped ones, the keys of a camera
// and the error of every malformed camera entry.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "emulator/pcie_bus.h"
#include "emulator/profile_loader.h"

namespace {

using pelorin::emu::camera_profile;
using pelorin::emu::card_profile;
using pelorin::emu::cxp_camera;
using pelorin::emu::pcie_bus;

const std::string kProfiles = PELORIN_PROFILE_DIR;

// The error of a profile with one card holding `cameras`.
std::string profile_error(const std::string &cameras) {
    std::vector<card_profile> cards;
    std::string error;
    EXPECT_FALSE(pelorin::emu::parse_profile(R"({"cards": [{"cameras": [)" + cameras + "]}]}", "p", cards,
                                             error, kProfiles));
    return error;
}

TEST(EmulatedCameraProfile, CamerasOfShippedProfilesAndClearErrors) {
    std::vector<card_profile> cards;
    std::string error;
    ASSERT_TRUE(pelorin::emu::load_profile_file(kProfiles + "/default.json", cards, error)) << error;
    const pelorin::emu::emulated_card from_file(cards.at(0));
    const pelorin::emu::emulated_card built_in(pcie_bus::default_cards().at(0));
    ASSERT_EQ(from_file.camera_count(), 2u);
    ASSERT_EQ(built_in.camera_count(), 2u);
    for (uint32_t i = 0; i < 2; ++i) {
        const camera_profile &a = from_file.camera(i)->profile();
        const camera_profile &b = built_in.camera(i)->profile();
        EXPECT_EQ(std::tie(a.links, a.serial, a.default_config, a.discovery_rates, a.model),
                  std::tie(b.links, b.serial, b.default_config, b.discovery_rates, b.model));
        EXPECT_EQ(a.default_config, 0x20058u);
    }

    // Faults, rates by name and code, a description file beside the profile.
    char dir_pattern[] = "/tmp/pelorin-camera-XXXXXX";
    const std::string dir = mkdtemp(dir_pattern);
    std::ofstream(dir + "/Tiny_Cam.xml") << "<RegisterDescription ModelName=\"T\" MajorVersion=\"2\"/>";
    const bool parsed = pelorin::emu::parse_profile(
        R"({"cards": [{"links": 2, "cameras": [{"links": [1], "discovery_rates": ["CXP-12", 80],
            "error_code": "0x41", "wait_acks": [5], "broken_links": [1], "description_file": "Tiny_Cam.xml"}]}]})",
        "p", cards, error, dir);
    std::remove((dir + "/Tiny_Cam.xml").c_str());
    ::rmdir(dir.c_str());
    ASSERT_TRUE(parsed) << error;
    const camera_profile &camera = cards.at(0).cameras->at(0);
    EXPECT_EQ(camera.discovery_rates, (std::vector<uint32_t>{0x58, 0x50}));
    EXPECT_EQ(camera.default_config, 0x10058u);  // all its links at the card's rate
    EXPECT_EQ(camera.faults.error_commands, 1u);
    EXPECT_EQ(camera.faults.wait_commands, 1u);
    const pelorin::emu::emulated_card card(cards.at(0));
    EXPECT_EQ(card.links().read(0x100 + 33), 5000u);
    EXPECT_EQ(card.camera(0)->description_url().rfind("local:Tiny_Cam.zip;10000;", 0), 0u);
    EXPECT_EQ(card.camera(0)->read_register(cxp_camera::kXmlVersion), 0x00020000u);

    const std::pair<std::string, std::string> errors[] = {
        {R"({"discovery_rates": ["CXP-3"]})", "p: cards[0].cameras[0].links: missing"},
        {R"({"links": [4]})", "cameras[0].links: the card has no link 4"},
        {R"({"links": [0, 0]})", "cameras[0].links: link 0 given twice"},
        {R"({"links": [0, 1]}, {"links": [1]})", "cameras[1].links: link 1 already carries cameras[0]"},
        {R"({"links": [0], "supported_rates": ["CXP-7"]})", "cameras[0].supported_rates: expected"},
        {R"({"links": [0], "supported_rates": ["CXP-6"]})", "cameras[0].default_config: rate 88 is not"},
        {R"({"links": [0], "default_config": "0x20058"})", "cameras[0].default_config: link count 2"},
        {R"({"links": [0], "serial": "sixteen-chars-xx"})",
         "cameras[0].serial: expected a string of at most 15"},
        {R"({"links": [0], "error_code": 4})", "cameras[0].error_code: 4 is the wait"},
        {R"({"links": [0], "unplugged_links": [1]})", "cameras[0].unplugged_links: link 1 is none of"},
        {R"({"links": [0], "control_packet_size_max": 8})", "cameras[0].control_packet_size_max: expected"},
        {R"({"links": [0], "speed": 1})", "cameras[0]: unknown key \"speed\""},
        {R"({"links": [0], "description_file": "missing.xml"})", "missing.xml: cannot open the file"},
        {R"({"links": [0], "description_file": "default.json"})", "not a GenICam register description"},
        {R"(7)", "cards[0].cameras[0]: expected an object"},
    };
    for (const auto &[cameras, expected] : errors) {
        const std::string text = profile_error(cameras);
        EXPECT_NE(text.find(expected), std::string::npos) << cameras << " -> " << text;
    }
}

}  // namespace
