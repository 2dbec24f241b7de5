#include "dma_channel.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <string>
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
      pattern_(std::make_shared<pattern_source>()) {}

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
    wake_engine();
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
    if (misreports_ > 0) {
        --misreports_;
        index = static_cast<uint32_t>(buffers_.size()) + 7;
    }
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
    std::lock_guard lock(mutex_);
    source_ = std::move(source);
    wake_engine();
}

void dma_channel::set_camera_source(std::shared_ptr<camera_frame_source> camera) {
    std::lock_guard lock(mutex_);
    camera_ = std::move(camera);
    wake_engine();
}

std::shared_ptr<camera_frame_source> dma_channel::camera_source() const {
    std::lock_guard lock(mutex_);
    return camera_;
}

void dma_channel::set_manual_trigger(bool manual) {
    std::lock_guard lock(mutex_);
    manual_ = manual;
    if (!manual) triggers_ = 0;
    wake_engine();
}

int dma_channel::trigger(uint64_t count) {
    std::lock_guard lock(mutex_);
    if (!running_) return -EINVAL;
    triggers_ = saturating_add(triggers_, count);
    wake_engine();
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

void dma_channel::misreport(uint64_t count) {
    std::lock_guard lock(mutex_);
    misreports_ = saturating_add(misreports_, count);
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
    wake_engine();
}

void dma_channel::wake_engine() {
    ++wakeups_;
    wake_.notify_all();
}

std::shared_ptr<frame_source> dma_channel::current_source() const {
    std::shared_ptr<frame_source> installed;
    std::shared_ptr<camera_frame_source> camera;
    {
        std::lock_guard lock(mutex_);
        installed = source_;
        camera = camera_;
    }
    if (installed) return installed;
    if (camera && camera->feeding()) return camera;
    return pattern_;
}

dma_channel::step dma_channel::next_step(const frame_source &source) const {
    using kind = frame_pacing::kind;
    const frame_pacing pacing = source.pacing();
    const auto timed_or_free = [](uint64_t interval) {
        return interval == 0 ? step{step::kind::free_running, 0}
                             : step{step::kind::timed, std::min(interval, kMaxIntervalNs)};
    };
    switch (pacing.mode) {
        case kind::interval: {
            const uint64_t generator = trigger_period_ns_ ? trigger_period_ns_() : 0;
            return timed_or_free(generator != 0 ? generator : pacing.interval_ns);
        }
        case kind::own_interval: return timed_or_free(pacing.interval_ns);
        case kind::triggered: return pacing.pending > 0 ? step{step::kind::due_now, 0} : step{};
        case kind::generator: {
            const uint64_t generator = trigger_period_ns_ ? trigger_period_ns_() : 0;
            return generator != 0 ? timed_or_free(generator) : step{};
        }
        case kind::stopped: break;
    }
    return step{};
}

void dma_channel::run() {
    // Named so that profilers and the benchmarks can tell the card's work
    // from the producer's.
    const std::string name = "emu-dma-" + std::to_string(index_);
    pthread_setname_np(pthread_self(), name.c_str());
    bool paced = false;
    uint64_t paced_interval = 0;
    clock::time_point next_due;
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        // Anything that changes the answer below wakes the engine and counts
        // in wakeups_: a wait only starts when nothing changed meanwhile.
        const uint64_t seen = wakeups_;
        const auto changed = [&] { return stopping_ || wakeups_ != seen; };
        lock.unlock();
        const std::shared_ptr<frame_source> source = current_source();
        const step next = next_step(*source);
        lock.lock();
        if (changed()) continue;

        if (manual_) {
            paced = false;
            if (triggers_ == 0) {
                wake_.wait(lock, changed);
                continue;
            }
            --triggers_;
            produce(lock, source);
            continue;
        }

        if (next.mode == step::kind::wait ||
            (next.mode == step::kind::free_running && queue_.empty())) {
            // Free-running: one frame per queued buffer, none lost.
            paced = false;
            wake_.wait(lock, changed);
            continue;
        }
        if (next.mode == step::kind::timed) {
            // Paced: frames fall due at fixed times whether or not a buffer waits.
            const clock::time_point now = clock::now();
            if (!paced || next.interval_ns != paced_interval) {
                paced = true;
                paced_interval = next.interval_ns;
                next_due = now + std::chrono::nanoseconds(next.interval_ns);
            }
            if (now < next_due) {
                wake_.wait_until(lock, next_due, changed);
                continue;
            }
            next_due += std::chrono::nanoseconds(next.interval_ns);
        } else {
            paced = false;
        }
        lock.unlock();
        const bool claimed = source->claim_frame();
        lock.lock();
        if (claimed && !stopping_) produce(lock, source);
    }
}

void dma_channel::produce(std::unique_lock<std::mutex> &lock,
                          const std::shared_ptr<frame_source> &source) {
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
        if (completion_stamp_ && buffer.size() >= sizeof(uint64_t)) {
            const uint64_t now = static_cast<uint64_t>(
                std::chrono::duration_cast<std::chrono::nanoseconds>(clock::now().time_since_epoch()).count());
            for (size_t i = 0; i < sizeof now; ++i)
                buffer[buffer.size() - sizeof now + i] = static_cast<uint8_t>(now >> (8 * i));
        }
        states_[index] = buffer_state::completed;
        completions_.push_back({index, frame_number});
        ++stats_.frames_completed;
        signal(1);
    }
    ++frames_done_;
    progress_.notify_all();
}

void dma_channel::set_completion_stamp(bool stamp) {
    std::lock_guard lock(mutex_);
    completion_stamp_ = stamp;
}

void dma_channel::signal(uint64_t count) {
    if (event_fd_ < 0 || count == 0) return;
    // An eventfd adds the value to its counter; the host's wait clears it.
    const ssize_t written = ::write(event_fd_, &count, sizeof count);
    (void)written;
}

}  // namespace pelorin::emu
