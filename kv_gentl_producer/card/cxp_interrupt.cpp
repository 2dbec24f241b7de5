#include "card/cxp_interrupt.h"

#include "card/pcie_device.h"
#include "diag/log.h"

cxp_interrupt::cxp_interrupt(pcie_device *device, uint32_t source)
    : device_(device), source_(source) {}

cxp_interrupt::~cxp_interrupt() { close(); }

int cxp_interrupt::open() {
    if (event_.valid()) return -1;
    if (device_ == nullptr || !pcie_register_event(*device_, source_, event_)) {
        LOG_ANY(pelorin::diag::kError, "cxp_interrupt: interrupt source %u cannot be registered\n",
                source_);
        return -1;
    }
    return 0;
}

int cxp_interrupt::close() {
    if (!event_.valid()) return 0;
    // The driver forgets the source with the event: whatever it answers, the
    // event is gone afterwards.
    if (device_ == nullptr) {
        event_.close();
        return -1;
    }
    const bool unregistered = pcie_unregister_event(*device_, source_, event_);
    event_.close();  // still open only when the handle was already gone
    return unregistered ? 0 : -1;
}
