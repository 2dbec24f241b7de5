// The card description block (216 bytes at offset 0 of the card's
// description storage): vendor and model names guarded by a magic word, a
// storage range and a checksum.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "card/byte_order.h"
#include "card/driver_codes.h"

struct description_block {
    static constexpr size_t kSize = pelorin::card::kDescriptionBlockSize;
    static constexpr uint32_t kMagic = 0xFF000165;
    static constexpr uint64_t kStorageSize = 0x100000;
    static constexpr size_t kMagicOffset = 0;
    static constexpr size_t kStartOffset = 4;
    static constexpr size_t kLengthOffset = 8;
    static constexpr size_t kVendorOffset = 12;
    static constexpr size_t kVendorCapacity = 64;
    static constexpr size_t kModelOffset = 76;
    static constexpr size_t kModelCapacity = 132;
    static constexpr size_t kChecksumOffset = 208;

    enum class check { valid, bad_magic, outside_storage, bad_length, bad_checksum };

    std::array<uint8_t, kSize> bytes{};

    uint32_t magic() const { return pelorin::card::load_le32(bytes, kMagicOffset); }
    uint32_t start() const { return pelorin::card::load_le32(bytes, kStartOffset); }
    uint32_t length() const { return pelorin::card::load_le32(bytes, kLengthOffset); }
    uint64_t checksum() const { return pelorin::card::load_le64(bytes, kChecksumOffset); }
    std::string vendor() const {
        return pelorin::card::load_text(bytes, kVendorOffset, kVendorCapacity);
    }
    std::string model() const {
        return pelorin::card::load_text(bytes, kModelOffset, kModelCapacity);
    }

    // The 64-bit sum of the 32-bit words from offset 0 up to the last 8 bytes
    // of the block (length / 4 - 2 words). Lengths that would sum outside the
    // words before the checksum field count no words.
    uint64_t computed_checksum() const;

    // Valid when the magic matches, start + length + 1 fits the 1 MiB
    // storage, the length lies within 8 ... 216 bytes and the checksum field
    // holds the computed sum.
    check validate() const;
    bool valid() const { return validate() == check::valid; }

    static const char *check_text(check result);
};
