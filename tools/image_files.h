// Writing delivered frames to files: PNG for the pixel formats a viewer can
// show (8- and 16-bit grey, RGB), raw bytes for everything.
#pragma once

#include <cstdint>
#include <string>

namespace pelorin_tools {

// One delivered image: the buffer's bytes and what DSGetBufferInfo said.
struct FrameView {
    const uint8_t *bytes = nullptr;
    uint64_t size = 0;  // bytes filled
    uint64_t width = 0;
    uint64_t height = 0;
    uint64_t pixel_format = 0;  // PFNC code
};

// How a pixel format becomes PNG samples.
struct PngLayout {
    int bit_depth = 0;         // 8 or 16; 0: no PNG for this format
    bool colour = false;       // RGB rather than grey
    bool bgr = false;          // components stored blue first
    int significant_bits = 0;  // of each sample as the camera sent it
    int packed_bits = 0;       // bits per pixel of a bit-packed format, 0 otherwise
};

PngLayout png_layout_for(uint64_t pixel_format);

// The PFNC name of a format this tool knows ("0x..." otherwise).
std::string pixel_format_name(uint64_t pixel_format);

// Bytes of one image line as the camera sends it; 0 for unknown formats.
uint64_t line_bytes(const FrameView &frame);

// Writes `frame` as a PNG file. Samples of fewer than 16 significant bits
// are scaled to the full 16-bit range and the sBIT chunk records the
// original depth. False with the reason in *error.
bool write_png(const std::string &path, const FrameView &frame, std::string *error);

// Writes the frame's bytes unchanged.
bool write_raw(const std::string &path, const FrameView &frame, std::string *error);

}  // namespace pelorin_tools
