// The driver transport: the one road from the producer to the card driver.
// Everything above it (pcie_device and up) speaks in its four operations;
// the backend behind it is the emulated card today and can be a kernel
// driver without anything above changing.
//
// Results are 0 or a negative errno value; the transport itself prints and
// logs nothing, its callers know the context and report.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace pelorin::card {

// An opened card. 0 and all bits set are never handed out: they mark a
// record that is not open.
using driver_handle = uint64_t;
inline constexpr driver_handle kClosedHandle = 0;
inline constexpr driver_handle kInvalidHandle = ~driver_handle{0};

constexpr bool handle_is_open(driver_handle handle) {
    return handle != kClosedHandle && handle != kInvalidHandle;
}

class driver_transport {
public:
    virtual ~driver_transport() = default;

    // Number of cards present, in the order in which they are numbered.
    // A negative errno when the driver's cards cannot be listed at all.
    virtual int enumerate(uint32_t &count) = 0;

    // Opens card `index` (0-based) and fills `handle`.
    virtual int open(uint32_t index, driver_handle &handle) = 0;

    // Sends one synchronous message: the control code, the input bytes and
    // an output buffer; `returned` is set to the output bytes written.
    virtual int send(driver_handle handle, uint32_t code, std::span<const uint8_t> in,
                     std::span<uint8_t> out, size_t &returned) = 0;

    // Closes a handle from open().
    virtual void close(driver_handle handle) = 0;
};

// The process-wide transport that pcie_open uses: an installed one, else the
// default backend (the emulated card bus).
driver_transport &active_transport();

// Installs `transport` for the process (nullptr restores the default) and
// returns what was installed before (nullptr for the default). The caller
// keeps `transport` alive while it is installed and while handles opened
// through it stay open.
driver_transport *install_transport(driver_transport *transport);

}  // namespace pelorin::card
