#include "pixelformat/pixel_formats.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <utility>

#include "diag/log.h"

namespace pelorin::pixel {

namespace {

struct code_pair {
    uint32_t cxp;
    uint32_t pfnc;
};

// CoaXPress image-header pixel codes and their PFNC equivalents.
constexpr code_pair kCxpToPfnc[] = {
    {0x0101, 0x01080001}, {0x0102, 0x01100003}, {0x0103, 0x01100005}, {0x0104, 0x01100025},
    {0x0105, 0x01100007}, {0x0311, 0x01080008}, {0x0312, 0x0110000C}, {0x0313, 0x01100010},
    {0x0314, 0x01100109}, {0x0315, 0x0110002E}, {0x0321, 0x01080009}, {0x0322, 0x0110000D},
    {0x0323, 0x01100011}, {0x0324, 0x0110010A}, {0x0325, 0x0110002F}, {0x0331, 0x0108000A},
    {0x0332, 0x0110000E}, {0x0333, 0x01100012}, {0x0334, 0x0110010B}, {0x0335, 0x01100030},
    {0x0341, 0x0108000B}, {0x0342, 0x0110000F}, {0x0343, 0x01100013}, {0x0344, 0x0110010C},
    {0x0345, 0x01100031}, {0x0401, 0x02180014}, {0x0402, 0x02300018}, {0x0403, 0x0230001A},
    {0x0404, 0x0230005E}, {0x0405, 0x02300033}, {0x0501, 0x02200016}, {0x0502, 0x0240005F},
    {0x0503, 0x02400061}, {0x0504, 0x02400063}, {0x0505, 0x02400064}, {0x0621, 0x02100032},
    {0x0721, 0x0210003E}, {0x0722, 0x0220008D}, {0x0723, 0x0220008F}, {0x0821, 0x02100041},
    {0x0822, 0x02200095}, {0x0823, 0x02200097},
};
static_assert(std::size(kCxpToPfnc) == 42);

struct bits_group {
    int32_t bits;
    std::initializer_list<uint32_t> codes;
};

// Supported PFNC codes by bits per pixel on the card's output.
const bits_group kSupported[] = {
    {1, {0x01010037}},
    {2, {0x01020038}},
    {4, {0x01040039, 0x0104010D, 0x0104010E, 0x0104010F, 0x01040110}},
    {8, {0x01080001, 0x01080002, 0x01080008, 0x01080009, 0x0108000A, 0x0108000B, 0x010800C9,
         0x010800CD, 0x010800D1}},
    {10, {0x010A0046, 0x010A0052, 0x010A0054, 0x010A0056, 0x010A0058, 0x010C0004, 0x010C0026,
          0x010C0027, 0x010C0028, 0x010C0029, 0x01100003, 0x0110000C, 0x0110000D, 0x0110000E,
          0x0110000F}},
    {12, {0x010C0006, 0x010C002A, 0x010C002B, 0x010C002C, 0x010C002D, 0x010C0047, 0x010C0053,
          0x010C0055, 0x010C0057, 0x010C0059, 0x01100005, 0x01100010, 0x01100011, 0x01100012,
          0x01100013, 0x020C001E, 0x020C003C, 0x020C003F, 0x020C0042, 0x020C005A, 0x020C00F9,
          0x020C0112, 0x020C0114}},
    {14, {0x010E0104, 0x010E0105, 0x010E0106, 0x010E0107, 0x010E0108, 0x01100025, 0x01100109,
          0x0110010A, 0x0110010B, 0x0110010C}},
    {16, {0x01100007, 0x0110002E, 0x0110002F, 0x01100030, 0x01100031, 0x0210001F, 0x02100032,
          0x0210003B, 0x0210003E, 0x02100041, 0x02100043, 0x02100044, 0x02100045, 0x021000FA,
          0x021000FB, 0x02100113, 0x02100115}},
    {24, {0x02180014, 0x02180015, 0x02180020, 0x0218003A, 0x0218003D, 0x02180040, 0x0218005B,
          0x021800F4}},
    {30, {0x0220001C}},
    {32, {0x01200111, 0x02200016, 0x02200017}},
    {36, {0x02240034}},
    {48, {0x02300018, 0x02300019, 0x0230001A, 0x0230001B, 0x02300022, 0x02300023, 0x02300024,
          0x02300033, 0x0230004A, 0x0230004B, 0x0230005E}},
};

const std::pair<const char *, uint32_t> kNameFallback[] = {
    {"Mono8", 0x01080001}, {"Mono10", 0x01100003}, {"Mono12", 0x01100005},
    {"Mono14", 0x01100025}, {"Mono16", 0x01100007},
};

}  // namespace

uint64_t CxpToPfnc(uint64_t code) {
    for (const code_pair &pair : kCxpToPfnc)
        if (pair.cxp == code) return pair.pfnc;
    return code;
}

int32_t BitsPerPixel(uint64_t pfnc) {
    for (const bits_group &group : kSupported)
        if (std::find(group.codes.begin(), group.codes.end(), pfnc) != group.codes.end())
            return group.bits;
    return 0;
}

bool IsSupported(uint64_t pfnc) { return BitsPerPixel(pfnc) != 0; }

uint64_t ResolvePixelFormat(uint64_t value, const std::string &entry_name) {
    const uint64_t mapped = CxpToPfnc(value);
    if (IsSupported(mapped)) return mapped;
    for (const auto &[name, pfnc] : kNameFallback)
        if (entry_name == name) return pfnc;
    LOG_ANY(pelorin::diag::kError, "Unsupport format:0x%08X\n", static_cast<unsigned>(mapped));
    return 0;
}

}  // namespace pelorin::pixel
