#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "emulator/control_codes.h"
#include "emulator/emulated_card.h"
#include "emulator/pcie_bus.h"

namespace {

using pelorin::emu::card_profile;
using pelorin::emu::description_storage;
using pelorin::emu::emulated_card;
using pelorin::emu::pcie_bus;

uint32_t le32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

uint64_t le64(const uint8_t *p) { return le32(p) | static_cast<uint64_t>(le32(p + 4)) << 32; }

std::string text_at(const uint8_t *p) { return std::string(reinterpret_cast<const char *>(p)); }

uint64_t word_sum(const uint8_t *p, size_t words) {
    uint64_t sum = 0;
    for (size_t i = 0; i < words; ++i) sum += le32(p + 4 * i);
    return sum;
}

std::array<uint8_t, 8> flash_request(uint32_t offset, uint32_t length) {
    std::array<uint8_t, 8> request{};
    for (int i = 0; i < 4; ++i) {
        request[i] = static_cast<uint8_t>(offset >> (8 * i));
        request[4 + i] = static_cast<uint8_t>(length >> (8 * i));
    }
    return request;
}

TEST(EmulatorBus, DefaultCardAnswersItsRecordsByteExactly) {
    pcie_bus bus;
    ASSERT_EQ(bus.card_count(), 1u);
    uint64_t handle = 0;
    ASSERT_EQ(bus.open(0, handle), 0);
    EXPECT_NE(handle, 0u);
    EXPECT_NE(handle, ~uint64_t{0});

    std::array<uint8_t, 32> boot{};
    size_t returned = 0;
    ASSERT_EQ(bus.message(handle, 0x00222002, {}, boot, returned), 0);
    EXPECT_EQ(returned, 32u);
    EXPECT_EQ(le32(&boot[0]), 2u);      // boot generation
    EXPECT_EQ(le32(&boot[8]), 4u);      // links
    EXPECT_EQ(le32(&boot[12]), 4u);     // device slots
    EXPECT_EQ(le32(&boot[16]), 0x58u);  // CXP-12
    EXPECT_EQ(le32(&boot[20]), 1u);     // second stage loaded

    std::array<uint8_t, 228> info{};
    ASSERT_EQ(bus.message(handle, 0x00222006, {}, info, returned), 0);
    EXPECT_EQ(returned, 228u);
    EXPECT_EQ(info[2], 0x81);
    EXPECT_EQ(info[3], 0x01);
    EXPECT_EQ(le32(&info[8]), 0x00010002u);  // firmware 1.2
    EXPECT_EQ(text_at(&info[80]), "OV181-2311-0457");
    EXPECT_EQ(text_at(&info[208]), "HQ12-0 4xCXP12");

    std::array<uint8_t, 216> block{};
    const auto request = flash_request(0, 216);
    ASSERT_EQ(bus.message(handle, 0x80220006, request, block, returned), 0);
    EXPECT_EQ(returned, 216u);
    EXPECT_EQ(block[0], 0x65);
    EXPECT_EQ(block[1], 0x01);
    EXPECT_EQ(block[2], 0x00);
    EXPECT_EQ(block[3], 0xFF);
    EXPECT_EQ(le32(&block[4]), 0u);
    EXPECT_EQ(le32(&block[8]), 216u);
    EXPECT_EQ(text_at(&block[12]), "Orvane");
    EXPECT_EQ(text_at(&block[76]), "Halden Q12 CXP-12 x4");
    EXPECT_EQ(le64(&block[208]), word_sum(block.data(), 216 / 4 - 2));

    // A read further into the storage: erased flash.
    std::array<uint8_t, 16> tail{};
    const auto tail_request = flash_request(0x100000 - 16, 16);
    ASSERT_EQ(bus.message(handle, 0x80220006, tail_request, tail, returned), 0);
    for (uint8_t byte : tail) EXPECT_EQ(byte, 0xFF);

    EXPECT_EQ(bus.open_handle_count(), 1u);
    EXPECT_EQ(bus.close(handle), 0);
    EXPECT_EQ(bus.open_handle_count(), 0u);
}

TEST(EmulatorBus, RefusesUnknownMalformedAndRefusedMessages) {
    pcie_bus bus;
    uint64_t handle = 0;
    EXPECT_EQ(bus.open(1, handle), -ENODEV);
    ASSERT_EQ(bus.open(0, handle), 0);

    std::array<uint8_t, 228> out{};
    size_t returned = 99;
    EXPECT_EQ(bus.message(handle, 0x00229999, {}, out, returned), -ENOTTY);
    EXPECT_EQ(returned, 0u);
    EXPECT_FALSE(emulated_card::handles(0x00229999));
    EXPECT_TRUE(emulated_card::handles(pelorin::emu::kCodeReadFlash));

    // Output smaller than the record.
    EXPECT_EQ(bus.message(handle, 0x00222002, {}, std::span(out).first(31), returned), -EINVAL);
    EXPECT_EQ(bus.message(handle, 0x00222006, {}, std::span(out).first(227), returned), -EINVAL);
    // Flash reads: wrong input size, range past the storage, output too small.
    const auto good = flash_request(0, 8);
    EXPECT_EQ(bus.message(handle, 0x80220006, std::span(good).first(4), out, returned), -EINVAL);
    const auto past_end = flash_request(0x100000 - 4, 8);
    EXPECT_EQ(bus.message(handle, 0x80220006, past_end, out, returned), -EINVAL);
    const auto huge = flash_request(0xFFFFFFFF, 0xFFFFFFFF);
    EXPECT_EQ(bus.message(handle, 0x80220006, huge, out, returned), -EINVAL);
    const auto too_long = flash_request(0, 229);
    EXPECT_EQ(bus.message(handle, 0x80220006, too_long, out, returned), -EINVAL);

    // The control side makes the driver refuse one code, then accept it again.
    bus.refuse_code(0x00222002);
    EXPECT_EQ(bus.message(handle, 0x00222002, {}, out, returned), -EIO);
    EXPECT_EQ(bus.message(handle, 0x00222006, {}, out, returned), 0);
    bus.refuse_code(0x00222002, false);
    EXPECT_EQ(bus.message(handle, 0x00222002, {}, out, returned), 0);
    bus.refuse_code(0x00222006);
    bus.clear_refusals();
    EXPECT_EQ(bus.message(handle, 0x00222006, {}, out, returned), 0);

    EXPECT_EQ(bus.close(handle), 0);
    EXPECT_EQ(bus.close(handle), -EBADF);
    EXPECT_EQ(bus.message(handle, 0x00222002, {}, out, returned), -EBADF);
    EXPECT_EQ(bus.message(0, 0x00222002, {}, out, returned), -EBADF);
}

TEST(EmulatorBus, ControlApiShapesTheCards) {
    pcie_bus bus;
    uint64_t old_handle = 0;
    ASSERT_EQ(bus.open(0, old_handle), 0);

    card_profile fibre = card_profile::halden_q12(1);
    fibre.product_id = 0x184;
    fibre.boot_generation = 1;
    fibre.stage2_loaded = false;
    fibre.device_slots = 0;
    fibre.name = "a-name-longer-than-fifteen";
    fibre.description = description_storage::damaged;
    card_profile blank = card_profile::halden_q12(2);
    blank.description = description_storage::absent;
    bus.set_cards({fibre, blank});
    ASSERT_EQ(bus.card_count(), 2u);
    EXPECT_EQ(bus.cards()[0].product_id, 0x184);
    EXPECT_EQ(bus.cards()[1].identifier, "OV181-2311-0459");

    emulated_card damaged(fibre);
    const auto boot = damaged.boot_record();
    EXPECT_EQ(le32(&boot[0]), 1u);
    EXPECT_EQ(le32(&boot[12]), 0u);
    EXPECT_EQ(le32(&boot[20]), 0u);
    const auto info = damaged.card_info();
    EXPECT_EQ(text_at(&info[208]), "a-name-longer-t");  // 15 characters and the NUL
    const auto block = damaged.description_block();
    EXPECT_EQ(le32(&block[0]), 0xFF000165u);
    EXPECT_EQ(le64(&block[208]), word_sum(block.data(), 52) + 1);

    emulated_card erased(blank);
    for (uint8_t byte : erased.description_block()) ASSERT_EQ(byte, 0xFF);

    // A handle opened before the change still reaches the card it was opened on.
    std::array<uint8_t, 228> out{};
    size_t returned = 0;
    ASSERT_EQ(bus.message(old_handle, 0x00222006, {}, out, returned), 0);
    EXPECT_EQ(out[2], 0x81);
    uint64_t new_handle = 0;
    ASSERT_EQ(bus.open(0, new_handle), 0);
    EXPECT_NE(new_handle, old_handle);
    ASSERT_EQ(bus.message(new_handle, 0x00222006, {}, out, returned), 0);
    EXPECT_EQ(out[2], 0x84);

    bus.set_cards({});
    EXPECT_EQ(bus.card_count(), 0u);
    EXPECT_EQ(bus.open(0, new_handle), -ENODEV);

    bus.refuse_code(0x00222006);
    bus.reset();
    EXPECT_EQ(bus.card_count(), 1u);
    EXPECT_EQ(bus.cards()[0].name, "HQ12-0 4xCXP12");
    ASSERT_EQ(bus.message(old_handle, 0x00222006, {}, out, returned), 0);  // refusal gone
}

TEST(EmulatorBus, CaptureRecordsEachMessageAsTheDriverSawIt) {
    pcie_bus bus;
    uint64_t handle = 0;
    ASSERT_EQ(bus.open(0, handle), 0);
    std::array<uint8_t, 40> out{};
    size_t returned = 0;
    ASSERT_EQ(bus.message(handle, 0x00222002, {}, out, returned), 0);  // not captured yet

    bus.capture_messages(true);
    const auto request = flash_request(12, 6);
    ASSERT_EQ(bus.message(handle, 0x80220006, request, out, returned), 0);
    EXPECT_EQ(bus.message(handle, 0x00222002, {}, std::span(out).first(8), returned), -EINVAL);
    EXPECT_EQ(bus.message(handle + 1, 0x00222002, {}, out, returned), -EBADF);
    EXPECT_EQ(bus.message(handle, 0x00229999, request, out, returned), -ENOTTY);

    const std::vector<pelorin::emu::captured_message> captured = bus.take_captured();
    ASSERT_EQ(captured.size(), 4u);
    EXPECT_EQ(captured[0].handle, handle);
    EXPECT_EQ(captured[0].code, 0x80220006u);
    EXPECT_EQ(captured[0].input, std::vector<uint8_t>(request.begin(), request.end()));
    EXPECT_EQ(captured[0].output_size, 40u);
    EXPECT_EQ(captured[0].result, 0);
    EXPECT_EQ(std::string(captured[0].output.begin(), captured[0].output.end()), "Orvane");
    EXPECT_EQ(captured[1].output_size, 8u);
    EXPECT_EQ(captured[1].result, -EINVAL);
    EXPECT_TRUE(captured[1].output.empty());
    EXPECT_EQ(captured[2].handle, handle + 1);
    EXPECT_EQ(captured[2].result, -EBADF);
    EXPECT_EQ(captured[3].result, -ENOTTY);
    EXPECT_TRUE(bus.take_captured().empty());  // taken

    bus.capture_messages(false);
    ASSERT_EQ(bus.message(handle, 0x00222002, {}, out, returned), 0);
    EXPECT_TRUE(bus.take_captured().empty());
    EXPECT_EQ(bus.close(handle), 0);
}

TEST(EmulatorBus, OneShotRefusalsAndOpenFailures) {
    pcie_bus bus;
    EXPECT_EQ(bus.card(0)->profile().name, "HQ12-0 4xCXP12");
    EXPECT_EQ(bus.card(1), nullptr);

    bus.fail_next_open(-EACCES);
    uint64_t handle = 0;
    EXPECT_EQ(bus.open(0, handle), -EACCES);
    EXPECT_EQ(bus.open_handle_count(), 0u);
    bus.fail_next_open(5);  // not an error value: taken as -EIO
    EXPECT_EQ(bus.open(0, handle), -EIO);
    ASSERT_EQ(bus.open(0, handle), 0);

    std::array<uint8_t, 228> out{};
    size_t returned = 0;
    bus.refuse_next(0x00222002, 2);
    EXPECT_EQ(bus.message(handle + 1, 0x00222002, {}, out, returned), -EBADF);  // not counted
    EXPECT_EQ(bus.message(handle, 0x00222006, {}, out, returned), 0);           // other code
    EXPECT_EQ(bus.message(handle, 0x00222002, {}, out, returned), -EIO);
    EXPECT_EQ(bus.message(handle, 0x00222002, {}, out, returned), -EIO);
    EXPECT_EQ(bus.message(handle, 0x00222002, {}, out, returned), 0);

    bus.refuse_next(0x00222006);
    bus.fail_next_open();
    bus.capture_messages(true);
    bus.reset();  // forgets all of it
    EXPECT_EQ(bus.message(handle, 0x00222006, {}, out, returned), 0);
    EXPECT_TRUE(bus.take_captured().empty());
    uint64_t second = 0;
    EXPECT_EQ(bus.open(0, second), 0);
}

}  // namespace
