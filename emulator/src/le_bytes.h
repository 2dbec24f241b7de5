// Little-endian field access in the driver's byte records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace pelorin::emu {

inline void put_le16(std::span<uint8_t> bytes, size_t offset, uint16_t value) {
    bytes[offset] = static_cast<uint8_t>(value);
    bytes[offset + 1] = static_cast<uint8_t>(value >> 8);
}

inline void put_le32(std::span<uint8_t> bytes, size_t offset, uint32_t value) {
    for (size_t i = 0; i < 4; ++i) bytes[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

inline void put_le64(std::span<uint8_t> bytes, size_t offset, uint64_t value) {
    for (size_t i = 0; i < 8; ++i) bytes[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

inline uint32_t get_le32(std::span<const uint8_t> bytes, size_t offset) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) value |= static_cast<uint32_t>(bytes[offset + i]) << (8 * i);
    return value;
}

inline uint64_t get_le64(std::span<const uint8_t> bytes, size_t offset) {
    return get_le32(bytes, offset) | static_cast<uint64_t>(get_le32(bytes, offset + 4)) << 32;
}

// Copies `text` into a NUL-terminated field of `capacity` bytes, cutting it
// so that the terminator always fits.
inline void put_text(std::span<uint8_t> bytes, size_t offset, size_t capacity,
                     std::string_view text) {
    const size_t length = text.size() < capacity ? text.size() : capacity - 1;
    for (size_t i = 0; i < capacity; ++i)
        bytes[offset + i] = i < length ? static_cast<uint8_t>(text[i]) : 0;
}

}  // namespace pelorin::emu
