#include "card/pcie_device.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "card/byte_order.h"
#include "diag/log.h"

using pelorin::card::driver_handle;
using pelorin::card::driver_transport;
using pelorin::card::kInvalidHandle;

namespace {

// Sends one message on an open record. A record that is not open is a
// caller's mistake: it is logged and the driver is not contacted.
bool send_message(pcie_device &device, const char *operation, uint32_t code,
                  std::span<const uint8_t> in, std::span<uint8_t> out) {
    if (!device.is_open() || device.transport == nullptr) {
        LOG_ANY(pelorin::diag::kError, "%s: the card handle is not open\n", operation);
        return false;
    }
    size_t returned = 0;
    return device.transport->send(device.handle, code, in, out, returned) == 0;
}

// The failure texts of opening a card go to standard output, not to the log.
void print_failure(const char *format, int error) {
    std::printf(format, error);
    std::fflush(stdout);
}

}  // namespace

// Opening a card follows the steps of the driver's device-interface model:
//   1. list the present cards            -> driver_transport::enumerate
//   2. pick interface number `index`     -> index below the listed count
//   3. fetch the interface's device path -> none: the transport opens by index
//   4. open the device                   -> driver_transport::open
//   5. create the frame event
bool pcie_open(pcie_device &device, uint32_t index) {
    driver_transport &transport = pelorin::card::active_transport();
    device.handle = kInvalidHandle;
    device.transport = nullptr;

    uint32_t count = 0;
    int result = transport.enumerate(count);
    if (result < 0) {
        print_failure("SetupDiGetClassDevs failed, Error: %d\n", -result);
        return false;
    }
    if (index >= count) {
        if (index == 0) print_failure("SetupDiEnumDeviceInterfaces failed, Error: %d\n", ENODEV);
        return false;
    }

    driver_handle handle = kInvalidHandle;
    result = transport.open(index, handle);
    if (result < 0 || !pelorin::card::handle_is_open(handle)) {
        print_failure("CreateFile failed.  Error:%d\n", result < 0 ? -result : EBADF);
        return false;
    }

    result = device.frame_event.create(true, false);
    if (result < 0) {
        LOG_ANY(pelorin::diag::kError, "pcie_open: card %u: the frame event cannot be created: %s\n",
                index, std::strerror(-result));
        transport.close(handle);
        return false;
    }
    device.handle = handle;
    device.transport = &transport;
    return true;
}

void pcie_close(pcie_device &device) {
    if (device.is_open() && device.transport != nullptr) device.transport->close(device.handle);
    device.frame_event.close();
    device.handle = pelorin::card::kClosedHandle;
    device.transport = nullptr;
}

bool pcie_get_boot_info(pcie_device &device, std::span<uint8_t, pelorin::card::kBootRecordSize> out) {
    return send_message(device, "pcie_get_boot_info", pelorin::card::kCodeGetBootInfo, {}, out);
}

bool pcie_get_card_info(pcie_device &device, std::span<uint8_t, pelorin::card::kCardInfoSize> out) {
    std::memset(out.data(), 0, out.size());
    return send_message(device, "pcie_get_card_info", pelorin::card::kCodeGetCardInfo, {}, out);
}

bool pcie_read_flash(pcie_device &device, uint32_t offset, uint32_t length, std::span<uint8_t> out) {
    if (out.size() < length) {
        LOG_ANY(pelorin::diag::kError,
                "pcie_read_flash: buffer of %zu bytes cannot take %u bytes\n", out.size(), length);
        return false;
    }
    uint8_t request[pelorin::card::kReadFlashRequestSize];
    pelorin::card::store_le32(request, 0, offset);
    pelorin::card::store_le32(request, 4, length);
    return send_message(device, "pcie_read_flash", pelorin::card::kCodeReadFlash, request,
                        out.first(length));
}
