// The card's boot record (32 bytes, little-endian) as the driver reports it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "card/byte_order.h"
#include "card/driver_codes.h"

struct boot_record {
    static constexpr size_t kSize = pelorin::card::kBootRecordSize;
    static constexpr size_t kGenerationOffset = 0;
    static constexpr size_t kLinkCountOffset = 8;
    static constexpr size_t kDeviceSlotsOffset = 12;
    static constexpr size_t kLinkRateOffset = 16;
    static constexpr size_t kStage2Offset = 20;

    std::array<uint8_t, kSize> bytes{};

    // Boot firmware generation: 0, 1 or 2.
    uint32_t generation() const { return pelorin::card::load_le32(bytes, kGenerationOffset); }
    uint32_t link_count() const { return pelorin::card::load_le32(bytes, kLinkCountOffset); }
    // How many cameras the card serves at once, as recorded (0 stands for 1).
    uint32_t device_slots() const { return pelorin::card::load_le32(bytes, kDeviceSlotsOffset); }
    uint32_t link_rate_code() const { return pelorin::card::load_le32(bytes, kLinkRateOffset); }
    // False when the second-stage firmware failed to load.
    bool stage2_loaded() const { return pelorin::card::load_le32(bytes, kStage2Offset) != 0; }
};
