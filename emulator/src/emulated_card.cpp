#include "emulator/emulated_card.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <string>
#include <utility>

#include "dma_channel.h"
#include "emulator/control_codes.h"
#include "le_bytes.h"
#include "process_memory.h"

namespace pelorin::emu {

namespace {
// Card information record layout (fields the card fills).
constexpr size_t kInfoProductId = 2;
constexpr size_t kInfoFirmwareVersion = 8;
constexpr size_t kInfoLinkCount = 12;
constexpr size_t kInfoIdentifier = 80;
constexpr size_t kInfoName = 208;
constexpr size_t kInfoAttribute = 224;

// Boot record layout.
constexpr size_t kBootGeneration = 0;
constexpr size_t kBootLinkCount = 8;
constexpr size_t kBootDeviceSlots = 12;
constexpr size_t kBootLinkRate = 16;
constexpr size_t kBootStage2 = 20;

// Description block layout.
constexpr size_t kDescMagic = 0;
constexpr size_t kDescStart = 4;
constexpr size_t kDescLength = 8;
constexpr size_t kDescVendor = 12;
constexpr size_t kDescModel = 76;
constexpr size_t kDescChecksum = 208;

// Message sizes.
constexpr size_t kFlashRequestSize = 8;          // offset, length
constexpr size_t kRegisterRequestSize = 8;       // address, value (read: 0)
constexpr size_t kRegisterReplySize = 4;         // value
constexpr size_t kFifoHeaderSize = 16;           // 1, 0, address, count, then the words
constexpr size_t kChannelRequestSize = 4;        // channel
constexpr size_t kStreamParamRequestSize = 24;   // channel, five words
constexpr size_t kDmaStartHeaderSize = 24;       // channel, payload, count, 0, event, then addresses
constexpr size_t kQueueRequestSize = 8;          // channel, index
constexpr size_t kBufferReplySize = 12;          // queue_buffer and get_frame answers
constexpr size_t kRegisterEventRequestSize = 16; // source, 0, event
constexpr size_t kSourceRequestSize = 4;         // source
constexpr size_t kLinkAttachRequestSize = 8;     // group, link mask

// Takes the card's own reference to the eventfd whose descriptor value a
// message carries: -EBADF when the value is no open eventfd.
int duplicate_event(uint64_t value, int &duplicate) {
    if (value > static_cast<uint64_t>(INT_MAX)) return -EBADF;
    const int fd = ::fcntl(static_cast<int>(value), F_DUPFD_CLOEXEC, 0);
    if (fd < 0) return -EBADF;
    char link[64];
    char target[64] = {};
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t length = ::readlink(link, target, sizeof target - 1);
    if (length <= 0 || std::string(target, static_cast<size_t>(length)) != "anon_inode:[eventfd]") {
        ::close(fd);
        return -EBADF;
    }
    duplicate = fd;
    return 0;
}

void put_words(std::span<uint8_t> out, uint32_t a, uint32_t b, uint32_t c) {
    put_le32(out, 0, a);
    put_le32(out, 4, b);
    put_le32(out, 8, c);
}
}  // namespace

const emulated_card::dispatch_entry emulated_card::kDispatch[] = {
    {kCodeGetBootInfo, &emulated_card::get_boot_info},
    {kCodeGetCardInfo, &emulated_card::get_card_info},
    {kCodeReadFlash, &emulated_card::read_flash},
    {kCodeDmaStart, &emulated_card::dma_start},
    {kCodeDmaStop, &emulated_card::dma_stop},
    {kCodeWriteReg, &emulated_card::write_reg},
    {kCodeReadReg, &emulated_card::read_reg},
    {kCodeQueueBuffer, &emulated_card::queue_buffer},
    {kCodeGetFrame, &emulated_card::get_frame},
    {kCodeSetStreamParam, &emulated_card::set_stream_param},
    {kCodeWriteFifo, &emulated_card::write_fifo},
    {kCodeRegisterEvent, &emulated_card::register_event},
    {kCodeUnregisterEvent, &emulated_card::unregister_event},
    {kCodeLinkAttach, &emulated_card::link_attach},
    {kCodeLinkDetach, &emulated_card::link_detach},
};

emulated_card::emulated_card(card_profile profile) : profile_(std::move(profile)) {
    build_records();
    build_flash();
    preset_sensors();
    fibre_ = profile_.product_id == 0x184 || profile_.product_id == 0x185;
    const std::vector<camera_profile> cameras =
        profile_.cameras ? *profile_.cameras
                         : camera_profile::standard_cameras(profile_.link_count, profile_.link_rate_code,
                                                            profile_.identifier);
    for (const camera_profile &camera : cameras) cameras_.push_back(std::make_shared<cxp_camera>(camera));
    front_end_ = std::make_shared<link_block>(*this, fibre_, profile_.link_count, cameras_);
    const uint32_t channels = std::clamp<uint32_t>(profile_.link_count, 1, kMaxDmaChannels);
    for (uint32_t channel = 0; channel < channels; ++channel)
        channels_.push_back(std::make_unique<dma_channel>(
            channel, [this, channel] { return trigger_period_ns(channel); }));
    for (const auto &engine : channels_) engine->set_completion_stamp(profile_.completion_stamp);
    // Channel c carries camera c; a register write to the camera makes the
    // engine look at its acquisition again.
    for (uint32_t channel = 0; channel < channels && channel < cameras_.size(); ++channel) {
        auto source = std::make_shared<camera_frame_source>(cameras_[channel]);
        source->set_unlimited(profile_.unlimited_frame_rate);
        channels_[channel]->set_camera_source(std::move(source));
        cameras_[channel]->set_write_listener([engine = channels_[channel].get()] { engine->poke(); });
    }
}

void emulated_card::preset_sensors() {
    // Four temperature sensors in units of 1.25 millidegrees: FPGA, board,
    // two link transceivers, a few degrees apart.
    constexpr uint32_t kTemperatures[kSensorCount] = {52500, 41250, 47500, 46250};
    // Four supply rails in millivolts: core, auxiliary, I/O and the 12 V
    // input (the camera power over the coax).
    constexpr uint32_t kSupplies[kSensorCount] = {1000, 1800, 3300, 12050};
    for (uint32_t i = 0; i < kSensorCount; ++i) {
        registers_.write(kTemperatureRegister + i, kTemperatures[i] * 4 / 5);
        registers_.write(kSupplyRegister + i, kSupplies[i]);
    }
}

emulated_card::~emulated_card() {
    // A camera may outlive the card; it stops waking the engines first.
    for (const auto &camera : cameras_) camera->set_write_listener(nullptr);
    front_end_->shutdown();  // its delivery thread raises interrupts
    channels_.clear();  // stops and joins the engines while the registers exist
    std::lock_guard lock(event_mutex_);
    for (event_slot &slot : events_)
        if (slot.fd >= 0) ::close(slot.fd);
}

const emulated_card::dispatch_entry *emulated_card::find_handler(uint32_t code) {
    for (const dispatch_entry &entry : kDispatch)
        if (entry.code == code) return &entry;
    return nullptr;
}

bool emulated_card::handles(uint32_t code) { return find_handler(code) != nullptr; }

int emulated_card::handle_message(uint64_t handle, uint32_t code, std::span<const uint8_t> in,
                                  std::span<uint8_t> out, size_t &returned) {
    returned = 0;
    const dispatch_entry *entry = find_handler(code);
    if (entry == nullptr) return -ENOTTY;
    return (this->*(entry->fn))(handle, in, out, returned);
}

void emulated_card::handle_closed(uint64_t handle) {
    {
        std::lock_guard lock(control_mutex_);
        for (size_t channel = 0; channel < channels_.size(); ++channel) {
            if (channel_owner_[channel] != handle) continue;
            channels_[channel]->stop();
            channel_owner_[channel] = 0;
        }
        links_.erase(handle);
    }
    std::lock_guard lock(event_mutex_);
    for (event_slot &slot : events_) {
        if (slot.fd < 0 || slot.owner != handle) continue;
        ::close(slot.fd);
        slot = event_slot{};
    }
}

// --- Records ------------------------------------------------------------

std::array<uint8_t, emulated_card::kBootRecordSize> emulated_card::boot_record() const {
    return boot_record_;
}

std::array<uint8_t, emulated_card::kCardInfoSize> emulated_card::card_info() const {
    return card_info_;
}

std::array<uint8_t, emulated_card::kDescriptionSize> emulated_card::description_block() const {
    std::array<uint8_t, kDescriptionSize> block{};
    std::copy_n(flash_.begin(), kDescriptionSize, block.begin());
    return block;
}

int emulated_card::get_boot_info(uint64_t, std::span<const uint8_t> in, std::span<uint8_t> out,
                                 size_t &returned) {
    if (!in.empty() || out.size() < boot_record_.size()) return -EINVAL;
    std::copy(boot_record_.begin(), boot_record_.end(), out.begin());
    returned = boot_record_.size();
    return 0;
}

int emulated_card::get_card_info(uint64_t, std::span<const uint8_t> in, std::span<uint8_t> out,
                                 size_t &returned) {
    if (!in.empty() || out.size() < card_info_.size()) return -EINVAL;
    std::copy(card_info_.begin(), card_info_.end(), out.begin());
    returned = card_info_.size();
    return 0;
}

int emulated_card::read_flash(uint64_t, std::span<const uint8_t> in, std::span<uint8_t> out,
                              size_t &returned) {
    if (in.size() != kFlashRequestSize) return -EINVAL;
    const uint64_t offset = get_le32(in, 0);
    const uint64_t length = get_le32(in, 4);
    if (offset + length > flash_.size() || out.size() < length) return -EINVAL;
    std::copy_n(flash_.begin() + static_cast<std::ptrdiff_t>(offset), length, out.begin());
    returned = static_cast<size_t>(length);
    return 0;
}

void emulated_card::build_records() {
    const std::span<uint8_t> info(card_info_);
    put_le16(info, kInfoProductId, profile_.product_id);
    put_le32(info, kInfoFirmwareVersion,
             (static_cast<uint32_t>(profile_.firmware_major) << 16) | profile_.firmware_minor);
    put_le32(info, kInfoLinkCount, profile_.link_count);
    put_text(info, kInfoIdentifier, kIdentifierCapacity, profile_.identifier);
    put_text(info, kInfoName, kNameCapacity, profile_.name);
    info[kInfoAttribute] = profile_.attribute;

    const std::span<uint8_t> boot(boot_record_);
    put_le32(boot, kBootGeneration, profile_.boot_generation);
    put_le32(boot, kBootLinkCount, profile_.link_count);
    put_le32(boot, kBootDeviceSlots, profile_.device_slots);
    put_le32(boot, kBootLinkRate, profile_.link_rate_code);
    put_le32(boot, kBootStage2, profile_.stage2_loaded ? 1 : 0);
}

void emulated_card::build_flash() {
    // Erased flash reads as all ones.
    flash_.assign(kFlashSize, 0xFF);
    if (profile_.description == description_storage::absent) return;

    std::array<uint8_t, kDescriptionSize> block{};
    const std::span<uint8_t> bytes(block);
    put_le32(bytes, kDescMagic, kDescriptionMagic);
    put_le32(bytes, kDescStart, 0);
    put_le32(bytes, kDescLength, kDescriptionSize);
    put_text(bytes, kDescVendor, kVendorCapacity, profile_.vendor);
    put_text(bytes, kDescModel, kModelCapacity, profile_.model);
    uint64_t checksum = 0;
    for (size_t offset = 0; offset < kDescChecksum; offset += 4) checksum += get_le32(bytes, offset);
    if (profile_.description == description_storage::damaged) checksum += 1;
    put_le64(bytes, kDescChecksum, checksum);
    std::copy(block.begin(), block.end(), flash_.begin());
}

// --- Registers ----------------------------------------------------------

dma_channel *emulated_card::frame_counter_at(uint32_t address) const {
    const uint64_t stream_end = kStreamBlock + uint64_t{kBlockStride} * channels_.size();
    if (address < kStreamBlock || address >= stream_end ||
        (address - kStreamBlock) % kBlockStride != kStreamFrameCounter)
        return nullptr;
    return channels_[(address - kStreamBlock) / kBlockStride].get();
}

bool emulated_card::link_front_end_at(uint32_t address) const {
    return address - link_block::kBase < link_block::kSize && !registers_.mapped(address);
}

uint32_t emulated_card::read_register(uint32_t address) {
    if (const dma_channel *engine = frame_counter_at(address))
        return engine->frame_counter() & kFrameCounterMask;
    if (link_front_end_at(address)) return front_end_->read(address - link_block::kBase);
    if (fibre_ && address == link_block::kFibreLinksUp && !registers_.mapped(address))
        return front_end_->fibre_links_up();
    return registers_.read(address);
}

void emulated_card::write_register(uint32_t address, uint32_t value) {
    if (dma_channel *engine = frame_counter_at(address)) {
        engine->preset_counter(value);
        return;
    }
    host_write(address, value);
}

void emulated_card::host_write(uint32_t address, uint32_t value) {
    if (frame_counter_at(address) != nullptr) return;  // read-only for the host
    if (link_front_end_at(address)) {
        front_end_->write(address - link_block::kBase, value);
        return;
    }
    registers_.write(address, value);
    if (fibre_ && (address == link_block::kFibreResetHold || address == link_block::kFibreResetRelease) &&
        !registers_.mapped(address))
        front_end_->fibre_link_reset(address == link_block::kFibreResetHold, value);
    // The host switches a channel's colour conversion in its stream block;
    // a channel without a camera has nothing to convert.
    if (address >= kStreamBlock && address < kGroupBlock &&
        (address - kStreamBlock) % kBlockStride == kStreamColourConversion)
        set_demosaic((address - kStreamBlock) / kBlockStride, value == 1);
    // The stream and group blocks decide the trigger generator's pacing.
    if (address >= kStreamBlock && address < kGroupBlock + kLinkGroups * kBlockStride)
        for (const auto &channel : channels_) channel->poke();
}

int emulated_card::map_registers(uint32_t base, uint32_t size,
                                 std::shared_ptr<register_window> window) {
    return registers_.map(base, size, std::move(window));
}

int emulated_card::unmap_registers(uint32_t base) { return registers_.unmap(base); }

uint64_t emulated_card::trigger_period_ns(uint32_t channel) const {
    const uint32_t group = registers_.read(kStreamBlock + kBlockStride * channel + kStreamGroup);
    if (group >= kLinkGroups) return 0;
    const uint32_t block = kGroupBlock + kBlockStride * group;
    if (registers_.read(block + kGroupTriggerMode) != 1 ||
        registers_.read(block + kGroupTriggerRun) != 1)
        return 0;
    return uint64_t{registers_.read(block + kGroupTriggerPeriod)} * 1000;
}

int emulated_card::write_reg(uint64_t, std::span<const uint8_t> in, std::span<uint8_t>, size_t &) {
    if (in.size() != kRegisterRequestSize) return -EINVAL;
    host_write(get_le32(in, 0), get_le32(in, 4));
    return 0;
}

int emulated_card::read_reg(uint64_t, std::span<const uint8_t> in, std::span<uint8_t> out,
                            size_t &returned) {
    if (in.size() != kRegisterRequestSize || get_le32(in, 4) != 0 || out.size() < kRegisterReplySize)
        return -EINVAL;
    put_le32(out, 0, read_register(get_le32(in, 0)));
    returned = kRegisterReplySize;
    return 0;
}

int emulated_card::write_fifo(uint64_t, std::span<const uint8_t> in, std::span<uint8_t>, size_t &) {
    if (in.size() < kFifoHeaderSize || get_le32(in, 0) != 1 || get_le32(in, 4) != 0) return -EINVAL;
    const uint32_t address = get_le32(in, 8);
    const uint64_t count = get_le32(in, 12);
    if (in.size() != kFifoHeaderSize + 4 * count) return -EINVAL;
    for (size_t i = 0; i < count; ++i) host_write(address, get_le32(in, kFifoHeaderSize + 4 * i));
    return 0;
}

// --- Cameras --------------------------------------------------------------

std::shared_ptr<cxp_camera> emulated_card::camera(uint32_t index) const {
    return index < cameras_.size() ? cameras_[index] : nullptr;
}

std::shared_ptr<cxp_camera> emulated_card::camera_on_link(uint32_t link) const {
    for (const auto &camera : cameras_)
        if (camera->connection_on_link(link)) return camera;
    return nullptr;
}

// --- Interrupts ---------------------------------------------------------

bool emulated_card::raise_interrupt(uint32_t source) {
    if (source >= kInterruptSources) return false;
    std::lock_guard lock(event_mutex_);
    const int fd = events_[source].fd;
    if (fd < 0) return false;
    const uint64_t one = 1;
    return ::write(fd, &one, sizeof one) == static_cast<ssize_t>(sizeof one);
}

bool emulated_card::event_registered(uint32_t source) const {
    if (source >= kInterruptSources) return false;
    std::lock_guard lock(event_mutex_);
    return events_[source].fd >= 0;
}

int emulated_card::register_event(uint64_t handle, std::span<const uint8_t> in, std::span<uint8_t>,
                                  size_t &) {
    if (in.size() != kRegisterEventRequestSize) return -EINVAL;
    const uint32_t source = get_le32(in, 0);
    if (source >= kInterruptSources || get_le32(in, 4) != 0) return -EINVAL;
    int fd = -1;
    const int result = duplicate_event(get_le64(in, 8), fd);
    if (result < 0) return result;
    std::lock_guard lock(event_mutex_);
    if (events_[source].fd >= 0) {
        ::close(fd);
        return -EBUSY;
    }
    events_[source] = event_slot{fd, handle};
    return 0;
}

int emulated_card::unregister_event(uint64_t handle, std::span<const uint8_t> in, std::span<uint8_t>,
                                    size_t &) {
    if (in.size() != kSourceRequestSize) return -EINVAL;
    const uint32_t source = get_le32(in, 0);
    if (source >= kInterruptSources) return -EINVAL;
    std::lock_guard lock(event_mutex_);
    event_slot &slot = events_[source];
    if (slot.fd < 0) return -EINVAL;
    if (slot.owner != handle) return -EBUSY;
    ::close(slot.fd);
    slot = event_slot{};
    return 0;
}

// --- Links --------------------------------------------------------------

uint32_t emulated_card::attached_links(uint64_t handle) const {
    const std::optional<link_binding> binding = link_attachment(handle);
    return binding ? binding->links : 0;
}

std::optional<link_binding> emulated_card::link_attachment(uint64_t handle) const {
    std::lock_guard lock(control_mutex_);
    const auto found = links_.find(handle);
    if (found == links_.end()) return std::nullopt;
    return found->second;
}

int emulated_card::link_attach(uint64_t handle, std::span<const uint8_t> in, std::span<uint8_t>,
                               size_t &) {
    if (in.size() != kLinkAttachRequestSize) return -EINVAL;
    const uint32_t group = get_le32(in, 0);
    const uint32_t mask = get_le32(in, 4);
    const uint32_t card_links =
        profile_.link_count >= 32 ? ~uint32_t{0} : (uint32_t{1} << profile_.link_count) - 1;
    if (group >= kLinkGroups || mask == 0 || (mask & ~card_links) != 0) return -EINVAL;
    std::lock_guard lock(control_mutex_);
    for (const auto &[other, binding] : links_)
        if (other != handle && ((binding.links & mask) != 0 || binding.group == group)) return -EBUSY;
    links_[handle] = link_binding{group, mask};
    return 0;
}

int emulated_card::link_detach(uint64_t handle, std::span<const uint8_t> in, std::span<uint8_t>,
                               size_t &) {
    if (!in.empty()) return -EINVAL;
    std::lock_guard lock(control_mutex_);
    links_.erase(handle);
    return 0;
}

// --- DMA ----------------------------------------------------------------

dma_channel *emulated_card::channel_at(uint32_t channel) const {
    return channel < channels_.size() ? channels_[channel].get() : nullptr;
}

bool emulated_card::dma_running(uint32_t channel) const {
    const dma_channel *engine = channel_at(channel);
    return engine != nullptr && engine->running();
}

stream_geometry emulated_card::stream_parameters(uint32_t channel) const {
    const dma_channel *engine = channel_at(channel);
    return engine != nullptr ? engine->geometry() : stream_geometry{};
}

int emulated_card::set_frame_source(uint32_t channel, std::shared_ptr<frame_source> source) {
    dma_channel *engine = channel_at(channel);
    if (engine == nullptr) return -EINVAL;
    engine->set_source(std::move(source));
    return 0;
}

std::shared_ptr<camera_frame_source> emulated_card::camera_source(uint32_t channel) const {
    const dma_channel *engine = channel_at(channel);
    return engine != nullptr ? engine->camera_source() : nullptr;
}

int emulated_card::set_demosaic(uint32_t channel, bool demosaic) {
    const std::shared_ptr<camera_frame_source> source = camera_source(channel);
    if (!source) return -EINVAL;
    source->set_demosaic(demosaic);
    return 0;
}

void emulated_card::set_unlimited_frame_rate(bool unlimited) {
    for (const auto &engine : channels_) {
        const std::shared_ptr<camera_frame_source> source = engine->camera_source();
        if (source) source->set_unlimited(unlimited);
    }
    for (const auto &engine : channels_) engine->poke();
}

int emulated_card::set_manual_trigger(uint32_t channel, bool manual) {
    dma_channel *engine = channel_at(channel);
    if (engine == nullptr) return -EINVAL;
    engine->set_manual_trigger(manual);
    return 0;
}

int emulated_card::trigger_frames(uint32_t channel, uint64_t count) {
    dma_channel *engine = channel_at(channel);
    return engine == nullptr ? -EINVAL : engine->trigger(count);
}

int emulated_card::stall_completions(uint32_t channel, bool stall) {
    dma_channel *engine = channel_at(channel);
    if (engine == nullptr) return -EINVAL;
    engine->stall(stall);
    return 0;
}

int emulated_card::drop_completions(uint32_t channel, uint64_t count) {
    dma_channel *engine = channel_at(channel);
    if (engine == nullptr) return -EINVAL;
    engine->drop(count);
    return 0;
}

int emulated_card::misreport_completions(uint32_t channel, uint64_t count) {
    dma_channel *engine = channel_at(channel);
    if (engine == nullptr) return -EINVAL;
    engine->misreport(count);
    return 0;
}

dma_statistics emulated_card::dma_stats(uint32_t channel) const {
    const dma_channel *engine = channel_at(channel);
    return engine != nullptr ? engine->stats() : dma_statistics{};
}

bool emulated_card::wait_frames(uint32_t channel, uint64_t frames, std::chrono::milliseconds timeout) {
    dma_channel *engine = channel_at(channel);
    return engine != nullptr && engine->wait_frames(frames, timeout);
}

int emulated_card::set_stream_param(uint64_t, std::span<const uint8_t> in, std::span<uint8_t>,
                                    size_t &) {
    if (in.size() != kStreamParamRequestSize) return -EINVAL;
    dma_channel *engine = channel_at(get_le32(in, 0));
    if (engine == nullptr) return -EINVAL;
    engine->set_geometry(stream_geometry{get_le32(in, 4), get_le32(in, 8), get_le32(in, 12),
                                         get_le32(in, 16), get_le32(in, 20)});
    return 0;
}

int emulated_card::dma_start(uint64_t handle, std::span<const uint8_t> in, std::span<uint8_t>,
                             size_t &) {
    if (in.size() < kDmaStartHeaderSize) return -EINVAL;
    const uint32_t channel = get_le32(in, 0);
    const uint32_t payload = get_le32(in, 4);
    const uint64_t count = get_le32(in, 8);
    if (in.size() != kDmaStartHeaderSize + 8 * count) return -EINVAL;
    dma_channel *engine = channel_at(channel);
    if (engine == nullptr || payload == 0 || get_le32(in, 12) != 0) return -EINVAL;

    std::vector<uint8_t *> buffers;
    buffers.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        const uint64_t address = get_le64(in, kDmaStartHeaderSize + 8 * i);
        if (address == 0) return -EFAULT;
        buffers.push_back(reinterpret_cast<uint8_t *>(static_cast<uintptr_t>(address)));
    }
    // The engine writes straight into the buffers: each must be writable
    // memory of this process over the whole payload.
    if (!buffers.empty() && !process_memory::writable(buffers, payload)) return -EFAULT;

    std::lock_guard lock(control_mutex_);
    if (engine->running()) return -EBUSY;
    int fd = -1;
    const int result = duplicate_event(get_le64(in, 16), fd);
    if (result < 0) return result;
    const int started = engine->start(payload, std::move(buffers), fd);
    if (started == 0) channel_owner_[channel] = handle;
    return started;
}

int emulated_card::dma_stop(uint64_t, std::span<const uint8_t> in, std::span<uint8_t>, size_t &) {
    if (in.size() != kChannelRequestSize) return -EINVAL;
    const uint32_t channel = get_le32(in, 0);
    dma_channel *engine = channel_at(channel);
    if (engine == nullptr) return -EINVAL;
    std::lock_guard lock(control_mutex_);
    engine->stop();
    channel_owner_[channel] = 0;
    return 0;
}

int emulated_card::queue_buffer(uint64_t, std::span<const uint8_t> in, std::span<uint8_t> out,
                                size_t &returned) {
    if (in.size() != kQueueRequestSize || out.size() < kBufferReplySize) return -EINVAL;
    dma_channel *engine = channel_at(get_le32(in, 0));
    if (engine == nullptr) return -EINVAL;
    const uint32_t index = get_le32(in, 4);
    uint32_t waiting = 0;
    const int result = engine->queue(index, waiting);
    if (result < 0) return result;
    put_words(out, index, 0, waiting);
    returned = kBufferReplySize;
    return 0;
}

int emulated_card::get_frame(uint64_t, std::span<const uint8_t> in, std::span<uint8_t> out,
                             size_t &returned) {
    if (in.size() != kChannelRequestSize || out.size() < kBufferReplySize) return -EINVAL;
    dma_channel *engine = channel_at(get_le32(in, 0));
    if (engine == nullptr) return -EINVAL;
    uint32_t index = 0;
    uint32_t frame_number = 0;
    uint32_t pending = 0;
    const int result = engine->get_frame(index, frame_number, pending);
    if (result < 0) return result;
    put_words(out, index, frame_number, pending);
    returned = kBufferReplySize;
    return 0;
}

}  // namespace pelorin::emu
