#include "card/emulated_transport.h"

#include <string>

#include "diag/log.h"
#include "emulator/pcie_bus.h"

namespace pelorin::card {

emulated_transport::emulated_transport() : bus_(emu::pcie_bus::system_bus()) {}

emulated_transport::emulated_transport(emu::pcie_bus &bus) : bus_(bus) {}

int emulated_transport::enumerate(uint32_t &count) {
    // The cards follow the emulation profile named by the environment; a
    // profile that cannot be used leaves no card to list.
    std::string error;
    const int result = bus_.sync_with_environment(error);
    if (result < 0) {
        LOG_ANY(pelorin::diag::kError, "Emulation profile %s\n", error.c_str());
        count = 0;
        return result;
    }
    count = bus_.card_count();
    return 0;
}

int emulated_transport::open(uint32_t index, driver_handle &handle) {
    uint64_t opened = 0;
    const int result = bus_.open(index, opened);
    if (result == 0) handle = opened;
    return result;
}

int emulated_transport::send(driver_handle handle, uint32_t code, std::span<const uint8_t> in,
                             std::span<uint8_t> out, size_t &returned) {
    return bus_.message(handle, code, in, out, returned);
}

void emulated_transport::close(driver_handle handle) { bus_.close(handle); }

}  // namespace pelorin::card
