// The card context against the emulated card: register relocation, card
// register access, DMA into buffers and interrupts, and the bytes of every
// driver message as the card receives them.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "card/card_context.h"
#include "card/cxp_data_stream.h"
#include "card/cxp_interrupt.h"
#include "card/driver_codes.h"
#include "diag/log.h"
#include "emulator/emulated_card.h"
#include "emulator/pcie_bus.h"

namespace {

using namespace pelorin::card;
using pelorin::emu::pcie_bus;

std::vector<uint8_t> le_words(std::initializer_list<uint32_t> words) {
    std::vector<uint8_t> bytes;
    for (uint32_t word : words)
        for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(word >> (8 * i)));
    return bytes;
}

void append_le64(std::vector<uint8_t> &bytes, uint64_t value) {
    for (int i = 0; i < 8; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

// A context opened on card 0 of the emulated bus, which is reset around
// every test.
class CardContextTest : public testing::Test {
protected:
    void SetUp() override {
        bus().reset();
        ASSERT_TRUE(pcie_open(context.pcie_device, 0));
        card = bus().card(0);
        ASSERT_NE(card, nullptr);
    }
    void TearDown() override {
        pcie_close(context.pcie_device);
        bus().capture_messages(false);
        bus().reset();
    }

    static pcie_bus &bus() { return pcie_bus::system_bus(); }

    // The messages the card received since the last call.
    std::vector<pelorin::emu::captured_message> received() { return bus().take_captured(); }

    card_context context;
    std::shared_ptr<pelorin::emu::emulated_card> card;
};

TEST(RegisterRelocation, MovesTheStreamGroupAndChannelBlocksOnly) {
    EXPECT_EQ(relocate_register(0x2003, 2, 0), 0x2203u);
    EXPECT_EQ(relocate_register(0x20FF, 1, 5), 0x21FFu);
    EXPECT_EQ(relocate_register(0x2803, 0, 1), 0x2903u);
    EXPECT_EQ(relocate_register(0x28FF, 7, 2), 0x2AFFu);
    EXPECT_EQ(relocate_register(0x25, 3, 0), 0x55u);
    EXPECT_EQ(relocate_register(0x20, 1, 1), 0x30u);
    for (uint32_t unmoved : {0x1Fu, 0x30u, 0x1FFFu, 0x2100u, 0x27FFu, 0x2900u, 0x1010u, 0x0A20u})
        EXPECT_EQ(relocate_register(unmoved, 3, 3), unmoved) << std::hex << unmoved;
}

TEST_F(CardContextTest, RegistersAreReachedThroughTheRelocatedAddress) {
    card->write_register(0x2203, 0xA1);
    card->write_register(0x2903, 0xB2);
    context.pcie_device.channel_index = 2;
    EXPECT_EQ(context_read_reg(&context, 0x2003), 0xA1u);
    context.pcie_device.group_index = 1;
    EXPECT_EQ(context_read_reg(&context, 0x2803), 0xB2u);
    context.pcie_device.channel_index = 3;
    context_write_reg(&context, 0x25, 9);
    EXPECT_EQ(card->read_register(0x55), 9u);
    context_write_reg(&context, 0x0A20, 4);
    EXPECT_EQ(card->read_register(0x0A20), 4u);

    card_context closed;
    context_write_reg(&closed, 0x0A20, 5);
    EXPECT_EQ(context_read_reg(&closed, 0x0A20), 0u);
    EXPECT_EQ(context_read_reg(nullptr, 0x0A20), 0u);
    EXPECT_EQ(card->read_register(0x0A20), 4u);
}

TEST_F(CardContextTest, CardRegisterAccessChecksSizes) {
    card->write_register(0x2840, 0xFFFFFFFF);
    bus().capture_messages(true);
    const uint8_t five[5] = {1, 2, 3, 4, 5};
    EXPECT_EQ(card_write_reg(&context, 0x2840, five, 5), -2);
    EXPECT_TRUE(received().empty());
    const uint8_t two[2] = {0x34, 0x12};
    EXPECT_EQ(card_write_reg(&context, 0x2840, two, 2), 0);
    EXPECT_EQ(card->read_register(0x2840), 0x1234u);

    card->write_register(0x2841, 0xAABBCCDD);
    uint8_t one = 0;
    EXPECT_EQ(card_read_reg(&context, 0x2841, &one, 1), 0);
    EXPECT_EQ(one, 0xDD);
    uint32_t word = 0;
    EXPECT_EQ(card_read_reg(&context, 0x2841, &word, 4), 0);
    EXPECT_EQ(word, 0xAABBCCDDu);
    uint64_t wide = 7;
    EXPECT_EQ(card_read_reg(&context, 0x2841, &wide, 8), 0);
    EXPECT_EQ(wide, 7u);  // more than a register: nothing copied

    card_context closed;
    EXPECT_EQ(card_write_reg(&closed, 0x2840, two, 2), -1);
    EXPECT_EQ(card_write_reg(&context, 0x2840, nullptr, 2), -1);
    EXPECT_EQ(card_write_reg(&context, 0x2840, two, 0), -1);
    EXPECT_EQ(card_read_reg(&closed, 0x2840, &word, 4), -1);
    EXPECT_EQ(card_read_reg(nullptr, 0x2840, &word, 4), -1);
    EXPECT_EQ(card_read_reg(&context, 0x2840, nullptr, 4), -1);
}

TEST_F(CardContextTest, SetParamProgramsTheStreamBlockOfTheChannel) {
    context.pcie_device.channel_index = 1;
    context.pcie_device.group_index = 1;
    bus().capture_messages(true);
    dma_param_block block = {7, 9, 1024, 768, 2, 1040, 1041, 4};
    ASSERT_EQ(dma_set_param(&context, block), 0);
    EXPECT_EQ(card->read_register(0x2108), 1u);
    EXPECT_EQ(card->read_register(0x2150), 1536u);
    EXPECT_EQ(card->read_register(0x2115), 768u);
    EXPECT_EQ(card->read_register(0x2110), 7u);
    EXPECT_EQ(card->read_register(0x2114), 255u);  // one stream: second ID unused
    const auto messages = received();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages.back().code, kCodeSetStreamParam);
    EXPECT_EQ(messages.back().input, le_words({1, 1024, 768, 1040, 1041, 4}));
    EXPECT_EQ(cxp_data_stream::live_count(), 0u);

    block[kParamTapGeometry] = kDualStreamTapGeometry;
    ASSERT_EQ(dma_set_param(&context, block), 0);
    EXPECT_EQ(card->read_register(0x2114), 9u);

    bus().refuse_next(kCodeSetStreamParam);
    EXPECT_EQ(dma_set_param(&context, block), -1);
    card_context closed;
    EXPECT_EQ(dma_set_param(&closed, block), -1);
    EXPECT_EQ(dma_set_param(nullptr, block), -1);
}

TEST_F(CardContextTest, FramesFlowIntoTheBuffersAndTheEventFires) {
    constexpr uint32_t kPayload = 64 * 1024;
    ASSERT_EQ(dma_set_param(&context, {1, 2, 256, 256, 0, 256, 256, 0}), 0);
    ASSERT_EQ(card->set_manual_trigger(0, true), 0);
    std::vector<std::vector<uint8_t>> buffers(4, std::vector<uint8_t>(kPayload, 0xCC));
    std::vector<uint64_t> addresses;
    for (auto &buffer : buffers) addresses.push_back(reinterpret_cast<uint64_t>(buffer.data()));

    ASSERT_EQ(dma_start(&context, addresses.data(), 4, kPayload), 0);
    for (uint32_t i = 0; i < 4; ++i) ASSERT_EQ(dma_queue_buffer(&context, i), 0);
    uint32_t index = 0, pending = 0;
    ASSERT_EQ(dma_get_frame(&context, &index, &pending), 0);
    EXPECT_EQ(pending, 0u);

    ASSERT_EQ(card->trigger_frames(0, 3), 0);
    ASSERT_TRUE(card->wait_frames(0, 3, std::chrono::seconds(5)));
    EXPECT_EQ(context.pcie_device.frame_event.wait(1000), os_event::wait_result::signalled);
    for (uint32_t expected = 0; expected < 3; ++expected) {
        ASSERT_EQ(dma_get_frame(&context, &index, &pending), 0);
        EXPECT_EQ(index, expected);
        EXPECT_EQ(pending, 3 - expected);
        uint64_t stamped = 0;
        std::memcpy(&stamped, buffers[index].data(), sizeof stamped);
        EXPECT_EQ(stamped, expected);  // frame numbers count from 0
    }
    ASSERT_EQ(dma_get_frame(&context, &index, &pending), 0);
    EXPECT_EQ(pending, 0u);
    // The hardware frame counter of the stream block follows.
    EXPECT_EQ(context_read_reg(&context, 0x2020) & 0xFFFFFF, 3u);

    EXPECT_EQ(dma_queue_buffer(&context, 4), -3);  // no such buffer
    EXPECT_EQ(dma_stop(&context), 0);
    EXPECT_EQ(context.frame_rate, 0u);
    EXPECT_EQ(dma_queue_buffer(&context, 0), -3);  // the engine is stopped
}

TEST_F(CardContextTest, StartRunsTheGroupTriggerGeneratorWhenInternal) {
    std::vector<uint8_t> buffer(4096);
    const uint64_t address = reinterpret_cast<uint64_t>(buffer.data());
    context.pcie_device.group_index = 2;

    // Not in internal mode: the group block is left alone.
    ASSERT_EQ(dma_start(&context, &address, 1, 4096), 0);
    EXPECT_EQ(card->read_register(0x2A03), 0u);
    EXPECT_EQ(context.frame_rate, 60u);
    ASSERT_EQ(dma_stop(&context), 0);

    card->write_register(0x2A00, 1);
    ASSERT_EQ(dma_start(&context, &address, 1, 4096), 0);
    EXPECT_EQ(card->read_register(0x2A03), 16666u);
    EXPECT_EQ(card->read_register(0x2A02), 125000u);
    EXPECT_EQ(card->read_register(0x2A05), 1u);
    ASSERT_EQ(dma_stop(&context), 0);

    // Programmed registers are kept; an external trigger keeps it stopped.
    card->write_register(0x2A05, 0);
    card->write_register(0x2A04, 1);
    context.frame_rate = 25;
    ASSERT_EQ(dma_start(&context, &address, 1, 4096), 0);
    EXPECT_EQ(card->read_register(0x2A03), 16666u);
    EXPECT_EQ(card->read_register(0x2A05), 0u);
    ASSERT_EQ(dma_stop(&context), 0);
    card->write_register(0x2A03, 0);
    context.frame_rate = 25;
    ASSERT_EQ(dma_start(&context, &address, 1, 4096), 0);
    EXPECT_EQ(card->read_register(0x2A03), 40000u);
    ASSERT_EQ(dma_stop(&context), 0);
}

TEST_F(CardContextTest, FailedStartLeavesDmaStopped) {
    std::vector<uint8_t> buffer(4096);
    const uint64_t address = reinterpret_cast<uint64_t>(buffer.data());
    bus().capture_messages(true);
    bus().refuse_next(kCodeDmaStart);
    const uint32_t language = pelorin::diag::log_language();
    pelorin::diag::set_log_language(pelorin::diag::kEnglish);
    testing::internal::CaptureStdout();
    EXPECT_EQ(dma_start(&context, &address, 1, 4096), -4);
    const std::string printed = testing::internal::GetCapturedStdout();
    pelorin::diag::set_log_language(language);
    EXPECT_NE(printed.find("PCIe DMA start failed, Error: 5"), std::string::npos) << printed;
    EXPECT_NE(printed.find("Can't start PCIe DMA!"), std::string::npos) << printed;
    const auto messages = received();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1].code, kCodeDmaStop);
    EXPECT_EQ(dma_queue_buffer(&context, 0), -3);
    EXPECT_EQ(context.frame_rate, 0u);

    // Bad arguments never reach the card.
    EXPECT_EQ(dma_start(&context, nullptr, 1, 4096), -1);
    EXPECT_EQ(dma_start(&context, &address, 0, 4096), -1);
    EXPECT_EQ(dma_start(&context, &address, 1, 0), -1);
    EXPECT_EQ(dma_start(nullptr, &address, 1, 4096), -1);
    uint32_t index = 0, pending = 0;
    EXPECT_EQ(dma_get_frame(&context, nullptr, &pending), -1);
    EXPECT_EQ(dma_get_frame(nullptr, &index, &pending), -1);
    card_context closed;
    EXPECT_EQ(dma_stop(&closed), -1);
    EXPECT_EQ(dma_queue_buffer(nullptr, 0), -1);
    EXPECT_EQ(dma_queue_buffer(&closed, 0), -2);
    EXPECT_EQ(received().size(), 1u);  // the refused queue above only
}

TEST_F(CardContextTest, InterruptSourceSignalsItsEvent) {
    bus().capture_messages(true);
    {
        cxp_interrupt interrupt(&context.pcie_device, 4);
        ASSERT_EQ(interrupt.open(), 0);
        EXPECT_EQ(interrupt.open(), -1);
        EXPECT_TRUE(card->raise_interrupt(4));
        EXPECT_EQ(interrupt.event().wait(1000), os_event::wait_result::signalled);
        EXPECT_EQ(interrupt.event().wait(0), os_event::wait_result::timed_out);
        EXPECT_FALSE(card->raise_interrupt(5));
        EXPECT_EQ(interrupt.close(), 0);
        EXPECT_FALSE(interrupt.is_open());
        EXPECT_FALSE(card->raise_interrupt(4));
        ASSERT_EQ(interrupt.open(), 0);
    }  // the destructor unregisters
    EXPECT_FALSE(card->raise_interrupt(4));
    EXPECT_EQ(received().size(), 4u);

    cxp_interrupt out_of_range(&context.pcie_device, 32);
    EXPECT_EQ(out_of_range.open(), -1);
    os_event event;
    EXPECT_FALSE(pcie_register_event(context.pcie_device, 40, event));
    EXPECT_FALSE(event.valid());
    EXPECT_TRUE(received().empty());
}

TEST_F(CardContextTest, EveryMessageReachesTheCardByteExactly) {
    bus().capture_messages(true);
    context.pcie_device.channel_index = 1;
    context.pcie_device.group_index = 3;
    const uint64_t handle = context.pcie_device.handle;

    // Identity.
    std::array<uint8_t, kBootRecordSize> boot{};
    std::array<uint8_t, kCardInfoSize> info{};
    std::array<uint8_t, kDescriptionBlockSize> block{};
    ASSERT_TRUE(pcie_get_boot_info(context.pcie_device, boot));
    ASSERT_TRUE(pcie_get_card_info(context.pcie_device, info));
    ASSERT_TRUE(pcie_read_flash(context.pcie_device, 0, kDescriptionBlockSize, block));
    auto messages = received();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0].code, 0x00222002u);
    EXPECT_TRUE(messages[0].input.empty());
    EXPECT_EQ(messages[0].output_size, 32u);
    EXPECT_EQ(messages[0].output, std::vector<uint8_t>(boot.begin(), boot.end()));
    EXPECT_EQ(messages[1].code, 0x00222006u);
    EXPECT_EQ(messages[1].output_size, 228u);
    EXPECT_EQ(messages[1].output, std::vector<uint8_t>(info.begin(), info.end()));
    EXPECT_EQ(messages[2].code, 0x80220006u);
    EXPECT_EQ(messages[2].input, le_words({0, 216}));
    EXPECT_EQ(messages[2].output, std::vector<uint8_t>(block.begin(), block.end()));

    // Registers.
    pcie_write_reg(context.pcie_device, 0x1018, 0xCAFEF00D);
    card->write_register(0x2020, 0x42);
    EXPECT_EQ(pcie_read_reg(context.pcie_device, 0x2020), 0x42u);
    const uint32_t words[3] = {0x01020304, 0x05060708, 0x090A0B0C};
    EXPECT_TRUE(pcie_write_fifo(context.pcie_device, 0x1018, words));
    messages = received();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0].handle, handle);
    EXPECT_EQ(messages[0].code, 0x0022240Eu);
    EXPECT_EQ(messages[0].input, le_words({0x1018, 0xCAFEF00D}));
    EXPECT_EQ(messages[1].code, 0x00222412u);
    EXPECT_EQ(messages[1].input, le_words({0x2020, 0}));
    EXPECT_EQ(messages[1].output_size, 4u);
    EXPECT_EQ(messages[2].code, 0x00222442u);
    EXPECT_EQ(messages[2].input, le_words({1, 0, 0x1018, 3, 0x01020304, 0x05060708, 0x090A0B0C}));

    // Events and links.
    os_event event;
    ASSERT_TRUE(pcie_register_event(context.pcie_device, 12, event));
    const int fd = event.handle_value();
    EXPECT_TRUE(pcie_unregister_event(context.pcie_device, 12, event));
    EXPECT_TRUE(pcie_link_attach(context.pcie_device, 0x3));
    EXPECT_TRUE(pcie_link_detach(context.pcie_device));
    messages = received();
    ASSERT_EQ(messages.size(), 4u);
    std::vector<uint8_t> registration = le_words({12, 0});
    append_le64(registration, static_cast<uint64_t>(fd));
    EXPECT_EQ(messages[0].code, 0x00224402u);
    EXPECT_EQ(messages[0].input, registration);
    EXPECT_EQ(messages[1].code, 0x00224406u);
    EXPECT_EQ(messages[1].input, le_words({12}));
    EXPECT_EQ(messages[2].code, 0x00224802u);
    EXPECT_EQ(messages[2].input, le_words({3, 0x3}));
    EXPECT_EQ(messages[3].code, 0x00224806u);
    EXPECT_TRUE(messages[3].input.empty());

    // DMA.
    EXPECT_TRUE(pcie_set_stream_param(context.pcie_device, {640, 480, 640, 640, 0}));
    std::vector<uint8_t> a(4096), b(4096);
    const uint64_t addresses[2] = {reinterpret_cast<uint64_t>(a.data()),
                                   reinterpret_cast<uint64_t>(b.data())};
    ASSERT_TRUE(pcie_dma_start(context.pcie_device, addresses, 4096, 0));
    EXPECT_TRUE(pcie_queue_buffer(context.pcie_device, 1));
    uint32_t index = 0, pending = 0;
    EXPECT_TRUE(pcie_get_frame(context.pcie_device, index, pending));
    EXPECT_TRUE(pcie_dma_stop(context.pcie_device));
    messages = received();
    ASSERT_EQ(messages.size(), 5u);
    EXPECT_EQ(messages[0].code, 0x0022241Eu);
    EXPECT_EQ(messages[0].input, le_words({1, 640, 480, 640, 640, 0}));
    std::vector<uint8_t> start = le_words({1, 4096, 2, 0});
    append_le64(start, static_cast<uint64_t>(context.pcie_device.frame_event.handle_value()));
    append_le64(start, addresses[0]);
    append_le64(start, addresses[1]);
    EXPECT_EQ(messages[1].code, 0x00222402u);
    EXPECT_EQ(messages[1].input, start);
    EXPECT_EQ(messages[2].code, 0x00222416u);
    EXPECT_EQ(messages[2].input, le_words({1, 1}));
    EXPECT_EQ(messages[2].output_size, 12u);
    EXPECT_EQ(messages[3].code, 0x0022241Au);
    EXPECT_EQ(messages[3].input, le_words({1}));
    EXPECT_EQ(messages[3].output_size, 12u);
    EXPECT_EQ(messages[4].code, 0x00222406u);
    EXPECT_EQ(messages[4].input, le_words({1}));

    // A start over no buffers is the bare 24-byte header.
    EXPECT_TRUE(pcie_dma_start(context.pcie_device, {}, 4096, 0));
    messages = received();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].input.size(), 24u);
    EXPECT_TRUE(pcie_dma_stop(context.pcie_device));
}

TEST_F(CardContextTest, ACardThatDisappearsOrWontOpenIsAPlainFailure) {
    bus().set_cards({pelorin::emu::card_profile::halden_q12(0),
                     pelorin::emu::card_profile::halden_q12(1)});
    bus().set_cards({pelorin::emu::card_profile::halden_q12(0)});
    card_context second;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(pcie_open(second.pcie_device, 1));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_FALSE(second.pcie_device.is_open());
    EXPECT_EQ(context_read_reg(&second, 0x2020), 0u);

    bus().fail_next_open();
    testing::internal::CaptureStdout();
    EXPECT_FALSE(pcie_open(second.pcie_device, 0));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "CreateFile failed.  Error:5\n");
    ASSERT_TRUE(pcie_open(second.pcie_device, 0));
    pcie_close(second.pcie_device);

    // A handle whose card was removed still reaches the card it was opened
    // on; a closed one reaches nothing.
    bus().set_cards({});
    EXPECT_EQ(context_read_reg(&context, 0x2020) & 0xFFFFFF, 0u);
    pcie_close(context.pcie_device);
    EXPECT_EQ(dma_stop(&context), -1);
}

}  // namespace
