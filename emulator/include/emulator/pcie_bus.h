// A virtual PCIe bus of emulated cards: the substitute for the card driver.
//
// The driver side (card_count, open, close, message) is what a transport
// adapter calls; it behaves like the kernel driver: cards are numbered in
// bus order, each open gives a new handle, and every message is answered by
// the card behind the handle, chosen by its control code. Closing a handle
// releases what the card holds for it (its DMA, events and links).
//
// The control side (set_cards, reset, refuse_code, ...) lets tests shape the
// bus: which cards are present and how they look, which messages the driver
// refuses, and a record of the messages sent. Handles opened before a
// set_cards keep talking to the cards they were opened on.
//
// Every call is thread-safe. Results are 0 or a negative errno value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "emulator/card_profile.h"
#include "emulator/emulated_card.h"

namespace pelorin::emu {

// One message as the driver saw it.
struct captured_message {
    uint64_t handle = 0;
    uint32_t code = 0;
    std::vector<uint8_t> input;
    size_t output_size = 0;       // output bytes offered
    int result = 0;
    std::vector<uint8_t> output;  // output bytes returned
};

class pcie_bus {
public:
    // Environment variable naming the emulation profile of the process-wide bus.
    static constexpr const char *kEmulationVariable = "PELORIN_CXP_EMULATION";
    // Messages kept by a capture; later ones are not recorded.
    static constexpr size_t kCaptureLimit = 65536;

    // A bus holding the built-in default card.
    pcie_bus();

    pcie_bus(const pcie_bus &) = delete;
    pcie_bus &operator=(const pcie_bus &) = delete;

    // The process-wide bus behind the producer's default transport.
    static pcie_bus &system_bus();

    // The built-in default: one Halden Q12 card with four links.
    static std::vector<card_profile> default_cards();

    // --- Control side -----------------------------------------------------
    // Replaces the cards present on the bus (an empty list: no card).
    void set_cards(const std::vector<card_profile> &cards);
    std::vector<card_profile> cards() const;
    // The card at bus position `index`, null when there is none.
    std::shared_ptr<emulated_card> card(uint32_t index) const;
    // The built-in default cards, no refusals, no pending open failure, no
    // capture.
    void reset();
    // Makes the driver refuse (-EIO) every message with `code`, or accept it
    // again.
    void refuse_code(uint32_t code, bool refuse = true);
    // Refuses (-EIO) only the next `count` messages with `code` (added to
    // what is still pending for it).
    void refuse_next(uint32_t code, uint32_t count = 1);
    void clear_refusals();
    // The next open fails with `error` (a non-negative value: -EIO).
    void fail_next_open(int error = -EIO);
    // Starts (clearing what was kept) or stops recording messages.
    void capture_messages(bool on);
    // The messages recorded since the capture started or the last take.
    std::vector<captured_message> take_captured();
    // Number of handles currently open.
    size_t open_handle_count() const;

    // Follows PELORIN_CXP_EMULATION: when its value changed since the last
    // successful sync, or the last sync failed, the cards are rebuilt: unset
    // or empty gives the built-in default cards, a path the cards of that
    // profile file. 0, or -EINVAL with `error` naming the file and the
    // problem; a failed sync leaves no card on the bus. Nothing happens while
    // the variable stays as it was at the last successful sync (initially:
    // unset), so cards set with set_cards stay.
    int sync_with_environment(std::string &error);

    // --- Driver side ------------------------------------------------------
    uint32_t card_count() const;
    // Opens card `index`: 0 and a new handle (never 0 nor all bits set), or
    // -ENODEV when there is no such card.
    int open(uint32_t index, uint64_t &handle);
    // -EBADF for a handle that is not open.
    int close(uint64_t handle);
    // One message: 0 with `returned` output bytes written; -EBADF unknown
    // handle, -EIO refused by the control side, -ENOTTY unknown control
    // code, or the card's answer (see emulated_card).
    int message(uint64_t handle, uint32_t code, std::span<const uint8_t> in,
                std::span<uint8_t> out, size_t &returned);

private:
    // What the driver keeps per open handle.
    struct open_handle {
        std::shared_ptr<emulated_card> card;
    };

    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<emulated_card>> cards_;
    std::map<uint64_t, open_handle> handles_;
    std::set<uint32_t> refused_codes_;
    std::map<uint32_t, uint64_t> refuse_next_;  // code -> messages still to refuse
    std::optional<int> open_failure_;
    bool capturing_ = false;
    std::vector<captured_message> captured_;
    uint64_t next_handle_ = 1;

    // Environment sync state, guarded by sync_mutex_ (taken before mutex_).
    std::mutex sync_mutex_;
    std::optional<std::string> synced_value_;  // value of the last successful sync
    bool sync_failed_ = false;
};

}  // namespace pelorin::emu
