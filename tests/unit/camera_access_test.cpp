// Camera memory access of the card context: chunked writes, the three read
// modes, and their failures, against a camera model with a description file
// in its memory.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "card/card_context.h"
#include "link/cxp_device.h"

namespace {

// A camera whose memory holds bytes in wire order. Block reads that cross
// `block_limit` are refused (as a camera refuses reads past the end of its
// description file) while word reads within the memory succeed.
class camera_model final : public cxp_device {
public:
    struct access {
        uint32_t address;
        uint32_t size;
        bool swap;
        bool is_read;
    };

    // A link device of no card: only the memory operations below are used.
    camera_model() : cxp_device(nullptr, 4, 0x1) {}

    std::vector<uint8_t> memory = std::vector<uint8_t>(4096, 0);
    uint32_t block_limit = 0xFFFFFFFF;
    bool refuse_unaligned = false;
    int fail_from_call = -1;  // this call and every later one fail with fail_result
    int fail_result = -2;
    bool online = true;
    std::vector<access> accesses;

    int connect(uint32_t) override { return 0; }
    int reconnect() override { return 0; }
    bool is_online() override { return online; }

    int mem_access(uint32_t address, void *buffer, uint32_t size, bool swap,
                   bool is_read) override {
        accesses.push_back({address, size, swap, is_read});
        if (fail_from_call >= 0 && static_cast<int>(accesses.size()) > fail_from_call)
            return fail_result;
        if (uint64_t{address} + size > memory.size()) return -2;
        if (is_read && size > 4 && address + size > block_limit) return -2;
        if (refuse_unaligned && size % 4 != 0) return -2;
        auto *bytes = static_cast<uint8_t *>(buffer);
        for (uint32_t offset = 0; offset < size; offset += 4) {
            const uint32_t length = std::min<uint32_t>(4, size - offset);
            for (uint32_t i = 0; i < length; ++i) {
                // Swapping turns each big-endian wire word into a host word.
                const uint32_t camera = address + offset + (swap && length == 4 ? 3 - i : i);
                if (is_read)
                    bytes[offset + i] = memory[camera];
                else
                    memory[camera] = bytes[offset + i];
            }
        }
        return 0;
    }

    void store(uint32_t address, const std::string &text) {
        std::copy(text.begin(), text.end(), memory.begin() + address);
    }
};

// A context that looks open to the camera operations; no message reaches a
// card, the camera model stands behind it.
struct connected_context {
    card_context context;
    camera_model camera;
    connected_context() {
        context.pcie_device.handle = 0x77;
        context.link_device = &camera;
    }
    ~connected_context() { context.pcie_device.handle = pelorin::card::kClosedHandle; }
};

std::string description_file(size_t length) {
    const std::string head = "<?xml version=\"1.0\"?><RegisterDescription>";
    const std::string tail = "</RegisterDescription>";
    std::string body(length - head.size() - tail.size(), 'n');
    return head + body + tail;
}

TEST(CameraWrite, SplitsIntoChunksAndStopsAtTheFirstFailure) {
    connected_context c;
    std::vector<uint8_t> data(250);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i);

    EXPECT_EQ(camera_write(&c.context, 0x800, data.data(), 250, true), 0);
    ASSERT_EQ(c.camera.accesses.size(), 3u);
    EXPECT_EQ(c.camera.accesses[0].address, 0x800u);
    EXPECT_EQ(c.camera.accesses[1].address, 0x864u);
    EXPECT_EQ(c.camera.accesses[2].address, 0x8C8u);
    EXPECT_EQ(c.camera.accesses[2].size, 50u);
    EXPECT_FALSE(c.camera.accesses[0].swap);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), c.camera.memory.begin() + 0x800));

    // Below the chunk: one write, swapped unless raw.
    c.camera.accesses.clear();
    const uint32_t value = 0x11223344;
    EXPECT_EQ(camera_write(&c.context, 0x20, &value, 4, false, 64), 0);
    ASSERT_EQ(c.camera.accesses.size(), 1u);
    EXPECT_TRUE(c.camera.accesses[0].swap);
    EXPECT_EQ(c.camera.memory[0x20], 0x11);  // big-endian on the wire

    // A chunk size of 64 and a failure on the second chunk.
    c.camera.accesses.clear();
    c.camera.fail_from_call = 1;
    c.camera.fail_result = -7;
    EXPECT_EQ(camera_write(&c.context, 0, data.data(), 200, true, 64), -7);
    EXPECT_EQ(c.camera.accesses.size(), 2u);

    card_context closed;
    EXPECT_EQ(camera_write(&closed, 0, data.data(), 4, true), -1006);
    EXPECT_EQ(camera_write(nullptr, 0, data.data(), 4, true), -1006);
    c.context.link_device = nullptr;
    EXPECT_EQ(camera_write(&c.context, 0, data.data(), 4, true), -1010);
    c.context.link_device = &c.camera;
    EXPECT_EQ(camera_write(&c.context, 0, nullptr, 4, true), -1009);
    EXPECT_EQ(camera_write(&c.context, 0, data.data(), 0, true), -1009);
}

TEST(CameraRead, StringModeReadsUpToTheTerminatorWithinTheCallersBuffer) {
    connected_context c;
    c.camera.store(0x200, std::string("abcd") + '\0');
    char url[64];
    uint64_t size = sizeof url;
    EXPECT_EQ(camera_read(&c.context, 0x200, url, &size, kCameraReadString, true, 0), 0);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(std::string(url, 4), "abcd");
    EXPECT_EQ(c.camera.accesses.size(), 2u);  // the word after "abcd" holds the NUL
    EXPECT_TRUE(std::all_of(c.camera.accesses.begin(), c.camera.accesses.end(),
                            [](const auto &a) { return a.size == 4 && !a.swap; }));

    // A text longer than the caller's buffer is cut at the buffer.
    const std::string long_url = "local:camera.zip;8000;" + std::string(60, 'x');
    c.camera.store(0x400, long_url + '\0');
    char small[16];
    size = sizeof small;
    EXPECT_EQ(camera_read(&c.context, 0x400, small, &size, kCameraReadString, true, 0), 0);
    EXPECT_EQ(size, 16u);
    EXPECT_EQ(std::string(small, 16), long_url.substr(0, 16));

    // No terminator within the 1024 words read for a large request: the
    // copy is bounded by what was read.
    std::fill(c.camera.memory.begin(), c.camera.memory.end(), 'u');
    c.camera.accesses.clear();
    std::vector<char> big(8192);
    size = big.size();
    EXPECT_EQ(camera_read(&c.context, 0, big.data(), &size, kCameraReadString, true, 0), 0);
    EXPECT_EQ(c.camera.accesses.size(), 1024u);
    EXPECT_EQ(size, 4096u);

    c.camera.fail_from_call = 0;
    size = sizeof url;
    EXPECT_EQ(camera_read(&c.context, 0, url, &size, kCameraReadString, true, 0), -2);
}

TEST(CameraRead, SmallReadsSwapAndReportFailures) {
    connected_context c;
    c.camera.memory[0x10] = 0x12;
    c.camera.memory[0x11] = 0x34;
    c.camera.memory[0x12] = 0x56;
    c.camera.memory[0x13] = 0x78;
    uint32_t value = 0;
    uint64_t size = 4;
    EXPECT_EQ(camera_read(&c.context, 0x10, &value, &size, 0, false, 0), 0);
    EXPECT_EQ(value, 0x12345678u);
    EXPECT_EQ(camera_read(&c.context, 0x10, &value, &size, 0, true, 0), 0);
    EXPECT_EQ(value, 0x78563412u);  // raw: wire order

    // Below a word: one word read, the requested bytes copied.
    uint8_t two[2] = {};
    size = 2;
    EXPECT_EQ(camera_read(&c.context, 0x10, two, &size, 0, true, 0), 0);
    EXPECT_EQ(two[0], 0x12);
    EXPECT_EQ(two[1], 0x34);
    EXPECT_EQ(c.camera.accesses.back().size, 4u);

    c.camera.fail_from_call = 0;
    c.camera.fail_result = -5;
    size = 8;
    uint8_t eight[8] = {};
    testing::internal::CaptureStdout();
    EXPECT_EQ(camera_read(&c.context, 0xABC, eight, &size, 0, false, 0), -1);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_NE(printed.find("read addr(0xABC) error(-5):0x0"), std::string::npos) << printed;
    size = 2;
    EXPECT_EQ(camera_read(&c.context, 0, two, &size, 0, true, 0), -1);

    card_context closed;
    size = 4;
    EXPECT_EQ(camera_read(&closed, 0, &value, &size, 0, true, 0), -1);
    EXPECT_EQ(camera_read(&c.context, 0, nullptr, &size, 0, true, 0), -1);
    EXPECT_EQ(camera_read(&c.context, 0, &value, nullptr, 0, true, 0), -1);
}

TEST(CameraRead, StrideReadEndsAtTheEndOfTheDescriptionFile) {
    connected_context c;
    const std::string file = description_file(1000);
    c.camera.store(0x100, file);
    c.camera.block_limit = 0x100 + 1000;

    // Exactly the file: whole chunks and the remainder, unswapped.
    std::vector<char> data(4096, '?');
    uint64_t size = 1000;
    EXPECT_EQ(camera_read(&c.context, 0x100, data.data(), &size, 0, false, 512), 0);
    EXPECT_EQ(size, 1000u);
    EXPECT_EQ(std::string(data.data(), 1000), file);
    EXPECT_TRUE(std::none_of(c.camera.accesses.begin(), c.camera.accesses.end(),
                             [](const auto &a) { return a.swap; }));

    // A request larger than the file: the chunk that crosses the end is read
    // word by word and taken up to the closing tag.
    std::fill(data.begin(), data.end(), '?');
    size = 4096;
    EXPECT_EQ(camera_read(&c.context, 0x100, data.data(), &size, 0, false, 512), 0);
    EXPECT_EQ(size, 1000u);
    EXPECT_EQ(std::string(data.data(), 1000), file);

    // The same through the remainder (1200 = 2 x 480 + 240).
    std::fill(data.begin(), data.end(), '?');
    size = 1200;
    EXPECT_EQ(camera_read(&c.context, 0x100, data.data(), &size, 0, false, 480), 0);
    EXPECT_EQ(size, 1000u);
    EXPECT_EQ(std::string(data.data(), 1000), file);

    // Strides above the scratch chunk are cut to 512 bytes.
    c.camera.accesses.clear();
    size = 1000;
    EXPECT_EQ(camera_read(&c.context, 0x100, data.data(), &size, 0, false, 4096), 0);
    EXPECT_EQ(c.camera.accesses.front().size, 512u);
}

TEST(CameraRead, StrideReadRetriesAnOddRemainderAndPassesUnknownAddress) {
    connected_context c;
    const std::string file = description_file(1001);
    c.camera.store(0, file);
    c.camera.refuse_unaligned = true;
    std::vector<char> data(1001);
    uint64_t size = 1001;
    EXPECT_EQ(camera_read(&c.context, 0, data.data(), &size, 0, false, 200), 0);
    EXPECT_EQ(size, 1001u);
    EXPECT_EQ(std::string(data.data(), 1001), file);
    EXPECT_EQ(c.camera.accesses.back().size, 4u);  // remainder 1 rounded up to a word

    // Unknown address ends the read with -3 at once; another error without
    // an end tag in the chunk gives that error.
    c.camera.accesses.clear();
    c.camera.fail_from_call = 0;
    c.camera.fail_result = -3;
    size = 1001;
    EXPECT_EQ(camera_read(&c.context, 0, data.data(), &size, 0, false, 200), -3);
    EXPECT_EQ(c.camera.accesses.size(), 1u);
    c.camera.fail_result = -6;
    EXPECT_EQ(camera_read(&c.context, 0, data.data(), &size, 0, false, 200), -6);
    EXPECT_EQ(camera_read(&c.context, 0, data.data(), &size, 0, false, 0), -1);
}

TEST(CameraOnline, NeedsALinkDeviceThatAnswers) {
    connected_context c;
    EXPECT_TRUE(camera_is_online(&c.context));
    c.camera.online = false;
    EXPECT_FALSE(camera_is_online(&c.context));
    c.context.link_device = nullptr;
    EXPECT_FALSE(camera_is_online(&c.context));
    EXPECT_FALSE(camera_is_online(nullptr));
}

}  // namespace
