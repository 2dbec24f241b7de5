// The cameras' frames on the emulated card's DMA channels: which camera
// feeds which channel, frames only while acquiring, image content from the
// camera registers (widths, unpacked, packed, Bayer, colour bars, the card's
// demosaic) checked byte for byte, software triggers, and the frame interval
// that exposure, frame rate and link bandwidth allow.
#include <gtest/gtest.h>

#include <bit>
#include <chrono>
#include <cstring>
#include <memory>
#include <vector>

#include "emulator/camera_frame_source.h"
#include "emulator/profile_loader.h"
#include "emulator_client.h"

namespace {

using emu_test::client;
using emu_test::event_fd;
using pelorin::emu::camera_frame_source;
using pelorin::emu::camera_image;
using pelorin::emu::card_profile;
using pelorin::emu::cxp_camera;
using pelorin::emu::emulated_card;
using pelorin::emu::frame_pacing;
using pelorin::emu::pcie_bus;
using pelorin::emu::stream_geometry;

constexpr auto kWait = std::chrono::seconds(10);  // a bound, never a measurement
constexpr uint32_t kCxp12x2 = 0x20058;

// The built-in card with a Lyra 25M on links 0-1 (channel 0) and a Lyra 12C
// on links 2-3 (channel 1).
struct two_model_bus : pcie_bus {
    two_model_bus() {
        card_profile profile = card_profile::halden_q12();
        auto cameras = pelorin::emu::camera_profile::standard_cameras(4, 0x58, profile.identifier);
        cameras[1].model = cxp_camera::kColourModel;
        profile.cameras = cameras;
        set_cards({profile});
    }
};

class EmulatorCameraFrames : public testing::Test {
protected:
    void SetUp() override {
        card = bus.card(0);
        ASSERT_TRUE(card->camera(1)->colour());
        ASSERT_EQ(host.opened(), 0);
    }

    static void set(cxp_camera &camera, uint32_t address, uint32_t value) {
        const uint8_t bytes[4] = {uint8_t(value >> 24), uint8_t(value >> 16), uint8_t(value >> 8), uint8_t(value)};
        ASSERT_EQ(camera.write_memory(address, bytes), cxp_camera::kAckWrite) << std::hex << address;
    }
    static void set_float(cxp_camera &camera, uint32_t address, float value) {
        set(camera, address, std::bit_cast<uint32_t>(value));
    }
    // Starts `channel` over `count` buffers of `payload` bytes (0xCC), all queued.
    void start(uint32_t channel, size_t count, uint32_t payload) {
        buffers.assign(count, std::vector<uint8_t>(payload, 0xCC));
        std::vector<uint64_t> addresses;
        for (auto &buffer : buffers) addresses.push_back(reinterpret_cast<uint64_t>(buffer.data()));
        ASSERT_EQ(host.dma_start(channel, payload, static_cast<uint64_t>(event.fd), addresses), 0);
        for (uint32_t i = 0; i < count; ++i) ASSERT_EQ(host.queue_buffer(channel, i), 0);
    }
    // The next completed buffer of `channel` and its frame number.
    const std::vector<uint8_t> &next(uint32_t channel, uint64_t frames_done, uint32_t &number) {
        EXPECT_TRUE(card->wait_frames(channel, frames_done, kWait));
        client::frame frame;
        EXPECT_EQ(host.get_frame(channel, frame), 0);
        EXPECT_LT(frame.index, buffers.size());
        number = frame.number;
        return buffers.at(frame.index < buffers.size() ? frame.index : 0);
    }
    // The frame as camera_frame_source says, and the buffer beyond it untouched.
    static void expect_frame(const std::vector<uint8_t> &buffer, const camera_image &image,
                             const stream_geometry &geometry, uint64_t number) {
        const std::vector<uint8_t> expected = camera_frame_source::expected_frame(
            image, geometry, static_cast<uint32_t>(buffer.size()), number);
        ASSERT_LE(expected.size(), buffer.size());
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), buffer.begin()));
        for (size_t i = expected.size(); i < buffer.size(); ++i) ASSERT_EQ(buffer[i], 0xCC) << i;
    }

    two_model_bus bus;
    client host{bus};
    std::shared_ptr<emulated_card> card;
    event_fd event;
    std::vector<std::vector<uint8_t>> buffers;
};

TEST_F(EmulatorCameraFrames, ChannelsCarryTheirCameraOnlyWhileItIsConnectedAndAcquiring) {
    ASSERT_NE(card->camera_source(0), nullptr);
    EXPECT_EQ(card->camera_source(0)->camera(), card->camera(0));
    EXPECT_EQ(card->camera_source(1)->camera(), card->camera(1));
    EXPECT_EQ(card->camera_source(2), nullptr);
    EXPECT_EQ(card->set_demosaic(2, true), -EINVAL);
    EXPECT_EQ(card->set_demosaic(8, true), -EINVAL);

    cxp_camera &camera = *card->camera(0);
    auto source = card->camera_source(0);
    EXPECT_FALSE(source->feeding());  // discovery: the channel keeps the pattern
    set(camera, cxp_camera::kConnectionConfig, kCxp12x2);
    EXPECT_TRUE(source->feeding());
    card->set_unlimited_frame_rate(true);
    set(camera, cxp_camera::kWidth, 32);
    set(camera, cxp_camera::kHeight, 4);
    ASSERT_EQ(host.set_stream_param(0, {32, 4, 32, 32, 0}), 0);
    start(0, 4, 256);

    // Queued buffers and no acquisition: no frame falls due.
    EXPECT_EQ(source->pacing().mode, frame_pacing::kind::stopped);
    EXPECT_EQ(card->dma_stats(0).frames_produced, 0u);

    // Continuous: a frame per queued buffer; stopped after the fourth.
    set(camera, cxp_camera::kAcquisitionStart, 1);
    EXPECT_EQ(source->pacing().mode, frame_pacing::kind::own_interval);
    ASSERT_TRUE(card->wait_frames(0, 4, kWait));
    set(camera, cxp_camera::kAcquisitionStop, 1);
    EXPECT_EQ(source->pacing().mode, frame_pacing::kind::stopped);
    const stream_geometry geometry{32, 4, 32, 32, 0};
    for (uint32_t i = 0; i < 4; ++i) {
        uint32_t number = 0;
        const std::vector<uint8_t> &buffer = next(0, 4, number);
        EXPECT_EQ(number, i);
        expect_frame(buffer, source->current_image(), geometry, number);
        ASSERT_EQ(host.queue_buffer(0, static_cast<uint32_t>(&buffer - buffers.data())), 0);
    }

    // SingleFrame: one frame, then the camera stops by itself; the buffers
    // queued while it was stopped took no frame meanwhile.
    set(camera, cxp_camera::kAcquisitionMode, 1);
    set(camera, cxp_camera::kAcquisitionStart, 1);
    ASSERT_TRUE(card->wait_frames(0, 5, kWait));
    EXPECT_FALSE(camera.acquiring());
    uint32_t number = 0;
    expect_frame(next(0, 5, number), source->current_image(), geometry, 4);
    EXPECT_EQ(number, 4u);
    EXPECT_EQ(card->dma_stats(0).frames_produced, 5u);
    EXPECT_EQ(host.read_reg(0x2020), 5u);
}

TEST_F(EmulatorCameraFrames, MonochromeFramesFollowWidthOffsetsAndPixelFormat) {
    cxp_camera &camera = *card->camera(0);
    const auto source = card->camera_source(0);
    set(camera, cxp_camera::kConnectionConfig, kCxp12x2);
    card->set_unlimited_frame_rate(true);
    set(camera, cxp_camera::kWidth, 64);
    set(camera, cxp_camera::kHeight, 8);
    set(camera, cxp_camera::kOffsetX, 16);
    set(camera, cxp_camera::kOffsetY, 3);
    // Stride 80 past the 64-byte line, 6 of 8 lines, payload cut inside line 5.
    const stream_geometry geometry{64, 6, 80, 80, 0};
    ASSERT_EQ(host.set_stream_param(0, {64, 6, 80, 80, 0}), 0);
    constexpr uint32_t kPayload = 5 * 80 + 40;
    start(0, 1, kPayload);
    set(camera, cxp_camera::kAcquisitionStart, 1);

    // Mono8, test pattern off: the seeded gradient of the sensor pixels.
    uint32_t number = 0;
    const std::vector<uint8_t> &frame = next(0, 1, number);
    camera_image image = source->current_image();
    EXPECT_EQ(image, (camera_image{64, 8, 16, 3, cxp_camera::kMono8, 0, 5120, false}));
    expect_frame(frame, image, geometry, number);
    const auto seed = [](uint32_t y) { return (y * 2654435761u) >> 16; };
    EXPECT_EQ(frame[80 + 20], static_cast<uint8_t>(seed(4) + 36));  // line 1, column 20
    EXPECT_EQ(frame[4 * 80 + 63], static_cast<uint8_t>(seed(7) + 79));
    EXPECT_EQ(frame[80 + 64], 0);  // past the line, inside the stride
    EXPECT_EQ(frame[0], 0);        // frame number 0 in the first eight pixels
    EXPECT_EQ(frame[8], static_cast<uint8_t>(seed(3) + 24));

    // Mono12 and a narrower image: two bytes per pixel, little-endian.
    set(camera, cxp_camera::kWidth, 32);
    set(camera, cxp_camera::kPixelFormat, camera_frame_source::kMono12);
    ASSERT_EQ(host.queue_buffer(0, 0), 0);
    const std::vector<uint8_t> &wide = next(0, 2, number);
    EXPECT_EQ(number, 1u);
    image = source->current_image();
    expect_frame(wide, image, geometry, number);
    const uint32_t value = (seed(5) + 16 + 10) & 0xFFF;  // line 2, column 10
    EXPECT_EQ(wide[2 * 80 + 20], value & 0xFF);
    EXPECT_EQ(wide[2 * 80 + 21], value >> 8);
    EXPECT_EQ(wide[0], 1);  // pixel 0 = byte 0 of frame number 1
    EXPECT_EQ(wide[1], 0);

    // Mono10p with the horizontal ramp: four pixels packed in five bytes.
    set(camera, cxp_camera::kPixelFormat, camera_frame_source::kMono10p);
    set(camera, cxp_camera::kTestPattern, 3);
    set(camera, cxp_camera::kOffsetX, 1008);  // columns 1008.. cross 1023 -> 0
    ASSERT_EQ(host.queue_buffer(0, 0), 0);
    const std::vector<uint8_t> &packed = next(0, 3, number);
    image = source->current_image();
    EXPECT_EQ(camera_frame_source::line_bytes(image), 40u);
    expect_frame(packed, image, geometry, number);
    for (uint32_t group = 2; group < 8; ++group) {  // past the frame number
        uint64_t bits = 0;
        for (uint32_t i = 0; i < 4; ++i) bits |= uint64_t((1008 + 4 * group + i) & 0x3FF) << (10 * i);
        for (uint32_t b = 0; b < 5; ++b) ASSERT_EQ(packed[80 + 5 * group + b], uint8_t(bits >> (8 * b))) << group;
    }
}

TEST_F(EmulatorCameraFrames, BayerColourBarsRgbAndTheCardsDemosaic) {
    cxp_camera &camera = *card->camera(1);
    const auto source = card->camera_source(1);
    set(camera, cxp_camera::kConnectionConfig, kCxp12x2);
    card->set_unlimited_frame_rate(true);
    set(camera, cxp_camera::kWidth, 32);
    set(camera, cxp_camera::kHeight, 4);
    set(camera, cxp_camera::kTestPattern, 5);
    set(camera, cxp_camera::kOffsetX, 4096 / 8 * 5);  // the red bar
    ASSERT_EQ(host.set_stream_param(1, {32, 4, 0, 0, 0}), 0);
    const stream_geometry geometry{32, 4, 0, 0, 0};
    start(1, 1, 4 * 32 * 3);
    set(camera, cxp_camera::kAcquisitionStart, 1);

    // BayerRG8: red sites full, green and blue ones empty.
    uint32_t number = 0;
    const std::vector<uint8_t> &raw = next(1, 1, number);
    expect_frame(raw, source->current_image(), geometry, number);
    for (uint32_t y = 0; y < 4; ++y)
        for (uint32_t x = y == 0 ? 8 : 0; x < 32; ++x)
            ASSERT_EQ(raw[y * 32 + x], (y % 2 == 0 && x % 2 == 0) ? 255 : 0) << x << "," << y;

    // Demosaiced: every pixel B, G, R = 0, 0, 255.
    ASSERT_EQ(card->set_demosaic(1, true), 0);
    ASSERT_EQ(host.queue_buffer(1, 0), 0);
    const std::vector<uint8_t> &bgr = next(1, 2, number);
    camera_image image = source->current_image();
    EXPECT_TRUE(image.demosaic);
    EXPECT_EQ(camera_frame_source::line_bytes(image), 96u);
    expect_frame(bgr, image, geometry, number);
    for (size_t pixel = 8; pixel < 4 * 32; ++pixel) {
        ASSERT_EQ(bgr[3 * pixel], 0) << pixel;
        ASSERT_EQ(bgr[3 * pixel + 1], 0) << pixel;
        ASSERT_EQ(bgr[3 * pixel + 2], 255) << pixel;
    }

    // The demosaic rule on the gradient: R, G, B from the cell's top left,
    // top right and bottom right sites.
    set(camera, cxp_camera::kTestPattern, 0);
    ASSERT_EQ(host.queue_buffer(1, 0), 0);
    const std::vector<uint8_t> &cells = next(1, 3, number);
    image = source->current_image();
    expect_frame(cells, image, geometry, number);
    camera_image bayer = image;
    bayer.demosaic = false;
    for (uint32_t y = 1; y < 4; ++y)
        for (uint32_t x = 0; x < 32; ++x) {
            const uint32_t cx = x & ~1u, cy = y & ~1u;
            const uint8_t *p = &cells[(y * 32 + x) * 3];
            ASSERT_EQ(p[0], camera_frame_source::pixel_value(bayer, cx + 1, cy + 1));
            ASSERT_EQ(p[1], camera_frame_source::pixel_value(bayer, cx + 1, cy));
            ASSERT_EQ(p[2], camera_frame_source::pixel_value(bayer, cx, cy));
        }

    // RGB8 is not demosaiced: R, G, B of the gradient, 85 apart.
    set(camera, cxp_camera::kPixelFormat, camera_frame_source::kRGB8);
    ASSERT_EQ(host.queue_buffer(1, 0), 0);
    const std::vector<uint8_t> &rgb = next(1, 4, number);
    image = source->current_image();
    expect_frame(rgb, image, geometry, number);
    const uint32_t seed = (2 * 2654435761u) >> 16;
    const uint8_t *p = &rgb[(2 * 32 + 9) * 3];  // line 2, column 9
    EXPECT_EQ(p[0], uint8_t(seed + 2560 + 9));
    EXPECT_EQ(p[1], uint8_t(seed + 2560 + 9 + 85));
    EXPECT_EQ(p[2], uint8_t(seed + 2560 + 9 + 170));
}

TEST_F(EmulatorCameraFrames, SoftwareTriggerGivesOneFramePerTriggerAndLosesThoseWithoutBuffer) {
    cxp_camera &camera = *card->camera(0);
    const auto source = card->camera_source(0);
    set(camera, cxp_camera::kConnectionConfig, kCxp12x2);
    set(camera, cxp_camera::kWidth, 16);
    set(camera, cxp_camera::kHeight, 2);
    set(camera, cxp_camera::kTriggerMode, 1);  // FrameStart, source Software
    ASSERT_EQ(host.set_stream_param(0, {16, 2, 16, 16, 0}), 0);
    start(0, 3, 32);

    set(camera, cxp_camera::kTriggerSoftware, 1);  // outside an acquisition: ignored
    set(camera, cxp_camera::kAcquisitionStart, 1);
    EXPECT_EQ(source->pacing().mode, frame_pacing::kind::triggered);
    EXPECT_EQ(source->pacing().pending, 0u);
    for (int i = 0; i < 5; ++i) set(camera, cxp_camera::kTriggerSoftware, 1);
    ASSERT_TRUE(card->wait_frames(0, 5, kWait));
    const auto stats = card->dma_stats(0);
    EXPECT_EQ(stats.frames_produced, 5u);
    EXPECT_EQ(stats.frames_completed, 3u);
    EXPECT_EQ(stats.frames_lost, 2u);
    EXPECT_EQ(host.read_reg(0x2020), 5u);
    EXPECT_EQ(source->pacing().pending, 0u);
    EXPECT_TRUE(camera.acquiring());

    // Another trigger selector's software trigger takes no frame.
    set(camera, cxp_camera::kTriggerSelector, 1);
    set(camera, cxp_camera::kTriggerSoftware, 1);
    EXPECT_EQ(source->pacing().pending, 0u);
}

TEST_F(EmulatorCameraFrames, FrameIntervalIsTheLongestOfExposureFramePeriodAndTransfer) {
    cxp_camera &camera = *card->camera(0);
    const auto source = card->camera_source(0);
    set(camera, cxp_camera::kConnectionConfig, kCxp12x2);
    // 5120 x 5120 Mono8 over two CXP-12 links: 10 line bits per byte at
    // 12500 Mbit/s each.
    constexpr uint64_t kBytes = 5120ull * 5120;
    const uint64_t transfer = kBytes * 10 * 1000 / (2 * 12500);
    EXPECT_EQ(source->frame_interval_ns(), 1'000'000'000ull / 30);  // 30 Hz, above exposure and transfer
    set_float(camera, cxp_camera::kAcquisitionFrameRate, 150.0f);
    EXPECT_EQ(source->frame_interval_ns(), transfer);
    set_float(camera, cxp_camera::kExposureTime, 20000.0f);
    EXPECT_EQ(source->frame_interval_ns(), 20'000'000u);
    set_float(camera, cxp_camera::kExposureTime, 10.0f);
    set(camera, cxp_camera::kConnectionConfig, 0x10038);  // one link at CXP-3
    EXPECT_EQ(source->frame_interval_ns(), kBytes * 10 * 1000 / 3125);
    set(camera, cxp_camera::kPixelFormat, camera_frame_source::kMono16);
    EXPECT_EQ(source->frame_interval_ns(), 2 * kBytes * 10 * 1000 / 3125);
    set(camera, cxp_camera::kPixelFormat, camera_frame_source::kMono10p);
    EXPECT_EQ(source->frame_interval_ns(), kBytes * 10 / 8 * 10 * 1000 / 3125);

    card->set_unlimited_frame_rate(true);
    EXPECT_EQ(source->frame_interval_ns(), 0u);
    set(camera, cxp_camera::kAcquisitionStart, 1);
    EXPECT_EQ(source->pacing().mode, frame_pacing::kind::own_interval);
    EXPECT_EQ(source->pacing().interval_ns, 0u);

    // The profile key turns it on for every camera of the card.
    std::vector<card_profile> cards;
    std::string error;
    ASSERT_TRUE(pelorin::emu::parse_profile(R"({"cards": [{"unlimited_frame_rate": true}, {}]})", "test",
                                            cards, error))
        << error;
    EXPECT_TRUE(cards[0].unlimited_frame_rate);
    EXPECT_FALSE(cards[1].unlimited_frame_rate);
    EXPECT_FALSE(pelorin::emu::parse_profile(R"({"cards": [{"unlimited_frame_rate": 1}]})", "test", cards, error));
    // So does the benchmarks' completion stamp (the stamp itself is checked
    // by the latency benchmark, which fails without it).
    ASSERT_TRUE(pelorin::emu::parse_profile(R"({"cards": [{"completion_stamp": true}]})", "test", cards, error));
    EXPECT_TRUE(cards[0].completion_stamp);
    EXPECT_FALSE(pelorin::emu::parse_profile(R"({"cards": [{"completion_stamp": "yes"}]})", "test", cards, error));
    card_profile profile = card_profile::halden_q12();
    profile.unlimited_frame_rate = true;
    const emulated_card unlimited(profile);
    EXPECT_TRUE(unlimited.camera_source(0)->unlimited());
    EXPECT_TRUE(unlimited.camera_source(1)->unlimited());
}

}  // namespace
