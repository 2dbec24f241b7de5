// One interrupt source of a card, registered with the driver and turned into
// an auto-reset event that the driver signals. The link device opens one on
// the acknowledge source of its master link.
#pragma once

#include <cstdint>

#include "gentl_base/os_event.h"

struct pcie_device;

class cxp_interrupt {
public:
    cxp_interrupt(pcie_device *device, uint32_t source);
    // Closes the interrupt when open.
    virtual ~cxp_interrupt();

    cxp_interrupt(const cxp_interrupt &) = delete;
    cxp_interrupt &operator=(const cxp_interrupt &) = delete;

    // Registers the source: 0; -1 when already open or refused.
    int open();
    // Unregisters the source and forgets the event: 0 (also when not open);
    // -1 when the driver refused.
    int close();
    // The event the driver signals; not valid while closed.
    os_event &event() { return event_; }
    uint32_t source() const { return source_; }
    bool is_open() const { return event_.valid(); }

private:
    pcie_device *device_;
    uint32_t source_;
    os_event event_;
};
