// Writes a zip archive whose entries are stored uncompressed: local headers,
// data, central directory and end record, as any unzipper expects them.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace pelorin::testing_support {

inline uint32_t bitwise_crc32(const std::string &data) {
    uint32_t crc = 0xffffffffu;
    for (unsigned char byte : data) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

// `files`: name and content of each entry, in archive order.
inline std::string stored_zip(const std::vector<std::pair<std::string, std::string>> &files) {
    std::string archive, directory;
    auto put = [](std::string &out, uint32_t value, int bytes) {
        for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>(value >> (8 * i)));
    };
    for (const auto &[name, content] : files) {
        const uint32_t offset = static_cast<uint32_t>(archive.size());
        const uint32_t crc = bitwise_crc32(content);
        const uint32_t size = static_cast<uint32_t>(content.size());
        const uint16_t name_length = static_cast<uint16_t>(name.size());
        put(archive, 0x04034b50, 4);  // local header
        put(archive, 10, 2);          // version needed
        put(archive, 0, 2);           // flags
        put(archive, 0, 2);           // method: stored
        put(archive, 0, 4);           // time, date
        put(archive, crc, 4);
        put(archive, size, 4);
        put(archive, size, 4);
        put(archive, name_length, 2);
        put(archive, 0, 2);  // extra length
        archive += name + content;

        put(directory, 0x02014b50, 4);  // central directory entry
        put(directory, 20, 2);          // version made by
        put(directory, 10, 2);          // version needed
        put(directory, 0, 2);
        put(directory, 0, 2);
        put(directory, 0, 4);
        put(directory, crc, 4);
        put(directory, size, 4);
        put(directory, size, 4);
        put(directory, name_length, 2);
        put(directory, 0, 2);  // extra
        put(directory, 0, 2);  // comment
        put(directory, 0, 2);  // disk
        put(directory, 0, 2);  // internal attributes
        put(directory, 0, 4);  // external attributes
        put(directory, offset, 4);
        directory += name;
    }
    const uint32_t directory_offset = static_cast<uint32_t>(archive.size());
    archive += directory;
    put(archive, 0x06054b50, 4);  // end of central directory
    put(archive, 0, 2);
    put(archive, 0, 2);
    put(archive, static_cast<uint32_t>(files.size()), 2);
    put(archive, static_cast<uint32_t>(files.size()), 2);
    put(archive, static_cast<uint32_t>(directory.size()), 4);
    put(archive, directory_offset, 4);
    put(archive, 0, 2);  // comment length
    return archive;
}

}  // namespace pelorin::testing_support
