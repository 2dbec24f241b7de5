// The DMA engine of one channel: the buffers of the running DMA, the queue
// of buffers handed to the engine, the completion queue, the frame counter
// and the thread that fills buffers with frames from the channel's source.
//
// Buffer states: idle (the host's), queued (waiting in the engine's queue),
// filling, held (completed during a stall), completed (waiting for
// get_frame). A buffer may be queued only when idle.
//
// Thread safety: start and stop are serialised by the card's control lock;
// everything else may come from any thread. The engine thread runs between
// start and stop and fills frames without the channel lock.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "emulator/camera_frame_source.h"
#include "emulator/emulated_card.h"
#include "emulator/frame_source.h"
#include "emulator/pattern_source.h"

namespace pelorin::emu {

class dma_channel {
public:
    // `trigger_period_ns` tells the interval of the card's trigger generator
    // for this channel (0: off); the engine asks it before every frame.
    dma_channel(uint32_t index, std::function<uint64_t()> trigger_period_ns);
    ~dma_channel();

    dma_channel(const dma_channel &) = delete;
    dma_channel &operator=(const dma_channel &) = delete;

    // Starts the engine over `buffers`; takes ownership of `event_fd`.
    // -EBUSY (and `event_fd` closed) when running.
    int start(uint32_t payload_size, std::vector<uint8_t *> buffers, int event_fd);
    // Stops and joins the engine, clears the queues, closes the event.
    void stop();
    bool running() const;

    int queue(uint32_t index, uint32_t &waiting);
    // 0 with the oldest completion (pending 0 and kNoBuffer when none).
    int get_frame(uint32_t &index, uint32_t &frame_number, uint32_t &pending);

    void set_geometry(const stream_geometry &geometry);
    stream_geometry geometry() const;
    uint32_t frame_counter() const { return frame_counter_.load(std::memory_order_relaxed); }
    // Sets the frame counter: the next frame gets this number.
    void preset_counter(uint32_t value);

    // The source a test installs (null: the card's own choice, below).
    void set_source(std::shared_ptr<frame_source> source);
    // The camera that feeds this channel: its frames while it is connected,
    // the pattern otherwise (null: always the pattern).
    void set_camera_source(std::shared_ptr<camera_frame_source> camera);
    std::shared_ptr<camera_frame_source> camera_source() const;
    void set_manual_trigger(bool manual);
    int trigger(uint64_t count);
    void stall(bool stalled);
    // See card_profile::completion_stamp.
    void set_completion_stamp(bool stamp);
    void drop(uint64_t count);
    void misreport(uint64_t count);
    dma_statistics stats() const;
    bool wait_frames(uint64_t frames, std::chrono::milliseconds timeout);
    // Wakes the engine to look at its pacing again (trigger registers changed).
    void poke();

private:
    enum class buffer_state : uint8_t { idle, queued, filling, held, completed };
    struct completion {
        uint32_t index;
        uint64_t frame_number;
    };
    using clock = std::chrono::steady_clock;

    // What the engine does next, from the source's pacing and the trigger
    // generator.
    struct step {
        enum class kind : uint8_t { wait, free_running, timed, due_now } mode = kind::wait;
        uint64_t interval_ns = 0;  // timed
    };

    void run();
    // Produces one frame from `source`: fills the oldest queued buffer (the
    // lock is released meanwhile) or counts the frame lost.
    void produce(std::unique_lock<std::mutex> &lock, const std::shared_ptr<frame_source> &source);
    void signal(uint64_t count);
    // Wakes the engine; every change it must look at goes through here.
    void wake_engine();
    // The source of the next frame and what to do; called without the lock
    // (the generator reads card registers, the source is the caller's code).
    std::shared_ptr<frame_source> current_source() const;
    step next_step(const frame_source &source) const;

    const uint32_t index_;
    const std::function<uint64_t()> trigger_period_ns_;

    mutable std::mutex mutex_;
    std::condition_variable wake_;      // the engine waits here
    std::condition_variable progress_;  // wait_frames waits here
    std::thread thread_;

    // Guarded by mutex_.
    bool running_ = false;
    bool stopping_ = false;
    uint32_t payload_size_ = 0;
    std::vector<uint8_t *> buffers_;
    std::vector<buffer_state> states_;
    std::deque<uint32_t> queue_;
    std::deque<completion> held_;
    std::deque<completion> completions_;
    int event_fd_ = -1;
    stream_geometry geometry_;
    std::shared_ptr<frame_source> source_;              // installed by a test, or null
    std::shared_ptr<camera_frame_source> camera_;       // the channel's camera, or null
    const std::shared_ptr<pattern_source> pattern_;     // fixed
    uint64_t wakeups_ = 0;                              // counts wake_engine calls
    bool manual_ = false;
    uint64_t triggers_ = 0;
    bool stalled_ = false;
    bool completion_stamp_ = false;
    uint64_t drops_ = 0;
    uint64_t misreports_ = 0;  // completions still to report with a bad index
    uint64_t frames_done_ = 0;
    uint64_t next_frame_ = 0;  // number of the next frame = the frame counter
    dma_statistics stats_;

    std::atomic<uint32_t> frame_counter_{0};  // low bits of next_frame_, read without the lock
};

}  // namespace pelorin::emu
