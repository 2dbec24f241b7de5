// The built-in frame source of every DMA channel: a diagonal gradient over the
// lines of the frame with the frame number stamped in front.
//
// Byte `offset` of a frame holds (line + column) mod 256, where line and
// column come from the line stride of the geometry (stride 0: the width;
// both 0: one line over the whole payload). The first 8 bytes are then
// replaced by the frame number, little-endian. The pattern of one geometry
// and payload size is computed once, so filling a buffer is one copy.
//
// Thread safety: fill may run on several engine threads at once.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "emulator/frame_source.h"

namespace pelorin::emu {

class pattern_source final : public frame_source {
public:
    explicit pattern_source(uint64_t interval_ns = 0) : interval_ns_(interval_ns) {}

    uint64_t frame_interval_ns() const override { return interval_ns_; }
    size_t fill(const frame_request &request, std::span<uint8_t> buffer) override;

    // The byte at `offset` of a frame of `geometry` before the frame number
    // is stamped in: what a consumer checks its pixels against.
    static uint8_t pattern_byte(const stream_geometry &geometry, size_t offset);

private:
    struct pattern {
        stream_geometry geometry;
        uint32_t payload_size = 0;
        std::vector<uint8_t> bytes;
    };
    std::shared_ptr<const pattern> pattern_for(const stream_geometry &geometry, uint32_t payload);

    const uint64_t interval_ns_;
    std::mutex mutex_;
    std::shared_ptr<const pattern> cached_;  // guarded by mutex_
};

}  // namespace pelorin::emu
