#include "image_files.h"

#include <png.h>
#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace pelorin_tools {

namespace {

struct KnownFormat {
    uint32_t code;
    const char *name;
    PngLayout layout;
};

// PFNC codes of the formats the cameras send and the card delivers.
constexpr KnownFormat kFormats[] = {
    {0x01080001, "Mono8", {8, false, false, 8, 0}},
    {0x01100003, "Mono10", {16, false, false, 10, 0}},
    {0x01100005, "Mono12", {16, false, false, 12, 0}},
    {0x01100007, "Mono16", {16, false, false, 16, 0}},
    {0x010A0046, "Mono10p", {16, false, false, 10, 10}},
    {0x010C0047, "Mono12p", {16, false, false, 12, 12}},
    // Bayer mosaics are written as grey images of the raw cells.
    {0x01080008, "BayerGR8", {8, false, false, 8, 0}},
    {0x01080009, "BayerRG8", {8, false, false, 8, 0}},
    {0x0108000A, "BayerGB8", {8, false, false, 8, 0}},
    {0x0108000B, "BayerBG8", {8, false, false, 8, 0}},
    {0x0110000D, "BayerRG10", {16, false, false, 10, 0}},
    {0x01100011, "BayerRG12", {16, false, false, 12, 0}},
    {0x02180014, "RGB8", {8, true, false, 8, 0}},
    {0x02180015, "BGR8", {8, true, true, 8, 0}},
};

const KnownFormat *find_format(uint64_t pixel_format) {
    for (const KnownFormat &format : kFormats)
        if (format.code == pixel_format) return &format;
    return nullptr;
}

// The samples of one line, ready for libpng: 8-bit as they are, 16-bit
// big-endian and scaled to the full range.
void convert_line(const PngLayout &layout, const uint8_t *in, uint64_t width, std::vector<uint8_t> &row) {
    const uint64_t samples = width * (layout.colour ? 3 : 1);
    if (layout.bit_depth == 8) {
        row.assign(in, in + samples);
        return;
    }
    row.resize(samples * 2);
    const int shift = 16 - layout.significant_bits;
    const uint32_t mask = (uint32_t{1} << layout.significant_bits) - 1;
    uint64_t accumulator = 0;
    int held = 0;
    for (uint64_t i = 0; i < samples; ++i) {
        uint32_t value;
        if (layout.packed_bits != 0) {  // least significant bit first
            while (held < layout.packed_bits) {
                accumulator |= uint64_t{*in++} << held;
                held += 8;
            }
            value = static_cast<uint32_t>(accumulator) & mask;
            accumulator >>= layout.packed_bits;
            held -= layout.packed_bits;
        } else {
            value = (in[2 * i] | uint32_t{in[2 * i + 1]} << 8) & mask;
        }
        const uint32_t scaled = value << shift;
        row[2 * i] = static_cast<uint8_t>(scaled >> 8);
        row[2 * i + 1] = static_cast<uint8_t>(scaled);
    }
}

struct PngFile {
    FILE *file = nullptr;
    png_structp png = nullptr;
    png_infop info = nullptr;
    ~PngFile() {
        if (png != nullptr) png_destroy_write_struct(&png, info != nullptr ? &info : nullptr);
        if (file != nullptr) std::fclose(file);
    }
};

void on_png_error(png_structp png, png_const_charp message) {
    auto *error = static_cast<std::string *>(png_get_error_ptr(png));
    *error = message;
    png_longjmp(png, 1);
}

void on_png_warning(png_structp, png_const_charp) {}

// False after a libpng error, whose text on_png_error left in the string
// the write struct was created with.
bool encode_png(PngFile &out, const FrameView &frame, const PngLayout &layout, uint64_t stride) {
    std::vector<uint8_t> row;
    // Nothing with a destructor may be created between here and the end: a
    // libpng error jumps back to this point.
    if (setjmp(png_jmpbuf(out.png))) return false;
    png_init_io(out.png, out.file);
    // Fast compression: the tool keeps up with the camera rather than
    // saving disk space.
    png_set_compression_level(out.png, 1);
    png_set_compression_strategy(out.png, Z_RLE);
    png_set_filter(out.png, PNG_FILTER_TYPE_BASE, PNG_FILTER_SUB);
    png_set_IHDR(out.png, out.info, static_cast<png_uint_32>(frame.width), static_cast<png_uint_32>(frame.height),
                 layout.bit_depth, layout.colour ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (layout.significant_bits < layout.bit_depth) {
        png_color_8 bits{};
        bits.gray = bits.red = bits.green = bits.blue = static_cast<png_byte>(layout.significant_bits);
        png_set_sBIT(out.png, out.info, &bits);
    }
    png_write_info(out.png, out.info);
    if (layout.bgr) png_set_bgr(out.png);
    for (uint64_t line = 0; line < frame.height; ++line) {
        convert_line(layout, frame.bytes + line * stride, frame.width, row);
        png_write_row(out.png, row.data());
    }
    png_write_end(out.png, nullptr);
    return true;
}

}  // namespace

PngLayout png_layout_for(uint64_t pixel_format) {
    const KnownFormat *format = find_format(pixel_format);
    return format != nullptr ? format->layout : PngLayout{};
}

std::string pixel_format_name(uint64_t pixel_format) {
    if (const KnownFormat *format = find_format(pixel_format)) return format->name;
    char text[32];
    std::snprintf(text, sizeof text, "0x%08llX", static_cast<unsigned long long>(pixel_format));
    return text;
}

uint64_t line_bytes(const FrameView &frame) {
    const PngLayout layout = png_layout_for(frame.pixel_format);
    if (layout.bit_depth == 0) return 0;
    const uint64_t samples = frame.width * (layout.colour ? 3 : 1);
    if (layout.packed_bits != 0) return (samples * static_cast<uint64_t>(layout.packed_bits) + 7) / 8;
    return samples * static_cast<uint64_t>(layout.bit_depth / 8);
}

bool write_png(const std::string &path, const FrameView &frame, std::string *error) {
    const PngLayout layout = png_layout_for(frame.pixel_format);
    if (layout.bit_depth == 0) {
        *error = "no PNG for pixel format " + pixel_format_name(frame.pixel_format);
        return false;
    }
    const uint64_t stride = line_bytes(frame);
    if (frame.width == 0 || frame.height == 0 || frame.width > 0x7FFFFFFF || frame.height > 0x7FFFFFFF ||
        frame.bytes == nullptr || stride * frame.height > frame.size) {
        *error = "the buffer does not hold a " + std::to_string(frame.width) + " x " +
                 std::to_string(frame.height) + " " + pixel_format_name(frame.pixel_format) + " image";
        return false;
    }
    PngFile out;
    out.file = std::fopen(path.c_str(), "wb");
    if (out.file == nullptr) {
        *error = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    out.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, error, on_png_error, on_png_warning);
    if (out.png != nullptr) out.info = png_create_info_struct(out.png);
    if (out.png == nullptr || out.info == nullptr) {
        *error = "libpng could not start";
        return false;
    }
    if (!encode_png(out, frame, layout, stride)) {
        *error = "cannot write " + path + ": " + *error;
        return false;
    }
    const int closed = std::fclose(out.file);
    out.file = nullptr;
    if (closed != 0) {
        *error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

bool write_raw(const std::string &path, const FrameView &frame, std::string *error) {
    FILE *file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        *error = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    const bool written = std::fwrite(frame.bytes, 1, frame.size, file) == frame.size;
    const int write_errno = errno;
    if (std::fclose(file) != 0 || !written) {
        *error = "cannot write " + path + ": " + std::strerror(written ? errno : write_errno);
        return false;
    }
    return true;
}

}  // namespace pelorin_tools
