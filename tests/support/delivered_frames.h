// Checks of delivered buffers against the frames the emulated camera sent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "emulator/camera_frame_source.h"

namespace pelorin::testing_support {

// What the camera sends: its image settings and the stream geometry the
// producer programmed (one line of `stride` bytes per image line).
struct camera_frames {
    emu::camera_image image;
    emu::stream_geometry geometry;
    uint32_t payload = 0;

    camera_frames(uint32_t width, uint32_t height, uint32_t pixel_format, uint32_t stride,
                  uint32_t payload_size, bool demosaic = false) : payload(payload_size) {
        image.demosaic = demosaic;
        image.width = width;
        image.height = height;
        image.pixel_format = pixel_format;
        image.sensor_width = demosaic || pixel_format == 0x01080009 ? 4096 : 5120;
        geometry = {width, height, stride, stride, 0};
    }

    // The frame number the camera stamped into the first 8 pixels (pixel i
    // holds byte i).
    uint64_t frame_number(const uint8_t *bytes) const {
        const uint64_t pixel_bytes = emu::camera_frame_source::line_bytes(image) / image.width;
        uint64_t number = 0;
        for (uint64_t i = 0; i < 8; ++i) number |= uint64_t{bytes[i * pixel_bytes]} << (8 * i);
        return number;
    }

    // Whether `bytes` hold, byte for byte, the frame the camera sent with
    // the number stamped in them.
    bool matches(const uint8_t *bytes) const {
        if (bytes == nullptr) return false;
        const std::vector<uint8_t> expected =
            emu::camera_frame_source::expected_frame(image, geometry, payload, frame_number(bytes));
        return std::memcmp(bytes, expected.data(), expected.size()) == 0 && expected.size() == payload;
    }
};

}  // namespace pelorin::testing_support
