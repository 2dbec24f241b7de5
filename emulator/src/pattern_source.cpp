#include "emulator/pattern_source.h"

#include <algorithm>
#include <cstring>

namespace pelorin::emu {

uint8_t pattern_source::pattern_byte(const stream_geometry &geometry, size_t offset) {
    const uint64_t stride = geometry.stride != 0 ? geometry.stride : geometry.width;
    if (stride == 0) return static_cast<uint8_t>(offset);
    const uint64_t line = offset / stride;
    const uint64_t column = offset % stride;
    return static_cast<uint8_t>(line + column);
}

std::shared_ptr<const pattern_source::pattern> pattern_source::pattern_for(
    const stream_geometry &geometry, uint32_t payload) {
    std::lock_guard lock(mutex_);
    if (cached_ && cached_->geometry == geometry && cached_->payload_size == payload) return cached_;
    auto built = std::make_shared<pattern>();
    built->geometry = geometry;
    built->payload_size = payload;
    built->bytes.resize(payload);
    for (size_t offset = 0; offset < payload; ++offset)
        built->bytes[offset] = pattern_byte(geometry, offset);
    cached_ = std::move(built);
    return cached_;
}

size_t pattern_source::fill(const frame_request &request, std::span<uint8_t> buffer) {
    const std::shared_ptr<const pattern> frame = pattern_for(request.geometry, request.payload_size);
    const size_t size = std::min(buffer.size(), frame->bytes.size());
    std::memcpy(buffer.data(), frame->bytes.data(), size);
    for (size_t i = 0; i < 8 && i < size; ++i)
        buffer[i] = static_cast<uint8_t>(request.frame_number >> (8 * i));
    return size;
}

}  // namespace pelorin::emu
