// The link device of the CoaXPress-over-Fiber cards. It speaks the same
// control protocol as cxp_device but reads acknowledgements through the fibre
// receive interface, brings the links up through the card's fibre registers
// instead of probing line rates, accepts acknowledgements on any link of its
// range while configuring, and can move commands to the uplink channel.
#pragma once

#include "link/cxp_device.h"

class cof_device final : public cxp_device {
public:
    cof_device(card_context *context, uint32_t link_count, uint32_t link_mask);

    // 0 once connected (state 3); the results of cxp_device::connect.
    int connect(uint32_t stage) override;
    int reconnect() override;
    // -4 without sending while a used link is down.
    int mem_access(uint32_t address, void *buffer, uint32_t size, bool swap, bool is_read) override;
    bool is_online() override { return fiber_link_up(); }
    bool links_up() override { return fiber_link_up(); }

    // Every used link reported up by the card.
    bool fiber_link_up();
    uint32_t fiber_up_mask() const { return fiber_up_mask_; }
    uint32_t fiber_rate_mode() const { return fiber_rate_mode_; }

protected:
    int parse_ack(cxp_ctrl_ack &ack) override;
    void flush_ack(cxp_ctrl_ack &ack) override;

private:
    void fiber_set_rate_mode(uint32_t value);
    void fiber_reset_links();
    void fiber_lane_reset();
    int fiber_discover();
    int fiber_configure();
    int fiber_uplink();
    // The steps every connection begins with.
    void fiber_prepare(bool clear_state);
    // Group registers and stream packet size after configuration.
    int finish_configuration(bool reset_packet_size);

    uint32_t fiber_up_mask_ = 0;
    uint32_t fiber_rate_mode_ = 0;
};
