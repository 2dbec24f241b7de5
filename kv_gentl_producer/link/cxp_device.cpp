#include "link/cxp_device.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <set>

#include "card/byte_order.h"
#include "card/card_context.h"
#include "card/cxp_interrupt.h"
#include "diag/log.h"
#include "link/cof_device.h"
#include "link/link_registers.h"

using pelorin::diag::kDebug;
using namespace pelorin::link_registers;

namespace {

// Card registers of link discovery.
constexpr uint32_t kRxResetSteps[] = {0x0108, 0x0109, 0x010A, 0x010B};
constexpr uint32_t kLinkIndicator = 0x0800;  // + 16 x link
constexpr uint32_t kLinkRate = 0x0A00;       // + link

constexpr uint32_t kStartOfPacket = 0xFBFBFBFB;
constexpr uint32_t kTypeControl = 2;
constexpr uint32_t kTypeTaggedControl = 5;
constexpr uint32_t kAckUntagged = 3;
constexpr uint32_t kAckTagged = 6;
constexpr uint8_t kAckRead = 0;
constexpr uint8_t kAckWrite = 1;
constexpr uint8_t kAckWait = 4;
constexpr uint8_t kAckNoRetry = 0x40;

constexpr uint32_t kAckWaitStart = 200;
constexpr uint32_t kAckWaitLimit = 10200;
constexpr uint32_t kAttempts = 3;
constexpr uint32_t kBrokenLinkErrors = 1000;
constexpr uint32_t kMinChunk = 100;
constexpr uint32_t kMaxControlPacket = 2048;
constexpr uint32_t kVersion11 = 0x10001;
constexpr uint32_t kVersion20 = 0x20000;

constexpr uint32_t kRateOrder[] = {kCxp3, kCxp1, kCxp6, kCxp12, kCxp2, kCxp10, kCxp5};

uint32_t byte_swap(uint32_t value) { return __builtin_bswap32(value); }

std::mutex &registry_mutex() {
    static std::mutex mutex;
    return mutex;
}
std::set<cxp_device *> &registry() {
    static std::set<cxp_device *> devices;
    return devices;
}

}  // namespace

void cxp_link_state::reset_keeping_packet_sizes() {
    const uint32_t packet = ctrl_packet_size;
    const uint32_t payload = ctrl_payload_max;
    reset();
    ctrl_packet_size = packet;
    ctrl_payload_max = payload;
}

cxp_device::cxp_device(card_context *context, uint32_t link_count, uint32_t link_mask)
    : context_(context), link_count_(link_count), link_mask_(link_mask) {
    mask_links_ = static_cast<uint32_t>(std::popcount(link_mask & 0xFF));
    if (link_mask_ != 0) {
        first_mask_link_ = static_cast<uint32_t>(std::countr_zero(link_mask_));
        last_mask_link_ = 31u - static_cast<uint32_t>(std::countl_zero(link_mask_));
    }
    const uint32_t group = context != nullptr ? context->pcie_device.group_index : 0;
    host_connection_id_ = 0xD00 + group;
    link_state_.reset();
    param_.links = mask_links_;
    request_.context = ack_.context = context;
}

cxp_device::~cxp_device() { drop_interrupt(); }

// --- Card registers -----------------------------------------------------------

void cxp_device::link_write(uint32_t link, uint32_t reg, uint32_t value) {
    if (context_ == nullptr) return;
    pcie_write_reg(context_->pcie_device, link_address(link, reg), value);
}

uint32_t cxp_device::link_read(uint32_t link, uint32_t reg) {
    if (context_ == nullptr) return 0;
    return pcie_read_reg(context_->pcie_device, link_address(link, reg));
}

void cxp_device::card_write(uint32_t address, uint32_t value) {
    context_write_reg(context_, address, value);
}

uint32_t cxp_device::card_read(uint32_t address) { return context_read_reg(context_, address); }

void cxp_device::select_link(uint32_t link) {
    request_.link = static_cast<uint8_t>(link);
    ack_.link = static_cast<uint8_t>(link);
}

bool cxp_device::acknowledge_event_present() const {
    return context_ != nullptr && context_->pcie_device.ack_event != nullptr &&
           context_->pcie_device.ack_event->valid();
}

// --- Transactions ---------------------------------------------------------------

void cxp_device::send_packet(cxp_ctrl_packet &request) {
    const uint32_t link = request.link;
    link_write(link, kTxBegin, 1);
    if (request.tagged) {
        link_write(link, kTxType, kTypeTaggedControl);
        link_write(link, kTxTag, request.tag);
        ++request.tag;
    } else {
        link_write(link, kTxType, kTypeControl);
    }
    link_write(link, kTxWord, byte_swap((uint32_t{request.op} << 24) + request.size));
    link_write(link, kTxWord, byte_swap(request.address));
    if (request.op == 1) {
        const uint32_t count = std::min<uint32_t>((request.size + 3) / 4, kMaxPayloadWords);
        std::array<uint32_t, kMaxPayloadWords> words;
        for (uint32_t i = 0; i < count; ++i)
            words[i] = request.swap ? byte_swap(request.data[i]) : request.data[i];
        const std::span<const uint32_t> payload(words.data(), count);
        if (!pcie_write_fifo(context_->pcie_device, link_address(link, kTxWord), payload))
            for (uint32_t word : payload) link_write(link, kTxWord, word);
    }
    link_write(link, kTxSend, 1);
}

bool cxp_device::take_ack_word(cxp_ctrl_ack &ack, uint32_t &phase, uint32_t &index, uint32_t w,
                               bool &malformed) {
    switch (phase) {
    case 1:
        if ((w & 0xFF) == kAckUntagged) {
            ack.tagged = 0;
            phase = 3;
        } else if ((w & 0xFF) == kAckTagged) {
            ack.tagged = 1;
            phase = 2;
        } else {
            malformed = true;
            return true;
        }
        return false;
    case 2:
        ack.tag = static_cast<uint8_t>(w);
        phase = 3;
        return false;
    case 3:
        ack.ack_code = static_cast<uint8_t>(w);
        phase = 4;
        // Only read replies and wait acknowledgements carry a size and data.
        return ack.ack_code != kAckRead && ack.ack_code != kAckWait;
    case 4:
        ack.size = byte_swap(w);
        phase = 5;
        return false;
    default:
        if (4ull * index < ack.size && index < kMaxPayloadWords) {
            ack.data[index++] = w;
            return false;
        }
        ack.check = w;
        return true;
    }
}

void cxp_device::swap_ack_payload(cxp_ctrl_ack &ack) {
    if (!ack.swap) return;
    const uint32_t count = std::min<uint32_t>(ack.size / 4, kMaxPayloadWords);
    for (uint32_t i = 0; i < count; ++i) ack.data[i] = byte_swap(ack.data[i]);
}

int cxp_device::parse_ack(cxp_ctrl_ack &ack) {
    ack.size = 0;
    ack.check = 0;
    uint32_t words = link_read(ack.link, kRxWordCount) & 0xFFFF;
    uint32_t phase = 0;
    uint32_t index = 0;
    bool done = false;
    bool ended = false;
    while (words > 0) {
        const uint32_t w = link_read(ack.link, kRxWord);
        --words;
        if (phase == 0) {
            if (w == kStartOfPacket) phase = 1;
            continue;
        }
        if (done) {
            if (w == kEndOfPacket) {
                ended = true;
                break;
            }
            phase = 0;  // look for the next start, still done
            continue;
        }
        bool malformed = false;
        done = take_ack_word(ack, phase, index, w, malformed);
        if (malformed) {
            // An unknown packet type: look for the next start marker.
            phase = 0;
            done = false;
        }
    }
    if (!ended) return 0;
    swap_ack_payload(ack);
    return 1;
}

void cxp_device::flush_ack(cxp_ctrl_ack &ack) {
    auto flush_link = [&](uint32_t link) {
        link_read(link, kAcksWaiting);
        link_read(link, kRxWordCount);
        link_read(link, kAcksWaiting);
        link_write(link, kRxReset, 1);
        link_write(link, kRxReset, 0);
    };
    if (ack.poll_range) {
        for (uint32_t link = ack.first_link; link <= ack.last_link; ++link) flush_link(link);
    } else {
        flush_link(ack.link);
    }
}

int cxp_device::wait_ack(cxp_ctrl_packet &request, cxp_ctrl_ack &ack) {
    uint32_t limit = kAckWaitStart;
    for (uint32_t pass = 0; pass < limit; ++pass) {
        if (!acknowledge_event_present()) {
            sleep_ms(1);
        } else if (context_->pcie_device.ack_event->wait(limit) != os_event::wait_result::signalled) {
            return -1;
        }
        const uint32_t first = ack.poll_range ? ack.first_link : ack.link;
        const uint32_t last = ack.poll_range ? ack.last_link : ack.link;
        for (uint32_t link = first; link <= last; ++link) {
            ack.link = static_cast<uint8_t>(link);
            const uint32_t pending = link_read(link, kAcksWaiting) & 0xFFFF;
            for (uint32_t p = 0; p < pending; ++p) {
                if (parse_ack(ack) != 1) continue;
                if (ack.ack_code == kAckWrite && request.op == 1) return 0;
                if (ack.ack_code == kAckRead && request.op == 0) return 0;
                if (ack.ack_code == kAckWait) {
                    const uint32_t wait_ms = ack.swap ? ack.data[0] : byte_swap(ack.data[0]);
                    limit += wait_ms;
                    if (limit > kAckWaitLimit) {
                        std::printf("[WARING] Camera Ack message show: wait %u ms !\n", wait_ms);
                        limit = kAckWaitLimit;
                    }
                    continue;
                }
                if (ack.ack_code > kAckWait) return -2;
            }
        }
    }
    return -1;
}

int cxp_device::write_transaction(cxp_ctrl_packet &request, cxp_ctrl_ack &ack) {
    if (acknowledge_event_present() && link_read(ack.link, kLinkErrors) > kBrokenLinkErrors)
        return -4;
    request.op = 1;
    flush_ack(ack);
    for (uint32_t attempt = 0; attempt < kAttempts; ++attempt) {
        send_packet(request);
        const int result = wait_ack(request, ack);
        if (result == 0) return 0;
        if (result == -2 && ack.ack_code == kAckNoRetry) return -2;
    }
    return -1;
}

int cxp_device::read_transaction(cxp_ctrl_packet &request, cxp_ctrl_ack &ack) {
    if (acknowledge_event_present() && link_read(ack.link, kLinkErrors) > kBrokenLinkErrors)
        return -4;
    request.op = 0;
    flush_ack(ack);
    uint32_t damaged = 0;
    for (uint32_t attempt = 0; attempt < kAttempts; ++attempt) {
        send_packet(request);
        const int result = wait_ack(request, ack);
        if (result == 0 && ack.check == 0) return 0;
        if (result == 0) {
            ++damaged;
            continue;
        }
        if (result == -2 && ack.ack_code == kAckNoRetry) return -2;
    }
    return damaged == kAttempts ? -3 : -1;
}

int cxp_device::access_chunk(uint32_t address, uint8_t *bytes, uint32_t size, bool swap,
                             bool is_read) {
    if (size > link_state_.ctrl_payload_max) return -7;
    request_.address = address;
    request_.size = size;
    request_.swap = swap ? 1 : 0;
    ack_.swap = swap ? 1 : 0;
    if (is_read) {
        const int result = read_transaction(request_, ack_);
        std::memcpy(bytes, ack_.data.data(), size);
        return result;
    }
    const uint32_t whole = size / 4;
    std::memcpy(request_.data.data(), bytes, whole * 4);
    if (size % 4 != 0) {
        request_.data[whole] = 0;
        std::memcpy(&request_.data[whole], bytes + whole * 4, size % 4);
    }
    return write_transaction(request_, ack_);
}

int cxp_device::mem_access(uint32_t address, void *buffer, uint32_t size, bool swap,
                           bool is_read) {
    if (size == 0) return 0;
    if (buffer == nullptr || context_ == nullptr) return -1;
    const uint32_t payload = link_state_.ctrl_payload_max;
    const uint32_t chunk = std::max<uint32_t>(payload >= 4 ? (payload - 4) & ~3u : 0, kMinChunk);
    auto *bytes = static_cast<uint8_t *>(buffer);
    for (uint32_t offset = 0; offset < size;) {
        const uint32_t length = std::min(chunk, size - offset);
        const int result = access_chunk(address + offset, bytes + offset, length, swap, is_read);
        if (result != 0) return result;
        offset += length;
    }
    return 0;
}

bool cxp_device::is_online() {
    if (context_ == nullptr || state_ == 0) return false;
    return link_read(link_state_.master_link, kLinkErrors) <= kBrokenLinkErrors;
}

bool cxp_device::links_up() {
    if (context_ == nullptr || state_ == 0) return false;
    const uint32_t used = link_state_.used_link_mask != 0 ? link_state_.used_link_mask
                                                         : 1u << link_state_.master_link;
    for (uint32_t link = 0; link < kMaxCardLinks; ++link)
        if ((used & (1u << link)) != 0 && link_read(link, kLinkStatus) == 0) return false;
    return true;
}

int cxp_device::write_reg(uint32_t address, uint32_t value) {
    request_.address = address;
    request_.size = 4;
    request_.swap = 1;
    ack_.swap = 1;
    request_.data[0] = value;
    return write_transaction(request_, ack_);
}

int cxp_device::read_reg(uint32_t address, uint32_t &value) {
    request_.address = address;
    request_.size = 4;
    request_.swap = 1;
    ack_.swap = 1;
    const int result = read_transaction(request_, ack_);
    value = ack_.data[0];
    return result;
}

void cxp_device::send_connection_reset(uint32_t link) {
    select_link(link);
    request_.op = 1;
    request_.swap = 1;
    request_.address = kRegConnectionReset;
    request_.size = 4;
    request_.data[0] = 1;
    const uint8_t tagged = request_.tagged;
    request_.tagged = 0;
    send_packet(request_);
    request_.tagged = tagged;
}

void cxp_device::set_timing_unit(uint32_t value) {
    link_write(link_state_.master_link, kLinkTimingUnit, value);
}

// --- Parameters -----------------------------------------------------------------

int cxp_device::set_param(const cxp_conn_param &param) {
    param_ = param;
    param_.stream_packet_size = std::clamp<uint32_t>(param_.stream_packet_size, 512, 8192) & ~3u;
    if (!param_.auto_links &&
        (param_.links == 0 || param_.links > link_count_ || param_.links > mask_links_))
        return -5;
    return 0;
}

void cxp_device::get_version(uint32_t &revision, uint32_t &supported, uint32_t &used) const {
    revision = revision_;
    supported = versions_supported_;
    used = version_used_;
}

// --- Connection -----------------------------------------------------------------

void cxp_device::program_rate(uint32_t mask, uint32_t rate, uint32_t delay_ms) {
    for (uint32_t link = 0; link < 16; ++link)
        if (mask & (1u << link)) card_write(kLinkRate + link, rate);
    const uint32_t pauses[] = {1, delay_ms, 1, 1};
    sleep_ms(1);
    for (size_t step = 0; step < std::size(kRxResetSteps); ++step) {
        card_write(kRxResetSteps[step], mask);
        sleep_ms(pauses[step]);
    }
}

void cxp_device::set_high_rate_flag(uint32_t rate) {
    for_each_link([&](uint32_t link) { link_write(link, kLinkHighRate, rate >= kCxp10 ? 1 : 0); });
}

void cxp_device::drop_interrupt() {
    if (context_ != nullptr) context_->pcie_device.ack_event = nullptr;
    interrupt_.reset();
}

void cxp_device::prepare(bool clear_state) {
    drop_interrupt();
    const uint32_t group = context_->pcie_device.group_index;
    card_write(kGroupRunning, 0);
    for_each_link([&](uint32_t link) { card_write(kLinkGroup + link, group); });
    card_write(kGroupLinks + group, 0);
    if (clear_state) state_ = 0;
}

void cxp_device::set_link_indicators(uint32_t value) {
    for_each_link([&](uint32_t link) { card_write(kLinkIndicator + 16 * link, value); });
}

int cxp_device::discover() {
    link_state_.reset();
    revision_ = versions_supported_ = version_used_ = 0;
    for_each_link([&](uint32_t link) { send_connection_reset(link); });
    sleep_ms(10);
    for_each_link([&](uint32_t link) { link_write(link, kLinkHighRate, 0); });
    sleep_ms(10);
    for_each_link([&](uint32_t link) { send_connection_reset(link); });
    sleep_ms(300);

    for (uint32_t pass = 0; pass < kDiscoveryPasses && !link_state_.master_found; ++pass) {
        for (uint32_t rate : kRateOrder) {
            link_state_.speed = rate;
            set_high_rate_flag(rate);
            program_rate(link_mask_, rate, param_.rate_delay_ms);
            for (uint32_t link = 0; link < kMaxCardLinks; ++link) {
                if (!(link_mask_ & (1u << link))) continue;
                select_link(link);
                flush_ack(ack_);
                if (probe_selected_link(link, link_read(link, kLinkStatus)) != 0) return -3;
                if (link_state_.master_found) break;
            }
            if (link_state_.master_found) break;
        }
    }
    if (!link_state_.master_found) return -2;
    return negotiate();
}

int cxp_device::negotiate() {
    select_link(link_state_.master_link);
    if (read_reg(kRegRevision, revision_) != 0) return -3;
    version_used_ = revision_;
    if (revision_ >= kVersion20) {
        if (read_reg(kRegVersionsSupported, versions_supported_) != 0) return -3;
        if (revision_ > kVersion20) {
            if (versions_supported_ & 0x4)
                version_used_ = kVersion20;
            else if (versions_supported_ & 0x2)
                version_used_ = kVersion11;
            else
                return -4;
        }
        if (write_reg(kRegVersionUsed, version_used_) != 0) return -3;
    }
    if (version_used_ >= kVersion20) {
        request_.tagged = 1;
        request_.tag = 0;
    } else {
        request_.tagged = 0;
    }
    if (write_reg(kRegMasterHostConnectionId, host_connection_id_) != 0) return -3;
    uint32_t packet = 0;
    if (read_reg(kRegControlPacketSizeMax, packet) != 0) return -3;
    link_state_.ctrl_packet_size = std::min(packet, kMaxControlPacket) & ~3u;
    const uint32_t overhead = version_used_ >= kVersion20 ? 28 : 24;
    link_state_.ctrl_payload_max =
        link_state_.ctrl_packet_size > overhead ? link_state_.ctrl_packet_size - overhead : 0;
    state_ = 1;
    return 0;
}

int cxp_device::probe_selected_link(uint32_t link, uint32_t status) {
    cxp_link_info &info = link_state_.link_info[link];
    info.status = status;
    if (status == 0) return 0;
    ++link_state_.links_connected;
    uint32_t id = 0;
    if (read_reg(kRegDeviceConnectionId, id) != 0) return -3;
    info.connection_id = id;
    if (id == 0) {
        link_state_.master_found = 1;
        link_state_.master_link = link;
    }
    return 0;
}

int cxp_device::check_connection(uint32_t credited, uint32_t links) {
    uint32_t host = 0;
    if (read_reg(kRegMasterHostConnectionId, host) != 0) return -3;
    if (host != host_connection_id_) return -8;
    uint32_t id = 0;
    if (read_reg(kRegDeviceConnectionId, id) != 0) return -3;
    if (credited == kCreditAnsweringLink) credited = ack_.link;
    link_state_.link_info[credited] = {1, id};
    link_write(credited, kLinkConnectionId, id);
    if (id < links) {
        link_state_.used_link_mask |= 1u << credited;
        ++link_state_.links_connected;
        if (id == 0) {
            link_state_.master_link = credited;
            link_state_.master_found = 1;
        }
    }
    return 0;
}

int cxp_device::finish_check(uint32_t links, uint32_t rate) {
    link_state_.speed = rate;
    if (!link_state_.master_found) return -2;
    if (link_state_.links_connected != links) return -6;
    select_link(link_state_.master_link);
    return 0;
}

int cxp_device::requested_configuration(uint32_t &links, uint32_t &rate) {
    uint32_t defaults = 0;
    if ((param_.auto_links || param_.auto_speed) &&
        read_reg(kRegConnectionConfigDefault, defaults) != 0)
        return -3;
    links = param_.auto_links ? std::min(defaults >> 16, mask_links_) : param_.links;
    rate = param_.auto_speed ? (defaults & 0xFFFF) : param_.speed;
    return 0;
}

int cxp_device::configure() {
    uint32_t links = 0;
    uint32_t rate = 0;
    if (requested_configuration(links, rate) != 0) return -3;
    write_reg(kRegConnectionConfig, (links << 16) + rate);
    set_high_rate_flag(rate);
    sleep_ms(300);
    program_rate(link_mask_, rate, param_.rate_delay_ms);
    sleep_ms(50);
    for_each_link([&](uint32_t link) {
        select_link(link);
        flush_ack(ack_);
    });
    link_state_.reset_keeping_packet_sizes();

    for (uint32_t link = 0; link < kMaxCardLinks; ++link) {
        if (!(link_mask_ & (1u << link)) || link_read(link, kLinkStatus) == 0) continue;
        select_link(link);
        const int result = check_connection(link, links);
        if (result != 0) return result;
    }
    return finish_check(links, rate);
}

void cxp_device::read_stream_ids() {
    if (!param_.read_stream_ids) {
        card_write(kStreamId1, param_.stream_id1);
        card_write(kStreamId2, param_.stream_id2);
        return;
    }
    if (revision_ < kVersion11) {
        param_.stream_id1 = 1;
        param_.stream_id2 = 2;
    } else {
        uint32_t address = 0;
        uint32_t value = 0;
        if (read_reg(kRegImage1StreamIdAddress, address) != 0 || read_reg(address, value) != 0) {
            LOG_ANY(kDebug, "image stream ID not readable: stream registers left at 0xFF\n");
            return;
        }
        param_.stream_id1 = value < 256 ? value : 0;
        uint32_t address2 = 0;
        if (read_reg(kRegImage2StreamIdAddress, address2) == 0 && address2 != 0) {
            uint32_t ignored = 0;
            read_reg(address2, ignored);
        }
        param_.stream_id2 = (param_.stream_id1 + 1) % 256;
    }
    card_write(kStreamId1, param_.stream_id1);
    card_write(kStreamId2, param_.stream_id2);
}

int cxp_device::open_interrupt() {
    interrupt_.reset(new (std::nothrow)
                         cxp_interrupt(&context_->pcie_device, 4 * link_state_.master_link));
    if (!interrupt_) return -11;
    if (interrupt_->open() == 0) context_->pcie_device.ack_event = &interrupt_->event();
    return 0;
}

int cxp_device::connect(uint32_t stage) {
    if (context_ == nullptr) return -1;
    prepare(true);
    const uint32_t group = context_->pcie_device.group_index;
    if (stage == 1 || stage == 3) {
        const int result = discover();
        if (result != 0) return result;
    }
    if (stage == 2 || stage == 3) {
        const int result = configure();
        if (result != 0) return result;
        card_write(kGroupLinks + group, link_state_.used_link_mask);
        card_write(kGroupConfigured + group, 1);
        card_write(kStreamId1, 0xFF);
        card_write(kStreamId2, 0xFF);
        read_stream_ids();
        if (write_reg(kRegStreamPacketSizeMax, param_.stream_packet_size) != 0) return -3;
        card_write(kGroupRunning, 1);
        state_ = 2;
    }
    if (open_interrupt() != 0) return -11;
    for_each_link([&](uint32_t link) {
        link_write(link, kLinkTiming6, 10000);
        link_write(link, kLinkTiming7, 1000);
    });
    return 0;
}

int cxp_device::reconnect() {
    if (context_ == nullptr) return -1;
    prepare(false);
    const int result = configure();
    if (result != 0) return result;
    const uint32_t group = context_->pcie_device.group_index;
    if (write_reg(kRegStreamPacketSizeMax, 0) != 0) return -3;
    card_write(kGroupLinks + group, link_state_.used_link_mask);
    card_write(kGroupConfigured + group, 1);
    if (write_reg(kRegStreamPacketSizeMax, param_.stream_packet_size) != 0) return -3;
    card_write(kGroupRunning, 1);
    return open_interrupt();
}

int cxp_device::connect_with_demotion(bool allow_demote) {
    set_link_indicators(2);
    int result = connect(param_.stage);
    first_link_state_ = link_state_;
    if (result == -4) {
        connect(1);
        set_link_indicators(4);
        return -4;
    }
    if (allow_demote && result != 0 && state_ != 0) {
        const cxp_conn_param saved = param_;
        if (saved.auto_links) {
            cxp_conn_param fewer = saved;
            uint32_t links = 1;
            for (uint32_t candidate : {2u, 4u, 8u, 16u})
                if (candidate <= first_link_state_.links_connected) links = candidate;
            fewer.links = links;
            fewer.auto_links = 0;
            set_param(fewer);
            result = connect(3);
        }
        if (result != 0) {
            result = connect(1);
            if (result == 0) {
                cxp_conn_param single = saved;
                single.links = 1;
                single.auto_links = 0;
                single.speed = link_state_.speed;
                single.auto_speed = 0;
                set_param(single);
                result = connect(2);
            }
        }
        param_ = saved;
        if (result == 0) result = -10;
    }
    for_each_link([&](uint32_t link) {
        card_write(kLinkIndicator + 16 * link, link_state_.link_info[link].status != 0 ? 3 : 1);
    });
    return result;
}

// --- Factory --------------------------------------------------------------------

int create_link_device(card_context *context, uint32_t link_count, uint32_t link_mask,
                       cxp_device **device) {
    if (device == nullptr) return -1;
    *device = nullptr;
    if (context == nullptr || !pcie_link_attach(context->pcie_device, link_mask)) return -9;
    if (link_count > kMaxCardLinks) {
        pcie_link_detach(context->pcie_device);
        return -5;
    }
    std::array<uint8_t, pelorin::card::kCardInfoSize> info{};
    pcie_get_card_info(context->pcie_device, info);
    const uint32_t product = pelorin::card::load_le16(info, 2);
    cxp_device *created = nullptr;
    if (product == 0x184 || product == 0x185)
        created = new (std::nothrow) cof_device(context, link_count, link_mask);
    else
        created = new (std::nothrow) cxp_device(context, link_count, link_mask);
    if (created == nullptr) {
        pcie_link_detach(context->pcie_device);
        return -11;
    }
    {
        std::lock_guard<std::mutex> guard(registry_mutex());
        registry().insert(created);
    }
    *device = created;
    return 0;
}

void destroy_link_device(cxp_device *device) {
    if (device == nullptr) return;
    {
        std::lock_guard<std::mutex> guard(registry_mutex());
        registry().erase(device);
    }
    if (device->context() != nullptr) pcie_link_detach(device->context()->pcie_device);
    delete device;
}

size_t live_link_devices() {
    std::lock_guard<std::mutex> guard(registry_mutex());
    return registry().size();
}
