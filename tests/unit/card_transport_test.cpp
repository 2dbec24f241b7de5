#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "card/driver_transport.h"
#include "recording_transport.h"
#include "card/pcie_device.h"
#include "emulator/emulated_card.h"
#include "emulator/pcie_bus.h"

namespace {

using pelorin::card::driver_handle;
using pelorin::card::driver_transport;
using pelorin::card::kInvalidHandle;
using pelorin::testing_support::recording_transport;
using pelorin::testing_support::scoped_transport;

// Opens card `index` with stdout captured; returns what was printed.
std::string open_capturing(pcie_device &device, uint32_t index, bool &opened) {
    testing::internal::CaptureStdout();
    opened = pcie_open(device, index);
    return testing::internal::GetCapturedStdout();
}

TEST(PcieOpen, PrintsTheFailingStepAndLeavesTheRecordInvalid) {
    recording_transport fake;
    scoped_transport installed(&fake);
    pcie_device device;
    bool opened = true;

    fake.enumerate_result = -ENOENT;
    EXPECT_EQ(open_capturing(device, 0, opened), "SetupDiGetClassDevs failed, Error: 2\n");
    EXPECT_FALSE(opened);
    EXPECT_EQ(device.handle, kInvalidHandle);
    EXPECT_FALSE(device.is_open());

    fake.enumerate_result = 0;
    fake.cards = 0;
    EXPECT_EQ(open_capturing(device, 0, opened), "SetupDiEnumDeviceInterfaces failed, Error: 19\n");
    EXPECT_FALSE(opened);

    // Probing past the last card is silent.
    fake.cards = 2;
    EXPECT_EQ(open_capturing(device, 2, opened), "");
    EXPECT_FALSE(opened);
    EXPECT_EQ(device.handle, kInvalidHandle);
    EXPECT_TRUE(fake.opened.empty());

    fake.open_result = -EACCES;
    EXPECT_EQ(open_capturing(device, 1, opened), "CreateFile failed.  Error:13\n");
    EXPECT_FALSE(opened);
    EXPECT_EQ(fake.opened, std::vector<uint32_t>{1});
    EXPECT_FALSE(device.frame_event.valid());

    // A transport handing out a handle that marks "not open" is refused.
    fake.open_result = 0;
    fake.next_handle = 0;
    EXPECT_EQ(open_capturing(device, 0, opened), "CreateFile failed.  Error:9\n");
    EXPECT_FALSE(opened);

    // Closing the failed record closes nothing.
    pcie_close(device);
    EXPECT_EQ(device.handle, pelorin::card::kClosedHandle);
    EXPECT_TRUE(fake.closed.empty());
}

TEST(PcieOpen, OpensTheHandleWithAnAutoResetFrameEventAndClosesBoth) {
    recording_transport fake;
    scoped_transport installed(&fake);

    pcie_device never_opened;
    pcie_close(never_opened);  // nothing to do
    EXPECT_TRUE(fake.closed.empty());
    EXPECT_EQ(never_opened.handle, pelorin::card::kClosedHandle);

    pcie_device device;
    bool opened = false;
    EXPECT_EQ(open_capturing(device, 0, opened), "");
    ASSERT_TRUE(opened);
    EXPECT_EQ(device.handle, 0x5A17u);
    EXPECT_EQ(device.transport, &fake);
    EXPECT_EQ(device.group_index, 0u);
    EXPECT_EQ(device.channel_index, 0u);
    ASSERT_TRUE(device.frame_event.valid());
    EXPECT_TRUE(device.frame_event.auto_reset());
    EXPECT_EQ(device.frame_event.wait(0), os_event::wait_result::timed_out);
    EXPECT_EQ(device.frame_event.set(), 0);
    EXPECT_EQ(device.frame_event.wait(0), os_event::wait_result::signalled);
    EXPECT_EQ(device.frame_event.wait(0), os_event::wait_result::timed_out);

    pcie_close(device);
    EXPECT_EQ(fake.closed, std::vector<driver_handle>{0x5A17});
    EXPECT_EQ(device.handle, pelorin::card::kClosedHandle);
    EXPECT_FALSE(device.frame_event.valid());
    pcie_close(device);
    EXPECT_EQ(fake.closed.size(), 1u);
}

TEST(PcieMessages, AreEncodedByteExactly) {
    recording_transport fake;
    scoped_transport installed(&fake);
    pcie_device device;
    ASSERT_TRUE(pcie_open(device, 0));

    fake.reply = {0x02, 0x00, 0x00, 0x00, 0xAB};
    fake.reply.resize(32);
    std::array<uint8_t, 32> boot{};
    ASSERT_TRUE(pcie_get_boot_info(device, boot));
    ASSERT_EQ(fake.messages.size(), 1u);
    EXPECT_EQ(fake.messages[0].handle, 0x5A17u);
    EXPECT_EQ(fake.messages[0].code, 0x00222002u);
    EXPECT_TRUE(fake.messages[0].in.empty());
    EXPECT_EQ(fake.messages[0].out_size, 32u);
    EXPECT_EQ(boot[0], 0x02);
    EXPECT_EQ(boot[4], 0xAB);

    // The card information buffer is zeroed before the driver fills it.
    fake.reply = {0x11, 0x22};
    std::array<uint8_t, 228> info;
    info.fill(0xEE);
    ASSERT_TRUE(pcie_get_card_info(device, info));
    EXPECT_EQ(fake.messages[1].code, 0x00222006u);
    EXPECT_TRUE(fake.messages[1].in.empty());
    EXPECT_EQ(fake.messages[1].out_size, 228u);
    EXPECT_EQ(info[0], 0x11);
    EXPECT_EQ(info[1], 0x22);
    EXPECT_TRUE(std::all_of(info.begin() + 2, info.end(), [](uint8_t b) { return b == 0; }));

    fake.reply.assign(216, 0x5C);
    std::array<uint8_t, 300> flash{};
    ASSERT_TRUE(pcie_read_flash(device, 0x12345678, 216, flash));
    EXPECT_EQ(fake.messages[2].code, 0x80220006u);
    const std::vector<uint8_t> request = {0x78, 0x56, 0x34, 0x12, 0xD8, 0x00, 0x00, 0x00};
    EXPECT_EQ(fake.messages[2].in, request);
    EXPECT_EQ(fake.messages[2].out_size, 216u);  // exactly `length`, not the whole buffer

    // A refusal of the driver is a plain failure.
    fake.send_result = -EIO;
    EXPECT_FALSE(pcie_get_boot_info(device, boot));
    EXPECT_FALSE(pcie_read_flash(device, 0, 8, flash));
    EXPECT_EQ(fake.messages.size(), 5u);
    pcie_close(device);
}

TEST(PcieMessages, BadCallsFailWithoutReachingTheDriver) {
    recording_transport fake;
    scoped_transport installed(&fake);
    pcie_device device;
    std::array<uint8_t, 32> boot{};
    std::array<uint8_t, 228> info{};

    testing::internal::CaptureStdout();
    EXPECT_FALSE(pcie_get_boot_info(device, boot));
    EXPECT_FALSE(pcie_get_card_info(device, info));
    EXPECT_FALSE(pcie_read_flash(device, 0, 16, info));
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("pcie_get_boot_info: the card handle is not open"), std::string::npos) << log;
    EXPECT_NE(log.find("pcie_read_flash: the card handle is not open"), std::string::npos) << log;

    ASSERT_TRUE(pcie_open(device, 0));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(pcie_read_flash(device, 0, 229, info));
    log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("pcie_read_flash: buffer of 228 bytes cannot take 229 bytes"),
              std::string::npos)
        << log;
    EXPECT_TRUE(fake.messages.empty());
    pcie_close(device);
}

TEST(PcieMessages, ShortOrOversizeRepliesAreFailures) {
    recording_transport fake;
    scoped_transport installed(&fake);
    pcie_device device;
    ASSERT_TRUE(pcie_open(device, 0));
    testing::internal::CaptureStdout();

    // A register value or frame report the driver did not fully write.
    fake.reply = {0x34, 0x12};
    EXPECT_EQ(pcie_read_reg(device, 0x2020), 0u);
    uint32_t index = 7, pending = 7;
    EXPECT_FALSE(pcie_get_frame(device, index, pending));
    std::array<uint8_t, 32> boot{};
    EXPECT_FALSE(pcie_get_boot_info(device, boot));
    std::array<uint8_t, 64> flash{};
    EXPECT_FALSE(pcie_read_flash(device, 0, 16, flash));

    // A driver claiming more bytes than the buffer holds.
    fake.reply.assign(12, 0x01);
    fake.reported_size = 4096;
    EXPECT_EQ(pcie_read_reg(device, 0x2020), 0u);
    EXPECT_FALSE(pcie_get_frame(device, index, pending));
    std::array<uint8_t, 228> info{};
    EXPECT_FALSE(pcie_get_card_info(device, info));

    // A well-formed answer decodes.
    fake.reported_size = -1;
    fake.reply = {0x05, 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE, 0x03, 0, 0, 0};
    EXPECT_TRUE(pcie_get_frame(device, index, pending));
    EXPECT_EQ(index, 5u);
    EXPECT_EQ(pending, 3u);
    EXPECT_EQ(pcie_read_reg(device, 0x2020), 5u);

    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("pcie_read_reg: the driver answered 2 bytes, 4 expected"), std::string::npos)
        << log;
    EXPECT_NE(log.find("pcie_get_frame: the driver answered 4096 bytes, 12 expected"),
              std::string::npos)
        << log;
    pcie_close(device);
}

TEST(EmulatedTransport, IsTheDefaultAndReachesTheEmulatedCard) {
    scoped_transport installed(nullptr);
    pelorin::emu::pcie_bus &bus = pelorin::emu::pcie_bus::system_bus();
    bus.reset();
    const size_t handles_before = bus.open_handle_count();

    pcie_device device;
    ASSERT_TRUE(pcie_open(device, 0));
    EXPECT_EQ(bus.open_handle_count(), handles_before + 1);

    const pelorin::emu::emulated_card expected(bus.cards()[0]);
    std::array<uint8_t, 32> boot{};
    std::array<uint8_t, 228> info{};
    std::array<uint8_t, 216> block{};
    ASSERT_TRUE(pcie_get_boot_info(device, boot));
    ASSERT_TRUE(pcie_get_card_info(device, info));
    ASSERT_TRUE(pcie_read_flash(device, 0, 216, block));
    EXPECT_EQ(boot, expected.boot_record());
    EXPECT_EQ(info, expected.card_info());
    EXPECT_EQ(block, expected.description_block());

    bus.refuse_code(0x00222002);
    EXPECT_FALSE(pcie_get_boot_info(device, boot));
    bus.reset();

    pcie_close(device);
    EXPECT_EQ(bus.open_handle_count(), handles_before);

    // Past the only card: silent failure.
    testing::internal::CaptureStdout();
    EXPECT_FALSE(pcie_open(device, 1));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

}  // namespace
