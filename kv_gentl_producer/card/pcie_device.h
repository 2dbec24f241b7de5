// The transport record of one opened card handle and the driver messages
// sent through it. Every operation is synchronous and answers only success
// or failure; the few system errors that are reported at all are printed to
// standard output by pcie_open.
//
// Thread safety: the record holds no lock. Its owner (the card context)
// serialises register traffic; the DMA messages come from the data stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "card/driver_codes.h"
#include "card/driver_transport.h"
#include "gentl_base/os_event.h"

struct pcie_device {
    // The opened card; kClosedHandle or kInvalidHandle when not open.
    pelorin::card::driver_handle handle = pelorin::card::kClosedHandle;
    // The transport `handle` belongs to; messages always go back to it.
    pelorin::card::driver_transport *transport = nullptr;
    // Link group and DMA channel this handle serves (both 0 unless a camera
    // connection sets them).
    uint32_t group_index = 0;
    uint32_t channel_index = 0;
    // Auto-reset, created non-signalled by pcie_open; signalled by the driver
    // whenever a buffer completes.
    os_event frame_event;
    // Auto-reset, registered for the control-channel acknowledge source.
    os_event ack_event;

    bool is_open() const { return pelorin::card::handle_is_open(handle); }
};

// Opens card `index` through the active transport and creates the frame
// event. On failure `handle` is kInvalidHandle and one of these lines may
// have been printed to standard output (the steps of opening a card):
//   "SetupDiGetClassDevs failed, Error: %d\n"      the cards cannot be listed
//   "SetupDiEnumDeviceInterfaces failed, Error: %d\n"
//                                         no card `index`; printed for card 0
//                                         only, probing past the last card is
//                                         silent (error ENODEV)
//   "CreateFile failed.  Error:%d\n"       the card is listed but won't open
// The error is the positive errno value of the failing step. Opening a card
// needs no separate device-path lookup, so that step has no failure here.
// The record must be closed before it is opened again.
bool pcie_open(pcie_device &device, uint32_t index);

// Closes the handle and the frame event where valid and marks both closed.
// Nothing to do for a record that was never opened.
void pcie_close(pcie_device &device);

// Copies the card's 32-byte boot record.
bool pcie_get_boot_info(pcie_device &device, std::span<uint8_t, pelorin::card::kBootRecordSize> out);

// Copies the card's 228-byte card information record; `out` is zeroed first.
bool pcie_get_card_info(pcie_device &device, std::span<uint8_t, pelorin::card::kCardInfoSize> out);

// Reads `length` bytes at byte `offset` of the card's description storage
// into the first `length` bytes of `out`.
bool pcie_read_flash(pcie_device &device, uint32_t offset, uint32_t length, std::span<uint8_t> out);
