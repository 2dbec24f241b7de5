// What a DMA channel writes into the buffers: the channel's frame source.
//
// The engine of a channel asks its source for one frame at a time, on the
// engine's own thread, and writes the result straight into the buffer the
// host announced. Every channel starts with a pattern_source; tests and the
// camera models install their own sources with
// emulated_card::set_frame_source.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace pelorin::emu {

// The stream parameters of a channel as the host last set them
// (set_stream_param): image width, lines per frame, line stride, its copy,
// and the tap geometry code.
struct stream_geometry {
    uint32_t width = 0;
    uint32_t lines = 0;
    uint32_t stride = 0;
    uint32_t stride_copy = 0;
    uint32_t tap_code = 0;

    bool operator==(const stream_geometry &) const = default;
};

// One frame the engine wants: the channel, the hardware frame number (0 for
// the first frame after a DMA start; the frame counter before the frame),
// the channel's geometry and the payload size of the DMA start (the size of
// every buffer).
struct frame_request {
    uint32_t channel = 0;
    uint64_t frame_number = 0;
    stream_geometry geometry;
    uint32_t payload_size = 0;
};

// When the frames of a source fall due, as the engine asks before each.
struct frame_pacing {
    enum class kind : uint8_t {
        // Every `interval_ns` (0: one per queued buffer), unless the card's
        // trigger generator of the channel runs: then at its period.
        interval,
        // At `interval_ns` (0: one per queued buffer) whatever the trigger
        // generator does: the source keeps its own time.
        own_interval,
        // `pending` frames are due now, one after the other.
        triggered,
        // One frame per period of the trigger generator; none while it is off.
        generator,
        // None until the source changes its mind (the engine is woken by
        // emulated_card, e.g. when the host writes a camera register).
        stopped,
    };
    kind mode = kind::interval;
    uint64_t interval_ns = 0;
    uint64_t pending = 0;
};

class frame_source {
public:
    virtual ~frame_source() = default;

    // Time between two frames in nanoseconds; 0: a frame as soon as a buffer
    // is queued. Asked before every frame, so a source may change its rate.
    virtual uint64_t frame_interval_ns() const = 0;

    // The pacing now; the default is kind::interval at frame_interval_ns().
    // Called on the engine thread without any card lock held.
    virtual frame_pacing pacing() const { return {frame_pacing::kind::interval, frame_interval_ns(), 0}; }

    // Called when a frame falls due by the pacing, before the engine looks
    // for a buffer: false withdraws it (no frame, nothing counted). A source
    // that counts its frames (a single frame, software triggers) uses one up
    // here, whether the frame then finds a buffer or is lost. The card's
    // manual triggers (emulated_card::trigger_frames) bypass it.
    virtual bool claim_frame() { return true; }

    // Writes one frame into `buffer` (payload_size bytes) and returns the
    // bytes written; a larger result counts as the whole buffer. Called on
    // the channel's engine thread without any card lock held. Stopping the
    // channel waits for a fill to return, so a fill must not send messages to
    // the card nor call its DMA, link or handle operations. An exception
    // from fill leaves an empty frame.
    virtual size_t fill(const frame_request &request, std::span<uint8_t> buffer) = 0;
};

}  // namespace pelorin::emu
