// The directory of a zip archive held in memory, read with every offset and
// length checked against the data. Aravis's unzipper trusts the headers it
// reads, so an archive goes to it only after this reading found every header
// it will touch inside the data.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace pelorin::nodemap {

struct zip_entry {
    std::string name;
    uint32_t crc32 = 0;
    uint32_t compressed_size = 0;
    uint32_t uncompressed_size = 0;
};

// The entries in directory order. Throws genapi_error when the data is not a
// zip archive or a header (central or local) or an entry's data lies outside
// it.
std::vector<zip_entry> read_zip_directory(const void *data, size_t size);

// The CRC-32 of zip archives (IEEE 802.3 polynomial).
uint32_t zip_crc32(const void *data, size_t size);

}  // namespace pelorin::nodemap
