#include "process_memory.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace pelorin::emu::process_memory {

namespace {

struct range {
    uint64_t begin;
    uint64_t end;
};

bool read_maps(std::string &text) {
    const int fd = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char chunk[16384];
    ssize_t n;
    while ((n = ::read(fd, chunk, sizeof chunk)) > 0) text.append(chunk, static_cast<size_t>(n));
    ::close(fd);
    return n == 0;
}

// The writable mappings, in address order, neighbours merged.
std::vector<range> writable_ranges() {
    std::vector<range> ranges;
    std::string text;
    if (!read_maps(text)) return ranges;
    size_t line = 0;
    while (line < text.size()) {
        size_t next = text.find('\n', line);
        if (next == std::string::npos) next = text.size();
        // "begin-end perms offset dev inode path"
        const std::string entry = text.substr(line, next - line);
        line = next + 1;
        char *cursor = nullptr;
        const uint64_t begin = std::strtoull(entry.c_str(), &cursor, 16);
        if (*cursor != '-') continue;
        const uint64_t end = std::strtoull(cursor + 1, &cursor, 16);
        if (*cursor != ' ' || cursor[1] == '\0' || cursor[2] != 'w' || end <= begin) continue;
        if (!ranges.empty() && ranges.back().end == begin)
            ranges.back().end = end;
        else
            ranges.push_back({begin, end});
    }
    std::sort(ranges.begin(), ranges.end(),
              [](const range &a, const range &b) { return a.begin < b.begin; });
    return ranges;
}

}  // namespace

bool writable(std::span<uint8_t *const> buffers, uint64_t size) {
    const std::vector<range> ranges = writable_ranges();
    for (uint8_t *const buffer : buffers) {
        const uint64_t begin = reinterpret_cast<uintptr_t>(buffer);
        if (begin > UINT64_MAX - size) return false;
        const uint64_t end = begin + size;
        // The last mapping that begins at or below the buffer must cover it.
        auto found = std::upper_bound(ranges.begin(), ranges.end(), begin,
                                      [](uint64_t address, const range &r) { return address < r.begin; });
        if (found == ranges.begin()) return false;
        --found;
        if (end > found->end) return false;
    }
    return true;
}

}  // namespace pelorin::emu::process_memory
