#include "emulator/camera_frame_source.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

namespace pelorin::emu {

namespace {

// How the pixels of an image leave the card.
struct pixel_layout {
    uint32_t bits = 8;        // significant bits of a component
    uint32_t components = 1;  // 3: colour, in `order`
    uint32_t bytes = 1;       // container of a component; 0: bit-packed
    bool bayer = false;
    bool demosaiced = false;  // BGR8 from BayerRG8
};

pixel_layout layout_of(const camera_image &image) {
    switch (image.pixel_format) {
        case camera_frame_source::kMono10: return {10, 1, 2, false, false};
        case camera_frame_source::kMono12: return {12, 1, 2, false, false};
        case camera_frame_source::kMono16: return {16, 1, 2, false, false};
        case camera_frame_source::kMono10p: return {10, 1, 0, false, false};
        case camera_frame_source::kBayerRG8:
            return image.demosaic ? pixel_layout{8, 3, 1, false, true} : pixel_layout{8, 1, 1, true, false};
        case camera_frame_source::kBayerRG10: return {10, 1, 2, true, false};
        case camera_frame_source::kBayerRG12: return {12, 1, 2, true, false};
        case camera_frame_source::kRGB8: return {8, 3, 1, false, false};
        default: return {8, 1, 1, false, false};  // Mono8 and anything unknown
    }
}

// Writes the components of `values` (pixel after pixel) in `layout` at `out`
// (which holds line_bytes of them).
void encode(const pixel_layout &layout, const std::vector<uint32_t> &values, uint8_t *out) {
    if (layout.bytes == 1) {
        for (size_t i = 0; i < values.size(); ++i) out[i] = static_cast<uint8_t>(values[i]);
        return;
    }
    if (layout.bytes == 2) {
        for (size_t i = 0; i < values.size(); ++i) {
            out[2 * i] = static_cast<uint8_t>(values[i]);
            out[2 * i + 1] = static_cast<uint8_t>(values[i] >> 8);
        }
        return;
    }
    // Bit-packed, least significant bit first.
    uint64_t accumulator = 0;
    uint32_t held = 0;
    size_t at = 0;
    const uint32_t mask = (uint32_t{1} << layout.bits) - 1;
    for (uint32_t value : values) {
        accumulator |= uint64_t{value & mask} << held;
        held += layout.bits;
        while (held >= 8) {
            out[at++] = static_cast<uint8_t>(accumulator);
            accumulator >>= 8;
            held -= 8;
        }
    }
    if (held > 0) out[at] = static_cast<uint8_t>(accumulator);
}

uint64_t encoded_size(const pixel_layout &layout, uint64_t pixels) {
    const uint64_t components = pixels * layout.components;
    return layout.bytes == 0 ? (components * layout.bits + 7) / 8 : components * layout.bytes;
}

// The components of pixel (x, y) as they leave the card: demosaiced BGR
// from the raw Bayer cell, otherwise the pixel's own values.
void append_pixel(const camera_image &image, const pixel_layout &layout, uint32_t x, uint32_t y,
                  std::vector<uint32_t> &values) {
    if (layout.demosaiced) {
        const uint32_t cx = x & ~1u;
        const uint32_t cy = y & ~1u;
        const uint32_t right = std::min(cx + 1, image.width - 1);
        const uint32_t below = std::min(cy + 1, image.height - 1);
        values.push_back(camera_frame_source::pixel_value(image, right, below));  // B
        values.push_back(camera_frame_source::pixel_value(image, right, cy));     // G
        values.push_back(camera_frame_source::pixel_value(image, cx, cy));        // R
        return;
    }
    for (uint32_t c = 0; c < layout.components; ++c)
        values.push_back(camera_frame_source::pixel_value(image, x, y, c));
}

// Line rates of the ConnectionConfig codes in Mbit/s; 0 for none.
uint64_t rate_mbps(uint32_t code) {
    switch (code) {
        case kRateCxp1: return 1250;
        case kRateCxp2: return 2500;
        case kRateCxp3: return 3125;
        case kRateCxp5: return 5000;
        case kRateCxp6: return 6250;
        case kRateCxp10: return 10000;
        case kRateCxp12: return 12500;
        default: return 0;
    }
}

}  // namespace

camera_frame_source::camera_frame_source(std::shared_ptr<cxp_camera> camera) : camera_(std::move(camera)) {}

bool camera_frame_source::feeding() const { return !camera_->in_discovery(); }

camera_image camera_frame_source::current_image() const {
    const cxp_camera::image_settings settings = camera_->image();
    return camera_image{settings.width,        settings.height,       settings.offset_x,
                        settings.offset_y,     settings.pixel_format, settings.test_pattern,
                        settings.sensor_width, demosaic()};
}

// --- Pacing -------------------------------------------------------------------

uint64_t camera_frame_source::interval_ns(const cxp_camera::image_settings &settings) {
    uint64_t interval = 0;
    if (std::isfinite(settings.exposure_us) && settings.exposure_us > 0)
        interval = static_cast<uint64_t>(std::llround(double{settings.exposure_us} * 1000.0));
    if (std::isfinite(settings.frame_rate_hz) && settings.frame_rate_hz > 0)
        interval = std::max(interval, static_cast<uint64_t>(std::llround(1e9 / settings.frame_rate_hz)));
    const uint64_t links = settings.connection_config >> 16;
    const uint64_t mbps = rate_mbps(settings.connection_config & 0xFFFF);
    if (links > 0 && mbps > 0) {
        const uint64_t bits_per_pixel = (settings.pixel_format >> 16) & 0xFF;
        const uint64_t bytes = uint64_t{settings.width} * settings.height * bits_per_pixel / 8;
        // 10 line bits per byte; Mbit/s are bits per microsecond.
        const uint64_t per_us = links * mbps;
        interval = std::max(interval, (bytes * 10 * 1000 + per_us - 1) / per_us);
    }
    return interval;
}

uint64_t camera_frame_source::frame_interval_ns() const {
    return unlimited() ? 0 : interval_ns(camera_->image());
}

frame_pacing camera_frame_source::pacing() const {
    using kind = frame_pacing::kind;
    const cxp_camera::acquisition_state state = camera_->acquisition();
    switch (state.trigger) {
        case cxp_camera::frame_trigger::free_run: return {kind::own_interval, frame_interval_ns(), 0};
        case cxp_camera::frame_trigger::software: return {kind::triggered, 0, state.pending};
        case cxp_camera::frame_trigger::line: return {kind::generator, 0, 0};
        case cxp_camera::frame_trigger::none: break;
    }
    return {kind::stopped, 0, 0};
}

bool camera_frame_source::claim_frame() { return camera_->take_frame(); }

// --- Image ----------------------------------------------------------------------

uint32_t camera_frame_source::pixel_value(const camera_image &image, uint32_t column, uint32_t line,
                                          uint32_t component) {
    camera_image raw = image;
    raw.demosaic = false;
    const pixel_layout layout = layout_of(raw);
    const uint32_t max = (uint32_t{1} << layout.bits) - 1;
    const uint32_t x = image.offset_x + column;
    const uint32_t y = image.offset_y + line;
    if (layout.components == 1) component = 0;
    switch (image.test_pattern) {
        case 1: return 0;
        case 2: return max;
        case 3: return x & max;
        case 4: return y & max;
        case 5: {
            // Components (R, G, B) of the bars, bit 2 R, bit 1 G, bit 0 B.
            constexpr uint8_t kBars[8] = {0b111, 0b110, 0b011, 0b010, 0b101, 0b100, 0b001, 0b000};
            const uint64_t bar = image.sensor_width == 0 ? 0 : uint64_t{x} * 8 / image.sensor_width;
            uint32_t channel = component;  // 0 R, 1 G, 2 B
            if (layout.bayer)
                channel = (line % 2 == 0 && column % 2 == 0) ? 0 : (line % 2 == 1 && column % 2 == 1) ? 2 : 1;
            else if (layout.components == 1)
                channel = 1;
            return (kBars[std::min<uint64_t>(bar, 7)] >> (2 - channel) & 1) != 0 ? max : 0;
        }
        default: {
            const uint32_t seed = (y * 2654435761u) >> 16;
            return (seed + x + 85 * component) & max;
        }
    }
}

uint64_t camera_frame_source::line_bytes(const camera_image &image) {
    return encoded_size(layout_of(image), image.width);
}

std::shared_ptr<camera_frame_source::frame_image> camera_frame_source::build(const camera_image &image,
                                                                             const stream_geometry &geometry,
                                                                             uint32_t payload_size) {
    auto frame = std::make_shared<frame_image>();
    frame->image = image;
    frame->geometry = geometry;
    frame->payload_size = payload_size;
    const pixel_layout layout = layout_of(image);
    const uint64_t length = line_bytes(image);
    const uint64_t stride = geometry.stride != 0 ? geometry.stride : length;
    const uint64_t lines = geometry.lines != 0 ? std::min(geometry.lines, image.height) : image.height;
    const uint64_t size = std::min<uint64_t>(payload_size, lines * stride);
    frame->bytes.assign(size, 0);

    std::vector<uint32_t> values;
    std::vector<uint8_t> encoded(length);
    for (uint32_t y = 0; y < lines && uint64_t{y} * stride < size; ++y) {
        values.clear();
        for (uint32_t x = 0; x < image.width; ++x) append_pixel(image, layout, x, y, values);
        encode(layout, values, encoded.data());
        const uint64_t offset = uint64_t{y} * stride;
        const uint64_t count = std::min({length, stride, size - offset});
        std::memcpy(frame->bytes.data() + offset, encoded.data(), count);
    }
    return frame;
}

size_t camera_frame_source::stamp(const camera_image &image, std::span<uint8_t> frame, size_t first_line_bytes,
                                  uint64_t frame_number) {
    const pixel_layout layout = layout_of(image);
    const uint32_t pixels = std::min(kStampPixels, image.width);
    std::vector<uint32_t> values;
    for (uint32_t i = 0; i < pixels; ++i)
        values.insert(values.end(), layout.components, static_cast<uint32_t>(frame_number >> (8 * i)) & 0xFF);
    std::vector<uint8_t> encoded(encoded_size(layout, pixels));
    encode(layout, values, encoded.data());
    const size_t count = std::min({encoded.size(), first_line_bytes, frame.size()});
    std::memcpy(frame.data(), encoded.data(), count);
    return count;
}

std::vector<uint8_t> camera_frame_source::expected_frame(const camera_image &image, const stream_geometry &geometry,
                                                         uint32_t payload_size, uint64_t frame_number) {
    std::vector<uint8_t> bytes = std::move(build(image, geometry, payload_size)->bytes);
    const uint64_t stride = geometry.stride != 0 ? geometry.stride : line_bytes(image);
    stamp(image, bytes, static_cast<size_t>(std::min(line_bytes(image), stride)), frame_number);
    return bytes;
}

std::shared_ptr<const camera_frame_source::frame_image> camera_frame_source::image_for(
    const camera_image &image, const stream_geometry &geometry, uint32_t payload_size) {
    std::lock_guard lock(mutex_);
    if (cached_ && cached_->image == image && cached_->geometry == geometry && cached_->payload_size == payload_size)
        return cached_;
    cached_ = build(image, geometry, payload_size);
    return cached_;
}

size_t camera_frame_source::fill(const frame_request &request, std::span<uint8_t> buffer) {
    const camera_image image = current_image();
    const std::shared_ptr<const frame_image> frame = image_for(image, request.geometry, request.payload_size);
    const size_t size = std::min(buffer.size(), frame->bytes.size());
    std::memcpy(buffer.data(), frame->bytes.data(), size);
    const uint64_t stride = request.geometry.stride != 0 ? request.geometry.stride : line_bytes(image);
    stamp(image, buffer.first(size), static_cast<size_t>(std::min(line_bytes(image), stride)), request.frame_number);
    return size;
}

}  // namespace pelorin::emu
