#include "link/cof_device.h"

#include "card/card_context.h"
#include "card/cxp_interrupt.h"
#include "link/link_registers.h"

using namespace pelorin::link_registers;

namespace {

constexpr uint32_t kFiberAckWaiting = 1u << 16;
constexpr uint32_t kFiberCrcError = 1u << 17;

constexpr uint32_t kRateMode = 0x0A40;
constexpr uint32_t kLaneA = 0x0A60;
constexpr uint32_t kLaneB = 0x0A61;
constexpr uint32_t kLinkLanes = 0x0A80;  // + link
constexpr uint32_t kLinkRateMode = 0x0A90;
constexpr uint32_t kLinksUp = 0x0AF2;
constexpr uint32_t kFiberReset1 = 0x010C;
constexpr uint32_t kFiberReset2 = 0x010D;
constexpr uint32_t kLaneReset1 = 0x010A;
constexpr uint32_t kLaneReset2 = 0x010B;

constexpr uint32_t kUplinkSupported = 0x403C;
constexpr uint32_t kUplinkControl = 0x4040;
constexpr uint32_t kUplinkBlockOffset = 8;

}  // namespace

cof_device::cof_device(card_context *context, uint32_t link_count, uint32_t link_mask)
    : cxp_device(context, link_count, link_mask) {
    request_.fifo_mode = kFiberFifoMode;
    ack_.fifo_mode = kFiberFifoMode;
}

bool cof_device::fiber_link_up() {
    if (context_ == nullptr || state_ == 0 || !link_state_.master_found) return false;
    const uint32_t up = card_read(kLinksUp);
    return (up & link_state_.used_link_mask) == link_state_.used_link_mask;
}

int cof_device::mem_access(uint32_t address, void *buffer, uint32_t size, bool swap,
                           bool is_read) {
    if (!fiber_link_up()) return -4;
    return cxp_device::mem_access(address, buffer, size, swap, is_read);
}

int cof_device::parse_ack(cxp_ctrl_ack &ack) {
    const uint32_t status = link_read(ack.link, kFiberStatus);
    if (!(status & kFiberAckWaiting)) return 0;
    ack.size = 0;
    ack.check = 0;
    link_write(ack.link, kFiberStart, 0);
    uint32_t words = status & 0xFFFF;
    uint32_t phase = 1;  // no start marker: the first word is the type
    uint32_t index = 0;
    bool packet_ended = false;
    bool malformed = false;
    bool end_word = false;
    while (words > 0) {
        const uint32_t w = link_read(ack.link, kFiberWord);
        --words;
        if (packet_ended) {
            end_word = w == kEndOfPacket;
            break;
        }
        packet_ended = take_ack_word(ack, phase, index, w, malformed);
    }
    link_write(ack.link, kFiberDone, 0);
    if (!packet_ended || malformed || !end_word) return 0;
    // The card checks the packet: the check word is its CRC verdict.
    if (ack.ack_code == 0 || ack.ack_code == 4) ack.check = (status & kFiberCrcError) ? 1 : 0;
    swap_ack_payload(ack);
    return 1;
}

void cof_device::flush_ack(cxp_ctrl_ack &ack) {
    link_write(ack.poll_range ? ack.first_link : ack.link, kFiberDone, 1);
}

void cof_device::fiber_set_rate_mode(uint32_t value) {
    const uint32_t mode = value + 0x80000000u;
    card_write(kRateMode, mode);
    for_each_link([&](uint32_t link) { card_write(kLinkRateMode + link, mode); });
}

void cof_device::fiber_reset_links() {
    card_write(kFiberReset1, link_mask_);
    sleep_ms(1);
    card_write(kFiberReset2, link_mask_);
    sleep_ms(param_.rate_delay_ms);
    fiber_up_mask_ = card_read(kLinksUp) & link_mask_;
}

void cof_device::fiber_lane_reset() {
    card_write(kLaneReset1, link_mask_);
    sleep_ms(1);
    card_write(kLaneReset2, link_mask_);
    sleep_ms(10);
}

void cof_device::fiber_prepare(bool clear_state) {
    // Every link carries the whole mask in its lane register, then the
    // preparation of every link device.
    for_each_link([&](uint32_t link) { card_write(kLinkLanes + link, link_mask_); });
    prepare(clear_state);
}

int cof_device::fiber_discover() {
    link_state_.reset();
    revision_ = versions_supported_ = version_used_ = 0;
    for_each_link([&](uint32_t link) { link_write(link, kLinkHighRate, 0); });
    fiber_set_rate_mode(0);
    sleep_ms(10);
    for_each_link([&](uint32_t link) { send_connection_reset(link); });
    sleep_ms(300);
    for (uint32_t pass = 0; pass < kDiscoveryPasses && !link_state_.master_found; ++pass) {
        fiber_reset_links();
        fiber_lane_reset();
        for (uint32_t link = 0; link < kMaxCardLinks; ++link) {
            if (!(link_mask_ & (1u << link))) continue;
            select_link(link);
            flush_ack(ack_);
            const uint32_t status = (fiber_up_mask_ & (1u << link)) ? link_read(link, kLinkStatus) : 0;
            if (probe_selected_link(link, status) != 0) return -3;
            if (link_state_.master_found) break;
        }
    }
    if (!link_state_.master_found) return -2;
    return negotiate();
}

int cof_device::fiber_configure() {
    uint32_t links = 0;
    uint32_t rate = 0;
    if (requested_configuration(links, rate) != 0) return -3;
    write_reg(kRegConnectionConfig, (links << 16) + rate);
    set_high_rate_flag(rate);
    fiber_rate_mode_ = rate >= kCxp10 ? 2 : 0;
    fiber_set_rate_mode(fiber_rate_mode_);
    sleep_ms(300);
    fiber_reset_links();
    fiber_lane_reset();
    link_state_.reset_keeping_packet_sizes();
    ack_.poll_range = 1;
    ack_.first_link = first_mask_link_;
    ack_.last_link = last_mask_link_;
    for (uint32_t link = 0; link < kMaxCardLinks && link_state_.links_connected < links; ++link) {
        if (!(link_mask_ & (1u << link))) continue;
        select_link(link);
        flush_ack(ack_);
        // The link whose receive side answered gets the credit.
        const int result = check_connection(kCreditAnsweringLink, links);
        if (result != 0) {
            ack_.poll_range = 0;
            return result;
        }
    }
    ack_.poll_range = 0;
    return finish_check(links, rate);
}

int cof_device::fiber_uplink() {
    if (!param_.fiber_option_a) return 0;
    link_state_.uplink_state = 2;
    uint32_t supported = 0;
    if (read_reg(kUplinkSupported, supported) != 0) return -3;
    if (!(supported & 1)) return 0;
    link_state_.uplink_state = 3;
    if (write_reg(kUplinkControl, 1) != 0) return -3;
    fiber_set_rate_mode(fiber_rate_mode_ | 1);
    sleep_ms(20);
    request_.link = static_cast<uint8_t>(link_state_.master_link + kUplinkBlockOffset);
    uint32_t active = 0;
    if (read_reg(kUplinkControl, active) == 0 && (active & 1)) {
        link_state_.uplink_state = 1;
    } else {
        request_.link = static_cast<uint8_t>(link_state_.master_link);
        fiber_set_rate_mode(fiber_rate_mode_);
    }
    return 0;
}

int cof_device::finish_configuration(bool reset_packet_size) {
    const uint32_t group = context_->pcie_device.group_index;
    if (reset_packet_size && write_reg(kRegStreamPacketSizeMax, 0) != 0) return -3;
    card_write(kGroupLinks + group, link_state_.used_link_mask);
    card_write(kGroupConfigured + group, 1);
    if (!reset_packet_size) {
        card_write(kStreamId1, 0xFF);
        card_write(kStreamId2, 0xFF);
        read_stream_ids();
    }
    if (write_reg(kRegStreamPacketSizeMax, param_.stream_packet_size) != 0) return -3;
    return 0;
}

int cof_device::connect(uint32_t stage) {
    if (context_ == nullptr) return -1;
    card_write(param_.fiber_option_b ? kLaneA : kLaneB, link_mask_);
    sleep_ms(200);
    fiber_prepare(true);
    if (stage == 1 || stage == 3) {
        const int result = fiber_discover();
        if (result != 0) return result;
    }
    if (stage == 2 || stage == 3) {
        int result = fiber_configure();
        if (result != 0) return result;
        result = finish_configuration(false);
        if (result != 0) return result;
        state_ = 2;
    }
    const int uplink = fiber_uplink();
    if (uplink != 0) return uplink;
    if (open_interrupt() != 0) return -11;
    card_write(kGroupRunning, 1);
    state_ = 3;
    return 0;
}

int cof_device::reconnect() {
    if (context_ == nullptr) return -1;
    fiber_prepare(false);
    int result = fiber_configure();
    if (result != 0) return result;
    result = finish_configuration(true);
    if (result != 0) return result;
    result = fiber_uplink();
    if (result != 0) return result;
    if (open_interrupt() != 0) return -11;
    card_write(kGroupRunning, 1);
    return 0;
}
