#include "dma_channel.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>

#include "emulator/pattern_source.h"

namespace pelorin::emu {

namespace {
// Longest pacing interval the engine keeps (longer ones are taken as this),
// so that the due times stay far inside the clock's range.
constexpr uint64_t kMaxIntervalNs = 3'600'000'000'000ULL;  // one hour

uint64_t saturating_add(uint64_t a, uint64_t b) {
    return a > std::numeric_limits<uint64_t>::max() - b ? std::numeric_limits<uint64_t>::max()
                                                         : a + b;
}
}  // namespace

dma_channel::dma_channel(uint32_t index, std::function<uint64_t()> trigger_period_ns)
    : index_(index),
      trigger_period_ns_(std::move(trigger_period_ns)),
      source_(std::make_shared<pattern_source>()) {}

dma_channel::~dma_channel() { stop(); }

int dma_channel::start(uint32_t payload_size, std::vector<uint8_t *> buffers, int event_fd) {
    std::lock_guard lock(mutex_);
    if (running_) {
        ::close(event_fd);
        return -EBUSY;
    }
    payload_size_ = payload_size;
    states_.assign(buffers.size(), buffer_state::idle);
    buffers_ = std::move(buffers);
    queue_.clear();
    held_.clear();
    completions_.clear();
    event_fd_ = event_fd;
    triggers_ = 0;
    frames_done_ = 0;
    stats_ = {};
    next_frame_ = 0;
    frame_counter_.store(0, std::memory_order_relaxed);
    stopping_ = false;
    try {
        thread_ = std::thread(&dma_channel::run, this);
    } catch (const std::system_error &) {
        ::close(event_fd_);
        event_fd_ = -1;
        buffers_.clear();
        states_.clear();
        return -EAGAIN;
    }
    running_ = true;
    return 0;
}

void dma_channel::stop() {
    {
        std::lock_guard lock(mutex_);
        if (!running_) return;
        stopping_ = true;
        wake_.notify_all();
    }
    thread_.join();
    {
        std::lock_guard lock(mutex_);
        running_ = false;
        stopping_ = false;
        buffers_.clear();
        states_.clear();
        queue_.clear();
        held_.clear();
        completions_.clear();
        triggers_ = 0;
        if (event_fd_ >= 0) ::close(event_fd_);
        event_fd_ = -1;
    }
    progress_.notify_all();
}

bool dma_channel::running() const {
    std::lock_guard lock(mutex_);
    return running_;
}

int dma_channel::queue(uint32_t index, uint32_t &waiting) {
    std::lock_guard lock(mutex_);
    if (!running_ || index >= buffers_.size()) return -EINVAL;
    if (states_[index] != buffer_state::idle) return -EBUSY;
    states_[index] = buffer_state::queued;
    queue_.push_back(index);
    waiting = static_cast<uint32_t>(queue_.size());
    wake_.notify_all();
    return 0;
}

int dma_channel::get_frame(uint32_t &index, uint32_t &frame_number, uint32_t &pending) {
    std::lock_guard lock(mutex_);
    if (!running_) return -EINVAL;
    pending = static_cast<uint32_t>(completions_.size());
    if (completions_.empty()) {
        index = emulated_card::kNoBuffer;
        frame_number = 0;
        return 0;
    }
    const completion done = completions_.front();
    completions_.pop_front();
    states_[done.index] = buffer_state::idle;
    index = done.index;
    frame_number = static_cast<uint32_t>(done.frame_number);
    return 0;
}

void dma_channel::set_geometry(const stream_geometry &geometry) {
    std::lock_guard lock(mutex_);
    geometry_ = geometry;
}

stream_geometry dma_channel::geometry() const {
    std::lock_guard lock(mutex_);
    return geometry_;
}

void dma_channel::preset_counter(uint32_t value) {
    std::lock_guard lock(mutex_);
    next_frame_ = value;
    frame_counter_.store(value, std::memory_order_relaxed);
}

void dma_channel::set_source(std::shared_ptr<frame_source> source) {
    if (!source) source = std::make_shared<pattern_source>();
    std::lock_guard lock(mutex_);
    source_ = std::move(source);
    wake_.notify_all();
}

void dma_channel::set_manual_trigger(bool manual) {
    std::lock_guard lock(mutex_);
    manual_ = manual;
    if (!manual) triggers_ = 0;
    wake_.notify_all();
}

int dma_channel::trigger(uint64_t count) {
    std::lock_guard lock(mutex_);
    if (!running_) return -EINVAL;
    triggers_ = saturating_add(triggers_, count);
    wake_.notify_all();
    return 0;
}

void dma_channel::stall(bool stalled) {
    std::lock_guard lock(mutex_);
    stalled_ = stalled;
    if (stalled || held_.empty()) return;
    const uint64_t released = held_.size();
    while (!held_.empty()) {
        const completion done = held_.front();
        held_.pop_front();
        states_[done.index] = buffer_state::completed;
        completions_.push_back(done);
        ++stats_.frames_completed;
    }
    signal(released);
}

void dma_channel::drop(uint64_t count) {
    std::lock_guard lock(mutex_);
    drops_ = saturating_add(drops_, count);
}

dma_statistics dma_channel::stats() const {
    std::lock_guard lock(mutex_);
    return stats_;
}

bool dma_channel::wait_frames(uint64_t frames, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return progress_.wait_for(lock, timeout, [&] { return !running_ || frames_done_ >= frames; }) &&
           running_;
}

void dma_channel::poke() {
    std::lock_guard lock(mutex_);
    wake_.notify_all();
}

uint64_t dma_channel::interval_ns() const {
    // Called without the channel lock: the generator reads card registers and
    // the source is the caller's code.
    std::shared_ptr<frame_source> source;
    {
        std::lock_guard lock(mutex_);
        source = source_;
    }
    uint64_t interval = trigger_period_ns_ ? trigger_period_ns_() : 0;
    if (interval == 0) interval = source->frame_interval_ns();
    return std::min(interval, kMaxIntervalNs);
}

void dma_channel::run() {
    bool paced = false;
    uint64_t paced_interval = 0;
    clock::time_point next_due;
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        if (manual_) {
            paced = false;
            if (triggers_ == 0) {
                wake_.wait(lock);
                continue;
            }
            --triggers_;
            produce(lock);
            continue;
        }

        lock.unlock();
        const uint64_t interval = interval_ns();
        lock.lock();
        if (stopping_ || manual_) continue;

        if (interval == 0) {
            // Free-running: one frame per queued buffer, none lost.
            paced = false;
            if (queue_.empty()) {
                wake_.wait(lock);
                continue;
            }
            produce(lock);
            continue;
        }

        // Paced: frames fall due at fixed times whether or not a buffer waits.
        const clock::time_point now = clock::now();
        if (!paced || interval != paced_interval) {
            paced = true;
            paced_interval = interval;
            next_due = now + std::chrono::nanoseconds(interval);
        }
        if (now < next_due) {
            wake_.wait_until(lock, next_due);
            continue;
        }
        next_due += std::chrono::nanoseconds(interval);
        produce(lock);
    }
}

void dma_channel::produce(std::unique_lock<std::mutex> &lock) {
    ++stats_.frames_produced;
    const uint64_t frame_number = next_frame_++;
    frame_counter_.store(static_cast<uint32_t>(next_frame_), std::memory_order_relaxed);
    if (queue_.empty()) {
        ++stats_.frames_lost;
        ++frames_done_;
        progress_.notify_all();
        return;
    }
    const uint32_t index = queue_.front();
    queue_.pop_front();
    states_[index] = buffer_state::filling;
    const frame_request request{index_, frame_number, geometry_, payload_size_};
    const std::shared_ptr<frame_source> source = source_;
    // The buffer table changes only while the engine is not running.
    const std::span<uint8_t> buffer(buffers_[index], payload_size_);
    lock.unlock();

    const clock::time_point begin = clock::now();
    size_t written = 0;
    try {
        written = source->fill(request, buffer);
    } catch (...) {
        written = 0;  // a failing source delivers an empty frame
    }
    const clock::time_point end = clock::now();

    lock.lock();
    stats_.bytes_written += std::min<uint64_t>(written, payload_size_);
    stats_.fill_ns += static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(end - begin).count());
    if (drops_ > 0) {
        --drops_;
        ++stats_.completions_dropped;
        states_[index] = buffer_state::idle;
    } else if (stalled_) {
        states_[index] = buffer_state::held;
        held_.push_back({index, frame_number});
    } else {
        states_[index] = buffer_state::completed;
        completions_.push_back({index, frame_number});
        ++stats_.frames_completed;
        signal(1);
    }
    ++frames_done_;
    progress_.notify_all();
}

void dma_channel::signal(uint64_t count) {
    if (event_fd_ < 0 || count == 0) return;
    // An eventfd adds the value to its counter; the host's wait clears it.
    const ssize_t written = ::write(event_fd_, &count, sizeof count);
    (void)written;
}

}  // namespace pelorin::emu
