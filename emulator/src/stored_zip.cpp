#include "stored_zip.h"

#include <array>

namespace pelorin::emu {

namespace {

constexpr std::array<uint32_t, 256> make_crc_table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ (0xEDB88320u & (0u - (value & 1u)));
        table[i] = value;
    }
    return table;
}
constexpr std::array<uint32_t, 256> kCrcTable = make_crc_table();

// 2024-01-01 00:00 in the archive's date and time fields.
constexpr uint16_t kDosDate = ((2024 - 1980) << 9) | (1 << 5) | 1;
constexpr uint16_t kDosTime = 0;

void put(std::vector<uint8_t> &out, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

}  // namespace

uint32_t zip_crc32(std::span<const uint8_t> bytes) {
    uint32_t crc = 0xFFFFFFFFu;
    for (uint8_t byte : bytes) crc = kCrcTable[(crc ^ byte) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

std::vector<uint8_t> stored_zip(std::string_view entry_name, std::string_view content) {
    const std::span<const uint8_t> data(reinterpret_cast<const uint8_t *>(content.data()), content.size());
    const uint32_t crc = zip_crc32(data);
    const uint32_t size = static_cast<uint32_t>(content.size());
    const uint32_t name_length = static_cast<uint32_t>(entry_name.size());

    std::vector<uint8_t> out;
    out.reserve(content.size() + 2 * entry_name.size() + 128);
    // Local file header.
    put(out, 0x04034B50, 4);
    put(out, 10, 2);  // version needed: 1.0
    put(out, 0, 2);   // flags
    put(out, 0, 2);   // method: stored
    put(out, kDosTime, 2);
    put(out, kDosDate, 2);
    put(out, crc, 4);
    put(out, size, 4);  // compressed
    put(out, size, 4);  // uncompressed
    put(out, name_length, 2);
    put(out, 0, 2);  // extra field
    out.insert(out.end(), entry_name.begin(), entry_name.end());
    out.insert(out.end(), data.begin(), data.end());

    // Central directory with its one entry.
    const uint32_t directory = static_cast<uint32_t>(out.size());
    put(out, 0x02014B50, 4);
    put(out, 20, 2);  // made by
    put(out, 10, 2);  // needed
    put(out, 0, 2);
    put(out, 0, 2);
    put(out, kDosTime, 2);
    put(out, kDosDate, 2);
    put(out, crc, 4);
    put(out, size, 4);
    put(out, size, 4);
    put(out, name_length, 2);
    put(out, 0, 2);  // extra
    put(out, 0, 2);  // comment
    put(out, 0, 2);  // disk
    put(out, 0, 2);  // internal attributes
    put(out, 0, 4);  // external attributes
    put(out, 0, 4);  // offset of the local header
    out.insert(out.end(), entry_name.begin(), entry_name.end());
    const uint32_t directory_size = static_cast<uint32_t>(out.size()) - directory;

    // End of central directory.
    put(out, 0x06054B50, 4);
    put(out, 0, 2);  // this disk
    put(out, 0, 2);  // directory disk
    put(out, 1, 2);  // entries here
    put(out, 1, 2);  // entries in all
    put(out, directory_size, 4);
    put(out, directory, 4);
    put(out, 0, 2);  // comment
    return out;
}

}  // namespace pelorin::emu
