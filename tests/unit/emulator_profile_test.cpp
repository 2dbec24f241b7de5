// Emulation profiles: the shipped files, the errors of malformed ones, and
// the bus following PELORIN_CXP_EMULATION.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "emulator/pcie_bus.h"
#include "emulator/profile_loader.h"

namespace {

using pelorin::emu::card_profile;
using pelorin::emu::description_storage;
using pelorin::emu::load_profile_file;
using pelorin::emu::parse_profile;
using pelorin::emu::pcie_bus;

const std::string kProfileDir = PELORIN_PROFILE_DIR;

std::vector<card_profile> load(const std::string &name) {
    std::vector<card_profile> cards;
    std::string error;
    EXPECT_TRUE(load_profile_file(kProfileDir + "/" + name, cards, error)) << error;
    return cards;
}

bool same_card(const card_profile &a, const card_profile &b) {
    return a.product_id == b.product_id && a.boot_generation == b.boot_generation &&
           a.stage2_loaded == b.stage2_loaded && a.link_count == b.link_count &&
           a.device_slots == b.device_slots && a.link_rate_code == b.link_rate_code &&
           a.firmware_major == b.firmware_major && a.firmware_minor == b.firmware_minor &&
           a.attribute == b.attribute && a.identifier == b.identifier && a.name == b.name &&
           a.description == b.description && a.vendor == b.vendor && a.model == b.model;
}

// A file in a fresh temporary directory, removed with the object.
struct temp_file {
    std::string dir;
    std::string path;
    explicit temp_file(const std::string &text) {
        char pattern[] = "/tmp/pelorin-profile-XXXXXX";
        dir = mkdtemp(pattern);
        path = dir + "/profile.json";
        write(text);
    }
    void write(const std::string &text) const { std::ofstream(path, std::ios::trunc) << text; }
    ~temp_file() {
        ::unlink(path.c_str());
        ::rmdir(dir.c_str());
    }
};

TEST(EmulatorProfiles, EveryShippedProfileParses) {
    std::vector<std::string> names;
    if (DIR *dir = opendir(kProfileDir.c_str())) {
        while (dirent *entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name.size() > 5 && name.substr(name.size() - 5) == ".json") names.push_back(name);
        }
        closedir(dir);
    }
    EXPECT_EQ(names.size(), 9u);
    for (const std::string &name : names) {
        std::vector<card_profile> cards;
        std::string error;
        EXPECT_TRUE(load_profile_file(kProfileDir + "/" + name, cards, error)) << name << ": " << error;
    }

    const std::vector<card_profile> defaults = load("default.json");
    ASSERT_EQ(defaults.size(), 1u);
    EXPECT_TRUE(same_card(defaults[0], pcie_bus::default_cards()[0]));
    EXPECT_TRUE(load("no_card.json").empty());

    const std::vector<card_profile> families = load("three_families.json");
    ASSERT_EQ(families.size(), 3u);
    EXPECT_TRUE(same_card(families[0], card_profile::halden_q12(0)));
    EXPECT_EQ(families[1].product_id, 0x180);
    EXPECT_EQ(families[1].link_count, 1u);
    EXPECT_EQ(families[1].link_rate_code, 0x48u);
    EXPECT_EQ(families[2].product_id, 0x184);
    EXPECT_EQ(families[2].firmware_major, 2);
    EXPECT_EQ(families[2].firmware_minor, 0);
    EXPECT_EQ(families[2].vendor, "Orvane");  // kept from the built-in card

    EXPECT_EQ(load("boot_v0.json").at(0).boot_generation, 0u);
    EXPECT_FALSE(load("stage2_failed.json").at(0).stage2_loaded);
    EXPECT_EQ(load("bad_checksum.json").at(0).description, description_storage::damaged);
    EXPECT_EQ(load("product_0x187.json").at(0).product_id, 0x187);
    EXPECT_EQ(load("zero_slots.json").at(0).device_slots, 0u);

    // Repeated cards are told apart by the built-in identifiers and names.
    const std::vector<card_profile> nine = load("nine_cards.json");
    ASSERT_EQ(nine.size(), 9u);
    for (uint32_t i = 0; i < 9; ++i) EXPECT_TRUE(same_card(nine[i], card_profile::halden_q12(i)));
}

TEST(EmulatorProfiles, RepeatMakesGivenIdentifiersAndNamesDistinct) {
    std::vector<card_profile> cards;
    std::string error;
    ASSERT_TRUE(parse_profile(R"({"cards": [
        {"product_id": 388},
        {"repeat": 3, "identifier": "LOT", "name": "Averyverylongname 4xCXP", "product_id": "0X18a"}]})",
                              "inline", cards, error))
        << error;
    ASSERT_EQ(cards.size(), 4u);
    EXPECT_EQ(cards[0].product_id, 388);
    EXPECT_EQ(cards[1].product_id, 0x18A);
    EXPECT_EQ(cards[1].identifier, "LOT-0");
    EXPECT_EQ(cards[3].identifier, "LOT-2");
    EXPECT_EQ(cards[1].name, "Averyverylong-0 4xCXP");  // first word and copy fit 15 characters
    EXPECT_EQ(cards[3].name, "Averyverylong-2 4xCXP");
    EXPECT_EQ(cards[2].link_count, 4u);  // the rest is the built-in card
}

TEST(EmulatorProfiles, MalformedProfilesNameTheirProblem) {
    struct bad_case {
        const char *text;
        const char *problem;
    };
    const bad_case cases[] = {
        {"{\"cards\": [ {} }", "p.json: parse error at line 1, column 16"},
        {"{\"cards\":\n [ {\"links\": 4,} ]}", "p.json: parse error at line 2"},
        {"[]", "p.json: expected an object with a \"cards\" array"},
        {"{}", "p.json: cards: missing"},
        {"{\"cards\": {}}", "p.json: cards: expected an array of card objects"},
        {"{\"cards\": [], \"extra\": 1}", "p.json: unknown key \"extra\""},
        {"{\"cards\": [], \"comment\": 1}", "p.json: comment: expected a string"},
        {"{\"cards\": [ 5 ]}", "p.json: cards[0]: expected an object"},
        {"{\"cards\": [ {}, {\"product_id\": 65536} ]}",
         "p.json: cards[1].product_id: expected an integer 0..65535"},
        {"{\"cards\": [ {\"product_id\": \"0x1G1\"} ]}", "cards[0].product_id: expected an integer"},
        {"{\"cards\": [ {\"product_id\": \"385\"} ]}", "cards[0].product_id: expected"},
        {"{\"cards\": [ {\"product_id\": -1} ]}", "cards[0].product_id: expected"},
        {"{\"cards\": [ {\"product_id\": 1.5} ]}", "cards[0].product_id: expected"},
        {"{\"cards\": [ {\"boot_generation\": 4294967296} ]}",
         "cards[0].boot_generation: expected an integer 0..4294967295"},
        {"{\"cards\": [ {\"boot_generation\": -9223372036854775808} ]}", "cards[0].boot_generation"},
        {"{\"cards\": [ {\"stage2_loaded\": 1} ]}", "cards[0].stage2_loaded: expected true or false"},
        {"{\"cards\": [ {\"links\": \"4\"} ]}", "cards[0].links: expected an integer 0..32"},
        {"{\"cards\": [ {\"links\": 33} ]}", "cards[0].links: expected an integer 0..32"},
        {"{\"cards\": [ {\"firmware_version\": \"1\"} ]}",
         "cards[0].firmware_version: expected \"major.minor\" with numbers 0..65535"},
        {"{\"cards\": [ {\"firmware_version\": \"1.x\"} ]}", "cards[0].firmware_version"},
        {"{\"cards\": [ {\"firmware_version\": \"1.2.3\"} ]}", "cards[0].firmware_version"},
        {"{\"cards\": [ {\"firmware_version\": 1.2} ]}", "cards[0].firmware_version"},
        {"{\"cards\": [ {\"attribute\": 256} ]}", "cards[0].attribute: expected an integer 0..255"},
        {"{\"cards\": [ {\"identifier\": 7} ]}", "cards[0].identifier: expected a string"},
        {"{\"cards\": [ {\"description_storage\": \"broken\"} ]}",
         "cards[0].description_storage: expected \"valid\", \"damaged\" or \"absent\""},
        {"{\"cards\": [ {}, {\"colour\": \"red\"} ]}", "p.json: cards[1]: unknown key \"colour\""},
        {"{\"cards\": [ {\"repeat\": 0} ]}", "cards[0].repeat: expected an integer 1..128"},
        {"{\"cards\": [ {\"repeat\": 129} ]}", "cards[0].repeat: expected an integer 1..128"},
        {"{\"cards\": [ {\"repeat\": 100}, {\"repeat\": 29} ]}", "cards: more than 128 cards"},
    };
    for (const bad_case &c : cases) {
        std::vector<card_profile> cards = {card_profile{}};
        std::string error;
        EXPECT_FALSE(parse_profile(c.text, "p.json", cards, error)) << c.text;
        EXPECT_NE(error.find(c.problem), std::string::npos) << c.text << " -> " << error;
        EXPECT_EQ(cards.size(), 1u);  // untouched
    }

    // Deep nesting is a plain error, not a crash.
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    std::vector<card_profile> cards;
    std::string error;
    EXPECT_FALSE(parse_profile(deep, "deep.json", cards, error));
    EXPECT_EQ(error, "deep.json: expected an object with a \"cards\" array");

    // Files: missing, a directory, too large.
    EXPECT_FALSE(load_profile_file(kProfileDir + "/missing.json", cards, error));
    EXPECT_EQ(error.rfind(kProfileDir + "/missing.json: cannot open the file", 0), 0u) << error;
    EXPECT_FALSE(load_profile_file(kProfileDir, cards, error));
    EXPECT_EQ(error, kProfileDir + ": not a regular file");
    // A FIFO with no writer is refused at once instead of waiting for one.
    char fifo_dir[] = "/tmp/pelorin-fifo-XXXXXX";
    ASSERT_NE(mkdtemp(fifo_dir), nullptr);
    const std::string fifo = std::string(fifo_dir) + "/cards.json";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_FALSE(load_profile_file(fifo, cards, error));
    EXPECT_EQ(error, fifo + ": not a regular file");
    unlink(fifo.c_str());
    rmdir(fifo_dir);
    temp_file large("{\"cards\": [], \"comment\": \"" + std::string(1 << 20, 'x') + "\"}");
    EXPECT_FALSE(load_profile_file(large.path, cards, error));
    EXPECT_NE(error.find("larger than 1048576 bytes"), std::string::npos) << error;
}

// Sets or clears the variable for one test and restores it afterwards.
class EmulationVariable : public testing::Test {
protected:
    void SetUp() override {
        const char *value = getenv(pcie_bus::kEmulationVariable);
        if (value) saved_ = value;
        had_ = value != nullptr;
        unsetenv(pcie_bus::kEmulationVariable);
    }
    void TearDown() override {
        if (had_)
            setenv(pcie_bus::kEmulationVariable, saved_.c_str(), 1);
        else
            unsetenv(pcie_bus::kEmulationVariable);
    }
    static void set(const std::string &value) { setenv(pcie_bus::kEmulationVariable, value.c_str(), 1); }

    std::string saved_;
    bool had_ = false;
};

TEST_F(EmulationVariable, BusFollowsTheProfileNamedByTheEnvironment) {
    pcie_bus bus;
    std::string error;
    // Never set: cards given directly stay.
    bus.set_cards({});
    EXPECT_EQ(bus.sync_with_environment(error), 0);
    EXPECT_EQ(bus.card_count(), 0u);

    set(kProfileDir + "/three_families.json");
    ASSERT_EQ(bus.sync_with_environment(error), 0) << error;
    ASSERT_EQ(bus.card_count(), 3u);
    EXPECT_EQ(bus.cards()[2].product_id, 0x184);
    bus.set_cards({});
    EXPECT_EQ(bus.sync_with_environment(error), 0);  // same value: nothing to do
    EXPECT_EQ(bus.card_count(), 0u);

    // A broken file: no card, and the error names the file and the problem.
    temp_file file("{\"cards\": [ {\"links\": 99} ]}");
    set(file.path);
    EXPECT_EQ(bus.sync_with_environment(error), -EINVAL);
    EXPECT_EQ(error, file.path + ": cards[0].links: expected an integer 0..32");
    EXPECT_EQ(bus.card_count(), 0u);
    // Fixed under the same name: the next sync picks it up.
    file.write("{\"cards\": [ {\"links\": 2}, {} ]}");
    ASSERT_EQ(bus.sync_with_environment(error), 0) << error;
    ASSERT_EQ(bus.card_count(), 2u);
    EXPECT_EQ(bus.cards()[0].link_count, 2u);
    EXPECT_EQ(bus.card(0)->dma_channel_count(), 2u);

    set(kProfileDir + "/missing.json");
    EXPECT_EQ(bus.sync_with_environment(error), -EINVAL);
    EXPECT_EQ(bus.card_count(), 0u);

    // Cleared (unset or empty): the built-in card.
    set("");
    ASSERT_EQ(bus.sync_with_environment(error), 0);
    ASSERT_EQ(bus.card_count(), 1u);
    EXPECT_EQ(bus.cards()[0].identifier, "OV181-2311-0457");
}

}  // namespace
