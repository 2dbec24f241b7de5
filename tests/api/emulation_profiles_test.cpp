// The producer's initialisation against each shipped emulation profile,
// chosen through PELORIN_CXP_EMULATION in a child process.
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "producer_api.h"

namespace {

constexpr const char *kVariable = "PELORIN_CXP_EMULATION";
const std::string kProfileDir = PELORIN_PROFILE_DIR;

// Runs an init child with the variable set to `profile` and returns its
// output (log lines, then "GCInitLib=<code>").
std::string init_with_profile(const std::string &profile) {
    setenv(kVariable, profile.c_str(), 1);
    int status = 0;
    std::string out = run_child("init", "", &status);
    unsetenv(kVariable);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << profile << "\n" << out;
    return out;
}

TEST(EmulationProfiles, InitialisationFollowsTheShippedProfiles) {
    const struct {
        const char *file;
        int result;
    } cases[] = {
        {"default.json", 0},        {"three_families.json", 0}, {"bad_checksum.json", 0},
        {"product_0x187.json", 0},  {"zero_slots.json", 0},     {"nine_cards.json", 0},
        {"no_card.json", -1001},    {"boot_v0.json", -1001},    {"stage2_failed.json", -1001},
        // The examples of the documentation.
        {"../../docs/profiles/colour_and_fibre.json", 0}, {"../../docs/profiles/faulty_camera.json", 0},
    };
    for (const auto &c : cases) {
        const std::string out = init_with_profile(kProfileDir + "/" + c.file);
        EXPECT_NE(out.find("GCInitLib=" + std::to_string(c.result) + "\n"), std::string::npos)
            << c.file << "\n" << out;
    }
}

TEST(EmulationProfiles, UnusableProfileFailsInitialisationAndSaysWhy) {
    char dir_template[] = "/tmp/pelorin-profiles-XXXXXX";
    const std::string dir = mkdtemp(dir_template);
    const std::string malformed = dir + "/malformed.json";
    std::ofstream(malformed) << "{\"cards\": [ {\"product_id\": \"0x181\"}, {\"product_id\": 70000} ]}";

    std::string out = init_with_profile(malformed);
    EXPECT_NE(out.find("GCInitLib=-1001\n"), std::string::npos) << out;
    EXPECT_NE(out.find("Emulation profile " + malformed +
                       ": cards[1].product_id: expected an integer 0..65535"),
              std::string::npos)
        << out;

    const std::string missing = dir + "/missing.json";
    out = init_with_profile(missing);
    EXPECT_NE(out.find("GCInitLib=-1001\n"), std::string::npos) << out;
    EXPECT_NE(out.find("Emulation profile " + missing + ": cannot open the file"), std::string::npos)
        << out;

    std::remove(malformed.c_str());
    rmdir(dir.c_str());
}

}  // namespace
