// One emulated frame-grabber card: its records and description storage, its
// register space, its interrupt sources, link binding, one DMA engine per
// channel, and the CoaXPress cameras behind its links with the link front
// end that carries their control packets. It answers the driver messages
// that the bus routes to it, chosen by control code, and offers a control
// side through which tests and the camera models shape it (register
// windows, frame sources, triggers, stalled and dropped completions,
// cameras and their faults).
//
// What the emulated driver decides where the message format leaves it open:
// - read_reg answers 4 bytes; registers hold what was written, 0 before.
//   Register 0x20 of the stream block of channel c (0x2020 + 0x100 x c) is
//   the engine's frame counter: frames its source produced since the last
//   DMA start, low 24 bits. The host cannot write it (write_reg and FIFO
//   writes leave it alone); the control side's write_register presets it.
// - Every DMA message names a channel in its first word; channels are
//   0 .. dma_channel_count() - 1, one per link, 1 to 8.
// - dma_start takes its own duplicate of the frame event (closed again at
//   stop) and accepts a buffer count of 0 (an idle engine). A running
//   channel is refused with -EBUSY; a reserved word other than 0, payload 0
//   or a buffer the process cannot write (null: -EFAULT; unmapped or
//   read-only memory: -EFAULT) is refused. Buffers are not queued by the
//   start; queue_buffer hands each to the engine.
// - queue_buffer answers { index, 0, buffers now waiting in the queue }.
// - get_frame answers { index, frame number (low 32 bits), pending }, where
//   pending counts the completions waiting including the one returned;
//   with none pending { 0xFFFFFFFF, 0, 0 }. On a stopped channel it is
//   refused (-EINVAL), like queue_buffer.
// - dma_stop of a stopped channel succeeds; any handle may stop, queue and
//   fetch on any channel. Closing a handle stops the channels it started.
// - register_event takes its own duplicate of the event; a source that is
//   registered already is refused (-EBUSY), as is a descriptor that is not
//   an eventfd (-EBADF). unregister_event of a source that is not
//   registered is refused with -EINVAL; one registered through another
//   handle with -EBUSY.
// - link_attach binds the handle to one link group (0..7) and a non-empty
//   set of the card's links. Refused (-EINVAL): a zero mask, a link at or
//   beyond the card's link count, a group of 8 or more; refused (-EBUSY):
//   a link or the group bound by another handle. Attaching again through
//   the same handle replaces its binding. link_detach releases it; without
//   a binding it succeeds.
// - The per-link control blocks (0x1000-0x1FFF) are the card's link front
//   end (link_block.h), behind which sit the card's cameras (cxp_camera.h):
//   built from the profile's camera list, or the standard cameras for the
//   card's links when the profile gives none. On a fibre card (product
//   0x184 or 0x185) the front end also answers register 0x0AF2 (links up)
//   and watches 0x010C / 0x010D (fibre link reset), which keep what was
//   written as well. The control side's read_register and write_register
//   reach these registers as the host does. A window mapped with
//   map_registers over any of these addresses takes precedence over the
//   front end.
//
// Results of the message side are 0 or a negative errno value: -EINVAL
// malformed or out of range, -EBUSY in use, -EFAULT bad buffer address,
// -EBADF bad event descriptor.
//
// Thread safety: every public call may come from any thread. Locks: the
// control lock (channel owners, link bindings), the event lock (interrupt
// sources), the register file's own lock, one lock per DMA channel, the link
// front end's lock and one per camera. Order: control, then a channel, then
// the register file; the link front end, then a camera, then the register
// file. An engine fills frames with none of them held; interrupts are raised
// with none of the link front end's or cameras' locks held.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "emulator/camera_frame_source.h"
#include "emulator/card_profile.h"
#include "emulator/cxp_camera.h"
#include "emulator/frame_source.h"
#include "emulator/link_block.h"
#include "emulator/register_file.h"
#include "emulator/register_window.h"

namespace pelorin::emu {

class dma_channel;

// Counters of one DMA channel since its last start.
struct dma_statistics {
    uint64_t frames_produced = 0;      // frames that fell due (the frame counter)
    uint64_t frames_completed = 0;     // buffers reported to the host
    uint64_t frames_lost = 0;          // frames that fell due while no buffer was queued
    uint64_t completions_dropped = 0;  // buffers filled and never reported
    uint64_t bytes_written = 0;
    uint64_t fill_ns = 0;              // time spent in the frame source's fill
};

// What a handle is bound to by link_attach.
struct link_binding {
    uint32_t group = 0;
    uint32_t links = 0;  // bit i = link i
};

class emulated_card {
public:
    static constexpr size_t kBootRecordSize = 32;
    static constexpr size_t kCardInfoSize = 228;
    static constexpr size_t kDescriptionSize = 216;
    static constexpr uint32_t kDescriptionMagic = 0xFF000165;
    static constexpr size_t kFlashSize = 0x100000;
    static constexpr size_t kIdentifierCapacity = 128;  // bytes 80..207 of the card info
    static constexpr size_t kNameCapacity = 16;         // bytes 208..223 of the card info
    static constexpr size_t kVendorCapacity = 64;       // bytes 12..75 of the block
    static constexpr size_t kModelCapacity = 132;       // bytes 76..207 of the block

    static constexpr uint32_t kMaxDmaChannels = 8;
    static constexpr uint32_t kLinkGroups = 8;
    static constexpr uint32_t kInterruptSources = 32;
    // Sensor registers: temperatures (low 16 bits in 1.25 m°C) and supply
    // voltages (low 16 bits in mV), four of each.
    static constexpr uint32_t kTemperatureRegister = 0x330;
    static constexpr uint32_t kSupplyRegister = 0x340;
    static constexpr uint32_t kSensorCount = 4;
    static constexpr uint32_t kNoBuffer = 0xFFFFFFFF;

    // Register blocks.
    static constexpr uint32_t kStreamBlock = 0x2000;  // + 0x100 x channel
    static constexpr uint32_t kGroupBlock = 0x2800;   // + 0x100 x group
    static constexpr uint32_t kBlockStride = 0x100;
    static constexpr uint32_t kStreamGroup = 0x08;         // stream block: group of the channel
    static constexpr uint32_t kStreamColourConversion = 0x18;  // stream block: 1 = BayerRG8 to BGR8
    static constexpr uint32_t kStreamFrameCounter = 0x20;  // stream block: frame counter (read-only)
    static constexpr uint32_t kGroupTriggerMode = 0x00;    // group block: 1 = trigger generator
    static constexpr uint32_t kGroupTriggerPeriod = 0x03;  // group block: period in microseconds
    static constexpr uint32_t kGroupTriggerRun = 0x05;     // group block: 1 = generator running
    static constexpr uint32_t kFrameCounterMask = 0xFFFFFF;

    explicit emulated_card(card_profile profile);
    ~emulated_card();

    emulated_card(const emulated_card &) = delete;
    emulated_card &operator=(const emulated_card &) = delete;

    const card_profile &profile() const { return profile_; }

    // True when the card knows the control code (whether or not a given
    // message with it is well formed).
    static bool handles(uint32_t code);

    // --- Message side (called by the bus) -------------------------------
    // Answers one message sent through bus handle `handle`. `returned` is set
    // to the output bytes written. 0 or a negative errno (see above);
    // -ENOTTY for a code the card does not know.
    int handle_message(uint64_t handle, uint32_t code, std::span<const uint8_t> in,
                       std::span<uint8_t> out, size_t &returned);
    // The bus closed `handle`: stop the DMA it started, unregister its
    // events, release its links.
    void handle_closed(uint64_t handle);

    // --- Records ----------------------------------------------------------
    std::array<uint8_t, kBootRecordSize> boot_record() const;
    std::array<uint8_t, kCardInfoSize> card_info() const;
    // The first bytes of the description storage (the description block).
    std::array<uint8_t, kDescriptionSize> description_block() const;

    // --- Registers --------------------------------------------------------
    // What read_reg / write_reg do, without a handle; except that a write
    // to a frame counter presets it (the next frame gets that number).
    uint32_t read_register(uint32_t address);
    void write_register(uint32_t address, uint32_t value);
    // Answers [base, base + size) through `window` (see register_file::map).
    int map_registers(uint32_t base, uint32_t size, std::shared_ptr<register_window> window);
    int unmap_registers(uint32_t base);

    // --- Cameras and links ------------------------------------------------
    // True for the fibre products 0x184 and 0x185.
    bool fibre() const { return fibre_; }
    uint32_t camera_count() const { return static_cast<uint32_t>(cameras_.size()); }
    // Camera `index` in the order of the profile, or the one whose
    // connection is on card link `link`; null when there is none.
    std::shared_ptr<cxp_camera> camera(uint32_t index) const;
    std::shared_ptr<cxp_camera> camera_on_link(uint32_t link) const;
    // The link front end: error counters, command counts and log.
    link_block &links() const { return *front_end_; }

    // --- Interrupts -------------------------------------------------------
    // Signals the event registered for `source`; false when none is.
    bool raise_interrupt(uint32_t source);
    bool event_registered(uint32_t source) const;

    // --- Links ------------------------------------------------------------
    // Links bound to `handle` (0: none) and the whole binding.
    uint32_t attached_links(uint64_t handle) const;
    std::optional<link_binding> link_attachment(uint64_t handle) const;

    // --- DMA --------------------------------------------------------------
    uint32_t dma_channel_count() const { return static_cast<uint32_t>(channels_.size()); }
    bool dma_running(uint32_t channel) const;
    // The geometry of the last set_stream_param of `channel`.
    stream_geometry stream_parameters(uint32_t channel) const;
    // Control calls: 0, or -EINVAL for a channel out of range (and, for
    // trigger_frames, a channel that is not running).
    // Installs the channel's frame source; null restores the card's own:
    // the frames of the channel's camera while it is connected, else a
    // pattern_source (camera_frame_source.h tells which camera feeds which
    // channel).
    int set_frame_source(uint32_t channel, std::shared_ptr<frame_source> source);
    // The camera frames of `channel` (null: no camera feeds it).
    std::shared_ptr<camera_frame_source> camera_source(uint32_t channel) const;
    // The card's Bayer processing on `channel`: BayerRG8 frames of its
    // camera leave the card as BGR8. -EINVAL for a bad channel or one
    // without a camera.
    int set_demosaic(uint32_t channel, bool demosaic);
    // Camera frames as fast as buffers are queued, whatever exposure, frame
    // rate and links allow (benchmarks); every camera of the card. The
    // profile's unlimited_frame_rate sets it at construction.
    void set_unlimited_frame_rate(bool unlimited);
    // Manual trigger: frames only on trigger_frames, whatever the source's
    // interval; a triggered frame with no buffer queued is lost.
    int set_manual_trigger(uint32_t channel, bool manual);
    int trigger_frames(uint32_t channel, uint64_t count);
    // Stalled: frames are written but their completions are held back, with
    // no event, until the stall ends; then they are released in order.
    int stall_completions(uint32_t channel, bool stall);
    // The next `count` filled buffers are never reported (added up).
    int drop_completions(uint32_t channel, uint64_t count);
    // The next `count` completions report a buffer index beyond the
    // buffers of the start (the filled buffer itself is not reported).
    int misreport_completions(uint32_t channel, uint64_t count);
    // Counters since the channel's last start (zero for a bad channel).
    dma_statistics dma_stats(uint32_t channel) const;
    // Waits until the engine has finished `frames` frames since its start
    // (reported, held, dropped or lost). False at the time-out or when the
    // channel is not running.
    bool wait_frames(uint32_t channel, uint64_t frames, std::chrono::milliseconds timeout);

private:
    using handler = int (emulated_card::*)(uint64_t, std::span<const uint8_t>, std::span<uint8_t>,
                                           size_t &);
    struct dispatch_entry {
        uint32_t code;
        handler fn;
    };
    static const dispatch_entry *find_handler(uint32_t code);

    int get_boot_info(uint64_t, std::span<const uint8_t> in, std::span<uint8_t> out, size_t &returned);
    int get_card_info(uint64_t, std::span<const uint8_t> in, std::span<uint8_t> out, size_t &returned);
    int read_flash(uint64_t, std::span<const uint8_t> in, std::span<uint8_t> out, size_t &returned);
    int write_reg(uint64_t, std::span<const uint8_t> in, std::span<uint8_t> out, size_t &returned);
    int read_reg(uint64_t, std::span<const uint8_t> in, std::span<uint8_t> out, size_t &returned);
    int write_fifo(uint64_t, std::span<const uint8_t> in, std::span<uint8_t> out, size_t &returned);
    int set_stream_param(uint64_t, std::span<const uint8_t> in, std::span<uint8_t> out,
                         size_t &returned);
    int dma_start(uint64_t handle, std::span<const uint8_t> in, std::span<uint8_t> out,
                  size_t &returned);
    int dma_stop(uint64_t, std::span<const uint8_t> in, std::span<uint8_t> out, size_t &returned);
    int queue_buffer(uint64_t, std::span<const uint8_t> in, std::span<uint8_t> out, size_t &returned);
    int get_frame(uint64_t, std::span<const uint8_t> in, std::span<uint8_t> out, size_t &returned);
    int register_event(uint64_t handle, std::span<const uint8_t> in, std::span<uint8_t> out,
                       size_t &returned);
    int unregister_event(uint64_t handle, std::span<const uint8_t> in, std::span<uint8_t> out,
                         size_t &returned);
    int link_attach(uint64_t handle, std::span<const uint8_t> in, std::span<uint8_t> out,
                    size_t &returned);
    int link_detach(uint64_t handle, std::span<const uint8_t> in, std::span<uint8_t> out,
                    size_t &returned);

    // A register write from the host (write_reg, write_fifo).
    void host_write(uint32_t address, uint32_t value);
    // True when `address` is a link block register the front end answers.
    bool link_front_end_at(uint32_t address) const;
    // The channel whose frame counter `address` is, or null.
    dma_channel *frame_counter_at(uint32_t address) const;

    void build_records();
    void build_flash();
    void preset_sensors();
    dma_channel *channel_at(uint32_t channel) const;
    // Interval of the trigger generator that paces `channel`, 0 when off.
    uint64_t trigger_period_ns(uint32_t channel) const;

    static const dispatch_entry kDispatch[];

    const card_profile profile_;
    std::array<uint8_t, kBootRecordSize> boot_record_{};
    std::array<uint8_t, kCardInfoSize> card_info_{};
    std::vector<uint8_t> flash_;

    mutable register_file registers_;

    mutable std::mutex control_mutex_;
    std::array<uint64_t, kMaxDmaChannels> channel_owner_{};  // handle that started; guarded
    std::map<uint64_t, link_binding> links_;                 // by handle; guarded

    struct event_slot {
        int fd = -1;  // the card's duplicate
        uint64_t owner = 0;
    };
    mutable std::mutex event_mutex_;
    std::array<event_slot, kInterruptSources> events_{};  // guarded by event_mutex_

    std::vector<std::unique_ptr<dma_channel>> channels_;  // fixed after construction

    bool fibre_ = false;
    std::vector<std::shared_ptr<cxp_camera>> cameras_;  // fixed after construction
    std::shared_ptr<link_block> front_end_;               // fixed after construction
};

}  // namespace pelorin::emu
