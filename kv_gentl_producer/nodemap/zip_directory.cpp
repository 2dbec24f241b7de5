#include "nodemap/zip_directory.h"

#include <array>
#include <climits>
#include <cstring>

#include "nodemap/genapi_error.h"

namespace pelorin::nodemap {

namespace {

constexpr uint32_t kEndOfDirectorySignature = 0x06054b50;
constexpr uint32_t kDirectoryEntrySignature = 0x02014b50;
constexpr uint32_t kLocalHeaderSignature = 0x04034b50;
constexpr size_t kEndOfDirectorySize = 22;
constexpr size_t kDirectoryEntrySize = 46;
constexpr size_t kLocalHeaderSize = 30;

class reader {
public:
    reader(const uint8_t *data, size_t size) : data_(data), size_(size) {}

    bool holds(size_t offset, size_t length) const {
        return offset <= size_ && length <= size_ - offset;
    }
    uint16_t u16(size_t offset) const {
        return static_cast<uint16_t>(data_[offset] | data_[offset + 1] << 8);
    }
    uint32_t u32(size_t offset) const {
        return static_cast<uint32_t>(u16(offset)) | static_cast<uint32_t>(u16(offset + 2)) << 16;
    }
    const uint8_t *at(size_t offset) const { return data_ + offset; }
    size_t size() const { return size_; }

private:
    const uint8_t *data_;
    size_t size_;
};

[[noreturn]] void bad_zip(const std::string &why) { throw genapi_error("bad zip archive: " + why); }

}  // namespace

std::vector<zip_entry> read_zip_directory(const void *data, size_t size) {
    if (data == nullptr || size < kEndOfDirectorySize) bad_zip("too short");
    // Aravis keeps positions in an int.
    if (size > static_cast<size_t>(INT_MAX)) bad_zip("larger than 2 GiB");
    const reader zip(static_cast<const uint8_t *>(data), size);

    // The last end-of-directory signature, searched the way Aravis does
    // (backwards, never at offset 0).
    size_t end = 0;
    for (size_t i = size - 4; i > 0; --i) {
        if (zip.u32(i) == kEndOfDirectorySignature) {
            end = i;
            break;
        }
    }
    if (end == 0) bad_zip("no end of central directory");
    if (!zip.holds(end, kEndOfDirectorySize)) bad_zip("truncated end of central directory");

    const uint16_t count = zip.u16(end + 10);
    if (zip.u16(end + 8) != count) bad_zip("spans several disks");
    const uint32_t directory_size = zip.u32(end + 12);
    const uint32_t directory_offset = zip.u32(end + 16);
    if (static_cast<uint64_t>(directory_offset) + directory_size > end)
        bad_zip("central directory overlaps its end record");
    // Bytes before the archive proper (a self-extractor stub, say).
    const size_t prefix = end - (static_cast<size_t>(directory_offset) + directory_size);

    std::vector<zip_entry> entries;
    size_t offset = prefix + directory_offset;
    for (uint16_t n = 0; n < count; ++n) {
        if (!zip.holds(offset, kDirectoryEntrySize) ||
            zip.u32(offset) != kDirectoryEntrySignature)
            bad_zip("central directory entry " + std::to_string(n) + " missing");
        const size_t name_length = zip.u16(offset + 28);
        const size_t extra_length = zip.u16(offset + 30);
        const size_t comment_length = zip.u16(offset + 32);
        if (!zip.holds(offset + kDirectoryEntrySize, name_length))
            bad_zip("entry name outside the data");

        zip_entry entry;
        const char *name = reinterpret_cast<const char *>(zip.at(offset + kDirectoryEntrySize));
        entry.name.assign(name, strnlen(name, name_length));
        entry.crc32 = zip.u32(offset + 16);
        entry.compressed_size = zip.u32(offset + 20);
        entry.uncompressed_size = zip.u32(offset + 24);

        const size_t local = prefix + zip.u32(offset + 42);
        if (!zip.holds(local, kLocalHeaderSize) || zip.u32(local) != kLocalHeaderSignature)
            bad_zip("local header of '" + entry.name + "' missing");
        const size_t data_offset =
            local + kLocalHeaderSize + zip.u16(local + 26) + zip.u16(local + 28);
        // Aravis copies min(compressed, uncompressed) bytes when not inflating.
        const size_t stored = entry.compressed_size < entry.uncompressed_size
                                  ? entry.compressed_size
                                  : entry.uncompressed_size;
        if (!zip.holds(data_offset, stored)) bad_zip("data of '" + entry.name + "' truncated");

        entries.push_back(std::move(entry));
        offset += kDirectoryEntrySize + name_length + extra_length + comment_length;
    }
    return entries;
}

uint32_t zip_crc32(const void *data, size_t size) {
    static const std::array<uint32_t, 256> table = [] {
        std::array<uint32_t, 256> values{};
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t c = i;
            for (int bit = 0; bit < 8; ++bit) c = (c & 1) != 0 ? 0xedb88320u ^ (c >> 1) : c >> 1;
            values[i] = c;
        }
        return values;
    }();
    uint32_t crc = 0xffffffffu;
    const auto *bytes = static_cast<const uint8_t *>(data);
    for (size_t i = 0; i < size; ++i) crc = table[(crc ^ bytes[i]) & 0xff] ^ (crc >> 8);
    return crc ^ 0xffffffffu;
}

}  // namespace pelorin::nodemap
