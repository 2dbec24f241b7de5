// Little-endian field access in the driver's byte records and messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace pelorin::card {

inline uint16_t load_le16(std::span<const uint8_t> bytes, size_t offset) {
    return static_cast<uint16_t>(bytes[offset] | (bytes[offset + 1] << 8));
}

inline uint32_t load_le32(std::span<const uint8_t> bytes, size_t offset) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) value |= static_cast<uint32_t>(bytes[offset + i]) << (8 * i);
    return value;
}

inline uint64_t load_le64(std::span<const uint8_t> bytes, size_t offset) {
    uint64_t value = 0;
    for (size_t i = 0; i < 8; ++i) value |= static_cast<uint64_t>(bytes[offset + i]) << (8 * i);
    return value;
}

inline void store_le32(std::span<uint8_t> bytes, size_t offset, uint32_t value) {
    for (size_t i = 0; i < 4; ++i) bytes[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

inline void store_le64(std::span<uint8_t> bytes, size_t offset, uint64_t value) {
    for (size_t i = 0; i < 8; ++i) bytes[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

// The NUL-terminated text of a fixed field; a field without a terminator
// yields its whole width.
inline std::string load_text(std::span<const uint8_t> bytes, size_t offset, size_t capacity) {
    std::string text;
    for (size_t i = 0; i < capacity && bytes[offset + i] != 0; ++i)
        text.push_back(static_cast<char>(bytes[offset + i]));
    return text;
}

}  // namespace pelorin::card
