#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "card/byte_order.h"
#include "card/card_identity.h"
#include "card/driver_transport.h"
#include "diag/log.h"
#include "diag/messages_gbk.h"
#include "emulator/pcie_bus.h"
#include "emulator/profile_loader.h"

namespace {

using pelorin::emu::card_profile;
using pelorin::emu::description_storage;
using pelorin::emu::pcie_bus;

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// Each test starts from the built-in emulated card, the default transport,
// English messages at level info, and puts all of that back afterwards.
class CardIdentity : public testing::Test {
protected:
    void SetUp() override {
        previous_transport_ = pelorin::card::install_transport(nullptr);
        previous_language_ = pelorin::diag::log_language();
        previous_level_ = pelorin::diag::log_level();
        pelorin::diag::set_log_language(pelorin::diag::kEnglish);
        pelorin::diag::set_log_level(pelorin::diag::kInfo);
        bus().reset();
    }
    void TearDown() override {
        bus().reset();
        pelorin::diag::set_log_language(previous_language_);
        pelorin::diag::set_log_level(previous_level_);
        pelorin::card::install_transport(previous_transport_);
    }

    static pcie_bus &bus() { return pcie_bus::system_bus(); }

    // Runs the enumeration with standard output captured.
    std::string enumerate(bool &result) {
        testing::internal::CaptureStdout();
        result = card_enumerate();
        return testing::internal::GetCapturedStdout();
    }

    std::vector<interface_description> describe() {
        std::vector<interface_description> list;
        const uint32_t described = card_describe(list);
        EXPECT_EQ(described, list.size());
        return list;
    }

private:
    pelorin::card::driver_transport *previous_transport_ = nullptr;
    uint32_t previous_language_ = 0;
    uint32_t previous_level_ = 0;
};

TEST_F(CardIdentity, DefaultCardIsEnumeratedAndDescribed) {
    card_profile second = card_profile::halden_q12(1);
    second.product_id = 0x183;
    second.firmware_major = 3;
    second.firmware_minor = 10;
    second.attribute = 0x5C;
    second.device_slots = 2;
    second.vendor = "Orvane GmbH";
    second.model = "Halden Q12 Plus rev B";
    bus().set_cards({card_profile::halden_q12(0), second});

    bool ok = false;
    const std::string out = enumerate(ok);
    ASSERT_TRUE(ok) << out;
    EXPECT_TRUE(contains(out, "[INFO]  DMA Version: 01010003\n")) << out;
    EXPECT_TRUE(contains(out, "[INFO]  Card 0 (HQ12-0): Boot Version V2\n")) << out;
    EXPECT_TRUE(contains(out, "[INFO]  Card 1 (HQ12-1): Boot Version V2\n")) << out;
    EXPECT_TRUE(contains(out, "[INFO]  ### Link cards num 2 \n")) << out;
    EXPECT_FALSE(contains(out, "[ERROR]")) << out;
    EXPECT_FALSE(contains(out, "### 0:")) << out;  // the card list exists in Chinese only
    EXPECT_EQ(card_count(), 2u);
    EXPECT_EQ(card_record_count(), 2u);
    EXPECT_STREQ(card_name(1), "HQ12-1");
    ASSERT_NE(card_info(0), nullptr);
    EXPECT_EQ(card_info(0)->product_id(), 0x181);
    EXPECT_EQ(card_boot_record(0)->link_count(), 4u);
    EXPECT_TRUE(card_description(0)->valid());

    const std::vector<interface_description> list = describe();
    ASSERT_EQ(list.size(), 2u);
    const interface_description &first = list[0];
    EXPECT_EQ(first.id, "OV181-2311-0457(HQ12-0)");
    EXPECT_EQ(first.identifier, "OV181-2311-0457");
    EXPECT_EQ(first.vendor, "Orvane");
    EXPECT_EQ(first.model, "Halden Q12 CXP-12 x4");
    EXPECT_EQ(first.card_index, 0u);
    EXPECT_EQ(first.product_text, "385");
    EXPECT_EQ(first.name, "HQ12-0");
    EXPECT_EQ(first.version, "1.2");
    EXPECT_EQ(first.product_id, 0x181u);
    EXPECT_EQ(first.attribute, 0);
    EXPECT_EQ(first.device_slots, 4u);

    const interface_description &other = list[1];
    EXPECT_EQ(other.id, "OV181-2311-0458(HQ12-1)");
    EXPECT_EQ(other.vendor, "Orvane GmbH");
    EXPECT_EQ(other.model, "Halden Q12 Plus rev B");
    EXPECT_EQ(other.card_index, 1u);
    EXPECT_EQ(other.product_text, "387");
    EXPECT_EQ(other.version, "3.10");
    EXPECT_EQ(other.attribute, 0x5C);
    EXPECT_EQ(other.device_slots, 2u);
    EXPECT_EQ(card_family(other.product_id), 0x302u);

    pelorin::diag::set_log_language(pelorin::diag::kChinese);
    const std::string chinese = enumerate(ok);
    ASSERT_TRUE(ok) << chinese;
    EXPECT_TRUE(contains(chinese, "[INFO]  ### 0: HQ12-0\n")) << chinese;
    EXPECT_TRUE(contains(chinese, "[INFO]  ### 1: HQ12-1\n")) << chinese;
    EXPECT_FALSE(contains(chinese, "Link cards num")) << chinese;
    EXPECT_TRUE(contains(chinese, "[INFO]  DMA Version: 01010003\n")) << chinese;
}

TEST_F(CardIdentity, NoCardFailsWithTheMessage) {
    bus().set_cards({});
    bool ok = true;
    const std::string out = enumerate(ok);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(contains(out, "SetupDiEnumDeviceInterfaces failed, Error: 19\n")) << out;
    EXPECT_TRUE(contains(out, "[ERROR] Can't create PCIe Device!\n")) << out;
    EXPECT_EQ(card_count(), 0u);
    EXPECT_TRUE(describe().empty());
    EXPECT_EQ(card_info(0), nullptr);
    EXPECT_STREQ(card_name(0), "");

    // In Chinese the GBK text of the pair is written instead.
    pelorin::diag::set_log_language(pelorin::diag::kChinese);
    const std::string chinese = enumerate(ok);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(contains(chinese, pelorin::msg_zh::kCantCreatePcieDevice)) << chinese;
    EXPECT_FALSE(contains(chinese, "Can't create PCIe Device!")) << chinese;
}

TEST_F(CardIdentity, FirmwareChecksRefuseTheFirstUnusableCard) {
    card_profile v0 = card_profile::halden_q12(0);
    v0.boot_generation = 0;
    bus().set_cards({v0});
    bool ok = true;
    std::string out = enumerate(ok);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(contains(out, "[INFO]  Card 0 (HQ12-0): Boot Version V0\n")) << out;
    EXPECT_TRUE(contains(out, "[ERROR] Boot fireware V0 is too old, please update to V1 or V2\n"))
        << out;
    EXPECT_FALSE(contains(out, "Link cards num")) << out;
    EXPECT_EQ(card_count(), 0u);
    EXPECT_TRUE(describe().empty());

    // The Chinese text carries the SDK version.
    pelorin::diag::set_log_language(pelorin::diag::kChinese);
    out = enumerate(ok);
    EXPECT_FALSE(ok);
    char expected[512];
    std::snprintf(expected, sizeof expected, pelorin::msg_zh::kBootV0TooOld, "1.1.4.11");
    EXPECT_TRUE(contains(out, expected)) << out;
    pelorin::diag::set_log_language(pelorin::diag::kEnglish);

    // A generation above 2 is refused the same way.
    card_profile v3 = card_profile::halden_q12(0);
    v3.boot_generation = 3;
    bus().set_cards({v3});
    out = enumerate(ok);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(contains(out, "Boot fireware V0 is too old")) << out;

    // The first failing card decides: card 0 lacks its second stage, card 1
    // is V0, so only the second-stage message appears.
    card_profile no_stage2 = card_profile::halden_q12(0);
    no_stage2.boot_generation = 1;
    no_stage2.stage2_loaded = false;
    bus().set_cards({no_stage2, v0});
    out = enumerate(ok);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(contains(
        out, "[ERROR] Stage2 fireware load error, please use tool to solve the problem\n"))
        << out;
    EXPECT_FALSE(contains(out, "V0 is too old")) << out;
    EXPECT_EQ(card_count(), 0u);

    // A boot record the driver refuses reads as generation 0.
    bus().reset();
    bus().refuse_code(0x00222002);
    out = enumerate(ok);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(contains(out, "[WARN]  Card 0: the boot record cannot be read\n")) << out;
    EXPECT_TRUE(contains(out, "Boot fireware V0 is too old")) << out;
}

TEST_F(CardIdentity, CardsBeyondTheEighthAreCountedButNotRecorded) {
    std::vector<card_profile> cards;
    for (uint32_t i = 0; i < 10; ++i) cards.push_back(card_profile::halden_q12(i));
    cards[9].boot_generation = 0;  // no record, so no check
    bus().set_cards(cards);

    bool ok = false;
    const std::string out = enumerate(ok);
    ASSERT_TRUE(ok) << out;
    EXPECT_TRUE(contains(out, "Card 7 (HQ12-7): Boot Version V2")) << out;
    EXPECT_FALSE(contains(out, "Card 8 (")) << out;
    EXPECT_TRUE(contains(out, "[WARN]  10 cards found; only the first 8 are used\n")) << out;
    EXPECT_TRUE(contains(out, "### Link cards num 10 \n")) << out;
    EXPECT_EQ(card_count(), 10u);
    EXPECT_EQ(card_record_count(), 8u);
    EXPECT_NE(card_info(7), nullptr);
    EXPECT_EQ(card_info(8), nullptr);
    EXPECT_EQ(card_boot_record(9), nullptr);
    EXPECT_EQ(card_description(8), nullptr);
    EXPECT_STREQ(card_name(8), "");

    const std::vector<interface_description> list = describe();
    ASSERT_EQ(list.size(), 8u);
    EXPECT_EQ(list[7].id, "OV181-2311-0464(HQ12-7)");
    // Every handle the enumeration opened is closed again.
    EXPECT_EQ(bus().open_handle_count(), 0u);
}

TEST_F(CardIdentity, MissingOrDamagedDescriptionFallsBackToTheProductTable) {
    card_profile unknown = card_profile::halden_q12(0);
    unknown.product_id = 0x187;
    unknown.description = description_storage::absent;
    card_profile damaged = card_profile::halden_q12(1);
    damaged.description = description_storage::damaged;
    card_profile no_slots = card_profile::halden_q12(2);
    no_slots.product_id = 0x185;
    no_slots.device_slots = 0;
    no_slots.name = "SF25 two words";
    no_slots.model = "Sarnet F25 SFP+ x2";
    bus().set_cards({unknown, damaged, no_slots});

    bool ok = false;
    const std::string out = enumerate(ok);
    ASSERT_TRUE(ok) << out;
    // Nothing is said about a description block at the default level.
    EXPECT_FALSE(contains(out, "description")) << out;

    const std::vector<interface_description> list = describe();
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].vendor, "Orvane");
    EXPECT_EQ(list[0].model, "");
    EXPECT_EQ(card_family(list[0].product_id), 0x301u);

    // Checksum off by one: the table entry stays zero.
    const description_block *block = card_description(1);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(std::all_of(block->bytes.begin(), block->bytes.end(), [](uint8_t b) { return b == 0; }));
    EXPECT_EQ(list[1].vendor, "Orvane");
    EXPECT_EQ(list[1].model, "Halden Q12");

    EXPECT_EQ(list[2].device_slots, 1u);
    EXPECT_EQ(list[2].name, "SF25");
    EXPECT_EQ(list[2].model, "Sarnet F25 SFP+ x2");
    EXPECT_EQ(card_family(list[2].product_id), 0x303u);

    // A refused description read is the same as no block.
    bus().refuse_code(0x80220006);
    ASSERT_TRUE(enumerate(ok).size() > 0);
    ASSERT_TRUE(ok);
    const std::vector<interface_description> refused = describe();
    EXPECT_EQ(refused[2].vendor, "Orvane");
    EXPECT_EQ(refused[2].model, "Sarnet F25");
}

TEST_F(CardIdentity, DescribeKeepsWhatTheSystemSetOnItsEntries) {
    bool ok = false;
    enumerate(ok);
    ASSERT_TRUE(ok);
    std::vector<interface_description> list(3);
    // Only the pointer value matters; it is never followed.
    alignas(16) static char owner_storage[16];
    auto *owner = reinterpret_cast<CTLSystem *>(owner_storage);
    list[0].system = owner;
    list[0].userSetKey = "open_userset_if_0";
    list[0].id = "stale";
    EXPECT_EQ(card_describe(list), 1u);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].system, owner);
    EXPECT_EQ(list[0].userSetKey, "open_userset_if_0");
    EXPECT_EQ(list[0].id, "OV181-2311-0457(HQ12-0)");
}

TEST(CardFamily, FollowsTheProductTable) {
    struct row {
        uint32_t product_id;
        const char *model;
        uint32_t family;
    };
    const row rows[] = {
        {0x180, "Halden Q6", 0x301},      {0x181, "Halden Q12", 0x301},
        {0x182, "Halden Q6 Plus", 0x302}, {0x183, "Halden Q12 Plus", 0x302},
        {0x184, "Sarnet F10", 0x303},     {0x185, "Sarnet F25", 0x303},
        {0x186, "Halden Q6 Lite", 0x304}, {0x190, "Corvel D2", 0x310},
        {0x187, "", 0x301},               {0x0, "", 0x301},
        {0xFFFFFFFF, "", 0x301},
    };
    for (const row &r : rows) {
        EXPECT_EQ(card_family(r.product_id), r.family) << std::hex << r.product_id;
        EXPECT_STREQ(card_product_model(r.product_id), r.model) << std::hex << r.product_id;
    }
}

// A block with the given length field and a correct checksum.
description_block make_block(uint32_t start, uint32_t length) {
    description_block block;
    pelorin::card::store_le32(block.bytes, 0, description_block::kMagic);
    pelorin::card::store_le32(block.bytes, 4, start);
    pelorin::card::store_le32(block.bytes, 8, length);
    const char vendor[] = "Orvane";
    std::copy(vendor, vendor + sizeof vendor, block.bytes.begin() + 12);
    uint64_t sum = 0;
    if (length >= 8 && length <= 216)
        for (uint32_t i = 0; i < length / 4 - 2; ++i) sum += pelorin::card::load_le32(block.bytes, 4 * i);
    pelorin::card::store_le64(block.bytes, 208, sum);
    return block;
}

TEST(DescriptionBlock, ValidationRules) {
    using check = description_block::check;
    EXPECT_EQ(make_block(0, 216).validate(), check::valid);
    EXPECT_EQ(make_block(0, 216).vendor(), "Orvane");
    // A shorter block sums fewer words; the checksum stays at offset 208.
    EXPECT_EQ(make_block(0, 100).validate(), check::valid);
    EXPECT_EQ(make_block(0x100000 - 217, 216).validate(), check::valid);
    EXPECT_EQ(make_block(0x100000 - 216, 216).validate(), check::outside_storage);
    EXPECT_EQ(make_block(0xFFFFFFFF, 216).validate(), check::outside_storage);

    description_block off_by_one = make_block(0, 216);
    pelorin::card::store_le64(off_by_one.bytes, 208, off_by_one.checksum() + 1);
    EXPECT_EQ(off_by_one.validate(), check::bad_checksum);

    description_block wrong_magic = make_block(0, 216);
    wrong_magic.bytes[0] ^= 1;
    EXPECT_EQ(wrong_magic.validate(), check::bad_magic);
    EXPECT_EQ(description_block{}.validate(), check::bad_magic);

    // Lengths that would sum bytes outside the block are refused.
    EXPECT_EQ(make_block(0, 4).validate(), check::bad_length);
    EXPECT_EQ(make_block(0, 220).validate(), check::bad_length);
    EXPECT_STREQ(description_block::check_text(check::bad_checksum), "checksum mismatch");
}

}  // namespace

namespace {

// Loads a shipped emulation profile onto the bus.
void load_shipped_profile(pcie_bus &bus, const std::string &name) {
    std::vector<card_profile> cards;
    std::string error;
    ASSERT_TRUE(pelorin::emu::load_profile_file(std::string(PELORIN_PROFILE_DIR) + "/" + name,
                                                cards, error))
        << error;
    bus.set_cards(cards);
}

TEST_F(CardIdentity, ShippedProfilesGiveTheirInterfaces) {
    load_shipped_profile(bus(), "three_families.json");
    ASSERT_TRUE(card_enumerate());
    std::vector<interface_description> list = describe();
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].model, "Halden Q12 CXP-12 x4");
    EXPECT_EQ(list[1].model, "Halden Q6 CXP-6 x1");
    EXPECT_EQ(list[1].device_slots, 1u);
    EXPECT_EQ(card_boot_record(1)->link_count(), 1u);
    EXPECT_EQ(list[2].model, "Sarnet F10 CoF");
    EXPECT_EQ(list[2].version, "2.0");
    EXPECT_EQ(list[2].device_slots, 2u);
    EXPECT_EQ(card_family(list[0].product_id), 0x301u);
    EXPECT_EQ(card_family(list[1].product_id), 0x301u);
    EXPECT_EQ(card_family(list[2].product_id), 0x303u);

    load_shipped_profile(bus(), "product_0x187.json");
    ASSERT_TRUE(card_enumerate());
    list = describe();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].model, "");
    EXPECT_EQ(list[0].vendor, "Orvane");
    EXPECT_EQ(card_family(list[0].product_id) & 0xFF, 1u);

    load_shipped_profile(bus(), "zero_slots.json");
    ASSERT_TRUE(card_enumerate());
    EXPECT_EQ(describe()[0].device_slots, 1u);
}

}  // namespace
