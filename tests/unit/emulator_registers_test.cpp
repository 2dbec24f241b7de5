// The emulated card's register space through the driver messages: plain
// storage, windows that models map over a range, FIFO writes, and the
// engine's read-only frame counter.
#include <gtest/gtest.h>

#include <cerrno>
#include <mutex>
#include <utility>
#include <vector>

#include "emulator_client.h"
#include "emulator/register_window.h"

namespace {

using emu_test::client;
using emu_test::words;
using pelorin::emu::kCodeReadReg;
using pelorin::emu::kCodeWriteFifo;
using pelorin::emu::kCodeWriteReg;
using pelorin::emu::pcie_bus;

// Records every access and answers reads with a value made of the offset.
class recording_window : public pelorin::emu::register_window {
public:
    uint32_t read(uint32_t offset) override {
        std::lock_guard lock(mutex_);
        reads.push_back(offset);
        return 0xA0000000 | offset;
    }
    void write(uint32_t offset, uint32_t value) override {
        std::lock_guard lock(mutex_);
        writes.emplace_back(offset, value);
    }
    std::mutex mutex_;
    std::vector<uint32_t> reads;
    std::vector<std::pair<uint32_t, uint32_t>> writes;
};

TEST(EmulatorRegisters, StoreReadBackAndRefuseMalformedAccess) {
    pcie_bus bus;
    client host(bus);
    ASSERT_EQ(host.opened(), 0);

    for (uint32_t address : {0u, 0x1234u, 0xFFFFFFFFu}) EXPECT_EQ(host.read_reg(address), 0u);
    ASSERT_EQ(host.write_reg(0xFFFFFFFF, 7), 0);
    ASSERT_EQ(host.write_reg(0x2803, 16666), 0);
    ASSERT_EQ(host.write_reg(0x2903, 40000), 0);
    EXPECT_EQ(host.read_reg(0xFFFFFFFF), 7u);
    EXPECT_EQ(host.read_reg(0x2803), 16666u);
    EXPECT_EQ(host.read_reg(0x2903), 40000u);  // each address its own register
    ASSERT_EQ(host.write_reg(0x2803, 0), 0);
    EXPECT_EQ(host.read_reg(0x2803), 0u);

    // A FIFO write to a plain register leaves the last word.
    ASSERT_EQ(host.write_fifo(0x40, {1, 2, 3}), 0);
    EXPECT_EQ(host.read_reg(0x40), 3u);
    ASSERT_EQ(host.write_fifo(0x40, {}), 0);  // no words: nothing written
    EXPECT_EQ(host.read_reg(0x40), 3u);

    // Wrong sizes, a read with a non-zero second word, a short answer buffer.
    const std::vector<uint8_t> nine = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(host.send(kCodeWriteReg, std::span(nine).first(7)), -EINVAL);
    EXPECT_EQ(host.send(kCodeWriteReg, nine), -EINVAL);
    uint8_t out[4] = {};
    EXPECT_EQ(host.send(kCodeReadReg, words({0x40, 1}), out), -EINVAL);
    EXPECT_EQ(host.send(kCodeReadReg, words({0x40, 0}), std::span(out).first(3)), -EINVAL);
    EXPECT_EQ(host.send(kCodeReadReg, words({0x40}), out), -EINVAL);
    // FIFO headers: first word 1, second 0, size exactly 16 + 4 x count.
    EXPECT_EQ(host.send(kCodeWriteFifo, words({2, 0, 0x40, 1, 9})), -EINVAL);
    EXPECT_EQ(host.send(kCodeWriteFifo, words({1, 1, 0x40, 1, 9})), -EINVAL);
    EXPECT_EQ(host.send(kCodeWriteFifo, words({1, 0, 0x40, 2, 9})), -EINVAL);
    EXPECT_EQ(host.send(kCodeWriteFifo, words({1, 0, 0x40, 0, 9})), -EINVAL);
    EXPECT_EQ(host.send(kCodeWriteFifo, words({1, 0, 0x40, 0xFFFFFFFF, 9})), -EINVAL);
    EXPECT_EQ(host.send(kCodeWriteFifo, words({1, 0, 0x40})), -EINVAL);
    EXPECT_EQ(host.read_reg(0x40), 3u);  // none of them wrote
}

TEST(EmulatorRegisters, WindowsAnswerTheirRangeInOrder) {
    pcie_bus bus;
    client host(bus);
    const auto card = bus.card(0);
    ASSERT_NE(card, nullptr);
    ASSERT_EQ(host.write_reg(0x1104, 55), 0);  // storage below a later window

    // The per-link block of link 1.
    auto link1 = std::make_shared<recording_window>();
    ASSERT_EQ(card->map_registers(0x1100, 0x100, link1), 0);
    EXPECT_EQ(host.read_reg(0x1110), 0xA0000010u);
    EXPECT_EQ(host.read_reg(0x11FF), 0xA00000FFu);
    ASSERT_EQ(host.write_reg(0x1115, 0), 0);
    ASSERT_EQ(host.write_fifo(0x1118, {0x11, 0x22, 0x33}), 0);
    EXPECT_EQ(link1->reads, (std::vector<uint32_t>{0x10, 0xFF}));
    const std::vector<std::pair<uint32_t, uint32_t>> written = {
        {0x15, 0}, {0x18, 0x11}, {0x18, 0x22}, {0x18, 0x33}};
    EXPECT_EQ(link1->writes, written);
    // Neighbours stay plain storage.
    EXPECT_EQ(host.read_reg(0x10FF), 0u);
    ASSERT_EQ(host.write_reg(0x1200, 9), 0);
    EXPECT_EQ(host.read_reg(0x1200), 9u);

    // Overlaps, empty or wrapping ranges and no window are refused.
    auto other = std::make_shared<recording_window>();
    EXPECT_EQ(card->map_registers(0x1180, 0x10, other), -EBUSY);
    EXPECT_EQ(card->map_registers(0x1000, 0x101, other), -EBUSY);
    EXPECT_EQ(card->map_registers(0x1000, 0x10000, other), -EBUSY);
    EXPECT_EQ(card->map_registers(0x1000, 0, other), -EINVAL);
    EXPECT_EQ(card->map_registers(0xFFFFFF00, 0x101, other), -EINVAL);
    EXPECT_EQ(card->map_registers(0x1000, 0x100, nullptr), -EINVAL);
    EXPECT_EQ(card->map_registers(0x1000, 0x100, other), 0);   // just below
    EXPECT_EQ(card->map_registers(0xFFFFFF00, 0x100, other), 0);  // up to the last address
    EXPECT_EQ(host.read_reg(0xFFFFFFFF), 0xA00000FFu);

    // Unmapped, the range is storage again with what it held before.
    EXPECT_EQ(card->unmap_registers(0x1100), 0);
    EXPECT_EQ(card->unmap_registers(0x1100), -EINVAL);
    EXPECT_EQ(host.read_reg(0x1104), 55u);
    EXPECT_EQ(link1->reads.size(), 2u);
}

TEST(EmulatorRegisters, FrameCounterIsReadOnlyForTheHost) {
    pcie_bus bus;  // one 4-link card: channels 0..3
    client host(bus);
    const auto card = bus.card(0);
    ASSERT_EQ(card->dma_channel_count(), 4u);

    for (uint32_t channel = 0; channel < 4; ++channel) {
        const uint32_t counter = 0x2020 + 0x100 * channel;
        ASSERT_EQ(host.write_reg(counter, 77), 0);
        ASSERT_EQ(host.write_fifo(counter, {78}), 0);
        EXPECT_EQ(host.read_reg(counter), 0u) << channel;
        // The control side presets it, 24 bits wide.
        card->write_register(counter, 0x01234567 + channel);
        EXPECT_EQ(host.read_reg(counter), 0x234567u + channel);
        EXPECT_EQ(card->read_register(counter), 0x234567u + channel);
    }
    // Past the last channel the stream block is storage; so are the other
    // registers of a channel's block.
    ASSERT_EQ(host.write_reg(0x2420, 77), 0);
    EXPECT_EQ(host.read_reg(0x2420), 77u);
    ASSERT_EQ(host.write_reg(0x2021, 5), 0);
    EXPECT_EQ(host.read_reg(0x2021), 5u);
}

}  // namespace

namespace {

// The sensor registers that the interface reports read plausible values
// through the driver messages.
TEST(EmulatorRegisters, SensorsReadPlausibleTemperaturesAndSupplies) {
    pcie_bus bus;
    client host{bus};
    ASSERT_EQ(host.opened(), 0);
    for (uint32_t i = 0; i < 4; ++i) {
        const double celsius = (host.read_reg(0x330 + i) & 0xFFFF) * 1.25 / 1000;
        EXPECT_GT(celsius, 20.0) << i;
        EXPECT_LT(celsius, 90.0) << i;
    }
    const double volts[4] = {1.0, 1.8, 3.3, 12.0};
    for (uint32_t i = 0; i < 4; ++i)
        EXPECT_NEAR((host.read_reg(0x340 + i) & 0xFFFF) / 1000.0, volts[i], 0.1) << i;
}

}  // namespace
