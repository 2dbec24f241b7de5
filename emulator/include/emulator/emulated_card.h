// One emulated frame-grabber card: it holds the card's records and storage
// and answers the driver messages addressed to it, chosen by control code.
//
// Thread safety: handle_message() may be called from any thread; the card
// serialises its messages with its own lock.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

#include "emulator/card_profile.h"

namespace pelorin::emu {

class emulated_card {
public:
    static constexpr size_t kBootRecordSize = 32;
    static constexpr size_t kCardInfoSize = 228;
    static constexpr size_t kDescriptionSize = 216;
    static constexpr uint32_t kDescriptionMagic = 0xFF000165;
    static constexpr size_t kFlashSize = 0x100000;
    static constexpr size_t kIdentifierCapacity = 128;  // bytes 80..207 of the card info
    static constexpr size_t kNameCapacity = 16;         // bytes 208..223 of the card info
    static constexpr size_t kVendorCapacity = 64;       // bytes 12..75 of the block
    static constexpr size_t kModelCapacity = 132;       // bytes 76..207 of the block

    explicit emulated_card(card_profile profile);

    emulated_card(const emulated_card &) = delete;
    emulated_card &operator=(const emulated_card &) = delete;

    const card_profile &profile() const { return profile_; }

    // True when the card knows the control code (whether or not a given
    // message with it is well formed).
    static bool handles(uint32_t code);

    // Answers one message. `returned` is set to the number of output bytes
    // written. False when the card refuses the message: unknown code, input
    // of the wrong size, output too small, or a storage range out of bounds.
    bool handle_message(uint32_t code, std::span<const uint8_t> in, std::span<uint8_t> out,
                        size_t &returned);

    // The records as the card reports them.
    std::array<uint8_t, kBootRecordSize> boot_record() const;
    std::array<uint8_t, kCardInfoSize> card_info() const;
    // The first bytes of the description storage (the description block).
    std::array<uint8_t, kDescriptionSize> description_block() const;

private:
    using handler = bool (emulated_card::*)(std::span<const uint8_t>, std::span<uint8_t>,
                                            size_t &);
    struct dispatch_entry {
        uint32_t code;
        handler fn;
    };
    static const dispatch_entry *find_handler(uint32_t code);

    bool get_boot_info(std::span<const uint8_t> in, std::span<uint8_t> out, size_t &returned);
    bool get_card_info(std::span<const uint8_t> in, std::span<uint8_t> out, size_t &returned);
    bool read_flash(std::span<const uint8_t> in, std::span<uint8_t> out, size_t &returned);

    void build_records();
    void build_flash();

    static const dispatch_entry kDispatch[];

    mutable std::mutex mutex_;
    card_profile profile_;
    std::array<uint8_t, kBootRecordSize> boot_record_{};
    std::array<uint8_t, kCardInfoSize> card_info_{};
    std::vector<uint8_t> flash_;
};

}  // namespace pelorin::emu
