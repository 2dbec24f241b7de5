#include "card/pcie_device.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "card/byte_order.h"
#include "diag/log.h"

using namespace pelorin::card;
using pelorin::diag::kDebug;
using pelorin::diag::kError;

namespace {

// Sends one message on an open record. A record that is not open is a
// caller's mistake: it is logged and the driver is not contacted.
// A reply shorter than `required` bytes (the part of the output the caller
// interprets), or longer than the output buffer, is a failure: a driver that
// answers so is not trusted with the rest either.
// `error`, when given, receives the positive errno of a failure.
bool send_message(pcie_device &device, const char *operation, uint32_t code,
                  std::span<const uint8_t> in, std::span<uint8_t> out, size_t required = 0,
                  int *error = nullptr) {
    int failure = 0;
    if (!device.is_open() || device.transport == nullptr) {
        LOG_ANY(kError, "%s: the card handle is not open\n", operation);
        failure = EBADF;
    } else {
        size_t returned = 0;
        const int result = device.transport->send(device.handle, code, in, out, returned);
        if (result != 0) {
            failure = -result;
        } else if (returned > out.size() || returned < required) {
            LOG_ANY(kError, "%s: the driver answered %zu bytes, %zu expected\n", operation,
                    returned, required != 0 ? required : out.size());
            failure = EPROTO;
        }
    }
    if (error != nullptr) *error = failure;
    return failure == 0;
}

// Variable-length messages are built on the heap; false when that fails.
bool allocate_message(std::vector<uint8_t> &message, size_t size) {
    try {
        message.assign(size, 0);
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

// The preconditions of the event messages, checked before the driver is
// contacted: an open handle and a source the driver knows.
bool event_source_usable(const pcie_device &device, uint32_t source, const char *operation) {
    if (device.is_open() && source < kInterruptSourceCount) return true;
    LOG_ANY(kError, "%s: %s (source %u)\n", operation,
            device.is_open() ? "interrupt source out of range" : "the card handle is not open",
            source);
    return false;
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
    return send_message(device, "pcie_get_boot_info", kCodeGetBootInfo, {}, out, out.size());
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
    return send_message(device, "pcie_read_flash", kCodeReadFlash, request, out.first(length),
                        length);
}

void pcie_write_reg(pcie_device &device, uint32_t address, uint32_t value) {
    uint8_t request[kRegisterRequestSize];
    store_le32(request, 0, address);
    store_le32(request, 4, value);
    if (!send_message(device, "pcie_write_reg", kCodeWriteReg, request, {}))
        LOG_ANY(kDebug, "pcie_write_reg(0x%X, 0x%X) refused\n", address, value);
}

uint32_t pcie_read_reg(pcie_device &device, uint32_t address) {
    uint8_t request[kRegisterRequestSize];
    store_le32(request, 0, address);
    store_le32(request, 4, 0);
    uint8_t reply[kRegisterReplySize] = {};
    if (!send_message(device, "pcie_read_reg", kCodeReadReg, request, reply, sizeof reply)) {
        LOG_ANY(kDebug, "pcie_read_reg(0x%X) refused\n", address);
        return 0;
    }
    return load_le32(reply, 0);
}

bool pcie_write_fifo(pcie_device &device, uint32_t address, std::span<const uint32_t> words) {
    std::vector<uint8_t> request;
    if (!allocate_message(request, kFifoHeaderSize + 4 * words.size())) return false;
    store_le32(request, 0, 1);
    store_le32(request, 4, 0);
    store_le32(request, 8, address);
    store_le32(request, 12, static_cast<uint32_t>(words.size()));
    for (size_t i = 0; i < words.size(); ++i) store_le32(request, kFifoHeaderSize + 4 * i, words[i]);
    return send_message(device, "pcie_write_fifo", kCodeWriteFifo, request, {});
}

bool pcie_dma_start(pcie_device &device, std::span<const uint64_t> addresses,
                    uint32_t payload_size, uint32_t reserved) {
    std::vector<uint8_t> request;
    if (!allocate_message(request, kDmaStartHeaderSize + 8 * addresses.size())) {
        std::printf("PCIe DMA start IRP buffer malloc failed!\n");
        std::fflush(stdout);
        return false;
    }
    store_le32(request, 0, device.channel_index);
    store_le32(request, 4, payload_size);
    store_le32(request, 8, static_cast<uint32_t>(addresses.size()));
    store_le32(request, 12, reserved);
    store_le64(request, 16, static_cast<uint64_t>(device.frame_event.handle_value()));
    for (size_t i = 0; i < addresses.size(); ++i)
        store_le64(request, kDmaStartHeaderSize + 8 * i, addresses[i]);
    int error = 0;
    if (!send_message(device, "pcie_dma_start", kCodeDmaStart, request, {}, 0, &error)) {
        print_failure("PCIe DMA start failed, Error: %d\n", error);
        return false;
    }
    return true;
}

bool pcie_dma_stop(pcie_device &device) {
    uint8_t request[kChannelRequestSize];
    store_le32(request, 0, device.channel_index);
    return send_message(device, "pcie_dma_stop", kCodeDmaStop, request, {});
}

bool pcie_queue_buffer(pcie_device &device, uint32_t index) {
    uint8_t request[kQueueBufferRequestSize];
    store_le32(request, 0, device.channel_index);
    store_le32(request, 4, index);
    uint8_t reply[kQueueBufferReplySize] = {};
    return send_message(device, "pcie_queue_buffer", kCodeQueueBuffer, request, reply);
}

bool pcie_get_frame(pcie_device &device, uint32_t &index, uint32_t &pending) {
    uint8_t request[kChannelRequestSize];
    store_le32(request, 0, device.channel_index);
    uint8_t reply[kGetFrameReplySize] = {};
    if (!send_message(device, "pcie_get_frame", kCodeGetFrame, request, reply, sizeof reply))
        return false;
    index = load_le32(reply, 0);
    pending = load_le32(reply, 8);
    return true;
}

bool pcie_set_stream_param(pcie_device &device, const std::array<uint32_t, 5> &words) {
    uint8_t request[kStreamParamRequestSize];
    store_le32(request, 0, device.channel_index);
    for (size_t i = 0; i < words.size(); ++i) store_le32(request, 4 + 4 * i, words[i]);
    return send_message(device, "pcie_set_stream_param", kCodeSetStreamParam, request, {});
}

bool pcie_register_event(pcie_device &device, uint32_t source, os_event &event) {
    event.close();
    if (!event_source_usable(device, source, "pcie_register_event")) return false;
    const int created = event.create(true, false);
    if (created < 0) {
        LOG_ANY(kError, "pcie_register_event: the event cannot be created: %s\n",
                std::strerror(-created));
        return false;
    }
    uint8_t request[kRegisterEventRequestSize];
    store_le32(request, 0, source);
    store_le32(request, 4, 0);
    store_le64(request, 8, static_cast<uint64_t>(event.handle_value()));
    if (!send_message(device, "pcie_register_event", kCodeRegisterEvent, request, {})) {
        event.close();
        return false;
    }
    return true;
}

bool pcie_unregister_event(pcie_device &device, uint32_t source, os_event &event) {
    if (!event_source_usable(device, source, "pcie_unregister_event")) return false;
    event.close();
    uint8_t request[kSourceRequestSize];
    store_le32(request, 0, source);
    return send_message(device, "pcie_unregister_event", kCodeUnregisterEvent, request, {});
}

bool pcie_link_attach(pcie_device &device, uint32_t link_mask) {
    uint8_t request[kLinkAttachRequestSize];
    store_le32(request, 0, device.group_index);
    store_le32(request, 4, link_mask);
    return send_message(device, "pcie_link_attach", kCodeLinkAttach, request, {});
}

bool pcie_link_detach(pcie_device &device) {
    return send_message(device, "pcie_link_detach", kCodeLinkDetach, {}, {});
}
