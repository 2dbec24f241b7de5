// The DMA engine of the emulated card through the driver messages: buffers
// filled in queue order, completions and their pending count, frame
// content, stalled and dropped completions, lost frames, stop and handle
// close, and malformed messages.
#include <gtest/gtest.h>

#include <sys/mman.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "emulator/pattern_source.h"
#include "emulator_client.h"

namespace {

using emu_test::client;
using emu_test::event_fd;
using emu_test::le64;
using emu_test::take_signals;
using emu_test::words;
using pelorin::emu::emulated_card;
using pelorin::emu::pcie_bus;
using pelorin::emu::stream_geometry;

constexpr auto kWait = std::chrono::seconds(10);  // a bound, never a measurement

class EmulatorDma : public testing::Test {
protected:
    void SetUp() override {
        card = bus.card(0);
        ASSERT_EQ(host.opened(), 0);
    }

    // `count` buffers of `size` bytes, filled with 0xCC, and their addresses.
    void make_buffers(size_t count, size_t size) {
        buffers.assign(count, std::vector<uint8_t>(size, 0xCC));
        addresses.clear();
        for (auto &buffer : buffers) addresses.push_back(reinterpret_cast<uint64_t>(buffer.data()));
    }
    int start(uint32_t channel, uint32_t payload) {
        return host.dma_start(channel, payload, static_cast<uint64_t>(event.fd), addresses);
    }
    uint64_t stamp(size_t index) const { return le64(buffers[index].data()); }

    pcie_bus bus;
    client host{bus};
    std::shared_ptr<emulated_card> card;
    event_fd event;
    std::vector<std::vector<uint8_t>> buffers;
    std::vector<uint64_t> addresses;
};

TEST_F(EmulatorDma, TriggeredFramesFillQueuedBuffersInQueueOrder) {
    constexpr uint32_t kPayload = 8192;
    ASSERT_EQ(host.set_stream_param(0, {100, 80, 128, 128, 0}), 0);
    const stream_geometry geometry = card->stream_parameters(0);
    EXPECT_EQ(geometry, (stream_geometry{100, 80, 128, 128, 0}));
    ASSERT_EQ(card->set_manual_trigger(0, true), 0);
    make_buffers(4, kPayload);
    ASSERT_EQ(start(0, kPayload), 0);
    EXPECT_TRUE(card->dma_running(0));

    client::frame frame;
    ASSERT_EQ(host.get_frame(0, frame), 0);
    EXPECT_EQ(frame.pending, 0u);
    EXPECT_EQ(frame.index, emulated_card::kNoBuffer);

    uint32_t waiting = 0;
    ASSERT_EQ(host.queue_buffer(0, 2, &waiting), 0);
    EXPECT_EQ(waiting, 1u);
    ASSERT_EQ(host.queue_buffer(0, 0, &waiting), 0);
    EXPECT_EQ(waiting, 2u);
    EXPECT_EQ(host.queue_buffer(0, 0), -EBUSY);  // queued already
    EXPECT_EQ(host.queue_buffer(0, 4), -EINVAL);

    // Three frames over two buffers: the third finds none and is lost.
    ASSERT_EQ(card->trigger_frames(0, 3), 0);
    ASSERT_TRUE(card->wait_frames(0, 3, kWait));
    const auto stats = card->dma_stats(0);
    EXPECT_EQ(stats.frames_produced, 3u);
    EXPECT_EQ(stats.frames_completed, 2u);
    EXPECT_EQ(stats.frames_lost, 1u);
    EXPECT_EQ(stats.bytes_written, 2u * kPayload);
    EXPECT_EQ(host.read_reg(0x2020), 3u);
    EXPECT_EQ(take_signals(event.fd), 2u);  // one signal per completion

    EXPECT_EQ(host.queue_buffer(0, 2), -EBUSY);  // completed, not fetched yet
    ASSERT_EQ(host.get_frame(0, frame), 0);
    EXPECT_EQ(frame.index, 2u);
    EXPECT_EQ(frame.number, 0u);
    EXPECT_EQ(frame.pending, 2u);  // including this one
    ASSERT_EQ(host.get_frame(0, frame), 0);
    EXPECT_EQ(frame.index, 0u);
    EXPECT_EQ(frame.number, 1u);
    EXPECT_EQ(frame.pending, 1u);
    ASSERT_EQ(host.get_frame(0, frame), 0);
    EXPECT_EQ(frame.pending, 0u);

    // The frames: the number stamped in front, the pattern behind it.
    EXPECT_EQ(stamp(2), 0u);
    EXPECT_EQ(stamp(0), 1u);
    for (size_t offset : {size_t{8}, size_t{127}, size_t{128}, size_t{kPayload - 1}}) {
        EXPECT_EQ(buffers[2][offset], pelorin::emu::pattern_source::pattern_byte(geometry, offset));
        EXPECT_EQ(buffers[2][offset], static_cast<uint8_t>(offset / 128 + offset % 128));
    }
    EXPECT_EQ(buffers[1][0], 0xCC);
    EXPECT_EQ(buffers[3][kPayload - 1], 0xCC);

    // A fetched buffer may be queued again.
    ASSERT_EQ(host.queue_buffer(0, 2), 0);
    ASSERT_EQ(card->trigger_frames(0, 1), 0);
    ASSERT_TRUE(card->wait_frames(0, 4, kWait));
    ASSERT_EQ(host.get_frame(0, frame), 0);
    EXPECT_EQ(frame.index, 2u);
    EXPECT_EQ(frame.number, 3u);
    EXPECT_EQ(stamp(2), 3u);
}

// A source that records what the engine asks and writes a known frame.
class scripted_source : public pelorin::emu::frame_source {
public:
    uint64_t frame_interval_ns() const override { return 0; }
    size_t fill(const pelorin::emu::frame_request &request, std::span<uint8_t> buffer) override {
        std::lock_guard lock(mutex);
        requests.push_back(request);
        std::memset(buffer.data(), 0x5A, 100);
        return 100;
    }
    std::mutex mutex;
    std::vector<pelorin::emu::frame_request> requests;
};

TEST_F(EmulatorDma, FreeRunningSourceGetsTheChannelsRequest) {
    auto source = std::make_shared<scripted_source>();
    ASSERT_EQ(card->set_frame_source(3, source), 0);
    ASSERT_EQ(host.set_stream_param(3, {640, 1, 640, 641, 4}), 0);
    make_buffers(2, 4096);
    ASSERT_EQ(start(3, 4096), 0);
    // Without a trigger or an interval every queued buffer is filled at once.
    ASSERT_EQ(host.queue_buffer(3, 1), 0);
    ASSERT_EQ(host.queue_buffer(3, 0), 0);
    ASSERT_TRUE(card->wait_frames(3, 2, kWait));
    {
        std::lock_guard lock(source->mutex);
        ASSERT_EQ(source->requests.size(), 2u);
        for (uint64_t i = 0; i < 2; ++i) {
            EXPECT_EQ(source->requests[i].channel, 3u);
            EXPECT_EQ(source->requests[i].frame_number, i);
            EXPECT_EQ(source->requests[i].payload_size, 4096u);
            EXPECT_EQ(source->requests[i].geometry, (stream_geometry{640, 1, 640, 641, 4}));
        }
    }
    EXPECT_EQ(buffers[1][99], 0x5A);
    EXPECT_EQ(buffers[1][100], 0xCC);
    EXPECT_EQ(card->dma_stats(3).bytes_written, 200u);
    EXPECT_EQ(card->dma_stats(3).frames_lost, 0u);
    EXPECT_EQ(host.read_reg(0x2320), 2u);
    EXPECT_EQ(host.read_reg(0x2020), 0u);  // other channels untouched
}

TEST_F(EmulatorDma, StalledAndDroppedCompletions) {
    ASSERT_EQ(card->set_manual_trigger(0, true), 0);
    make_buffers(3, 1024);
    ASSERT_EQ(start(0, 1024), 0);

    ASSERT_EQ(card->stall_completions(0, true), 0);
    ASSERT_EQ(host.queue_buffer(0, 1), 0);
    ASSERT_EQ(host.queue_buffer(0, 0), 0);
    ASSERT_EQ(card->trigger_frames(0, 2), 0);
    ASSERT_TRUE(card->wait_frames(0, 2, kWait));
    EXPECT_EQ(stamp(1), 0u);  // written...
    client::frame frame;
    ASSERT_EQ(host.get_frame(0, frame), 0);
    EXPECT_EQ(frame.pending, 0u);  // ...but not reported
    EXPECT_EQ(take_signals(event.fd), 0u);
    EXPECT_EQ(host.queue_buffer(0, 1), -EBUSY);
    EXPECT_EQ(card->dma_stats(0).frames_completed, 0u);

    ASSERT_EQ(card->stall_completions(0, false), 0);
    EXPECT_EQ(take_signals(event.fd), 2u);
    EXPECT_EQ(card->dma_stats(0).frames_completed, 2u);
    ASSERT_EQ(host.get_frame(0, frame), 0);
    EXPECT_EQ(frame.index, 1u);
    EXPECT_EQ(frame.pending, 2u);
    ASSERT_EQ(host.get_frame(0, frame), 0);
    EXPECT_EQ(frame.index, 0u);

    // The next filled buffer is never reported; it is the host's again.
    ASSERT_EQ(card->drop_completions(0, 1), 0);
    ASSERT_EQ(host.queue_buffer(0, 2), 0);
    ASSERT_EQ(host.queue_buffer(0, 1), 0);
    ASSERT_EQ(card->trigger_frames(0, 2), 0);
    ASSERT_TRUE(card->wait_frames(0, 4, kWait));
    EXPECT_EQ(stamp(2), 2u);
    ASSERT_EQ(host.get_frame(0, frame), 0);
    EXPECT_EQ(frame.index, 1u);
    EXPECT_EQ(frame.pending, 1u);
    EXPECT_EQ(take_signals(event.fd), 1u);
    const auto stats = card->dma_stats(0);
    EXPECT_EQ(stats.completions_dropped, 1u);
    EXPECT_EQ(stats.frames_completed, 3u);
    EXPECT_EQ(host.queue_buffer(0, 2), 0);
}

TEST_F(EmulatorDma, PacedFramesAreLostWithoutBuffers) {
    // The source's own rate: 1 ms.
    ASSERT_EQ(card->set_frame_source(0, std::make_shared<pelorin::emu::pattern_source>(1'000'000)), 0);
    make_buffers(1, 256);
    ASSERT_EQ(start(0, 256), 0);
    ASSERT_TRUE(card->wait_frames(0, 3, kWait));
    auto stats = card->dma_stats(0);
    EXPECT_GE(stats.frames_lost, 3u);
    EXPECT_EQ(stats.frames_completed, 0u);
    EXPECT_EQ(stats.frames_lost, stats.frames_produced);
    EXPECT_GE(host.read_reg(0x2020), 3u);  // the counter still advances

    ASSERT_EQ(host.queue_buffer(0, 0), 0);
    ASSERT_TRUE(card->wait_frames(0, stats.frames_produced + 3, kWait));
    stats = card->dma_stats(0);
    EXPECT_EQ(stats.frames_completed, 1u);
    EXPECT_EQ(stats.frames_lost + 1, stats.frames_produced);
    EXPECT_EQ(host.dma_stop(0), 0);

    // The card's trigger generator paces a free-running source: channel 1 in
    // group 2, period 500 us, enabled and running.
    ASSERT_EQ(host.write_reg(0x2108, 2), 0);
    ASSERT_EQ(host.write_reg(0x2A00, 1), 0);
    ASSERT_EQ(host.write_reg(0x2A03, 500), 0);
    ASSERT_EQ(host.write_reg(0x2A05, 1), 0);
    ASSERT_EQ(start(1, 256), 0);
    ASSERT_TRUE(card->wait_frames(1, 3, kWait));
    EXPECT_GE(card->dma_stats(1).frames_lost, 3u);
}

TEST_F(EmulatorDma, StopAndHandleCloseEndTheEngine) {
    ASSERT_EQ(card->set_manual_trigger(0, true), 0);
    make_buffers(2, 512);
    ASSERT_EQ(start(0, 512), 0);
    client other(bus);
    EXPECT_EQ(other.dma_start(0, 512, static_cast<uint64_t>(event.fd), addresses), -EBUSY);
    EXPECT_EQ(start(0, 512), -EBUSY);

    // The producer closes its frame event early; a new eventfd on the same
    // number is never signalled by the card.
    const int number = event.fd;
    event.close();
    event_fd reused;
    if (reused.fd != number) {
        ASSERT_EQ(::dup2(reused.fd, number), number);
        ::close(reused.fd);
        reused.fd = number;
    }
    ASSERT_EQ(host.queue_buffer(0, 0), 0);
    ASSERT_EQ(card->trigger_frames(0, 1), 0);
    ASSERT_TRUE(card->wait_frames(0, 1, kWait));
    EXPECT_EQ(take_signals(reused.fd), 0u);

    // Stop: joined, queues cleared, further buffer traffic refused.
    ASSERT_EQ(host.queue_buffer(0, 1), 0);
    ASSERT_EQ(other.dma_stop(0), 0);
    EXPECT_FALSE(card->dma_running(0));
    client::frame frame;
    EXPECT_EQ(host.get_frame(0, frame), -EINVAL);
    EXPECT_EQ(host.queue_buffer(0, 0), -EINVAL);
    EXPECT_EQ(card->trigger_frames(0, 1), -EINVAL);
    EXPECT_EQ(host.dma_stop(0), 0);  // stopped already: fine
    EXPECT_EQ(card->dma_stats(0).frames_completed, 1u);  // kept until the next start

    // A new start begins afresh: counter 0, no completion of the old run.
    ASSERT_EQ(host.dma_start(0, 512, static_cast<uint64_t>(reused.fd), addresses), 0);
    EXPECT_EQ(host.read_reg(0x2020), 0u);
    ASSERT_EQ(host.get_frame(0, frame), 0);
    EXPECT_EQ(frame.pending, 0u);
    ASSERT_EQ(host.queue_buffer(0, 1), 0);  // not queued any more after the stop

    // Closing the handle that started the DMA stops it; another handle's
    // channel keeps running.
    ASSERT_EQ(other.dma_start(1, 512, static_cast<uint64_t>(reused.fd), {addresses[0]}), 0);
    host.close();
    EXPECT_FALSE(card->dma_running(0));
    EXPECT_TRUE(card->dma_running(1));
    other.close();
    EXPECT_FALSE(card->dma_running(1));
}

TEST_F(EmulatorDma, MalformedMessagesAreRefused) {
    using pelorin::emu::kCodeDmaStart;
    using pelorin::emu::kCodeDmaStop;
    using pelorin::emu::kCodeGetFrame;
    using pelorin::emu::kCodeQueueBuffer;
    using pelorin::emu::kCodeSetStreamParam;
    make_buffers(2, 4096);
    const uint64_t fd = static_cast<uint64_t>(event.fd);

    // Sizes: below the header, a count that does not match the addresses.
    std::vector<uint8_t> message = client::dma_start_message(0, 4096, fd, addresses);
    EXPECT_EQ(host.send(kCodeDmaStart, std::span(message).first(23)), -EINVAL);
    EXPECT_EQ(host.send(kCodeDmaStart, std::span(message).first(message.size() - 8)), -EINVAL);
    message.resize(message.size() + 8);
    EXPECT_EQ(host.send(kCodeDmaStart, message), -EINVAL);
    message = client::dma_start_message(0, 4096, fd, addresses);
    message[8] = 0xFF;  // count 255 with two addresses
    EXPECT_EQ(host.send(kCodeDmaStart, message), -EINVAL);
    message = client::dma_start_message(0, 4096, fd, addresses);
    message[12] = 1;  // reserved word
    EXPECT_EQ(host.send(kCodeDmaStart, message), -EINVAL);

    // Channels, payload, addresses, event.
    EXPECT_EQ(host.dma_start(4, 4096, fd, addresses), -EINVAL);  // 4 links: channels 0..3
    EXPECT_EQ(host.dma_start(0xFFFFFFFF, 4096, fd, addresses), -EINVAL);
    EXPECT_EQ(host.dma_start(0, 0, fd, addresses), -EINVAL);
    EXPECT_EQ(host.dma_start(0, 4096, fd, {addresses[0], 0}), -EFAULT);
    const long page = sysconf(_SC_PAGESIZE);
    void *read_only = mmap(nullptr, page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(read_only, MAP_FAILED);
    EXPECT_EQ(host.dma_start(0, 16, fd, {reinterpret_cast<uint64_t>(read_only)}), -EFAULT);
    munmap(read_only, page);
    // A buffer must be writable over the whole payload.
    void *mapped = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mapped, MAP_FAILED);
    ASSERT_EQ(munmap(static_cast<uint8_t *>(mapped) + page, page), 0);
    const uint64_t last_page = reinterpret_cast<uint64_t>(mapped);
    EXPECT_EQ(host.dma_start(0, static_cast<uint32_t>(page), fd, {last_page}), 0);
    EXPECT_EQ(host.dma_stop(0), 0);
    EXPECT_EQ(host.dma_start(0, static_cast<uint32_t>(page) + 1, fd, {last_page}), -EFAULT);
    EXPECT_EQ(host.dma_start(0, 16, fd, {~uint64_t{0} - 8}), -EFAULT);
    munmap(mapped, page);
    EXPECT_EQ(host.dma_start(0, 16, fd, {last_page}), -EFAULT);  // unmapped now
    EXPECT_EQ(host.dma_start(0, 4096, uint64_t{1} << 33, addresses), -EBADF);
    EXPECT_EQ(host.dma_start(0, 4096, 1, addresses), -EBADF);  // stdout: no eventfd
    EXPECT_FALSE(card->dma_running(0));

    // No buffers: accepted, an idle engine.
    ASSERT_EQ(host.dma_start(0, 4096, fd, {}), 0);
    EXPECT_EQ(host.queue_buffer(0, 0), -EINVAL);
    EXPECT_EQ(host.dma_stop(0), 0);

    // The other DMA messages: sizes, answer buffers, channels.
    uint8_t out[12] = {};
    EXPECT_EQ(host.send(kCodeDmaStop, words({0, 0})), -EINVAL);
    EXPECT_EQ(host.dma_stop(4), -EINVAL);
    EXPECT_EQ(host.send(kCodeQueueBuffer, words({0}), out), -EINVAL);
    EXPECT_EQ(host.send(kCodeQueueBuffer, words({0, 0}), std::span(out).first(11)), -EINVAL);
    EXPECT_EQ(host.queue_buffer(9, 0), -EINVAL);
    EXPECT_EQ(host.send(kCodeGetFrame, words({0, 0}), out), -EINVAL);
    EXPECT_EQ(host.send(kCodeGetFrame, words({0}), std::span(out).first(8)), -EINVAL);
    client::frame frame;
    EXPECT_EQ(host.get_frame(4, frame), -EINVAL);
    EXPECT_EQ(host.send(kCodeSetStreamParam, words({0, 1, 2, 3, 4})), -EINVAL);
    EXPECT_EQ(host.set_stream_param(4, {1, 2, 3, 4, 5}), -EINVAL);

    // Control calls name a channel too.
    EXPECT_EQ(card->set_manual_trigger(4, true), -EINVAL);
    EXPECT_EQ(card->trigger_frames(4, 1), -EINVAL);
    EXPECT_EQ(card->stall_completions(4, true), -EINVAL);
    EXPECT_EQ(card->drop_completions(4, 1), -EINVAL);
    EXPECT_EQ(card->set_frame_source(4, nullptr), -EINVAL);
    EXPECT_FALSE(card->wait_frames(4, 0, kWait));
    EXPECT_EQ(card->dma_stats(4).frames_produced, 0u);
}

}  // namespace
