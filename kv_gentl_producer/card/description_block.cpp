#include "card/description_block.h"

namespace {

constexpr uint32_t kMinLength = 8;

// Whether a length field describes a block that fits in front of (and
// including) the checksum field; a longer one would sum bytes the block does
// not have.
bool length_fits(uint32_t length) {
    return length >= kMinLength && length <= description_block::kSize;
}

}  // namespace

uint64_t description_block::computed_checksum() const {
    const uint32_t block_length = length();
    if (!length_fits(block_length)) return 0;
    const size_t words = block_length / 4 - 2;
    uint64_t sum = 0;
    for (size_t i = 0; i < words; ++i) sum += pelorin::card::load_le32(bytes, 4 * i);
    return sum;
}

description_block::check description_block::validate() const {
    if (magic() != kMagic) return check::bad_magic;
    if (static_cast<uint64_t>(start()) + length() + 1 > kStorageSize) return check::outside_storage;
    if (!length_fits(length())) return check::bad_length;
    if (checksum() != computed_checksum()) return check::bad_checksum;
    return check::valid;
}

const char *description_block::check_text(check result) {
    switch (result) {
    case check::valid: return "valid";
    case check::bad_magic: return "wrong magic word";
    case check::outside_storage: return "range outside the storage";
    case check::bad_length: return "length out of range";
    case check::bad_checksum: return "checksum mismatch";
    }
    return "unknown";
}
