// The transport record of one opened card handle and the driver messages
// sent through it. Every operation is synchronous and answers only success
// or failure; the few system errors that are reported at all are printed to
// standard output by pcie_open.
//
// Thread safety: the record holds no lock. Its owner (the card context)
// serialises register traffic; the DMA messages come from the data stream.
#pragma once

#include <array>
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
    // The acknowledge event of the control channel: an auto-reset event
    // registered for one interrupt source. Owned by the link device's
    // interrupt object (cxp_interrupt), which stores it here while open.
    os_event *ack_event = nullptr;

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

// Writes one 32-bit card register. A refused write is logged; the caller
// gets no result.
void pcie_write_reg(pcie_device &device, uint32_t address, uint32_t value);

// Reads one 32-bit card register. A read the driver refuses (or a record
// that is not open) yields 0, the value of an idle register, so that polling
// callers see "nothing there" rather than a pattern of set bits.
uint32_t pcie_read_reg(pcie_device &device, uint32_t address);

// Writes `words`, in order, to the one register `address` (a FIFO port).
bool pcie_write_fifo(pcie_device &device, uint32_t address, std::span<const uint32_t> words);

// Starts DMA of the record's channel over `addresses` (the buffer with index
// i is addresses[i]); every buffer holds `payload_size` bytes. The driver
// signals frame_event for every completed buffer. Callers pass 0 as
// `reserved`. Failure prints "PCIe DMA start failed, Error: %d\n" (or the
// allocation failure text) to standard output.
bool pcie_dma_start(pcie_device &device, std::span<const uint64_t> addresses,
                    uint32_t payload_size, uint32_t reserved);

// Stops DMA of the record's channel.
bool pcie_dma_stop(pcie_device &device);

// Hands buffer `index` (its position in the address list of the last
// pcie_dma_start) back to the engine.
bool pcie_queue_buffer(pcie_device &device, uint32_t index);

// The oldest completed buffer and the number of completed buffers pending,
// that one included; `index` means nothing when `pending` is 0.
bool pcie_get_frame(pcie_device &device, uint32_t &index, uint32_t &pending);

// Hands the stream engine's five parameter words to the driver.
bool pcie_set_stream_param(pcie_device &device, const std::array<uint32_t, 5> &words);

// Creates an auto-reset event in `event` and registers it for interrupt
// source `source` (0-31). False, with `event` not valid, when the record is
// not open, the source is out of range (the driver is not contacted), the
// event cannot be created or the driver refuses.
bool pcie_register_event(pcie_device &device, uint32_t source, os_event &event);

// Closes `event` (when valid) and unregisters `source`; the same
// preconditions as pcie_register_event.
bool pcie_unregister_event(pcie_device &device, uint32_t source, os_event &event);

// Binds the handle to link group `group_index` and the card links in
// `link_mask` (bit i = link i), before a link device is created on it.
bool pcie_link_attach(pcie_device &device, uint32_t link_mask);

// Releases what pcie_link_attach bound.
bool pcie_link_detach(pcie_device &device);
