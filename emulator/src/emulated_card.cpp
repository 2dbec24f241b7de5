#include "emulator/emulated_card.h"

#include <algorithm>
#include <utility>

#include "emulator/control_codes.h"
#include "le_bytes.h"

namespace pelorin::emu {

// Card information record layout (fields the card fills).
namespace {
constexpr size_t kInfoProductId = 2;
constexpr size_t kInfoFirmwareVersion = 8;
constexpr size_t kInfoLinkCount = 12;
constexpr size_t kInfoIdentifier = 80;
constexpr size_t kInfoName = 208;
constexpr size_t kInfoAttribute = 224;

// Boot record layout.
constexpr size_t kBootGeneration = 0;
constexpr size_t kBootLinkCount = 8;
constexpr size_t kBootDeviceSlots = 12;
constexpr size_t kBootLinkRate = 16;
constexpr size_t kBootStage2 = 20;

// Description block layout.
constexpr size_t kDescMagic = 0;
constexpr size_t kDescStart = 4;
constexpr size_t kDescLength = 8;
constexpr size_t kDescVendor = 12;
constexpr size_t kDescModel = 76;
constexpr size_t kDescChecksum = 208;

// Flash read message: offset and length words.
constexpr size_t kFlashRequestSize = 8;
}  // namespace

const emulated_card::dispatch_entry emulated_card::kDispatch[] = {
    {kCodeGetBootInfo, &emulated_card::get_boot_info},
    {kCodeGetCardInfo, &emulated_card::get_card_info},
    {kCodeReadFlash, &emulated_card::read_flash},
};

emulated_card::emulated_card(card_profile profile) : profile_(std::move(profile)) {
    build_records();
    build_flash();
}

const emulated_card::dispatch_entry *emulated_card::find_handler(uint32_t code) {
    for (const dispatch_entry &entry : kDispatch)
        if (entry.code == code) return &entry;
    return nullptr;
}

bool emulated_card::handles(uint32_t code) { return find_handler(code) != nullptr; }

bool emulated_card::handle_message(uint32_t code, std::span<const uint8_t> in,
                                   std::span<uint8_t> out, size_t &returned) {
    returned = 0;
    const dispatch_entry *entry = find_handler(code);
    if (entry == nullptr) return false;
    std::lock_guard lock(mutex_);
    return (this->*(entry->fn))(in, out, returned);
}

std::array<uint8_t, emulated_card::kBootRecordSize> emulated_card::boot_record() const {
    std::lock_guard lock(mutex_);
    return boot_record_;
}

std::array<uint8_t, emulated_card::kCardInfoSize> emulated_card::card_info() const {
    std::lock_guard lock(mutex_);
    return card_info_;
}

std::array<uint8_t, emulated_card::kDescriptionSize> emulated_card::description_block() const {
    std::lock_guard lock(mutex_);
    std::array<uint8_t, kDescriptionSize> block{};
    std::copy_n(flash_.begin(), kDescriptionSize, block.begin());
    return block;
}

bool emulated_card::get_boot_info(std::span<const uint8_t>, std::span<uint8_t> out,
                                  size_t &returned) {
    if (out.size() < boot_record_.size()) return false;
    std::copy(boot_record_.begin(), boot_record_.end(), out.begin());
    returned = boot_record_.size();
    return true;
}

bool emulated_card::get_card_info(std::span<const uint8_t>, std::span<uint8_t> out,
                                  size_t &returned) {
    if (out.size() < card_info_.size()) return false;
    std::copy(card_info_.begin(), card_info_.end(), out.begin());
    returned = card_info_.size();
    return true;
}

bool emulated_card::read_flash(std::span<const uint8_t> in, std::span<uint8_t> out,
                               size_t &returned) {
    if (in.size() != kFlashRequestSize) return false;
    const uint64_t offset = get_le32(in, 0);
    const uint64_t length = get_le32(in, 4);
    if (offset + length > flash_.size() || out.size() < length) return false;
    std::copy_n(flash_.begin() + static_cast<std::ptrdiff_t>(offset), length, out.begin());
    returned = static_cast<size_t>(length);
    return true;
}

void emulated_card::build_records() {
    const std::span<uint8_t> info(card_info_);
    put_le16(info, kInfoProductId, profile_.product_id);
    put_le32(info, kInfoFirmwareVersion,
             (static_cast<uint32_t>(profile_.firmware_major) << 16) | profile_.firmware_minor);
    put_le32(info, kInfoLinkCount, profile_.link_count);
    put_text(info, kInfoIdentifier, kIdentifierCapacity, profile_.identifier);
    put_text(info, kInfoName, kNameCapacity, profile_.name);
    info[kInfoAttribute] = profile_.attribute;

    const std::span<uint8_t> boot(boot_record_);
    put_le32(boot, kBootGeneration, profile_.boot_generation);
    put_le32(boot, kBootLinkCount, profile_.link_count);
    put_le32(boot, kBootDeviceSlots, profile_.device_slots);
    put_le32(boot, kBootLinkRate, profile_.link_rate_code);
    put_le32(boot, kBootStage2, profile_.stage2_loaded ? 1 : 0);
}

void emulated_card::build_flash() {
    // Erased flash reads as all ones.
    flash_.assign(kFlashSize, 0xFF);
    if (profile_.description == description_storage::absent) return;

    std::array<uint8_t, kDescriptionSize> block{};
    const std::span<uint8_t> bytes(block);
    put_le32(bytes, kDescMagic, kDescriptionMagic);
    put_le32(bytes, kDescStart, 0);
    put_le32(bytes, kDescLength, kDescriptionSize);
    put_text(bytes, kDescVendor, kVendorCapacity, profile_.vendor);
    put_text(bytes, kDescModel, kModelCapacity, profile_.model);
    uint64_t checksum = 0;
    for (size_t offset = 0; offset < kDescChecksum; offset += 4) checksum += get_le32(bytes, offset);
    if (profile_.description == description_storage::damaged) checksum += 1;
    put_le64(bytes, kDescChecksum, checksum);
    std::copy(block.begin(), block.end(), flash_.begin());
}

}  // namespace pelorin::emu
