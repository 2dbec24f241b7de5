// The card's link front end: the per-link control blocks at 0x1000 + 0x100 x
// block (blocks 0..7 for the card's links, 8..15 for the fibre uplink of
// link block - 8), which carry control packets between the host and the
// cameras behind the links.
//
// Registers of block n (r = address - 0x1000 - 0x100 x n):
//   21 := 1 begins a transmit packet; 22 its type (2 command, 5 tagged
//   command); 23 the tag; 24 one transmit word (write_fifo: several);
//   25 := 1 sends it.
//   Copper cards: 16 words in the receive FIFO, 17 the next word (0 when
//   empty), 18 := 1 empties the FIFO, 52 complete acknowledgements in the
//   FIFO. Each acknowledgement is 0xFBFBFBFB, type (3, tagged 6), [tag],
//   code, and for codes 0 and 4 the size (byte-swapped), the payload words
//   and a check word (0 good, non-zero damaged); then 0xFDFDFDFD.
//   Fibre cards: 112 status of the oldest acknowledgement (bit 16 one is
//   waiting, bit 17 it failed its CRC, bits 0-15 its words), 113 := 0
//   reads it from its start, 115 its next word (0 past its end), 127 := 0
//   drops it, 127 := 1 drops all of this link's; 52 acknowledgements
//   waiting. A fibre acknowledgement is the same words without the start
//   marker.
//   32 link status: 1 when the link carries a camera connection that runs
//   at the link's rate (card register 0x0A00 + link; fibre: whatever the
//   rate, once the link is up), else 0.
//   33 link error counter: read-only for the host, set by the control side
//   (5000 for a broken link of a profile).
//   Every other register of a block holds what was written (0 before), and
//   so do 32 of the uplink blocks and 112 and 115 of a copper card.
//
// What the front end decides where the card interface leaves room:
// - A command sent on a link block reaches the camera connection on that
//   link when it runs at the link's rate (copper) or the link is up (fibre);
//   otherwise it is lost. Its acknowledgement goes into the same link's
//   receive side, and interrupt source 4 x link is raised for every
//   acknowledgement put there (each wait acknowledgement included).
// - Uplink blocks 8..15 exist on fibre cards only: a command there reaches
//   the connection on link block - 8 once the camera's uplink switch (0x4040
//   bit 0) is on, and is answered on that link.
// - Fibre links come up through the fibre link reset: writing a link mask
//   to 0x010C holds those links in reset, to 0x010D releases them, and a
//   released link is up while it carries a running connection of its
//   camera. Before the first reset, and after a ConnectionReset or
//   ConnectionConfig until the next one, the camera's links are down.
//   0x0AF2 reads the links that are up.
// - A wait acknowledgement goes out at once; each following one when the
//   wait before it runs out, then the final acknowledgement: a delivery
//   thread, started with the first delayed reply, puts them in place and
//   raises the interrupt. Emptying the receive side does not cancel them.
// - Garbage words of a fault go ahead of the packet; on a fibre card they
//   are part of the packet, which the host then finds malformed.
// - A receive side holds at most 65536 words (fibre: 4096 acknowledgements);
//   acknowledgements beyond that are dropped.
// - A transmit packet holds at most 1024 words; longer ones are sent as
//   malformed.
//
// Thread safety: every call may come from any thread. The front end's lock
// is taken before a camera's; neither is held while an interrupt is raised.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "emulator/register_window.h"

namespace pelorin::emu {

class cxp_camera;
class emulated_card;

// One command packet as the front end received it.
struct command_record {
    uint32_t block = 0;  // link block it was sent on (8..15: uplink)
    uint32_t type = 0;   // register 22
    uint8_t tag = 0;
    uint8_t op = 0;
    uint32_t address = 0;
    uint32_t size = 0;
    bool delivered = false;  // it reached a camera connection
};

class link_block final : public register_window {
public:
    static constexpr uint32_t kBase = 0x1000;
    static constexpr uint32_t kStride = 0x100;
    static constexpr uint32_t kBlocks = 16;
    static constexpr uint32_t kLinks = 8;
    static constexpr uint32_t kSize = kStride * kBlocks;

    // Registers of a block.
    static constexpr uint32_t kRxCount = 16;
    static constexpr uint32_t kRxWord = 17;
    static constexpr uint32_t kRxReset = 18;
    static constexpr uint32_t kTxBegin = 21;
    static constexpr uint32_t kTxType = 22;
    static constexpr uint32_t kTxTag = 23;
    static constexpr uint32_t kTxWord = 24;
    static constexpr uint32_t kTxSend = 25;
    static constexpr uint32_t kStatus = 32;
    static constexpr uint32_t kErrorCounter = 33;
    static constexpr uint32_t kAcksWaiting = 52;
    static constexpr uint32_t kFibreStatus = 112;
    static constexpr uint32_t kFibreStart = 113;
    static constexpr uint32_t kFibreWord = 115;
    static constexpr uint32_t kFibreDone = 127;

    // Card registers the front end answers or watches.
    static constexpr uint32_t kRateRegister = 0x0A00;  // + link
    static constexpr uint32_t kFibreLinksUp = 0x0AF2;
    static constexpr uint32_t kFibreResetHold = 0x010C;
    static constexpr uint32_t kFibreResetRelease = 0x010D;

    static constexpr uint32_t kStartMarker = 0xFBFBFBFB;
    static constexpr uint32_t kEndMarker = 0xFDFDFDFD;
    static constexpr uint32_t kBrokenLinkErrors = 5000;
    static constexpr size_t kCommandLogLimit = 65536;

    // `cameras`: the card's cameras; a link carries the connection of the
    // first camera that names it, links at or beyond `card_links` none.
    link_block(emulated_card &card, bool fibre, uint32_t card_links,
               std::vector<std::shared_ptr<cxp_camera>> cameras);
    ~link_block() override;

    link_block(const link_block &) = delete;
    link_block &operator=(const link_block &) = delete;

    // Stops the delivery thread; replies still due are dropped.
    void shutdown();

    // --- Host side (the card forwards its registers) ----------------------
    uint32_t read(uint32_t offset) override;
    void write(uint32_t offset, uint32_t value) override;
    // Card register 0x0AF2 and the fibre link reset (0x010C: hold = true,
    // 0x010D: hold = false).
    uint32_t fibre_links_up();
    void fibre_link_reset(bool hold, uint32_t mask);

    // --- Control side -----------------------------------------------------
    void set_error_counter(uint32_t link, uint32_t value);
    // Command packets sent on `block` since the card was built or the last
    // clear_counters.
    uint64_t commands_received(uint32_t block) const;
    // The commands received since the last take (at most kCommandLogLimit).
    std::vector<command_record> take_command_log();
    void clear_counters();
    // Replies scheduled and not yet delivered.
    size_t replies_due() const;

private:
    struct fibre_packet {
        std::vector<uint32_t> words;
        bool crc_error = false;
    };
    struct link_state {
        std::array<uint32_t, kStride> stored{};
        std::vector<uint32_t> tx;
        bool tx_overflow = false;
        std::deque<uint32_t> rx;           // copper receive FIFO
        std::deque<fibre_packet> packets;  // fibre receive side
        size_t packet_read = 0;            // next word of packets.front()
        uint32_t error_counter = 0;
        uint64_t commands = 0;
    };
    struct connection_ref {
        std::shared_ptr<cxp_camera> camera;
        uint32_t connection = 0;
    };
    struct due_reply {
        uint32_t link = 0;
        std::vector<uint32_t> words;
        bool crc_error = false;
    };
    using clock = std::chrono::steady_clock;

    // With mutex_ held. Sends the packet of `block`; the links whose
    // interrupt is to be raised are added to `raise`.
    void send(uint32_t block, std::vector<uint32_t> &raise);
    bool reaches(uint32_t link, bool uplink) const;
    bool fibre_up(uint32_t link) const;
    bool deliver(uint32_t link, std::vector<uint32_t> words, bool crc_error);
    void schedule(clock::time_point when, due_reply reply);
    void run_deliveries();
    void raise(const std::vector<uint32_t> &links);
    static std::array<uint64_t, kLinks> make_untrained() {
        std::array<uint64_t, kLinks> epochs;
        epochs.fill(~uint64_t{0});
        return epochs;
    }

    emulated_card &card_;
    const bool fibre_;
    std::array<std::optional<connection_ref>, kLinks> connections_;  // fixed after construction

    mutable std::mutex mutex_;
    std::array<link_state, kBlocks> blocks_;           // guarded
    // guarded: fibre; the camera's link epoch at the last release (never: ~0)
    std::array<uint64_t, kLinks> trained_epoch_ = make_untrained();
    uint32_t held_in_reset_ = 0;                       // guarded: fibre
    std::vector<command_record> log_;                  // guarded
    std::multimap<clock::time_point, due_reply> due_;  // guarded
    bool stopping_ = false;                            // guarded
    std::condition_variable wake_;
    std::thread deliveries_;  // started under mutex_, joined by shutdown
};

}  // namespace pelorin::emu
