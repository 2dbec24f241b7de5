// A zip archive with one entry stored uncompressed, as a camera keeps its
// description file: local header, data, central directory, end record.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace pelorin::emu {

// CRC-32 of zip archives (reflected polynomial 0xEDB88320).
uint32_t zip_crc32(std::span<const uint8_t> bytes);

// The archive holding `content` under `entry_name`. Both must be shorter
// than 4 GiB and the name shorter than 64 KiB.
std::vector<uint8_t> stored_zip(std::string_view entry_name, std::string_view content);

}  // namespace pelorin::emu
