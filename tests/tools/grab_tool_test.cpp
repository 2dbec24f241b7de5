// pelorin-grab as a user runs it: the PNG files it leaves decode to the
// frames the emulated camera sent, and every kind of mistake ends with a
// message and its exit code.
#include <gtest/gtest.h>
#include <png.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "delivered_frames.h"
#include "run_tool.h"

namespace {

namespace fs = std::filesystem;
using pelorin::testing_support::camera_frames;

struct DecodedPng {
    uint32_t width = 0, height = 0;
    int bit_depth = 0, colour_type = 0, significant_bits = 0;
    std::vector<uint8_t> samples;  // rows one after the other, as stored
};

bool decode_png(const std::string &path, DecodedPng *image) {
    FILE *file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return false;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    std::vector<png_bytep> rows;
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        std::fclose(file);
        return false;
    }
    png_init_io(png, file);
    png_read_info(png, info);
    image->width = png_get_image_width(png, info);
    image->height = png_get_image_height(png, info);
    image->bit_depth = png_get_bit_depth(png, info);
    image->colour_type = png_get_color_type(png, info);
    png_color_8p bits = nullptr;
    image->significant_bits = png_get_sBIT(png, info, &bits) != 0 ? bits->gray : image->bit_depth;
    const size_t row_bytes = png_get_rowbytes(png, info);
    image->samples.resize(row_bytes * image->height);
    for (uint32_t y = 0; y < image->height; ++y) rows.push_back(image->samples.data() + y * row_bytes);
    png_read_image(png, rows.data());
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(file);
    return true;
}

// The PNG samples turned back into the bytes the camera sent: 8-bit as they
// are; 16-bit shifted back to their significant bits, little-endian;
// RGB to BGR when the card delivered BGR8.
std::vector<uint8_t> camera_bytes(const DecodedPng &image, bool bgr) {
    std::vector<uint8_t> bytes = image.samples;
    if (image.bit_depth == 16) {
        const int shift = 16 - image.significant_bits;
        for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
            const uint32_t value = (uint32_t{image.samples[i]} << 8 | image.samples[i + 1]) >> shift;
            bytes[i] = static_cast<uint8_t>(value);
            bytes[i + 1] = static_cast<uint8_t>(value >> 8);
        }
    }
    if (bgr)
        for (size_t i = 0; i + 2 < bytes.size(); i += 3) std::swap(bytes[i], bytes[i + 2]);
    return bytes;
}

// Packs 16-bit little-endian values into 10-bit LSB-first lines, as Mono10p.
std::vector<uint8_t> pack10(const std::vector<uint8_t> &unpacked, uint32_t width, uint32_t height) {
    const size_t line = (size_t{width} * 10 + 7) / 8;
    std::vector<uint8_t> packed(line * height, 0);
    for (uint32_t y = 0; y < height; ++y) {
        uint64_t bit = 0;
        for (uint32_t x = 0; x < width; ++x, bit += 10) {
            const size_t at = (size_t{y} * width + x) * 2;
            const uint32_t value = unpacked[at] | uint32_t{unpacked[at + 1]} << 8;
            for (int b = 0; b < 10; ++b)
                if (value >> b & 1) packed[y * line + (bit + b) / 8] |= static_cast<uint8_t>(1u << ((bit + b) % 8));
        }
    }
    return packed;
}

class GrabTool : public ::testing::Test {
protected:
    void SetUp() override {
        directory_ = fs::temp_directory_path() / ("grab_tool_" + std::to_string(::getpid()) + "_" +
                                                  ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(directory_);
    }
    void TearDown() override { fs::remove_all(directory_); }

    ToolRun grab(std::vector<std::string> args, const std::string &profile_json = "") {
        std::vector<std::string> environment{"GENICAM_GENTL64_PATH=", "PELORIN_CXP_EMULATION="};
        if (!profile_json.empty()) {
            fs::create_directories(directory_);
            const std::string profile = (directory_ / "profile.json").string();
            std::ofstream(profile) << profile_json;
            environment.back() = "PELORIN_CXP_EMULATION=" + profile;
        }
        args.push_back(PELORIN_CTI_PATH);
        return run_tool(PELORIN_GRAB_TOOL, args, environment);
    }

    // Decodes every frame_NNNNNN.png of `output` and checks each against the
    // frame the camera sent with the number stamped in it; the numbers.
    std::vector<uint64_t> check_images(const fs::path &output, size_t count, const camera_frames &frames,
                                       bool packed10 = false) {
        std::vector<uint64_t> numbers;
        for (size_t i = 1; i <= count; ++i) {
            char name[32];
            std::snprintf(name, sizeof name, "frame_%06zu.png", i);
            DecodedPng image;
            EXPECT_TRUE(decode_png((output / name).string(), &image)) << name;
            EXPECT_EQ(image.width, frames.image.width);
            EXPECT_EQ(image.height, frames.image.height);
            std::vector<uint8_t> bytes = camera_bytes(image, frames.image.demosaic);
            if (packed10) bytes = pack10(bytes, image.width, image.height);
            bytes.resize(frames.payload, 0);
            EXPECT_TRUE(frames.matches(bytes.data())) << name << " differs from the camera's frame";
            numbers.push_back(frames.frame_number(bytes.data()));
        }
        return numbers;
    }

    fs::path directory_;
};

TEST_F(GrabTool, PngFilesOfTheDefaultCameraHoldItsFrames) {
    const fs::path output = directory_ / "images";
    const ToolRun run = grab({"-n", "20", "-o", output.string(), "-q"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_NE(run.out.find("Acquired 20 frame(s) of 5120 x 5120 Mono8"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find(fs::canonical(output).string() + "/frame_000001.png"), std::string::npos) << run.out;
    size_t files = 0;
    for (const auto &entry : fs::directory_iterator(output)) files += entry.path().extension() == ".png";
    EXPECT_EQ(files, 20u);
    const std::vector<uint64_t> numbers = check_images(output, 20, camera_frames(5120, 5120, 0x01080001, 5120, 5120 * 5120));
    for (size_t i = 1; i < numbers.size(); ++i) EXPECT_GT(numbers[i], numbers[i - 1]);
}

TEST_F(GrabTool, SixteenBitAndPackedFormatsBecomeSixteenBitGrey) {
    struct Case {
        const char *format;
        uint32_t code, stride;
        bool packed;
    };
    for (const Case &c : {Case{"Mono12", 0x01100005, 512 * 2, false}, Case{"Mono10p", 0x010A0046, 512 * 10 / 8, true}}) {
        const fs::path output = directory_ / c.format;
        const ToolRun run = grab({"--pixel-format", c.format, "--set", "Width=512", "--set", "remote:Height=64",
                                  "-n", "3", "-o", output.string(), "--raw", "-q"});
        ASSERT_EQ(run.exit_code, 0) << c.format << ": " << run.err;
        DecodedPng first;
        ASSERT_TRUE(decode_png((output / "frame_000001.png").string(), &first));
        EXPECT_EQ(first.bit_depth, 16);
        EXPECT_EQ(first.significant_bits, c.packed ? 10 : 12);
        check_images(output, 3, camera_frames(512, 64, c.code, c.stride, c.stride * 64), c.packed);
        EXPECT_EQ(fs::file_size(output / "frame_000003.raw"), c.stride * 64u);
    }
}

TEST_F(GrabTool, DemosaicedColourFramesBecomeRgbPng) {
    const fs::path output = directory_ / "colour";
    const ToolRun run = grab({"--pixel-format", "BayerRG8", "--set", "device:IspBayerEnable=1", "--set",
                              "Width=512", "--set", "Height=64", "-n", "4", "-o", output.string(), "-q"},
                             R"({"cards": [{"product_id": "0x184",
                                 "cameras": [{"links": [0, 1], "model": "Lyra 12C CXP-12"}]}]})");
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_NE(run.out.find("BGR8"), std::string::npos) << run.out;
    DecodedPng first;
    ASSERT_TRUE(decode_png((output / "frame_000001.png").string(), &first));
    EXPECT_EQ(first.colour_type, PNG_COLOR_TYPE_RGB);
    check_images(output, 4, camera_frames(512, 64, 0x01080009, 512 * 3, 512 * 3 * 64, true));
}

TEST_F(GrabTool, MistakesEndWithAMessageAndTheirExitCode) {
    fs::create_directories(directory_);
    const std::string not_a_directory = (directory_ / "file").string();
    std::ofstream(not_a_directory) << "x";
    struct Case {
        std::vector<std::string> args;
        std::string profile;
        int exit_code;
        const char *message;
    };
    const std::vector<Case> cases = {
        {{"--bogus"}, "", 2, "unknown option --bogus"},
        {{"-n", "-3"}, "", 2, "--count wants a whole number"},
        {{"--buffers", "0"}, "", 2, "--buffers wants"},
        {{"--set", "nowhere:Width=8"}, "", 2, "--set wants"},
        {{"--count", "0"}, "", 2, "--count 0 needs --duration"},
        {{"-n", "1", "-o", not_a_directory + "/images"}, "", 6, "cannot create the output directory"},
        {{"-n", "1", "-d", "7"}, "", 4, "no camera '7'"},
        {{"-n", "1", "-d", "device9"}, "", 4, "no camera 'device9'"},
        {{"-n", "1"}, R"({"cards": []})", 3, "when no card is found"},
        {{"-n", "1", "--set", "NoSuchFeature=1"}, "", 5, "no such feature"},
        {{"-n", "1", "--set", "Width=5"}, "", 5, "cannot set remote:Width to '5'"},
        {{"-n", "1", "--pixel-format", "Mono99"}, "", 5, "PixelFormat"},
    };
    for (const Case &c : cases) {
        const ToolRun run = grab(c.args, c.profile);
        EXPECT_EQ(run.signal, 0) << c.message;
        EXPECT_EQ(run.exit_code, c.exit_code) << c.message << "\n" << run.err;
        EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
    }
    const ToolRun no_value = run_tool(PELORIN_GRAB_TOOL, {"-n"});
    EXPECT_EQ(no_value.exit_code, 2);
    EXPECT_NE(no_value.err.find("-n needs a value"), std::string::npos) << no_value.err;
    const ToolRun missing = run_tool(PELORIN_GRAB_TOOL, {"-n", "1", "/nonexistent/pelorin_cxp.cti"});
    EXPECT_EQ(missing.exit_code, 3);
    EXPECT_NE(missing.err.find("cannot load /nonexistent/pelorin_cxp.cti"), std::string::npos) << missing.err;
    const ToolRun help = run_tool(PELORIN_GRAB_TOOL, {"--help"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_NE(help.out.find("Exit codes"), std::string::npos);
}

}  // namespace
