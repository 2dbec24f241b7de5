// The frames of an emulated camera as the card's DMA channel receives them.
//
// Which channel a camera feeds: the card gives channel c the camera at
// position c of its camera list (emulated_card::camera(c)). The standard
// cameras are listed in link order, one per pair of links, so on the
// built-in card channel 0 carries the camera on links 0-1 and channel 1 the
// one on links 2-3: the producer's device slots 0 and 1 when it pairs the
// links, whose channel_index is the slot index. Channels beyond the camera
// list have no camera. A channel shows its camera's frames while the camera
// is connected (ConnectionConfig written since power-up or the last
// ConnectionReset, see feeding()); otherwise, and whenever a test installs a
// source of its own (emulated_card::set_frame_source), the channel keeps the
// card's pattern_source.
//
// When frames come (pacing, claim_frame): only while the camera acquires
// (AcquisitionStart .. AcquisitionStop; see cxp_camera.h "Acquisition").
// Free-running, a frame falls due every frame_interval_ns(); with the
// software trigger, one frame per TriggerSoftware, at once; with a Line
// trigger, one per pulse of the card's trigger generator of the channel.
// SingleFrame ends the acquisition after the first frame. A frame that falls
// due while no buffer is queued is lost (the card counts it in frames_lost
// and in its frame counter). The card's manual triggers bypass all this.
//
// The frame interval: the longest of the exposure (ExposureTime), the frame
// period (1 / AcquisitionFrameRate) and the time the image takes over the
// camera's links: Width x Height x bits per pixel (PFNC bits 16..23) / 8
// bytes, at 10 line bits per byte (8b/10b), over the links of
// ConnectionConfig as it reads ((links << 16) | rate: CXP-1 1.25, CXP-2 2.5,
// CXP-3 3.125, CXP-5 5, CXP-6 6.25, CXP-10 10, CXP-12 12.5 Gbit/s each; an
// unknown rate code limits nothing). Stream packet framing is not counted.
// Unlimited (set_unlimited, emulated_card::set_unlimited_frame_rate, the
// card profile key "unlimited_frame_rate"): interval 0, a free-running
// frame whenever a buffer is queued, for benchmarks.
//
// The image (what fill writes), from the camera's registers when the frame
// is taken, so a change of Width or PixelFormat shows in the next frame.
// Pixel (column x, line y) of the image is the sensor pixel X = OffsetX + x,
// Y = OffsetY + y; with b the significant bits of the format and
// max = 2^b - 1, its value by TestPattern:
//   0 Off                 (seed(Y) + X) & max, seed(Y) = (Y x 2654435761
//                         mod 2^32) >> 16, a gradient seeded per line;
//                         RGB8 component c (0 R, 1 G, 2 B): + 85 x c
//   1 Black, 2 White      0, max
//   3 GreyHorizontalRamp  X & max
//   4 GreyVerticalRamp    Y & max
//   5 ColorBar            eight bars over the sensor width (bar
//                         X x 8 / SensorWidth): white, yellow, cyan, green,
//                         magenta, red, blue, black; each component 0 or max.
//                         Bayer sites take their colour's component (RG:
//                         even line even column R, odd line odd column B,
//                         the rest G), mono the green one.
// Pixel formats, b and the bytes of a pixel:
//   Mono8, BayerRG8 8 (1 byte); Mono10, BayerRG10 10, Mono12, BayerRG12 12,
//   Mono16 16 (2 bytes little-endian, value in the low bits); RGB8 8 (3
//   bytes R, G, B); Mono10p 10, packed LSB first: four pixels in five bytes
//   (byte 0 = p0 bits 0-7, byte 1 = p0 bits 8-9 | p1 bits 0-5 << 2, ...).
//   An unknown code is taken as Mono8.
// Demosaic (emulated_card::set_demosaic, the card's Bayer processing): a
// BayerRG8 image leaves the card as BGR8, 3 bytes B, G, R per pixel, by
// nearest neighbour in each 2 x 2 cell: for cell (cx, cy) = (x & ~1, y & ~1)
// R = raw(cx, cy), G = raw(cx + 1, cy), B = raw(cx + 1, cy + 1) (a missing
// column or line repeats the last). Other formats pass unchanged.
// The frame number: the first 8 pixels of line 0 carry byte i of the
// frame number (little-endian order, the card's frame number of the frame)
// in pixel i, in every component, encoded like any pixel.
// Into the buffer: line y at offset y x stride (the channel geometry's
// stride; 0: the line's own length), cut to the stride; bytes of a stride
// past the line are 0. Lines: the geometry's lines per frame (0: Height),
// at most Height. The frame ends at the last line's stride or at the
// payload, whichever comes first; fill returns that length and touches
// nothing after it. Each image is built once per camera_image, geometry and
// payload, so fill is one copy and the stamp.
//
// Thread safety: every call may come from any thread; fill may run while
// the settings change.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "emulator/cxp_camera.h"
#include "emulator/frame_source.h"

namespace pelorin::emu {

// What an image looks like: the camera's registers and the card's Bayer
// processing.
struct camera_image {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t offset_x = 0;
    uint32_t offset_y = 0;
    uint32_t pixel_format = 0;  // PFNC code
    uint32_t test_pattern = 0;
    uint32_t sensor_width = 0;  // the colour bars span it
    bool demosaic = false;

    bool operator==(const camera_image &) const = default;
};

class camera_frame_source final : public frame_source {
public:
    static constexpr uint32_t kMono8 = 0x01080001;
    static constexpr uint32_t kMono10 = 0x01100003;
    static constexpr uint32_t kMono12 = 0x01100005;
    static constexpr uint32_t kMono16 = 0x01100007;
    static constexpr uint32_t kMono10p = 0x010A0046;
    static constexpr uint32_t kBayerRG8 = 0x01080009;
    static constexpr uint32_t kBayerRG10 = 0x0110000D;
    static constexpr uint32_t kBayerRG12 = 0x01100011;
    static constexpr uint32_t kRGB8 = 0x02180014;
    static constexpr uint32_t kStampPixels = 8;

    explicit camera_frame_source(std::shared_ptr<cxp_camera> camera);

    const std::shared_ptr<cxp_camera> &camera() const { return camera_; }
    // True while the camera is connected (out of discovery): the card then
    // shows its frames on the channel.
    bool feeding() const;
    void set_demosaic(bool demosaic) { demosaic_.store(demosaic, std::memory_order_relaxed); }
    bool demosaic() const { return demosaic_.load(std::memory_order_relaxed); }
    void set_unlimited(bool unlimited) { unlimited_.store(unlimited, std::memory_order_relaxed); }
    bool unlimited() const { return unlimited_.load(std::memory_order_relaxed); }
    // The image the camera's registers describe now, with this source's
    // demosaic setting.
    camera_image current_image() const;

    // frame_source: the interval from the camera's registers (0 unlimited).
    uint64_t frame_interval_ns() const override;
    frame_pacing pacing() const override;
    bool claim_frame() override;
    size_t fill(const frame_request &request, std::span<uint8_t> buffer) override;

    // --- What a consumer checks its buffers against -----------------------
    // The bytes fill writes for frame `frame_number` of `image` into a
    // buffer of `payload_size` bytes with the channel's `geometry`: exactly
    // the first size() bytes of the buffer (fill returns the same length).
    static std::vector<uint8_t> expected_frame(const camera_image &image, const stream_geometry &geometry,
                                               uint32_t payload_size, uint64_t frame_number);
    // The value of pixel (column, line) of the image before the frame number
    // is stamped in and before demosaic; `component` 0 R, 1 G, 2 B for RGB8,
    // ignored otherwise.
    static uint32_t pixel_value(const camera_image &image, uint32_t column, uint32_t line,
                                uint32_t component = 0);
    // Bytes of one line as it leaves the card (BGR8 when demosaiced).
    static uint64_t line_bytes(const camera_image &image);
    // The interval the settings allow (see above), without the unlimited mode.
    static uint64_t interval_ns(const cxp_camera::image_settings &settings);

private:
    struct frame_image {
        camera_image image;
        stream_geometry geometry;
        uint32_t payload_size = 0;
        std::vector<uint8_t> bytes;  // the frame without its number
    };
    static std::shared_ptr<frame_image> build(const camera_image &image, const stream_geometry &geometry,
                                              uint32_t payload_size);
    static size_t stamp(const camera_image &image, std::span<uint8_t> frame, size_t first_line_bytes,
                        uint64_t frame_number);
    std::shared_ptr<const frame_image> image_for(const camera_image &image, const stream_geometry &geometry,
                                                 uint32_t payload_size);

    const std::shared_ptr<cxp_camera> camera_;
    std::atomic<bool> demosaic_{false};
    std::atomic<bool> unlimited_{false};
    std::mutex mutex_;
    std::shared_ptr<const frame_image> cached_;  // guarded by mutex_
};

}  // namespace pelorin::emu
