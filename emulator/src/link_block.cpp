#include "emulator/link_block.h"

#include <pthread.h>

#include <algorithm>
#include <utility>

#include "emulator/cxp_camera.h"
#include "emulator/emulated_card.h"
#include "stored_zip.h"

namespace pelorin::emu {

namespace {

constexpr size_t kRxCapacity = 0xFFFF;  // words; the count register is 16 bits
constexpr size_t kPacketCapacity = 4096;
constexpr size_t kTxCapacity = 1024;
constexpr uint32_t kTypeCommand = 2;
constexpr uint32_t kTypeTaggedCommand = 5;
constexpr uint32_t kTypeAck = 3;
constexpr uint32_t kTypeTaggedAck = 6;
constexpr uint32_t kGarbageBase = 0x6A5A0000;

uint32_t byte_swap(uint32_t value) {
    return (value >> 24) | ((value >> 8) & 0xFF00) | ((value << 8) & 0xFF0000) | (value << 24);
}

// A byte sent four times over, as every character of a packet header is.
uint32_t repeated(uint8_t byte) { return uint32_t{byte} * 0x01010101u; }

// Wire bytes as receive words: the first byte in the low bits.
void append_bytes(std::vector<uint32_t> &words, const std::vector<uint8_t> &bytes) {
    for (size_t i = 0; i < bytes.size(); i += 4) {
        uint32_t word = 0;
        for (size_t j = 0; j < 4 && i + j < bytes.size(); ++j) word |= uint32_t{bytes[i + j]} << (8 * j);
        words.push_back(word);
    }
}

// One acknowledgement as the receive side presents it.
std::vector<uint32_t> frame(bool copper, bool tagged, uint8_t tag, uint8_t code,
                            const std::vector<uint8_t> &data, bool damaged) {
    std::vector<uint32_t> words;
    if (copper) words.push_back(link_block::kStartMarker);
    words.push_back(repeated(static_cast<uint8_t>(tagged ? kTypeTaggedAck : kTypeAck)));
    if (tagged) words.push_back(repeated(tag));
    words.push_back(repeated(code));
    if (code == cxp_camera::kAckRead || code == cxp_camera::kAckWait) {
        words.push_back(byte_swap(static_cast<uint32_t>(data.size())));
        append_bytes(words, data);
        words.push_back(damaged ? zip_crc32(data) | 1u : 0u);
    }
    words.push_back(link_block::kEndMarker);
    return words;
}

std::vector<uint8_t> wait_data(uint32_t milliseconds) {
    return {static_cast<uint8_t>(milliseconds >> 24), static_cast<uint8_t>(milliseconds >> 16),
            static_cast<uint8_t>(milliseconds >> 8), static_cast<uint8_t>(milliseconds)};
}

}  // namespace

link_block::link_block(emulated_card &card, bool fibre, uint32_t card_links,
                       std::vector<std::shared_ptr<cxp_camera>> cameras)
    : card_(card), fibre_(fibre) {
    const uint32_t links = std::min(card_links, kLinks);
    for (const std::shared_ptr<cxp_camera> &camera : cameras) {
        if (!camera) continue;
        const camera_profile &profile = camera->profile();
        for (uint32_t connection = 0; connection < profile.links.size(); ++connection) {
            const uint32_t link = profile.links[connection];
            if (link >= links || connections_[link]) continue;
            connections_[link] = connection_ref{camera, connection};
            const std::vector<uint32_t> &broken = profile.faults.broken_links;
            if (std::find(broken.begin(), broken.end(), link) != broken.end())
                blocks_[link].error_counter = kBrokenLinkErrors;
        }
    }
}

link_block::~link_block() { shutdown(); }

void link_block::shutdown() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        due_.clear();
    }
    wake_.notify_all();
    if (deliveries_.joinable()) deliveries_.join();
}

// --- Host side ---------------------------------------------------------------

uint32_t link_block::read(uint32_t offset) {
    const uint32_t block = offset / kStride;
    const uint32_t r = offset % kStride;
    if (block >= kBlocks) return 0;
    std::lock_guard lock(mutex_);
    link_state &state = blocks_[block];
    switch (r) {
        case kRxCount: return static_cast<uint32_t>(state.rx.size());
        case kRxWord: {
            if (state.rx.empty()) return 0;
            const uint32_t word = state.rx.front();
            state.rx.pop_front();
            return word;
        }
        case kAcksWaiting:
            if (fibre_) return static_cast<uint32_t>(state.packets.size());
            return static_cast<uint32_t>(std::count(state.rx.begin(), state.rx.end(), kEndMarker));
        case kStatus:
            if (block >= kLinks) break;
            return reaches(block, false) ? 1 : 0;
        case kErrorCounter: return state.error_counter;
        case kFibreStatus:
            if (!fibre_) break;
            if (state.packets.empty()) return 0;
            return 1u << 16 | (state.packets.front().crc_error ? 1u << 17 : 0) |
                   static_cast<uint32_t>(std::min<size_t>(state.packets.front().words.size(), 0xFFFF));
        case kFibreWord: {
            if (!fibre_) break;
            if (state.packets.empty() || state.packet_read >= state.packets.front().words.size()) return 0;
            return state.packets.front().words[state.packet_read++];
        }
        default: break;
    }
    return state.stored[r];
}

void link_block::write(uint32_t offset, uint32_t value) {
    const uint32_t block = offset / kStride;
    const uint32_t r = offset % kStride;
    if (block >= kBlocks) return;
    std::vector<uint32_t> raise_links;
    {
        std::lock_guard lock(mutex_);
        link_state &state = blocks_[block];
        state.stored[r] = value;
        switch (r) {
            case kRxReset:
                if (value == 1) state.rx.clear();
                break;
            case kTxBegin:
                if (value == 1) {
                    state.tx.clear();
                    state.tx_overflow = false;
                }
                break;
            case kTxWord:
                if (state.tx.size() < kTxCapacity)
                    state.tx.push_back(value);
                else
                    state.tx_overflow = true;
                break;
            case kTxSend:
                if (value == 1) send(block, raise_links);
                break;
            case kFibreStart:
                if (fibre_) state.packet_read = 0;
                break;
            case kFibreDone:
                if (!fibre_) break;
                if (value == 1)
                    state.packets.clear();
                else if (!state.packets.empty())
                    state.packets.pop_front();
                state.packet_read = 0;
                break;
            default: break;
        }
    }
    raise(raise_links);
}

bool link_block::fibre_up(uint32_t link) const {
    const std::optional<connection_ref> &ref = connections_[link];
    return ref && (held_in_reset_ & (1u << link)) == 0 && trained_epoch_[link] == ref->camera->link_epoch() &&
           ref->camera->transmits(ref->connection, 0, true);
}

bool link_block::reaches(uint32_t link, bool uplink) const {
    const std::optional<connection_ref> &ref = connections_[link];
    if (!ref) return false;
    if (uplink) return fibre_ && ref->camera->uplink_enabled() && fibre_up(link);
    if (fibre_) return fibre_up(link);
    const uint32_t rate = card_.read_register(kRateRegister + link);
    return ref->camera->transmits(ref->connection, rate, false);
}

uint32_t link_block::fibre_links_up() {
    std::lock_guard lock(mutex_);
    uint32_t mask = 0;
    for (uint32_t link = 0; link < kLinks; ++link)
        if (fibre_up(link)) mask |= 1u << link;
    return mask;
}

void link_block::fibre_link_reset(bool hold, uint32_t mask) {
    std::lock_guard lock(mutex_);
    mask &= (1u << kLinks) - 1;
    if (hold) {
        held_in_reset_ |= mask;
        return;
    }
    held_in_reset_ &= ~mask;
    for (uint32_t link = 0; link < kLinks; ++link)
        if ((mask & (1u << link)) != 0 && connections_[link])
            trained_epoch_[link] = connections_[link]->camera->link_epoch();
}

void link_block::send(uint32_t block, std::vector<uint32_t> &raise_links) {
    link_state &state = blocks_[block];
    const std::vector<uint32_t> words = std::exchange(state.tx, {});
    const bool overflow = std::exchange(state.tx_overflow, false);
    ++state.commands;

    command_record record;
    record.block = block;
    record.type = state.stored[kTxType];
    record.tag = static_cast<uint8_t>(state.stored[kTxTag]);
    control_command command;
    command.tagged = record.type == kTypeTaggedCommand;
    if (words.size() < 2 || overflow) {
        command.malformed = true;
    } else {
        const uint32_t header = byte_swap(words[0]);
        command.op = static_cast<uint8_t>(header >> 24);
        command.size = header & 0xFFFFFF;
        command.address = byte_swap(words[1]);
        command.payload.reserve((words.size() - 2) * 4);
        for (size_t i = 2; i < words.size(); ++i)
            for (int j = 0; j < 4; ++j) command.payload.push_back(static_cast<uint8_t>(words[i] >> (8 * j)));
        record.op = command.op;
        record.size = command.size;
        record.address = command.address;
    }

    const uint32_t link = block % kLinks;
    if ((record.type == kTypeCommand || record.type == kTypeTaggedCommand) &&
        reaches(link, block >= kLinks)) {
        record.delivered = true;
        const connection_ref &ref = *connections_[link];
        const control_reply reply = ref.camera->execute(ref.connection, command);
        if (reply.answered) {
            // The wait acknowledgements, then the final one, each when the
            // wait before it has run out.
            std::vector<std::vector<uint32_t>> packets;
            for (uint32_t wait : reply.waits_ms)
                packets.push_back(
                    frame(!fibre_, command.tagged, record.tag, cxp_camera::kAckWait, wait_data(wait), false));
            packets.push_back(
                frame(!fibre_, command.tagged, record.tag, reply.code, reply.data, reply.damaged));
            std::vector<uint32_t> first;
            for (uint32_t i = 0; i < reply.garbage_words; ++i) first.push_back(kGarbageBase + i);
            first.insert(first.end(), packets[0].begin(), packets[0].end());
            const bool crc_error = reply.waits_ms.empty() && reply.damaged;
            if (deliver(link, std::move(first), crc_error)) raise_links.push_back(link);
            clock::time_point when = clock::now();
            for (size_t i = 1; i < packets.size(); ++i) {
                when += std::chrono::milliseconds(reply.waits_ms[i - 1]);
                schedule(when,
                         due_reply{link, std::move(packets[i]), i + 1 == packets.size() && reply.damaged});
            }
        }
    }
    if (log_.size() < kCommandLogLimit) log_.push_back(record);
}

bool link_block::deliver(uint32_t link, std::vector<uint32_t> words, bool crc_error) {
    link_state &state = blocks_[link];
    if (fibre_) {
        if (state.packets.size() >= kPacketCapacity) return false;
        state.packets.push_back(fibre_packet{std::move(words), crc_error});
        return true;
    }
    if (state.rx.size() + words.size() > kRxCapacity) return false;
    state.rx.insert(state.rx.end(), words.begin(), words.end());
    return true;
}

void link_block::schedule(clock::time_point when, due_reply reply) {
    if (stopping_) return;
    due_.emplace(when, std::move(reply));
    if (!deliveries_.joinable()) deliveries_ = std::thread([this] { run_deliveries(); });
    wake_.notify_all();
}

void link_block::run_deliveries() {
    pthread_setname_np(pthread_self(), "emu-link");
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        if (due_.empty()) {
            wake_.wait(lock);
            continue;
        }
        const clock::time_point next = due_.begin()->first;
        if (clock::now() < next) {
            wake_.wait_until(lock, next);
            continue;
        }
        std::vector<uint32_t> raise_links;
        while (!due_.empty() && due_.begin()->first <= clock::now()) {
            due_reply reply = std::move(due_.begin()->second);
            due_.erase(due_.begin());
            if (deliver(reply.link, std::move(reply.words), reply.crc_error))
                raise_links.push_back(reply.link);
        }
        lock.unlock();
        raise(raise_links);
        lock.lock();
    }
}

void link_block::raise(const std::vector<uint32_t> &links) {
    for (uint32_t link : links) card_.raise_interrupt(4 * link);
}

// --- Control side --------------------------------------------------------------

void link_block::set_error_counter(uint32_t link, uint32_t value) {
    if (link >= kBlocks) return;
    std::lock_guard lock(mutex_);
    blocks_[link].error_counter = value;
}

uint64_t link_block::commands_received(uint32_t block) const {
    if (block >= kBlocks) return 0;
    std::lock_guard lock(mutex_);
    return blocks_[block].commands;
}

std::vector<command_record> link_block::take_command_log() {
    std::lock_guard lock(mutex_);
    return std::exchange(log_, {});
}

void link_block::clear_counters() {
    std::lock_guard lock(mutex_);
    for (link_state &state : blocks_) state.commands = 0;
    log_.clear();
}

size_t link_block::replies_due() const {
    std::lock_guard lock(mutex_);
    return due_.size();
}

}  // namespace pelorin::emu
