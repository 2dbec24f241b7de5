// The driver transport over the emulator's virtual PCIe bus: the default
// backend while no card driver is present. enumerate() first brings the bus
// in line with the emulation profile named by PELORIN_CXP_EMULATION (see
// emu::pcie_bus::sync_with_environment) and logs why a profile is refused.
#pragma once

#include "card/driver_transport.h"

namespace pelorin::emu {
class pcie_bus;
}

namespace pelorin::card {

class emulated_transport final : public driver_transport {
public:
    // Talks to the process-wide emulated bus.
    emulated_transport();
    explicit emulated_transport(emu::pcie_bus &bus);

    int enumerate(uint32_t &count) override;
    int open(uint32_t index, driver_handle &handle) override;
    int send(driver_handle handle, uint32_t code, std::span<const uint8_t> in,
             std::span<uint8_t> out, size_t &returned) override;
    void close(driver_handle handle) override;

private:
    emu::pcie_bus &bus_;
};

}  // namespace pelorin::card
