#include "card/driver_transport.h"

#include <atomic>

#include "card/emulated_transport.h"

namespace pelorin::card {
namespace {

std::atomic<driver_transport *> g_installed{nullptr};

driver_transport &default_transport() {
    static emulated_transport transport;
    return transport;
}

}  // namespace

driver_transport &active_transport() {
    driver_transport *installed = g_installed.load(std::memory_order_acquire);
    return installed != nullptr ? *installed : default_transport();
}

driver_transport *install_transport(driver_transport *transport) {
    return g_installed.exchange(transport, std::memory_order_acq_rel);
}

}  // namespace pelorin::card
