// The card information record (228 bytes, little-endian) as the driver
// reports it. Fields the producer does not read are kept as they came.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "card/byte_order.h"
#include "card/driver_codes.h"

struct card_info_record {
    static constexpr size_t kSize = pelorin::card::kCardInfoSize;
    static constexpr size_t kProductIdOffset = 2;
    static constexpr size_t kFirmwareVersionOffset = 8;
    static constexpr size_t kIdentifierOffset = 80;
    static constexpr size_t kIdentifierCapacity = 128;
    static constexpr size_t kNameOffset = 208;
    static constexpr size_t kNameCapacity = 16;
    static constexpr size_t kAttributeOffset = 224;

    std::array<uint8_t, kSize> bytes{};

    uint16_t product_id() const { return pelorin::card::load_le16(bytes, kProductIdOffset); }
    // High 16 bits major, low 16 bits minor.
    uint32_t firmware_version() const {
        return pelorin::card::load_le32(bytes, kFirmwareVersionOffset);
    }
    uint32_t firmware_major() const { return firmware_version() >> 16; }
    uint32_t firmware_minor() const { return firmware_version() & 0xFFFF; }
    std::string identifier() const {
        return pelorin::card::load_text(bytes, kIdentifierOffset, kIdentifierCapacity);
    }
    std::string name() const { return pelorin::card::load_text(bytes, kNameOffset, kNameCapacity); }
    uint8_t attribute() const { return bytes[kAttributeOffset]; }

    // Ends the stored card name at its first blank.
    void cut_name_at_blank() {
        for (size_t i = kNameOffset; i < kNameOffset + kNameCapacity && bytes[i] != 0; ++i) {
            if (bytes[i] == ' ') {
                bytes[i] = 0;
                return;
            }
        }
    }
};
