#include "emulator/cxp_camera.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <utility>

#include "camera_description.h"
#include "stored_zip.h"

namespace pelorin::emu {

// The colour model's built-in description, compiled in by
// emulator/CMakeLists.txt.
std::string_view builtin_colour_camera_description();

namespace {

constexpr uint8_t kReadable = 1;
constexpr uint8_t kWritable = 2;
constexpr uint8_t kRO = kReadable;
constexpr uint8_t kWO = kWritable;
constexpr uint8_t kRW = kReadable | kWritable;

// 4-byte registers whose value the camera computes or checks.
struct register_entry {
    uint32_t address;
    uint8_t mode;
};
constexpr register_entry kRegisters[] = {
    {cxp_camera::kStandard, kRO},
    {cxp_camera::kRevision, kRO},
    {cxp_camera::kXmlManifestSize, kRO},
    {cxp_camera::kXmlManifestSelector, kRW},
    {cxp_camera::kXmlVersion, kRO},
    {cxp_camera::kXmlSchemaVersion, kRO},
    {cxp_camera::kXmlUrlAddress, kRO},
    {cxp_camera::kIidc2Address, kRO},
    {0x3000, kRO},
    {0x3004, kRO},
    {0x3008, kRO},
    {0x300C, kRO},
    {0x3010, kRO},
    {0x3014, kRO},
    {0x3018, kRO},
    {0x301C, kRO},
    {0x3020, kRO},
    {cxp_camera::kConnectionReset, kRW},
    {cxp_camera::kDeviceConnectionId, kRO},
    {cxp_camera::kMasterHostConnectionId, kRW},
    {cxp_camera::kControlPacketSizeMax, kRO},
    {cxp_camera::kStreamPacketSizeMax, kRW},
    {cxp_camera::kConnectionConfig, kRW},
    {cxp_camera::kConnectionConfigDefault, kRO},
    {cxp_camera::kUplinkOffered, kRO},
    {cxp_camera::kUplinkSwitch, kRW},
    {cxp_camera::kVersionsSupported, kRO},
    {cxp_camera::kVersionUsed, kRW},
    {cxp_camera::kWidth, kRW},
    {cxp_camera::kHeight, kRW},
    {cxp_camera::kPixelFormat, kRW},
    {cxp_camera::kAcquisitionMode, kRW},
    {cxp_camera::kTapGeometry, kRO},
    {cxp_camera::kImage1StreamId, kRO},
    {cxp_camera::kImage2StreamId, kRO},
    {cxp_camera::kWidthMax, kRO},
    {cxp_camera::kHeightMax, kRO},
    {cxp_camera::kSensorWidth, kRO},
    {cxp_camera::kSensorHeight, kRO},
    {cxp_camera::kOffsetX, kRW},
    {cxp_camera::kOffsetY, kRW},
    {cxp_camera::kTestPattern, kRW},
    {cxp_camera::kAcquisitionFrameRate, kRW},
    {cxp_camera::kExposureTime, kRW},
    {cxp_camera::kTriggerSelector, kRW},
    {cxp_camera::kTriggerMode, kRW},
    {cxp_camera::kTriggerMode + 4, kRW},
    {cxp_camera::kTriggerSource, kRW},
    {cxp_camera::kTriggerSource + 4, kRW},
    {cxp_camera::kDeviceScanType, kRO},
    {cxp_camera::kAcquisitionStart, kWO},
    {cxp_camera::kAcquisitionStop, kWO},
    {cxp_camera::kTriggerSoftware, kWO},
};

// Where each bootstrap address register points.
constexpr uint32_t kAddressTargets[] = {
    cxp_camera::kWidth,           cxp_camera::kHeight,
    cxp_camera::kAcquisitionMode, cxp_camera::kAcquisitionStart,
    cxp_camera::kAcquisitionStop, cxp_camera::kPixelFormat,
    cxp_camera::kTapGeometry,     cxp_camera::kImage1StreamId,
    cxp_camera::kImage2StreamId,
};

// Identity strings: 0x2000..0x20CF, a gap at 0x2090..0x20AF.
constexpr uint32_t kIdentityBase = cxp_camera::kDeviceVendorName;
constexpr uint32_t kIdentitySize = 0xD0;
constexpr uint32_t kTestRegisters = 0x401C;
constexpr uint32_t kTestRegistersSize = 0x1C;
constexpr uint32_t kFeatureWords = (cxp_camera::kDeviceScanType + 4 - cxp_camera::kWidth) / 4;
constexpr uint32_t kTriggerSelectors = 2;  // FrameStart, AcquisitionStart
constexpr uint32_t kTriggerSources = 3;    // Software, Line0, Line1
constexpr float kExposureMin = 10.0f;      // microseconds
constexpr float kExposureMax = 1000000.0f;
constexpr float kFrameRateMin = 1.0f;      // Hz
constexpr uint32_t kHorizontalStep = 16;   // Width and OffsetX
constexpr uint32_t kSchemaVersion = 0x00010100;

uint32_t load_be32(const uint8_t *p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

void store_be32(uint8_t *p, uint32_t value) {
    p[0] = static_cast<uint8_t>(value >> 24);
    p[1] = static_cast<uint8_t>(value >> 16);
    p[2] = static_cast<uint8_t>(value >> 8);
    p[3] = static_cast<uint8_t>(value);
}

void put_field(std::vector<uint8_t> &bytes, uint32_t offset, uint32_t capacity, const std::string &text) {
    const size_t length = std::min<size_t>(text.size(), capacity - 1);
    std::memcpy(bytes.data() + offset, text.data(), length);
}

bool contains(const std::vector<uint32_t> &list, uint32_t value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

// The value of attribute `name` ("MajorVersion" and so on) of the
// description's RegisterDescription element; 0 when absent.
uint32_t version_attribute(std::string_view xml, std::string_view name) {
    const size_t root = xml.find("<RegisterDescription");
    if (root == std::string_view::npos) return 0;
    const size_t end = xml.find('>', root);
    const std::string_view element = xml.substr(root, end == std::string_view::npos ? end : end - root);
    size_t at = 0;
    while ((at = element.find(name, at)) != std::string_view::npos) {
        const bool word_start = at > 0 && (element[at - 1] == ' ' || element[at - 1] == '\n' ||
                                           element[at - 1] == '\t' || element[at - 1] == '\r');
        at += name.size();
        if (!word_start || element.substr(at, 2) != "=\"") continue;
        uint32_t value = 0;
        for (size_t i = at + 2; i < element.size() && element[i] >= '0' && element[i] <= '9'; ++i)
            value = std::min<uint32_t>(value * 10 + static_cast<uint32_t>(element[i] - '0'), 255);
        return value;
    }
    return 0;
}

// The version a VersionUsed value names, as its bit in VersionsSupported.
std::optional<uint32_t> version_bit(uint32_t version) {
    switch (version) {
        case 0x00010000: return 1u << 0;
        case 0x00010001: return 1u << 1;
        case 0x00020000: return 1u << 2;
        case 0x00020001: return 1u << 3;
        default: return std::nullopt;
    }
}

bool is_feature(uint32_t address) {
    return address >= cxp_camera::kWidth && address < cxp_camera::kWidth + 4 * kFeatureWords;
}

}  // namespace

// A camera model: what its description file gives.
struct cxp_camera::model {
    std::string_view description_name;
    std::string_view (*description)();
    uint32_t sensor_width;
    uint32_t sensor_height;
    uint32_t vertical_step;  // Height and OffsetY
    std::array<uint32_t, 5> pixel_formats;  // PFNC codes; 0: none; the first is the power-up one
    uint32_t test_patterns;
    float frame_rate_max;
};

namespace {

// PFNC codes (bits 16..23: bits per pixel).
constexpr uint32_t kMono10 = 0x01100003;
constexpr uint32_t kMono12 = 0x01100005;
constexpr uint32_t kMono16 = 0x01100007;
constexpr uint32_t kMono10p = 0x010A0046;
constexpr uint32_t kBayerRG10 = 0x0110000D;
constexpr uint32_t kBayerRG12 = 0x01100011;
constexpr uint32_t kRGB8 = 0x02180014;

const cxp_camera::model &monochrome_model() {
    static const cxp_camera::model m{"Orvane_Lyra25M", builtin_camera_description, 5120, 5120, 1,
                                     {cxp_camera::kMono8, kMono10, kMono12, kMono16, kMono10p}, 5, 200.0f};
    return m;
}

const cxp_camera::model &colour_model() {
    static const cxp_camera::model m{"Orvane_Lyra12C", builtin_colour_camera_description, 4096, 3072, 2,
                                     {cxp_camera::kBayerRG8, kBayerRG10, kBayerRG12, kRGB8, 0}, 6, 190.0f};
    return m;
}

}  // namespace

// One piece of a memory access: a register or part of a byte area.
struct cxp_camera::area {
    uint32_t base = 0;
    uint32_t size = 0;
    uint8_t mode = 0;
    uint8_t *bytes = nullptr;  // null: the register at `base`
};

cxp_camera::cxp_camera(camera_profile profile) : profile_(std::move(profile)) {
    model_ = profile_.model.rfind("Lyra 12C", 0) == 0 ? &colour_model() : &monochrome_model();
    const bool builtin = profile_.description_xml.empty();
    const std::string_view xml = builtin ? model_->description() : std::string_view(profile_.description_xml);
    std::string name = builtin                           ? std::string(model_->description_name)
                       : profile_.description_name.empty() ? "camera"
                                                           : profile_.description_name;
    // The URL and its NUL must fit their 256 bytes.
    if (name.size() > 200) name.resize(200);
    if (!profile_.no_description) {
        archive_ = stored_zip(name + ".xml", xml);
        char tail[40];
        std::snprintf(tail, sizeof tail, ".zip;%X;%zX", kDescription, archive_.size());
        url_ = "local:" + name + tail;
    }
    xml_version_ = version_attribute(xml, "MajorVersion") << 16 |
                   version_attribute(xml, "MinorVersion") << 8 | version_attribute(xml, "SubMinorVersion");

    identity_.assign(kIdentitySize, 0);
    put_field(identity_, kDeviceVendorName - kIdentityBase, 32, profile_.vendor);
    put_field(identity_, kDeviceModelName - kIdentityBase, 32, profile_.model);
    put_field(identity_, kDeviceManufacturerInfo - kIdentityBase, 48, profile_.manufacturer_info);
    put_field(identity_, kDeviceVersion - kIdentityBase, 32, profile_.version);
    put_field(identity_, kDeviceSerialNumber - kIdentityBase, 16, profile_.serial);
    put_field(identity_, kDeviceUserId - kIdentityBase, 16, profile_.user_id);
    url_bytes_.assign(kUrlCapacity, 0);
    std::memcpy(url_bytes_.data(), url_.data(), url_.size());
    test_registers_.assign(kTestRegistersSize, 0);
    features_.assign(kFeatureWords, 0);
    const auto feature = [this](uint32_t address) -> uint32_t & { return features_[(address - kWidth) / 4]; };
    feature(kWidth) = feature(kWidthMax) = feature(kSensorWidth) = model_->sensor_width;
    feature(kHeight) = feature(kHeightMax) = feature(kSensorHeight) = model_->sensor_height;
    feature(kPixelFormat) = model_->pixel_formats[0];
    feature(kImage2StreamId) = 1;
    feature(kAcquisitionFrameRate) = std::bit_cast<uint32_t>(30.0f);
    feature(kExposureTime) = std::bit_cast<uint32_t>(10000.0f);

    faults_ = profile_.faults;
    revision_ = profile_.revision;
    versions_supported_ = profile_.versions_supported;
    packet_size_max_ = profile_.control_packet_size_max;
    discovery_rates_ = profile_.discovery_rates;
    supported_rates_ = profile_.supported_rates;
    uplink_offered_ = profile_.uplink;
    reset_connection();
    epoch_ = 0;
}

std::optional<uint32_t> cxp_camera::connection_on_link(uint32_t link) const {
    for (uint32_t connection = 0; connection < profile_.links.size(); ++connection)
        if (profile_.links[connection] == link) return connection;
    return std::nullopt;
}

// --- Connection state ------------------------------------------------------

void cxp_camera::reset_connection() {
    discovery_ = true;
    config_links_ = 0;
    config_rate_ = 0;
    master_host_ = 0;
    version_used_ = revision_;
    stream_packet_size_ = profile_.stream_packet_size_max;
    uplink_switch_ = 0;
    acquiring_ = false;
    software_triggers_ = 0;
    ++epoch_;
}

bool cxp_camera::colour() const { return model_ == &colour_model(); }

bool cxp_camera::unplugged(uint32_t connection) const {
    return contains(faults_.unplugged_links, profile_.links[connection]);
}

bool cxp_camera::transmits(uint32_t connection, uint32_t card_rate, bool fibre) const {
    std::lock_guard lock(mutex_);
    if (connection >= profile_.links.size() || unplugged(connection)) return false;
    if (!discovery_ && connection >= config_links_) return false;
    if (fibre) return true;
    return discovery_ ? contains(discovery_rates_, card_rate) : card_rate == config_rate_;
}

uint64_t cxp_camera::link_epoch() const {
    std::lock_guard lock(mutex_);
    return epoch_;
}

bool cxp_camera::uplink_enabled() const {
    std::lock_guard lock(mutex_);
    return (uplink_switch_ & 1) != 0;
}

uint32_t cxp_camera::payload_limit(bool tagged) const {
    const uint32_t framing = tagged ? 28 : 24;
    return packet_size_max_ > framing ? packet_size_max_ - framing : 0;
}

// --- Registers ---------------------------------------------------------------

std::optional<uint32_t> cxp_camera::register_value(uint32_t connection, uint32_t address) const {
    if (address >= kWidthAddress && address <= kImage2StreamIdAddress)
        return kAddressTargets[(address - kWidthAddress) / 4];
    if (is_feature(address)) return features_[(address - kWidth) / 4];
    switch (address) {
        case kStandard: return kStandardValue;
        case kRevision: return revision_;
        case kXmlManifestSize: return 1;
        case kXmlManifestSelector: return 0;
        case kXmlVersion: return xml_version_;
        case kXmlSchemaVersion: return kSchemaVersion;
        case kXmlUrlAddress: return kUrl;
        case kIidc2Address: return 0;
        case kConnectionReset: return 0;
        case kDeviceConnectionId: return connection;
        case kMasterHostConnectionId: return faults_.foreign_host.value_or(master_host_);
        case kControlPacketSizeMax: return packet_size_max_;
        case kStreamPacketSizeMax: return stream_packet_size_;
        case kConnectionConfig:
            if (discovery_)
                return connection_count() << 16 | (discovery_rates_.empty() ? 0 : discovery_rates_.front());
            return config_links_ << 16 | config_rate_;
        case kConnectionConfigDefault: return profile_.default_config;
        case kUplinkOffered: return uplink_offered_ ? 1 : 0;
        case kUplinkSwitch: return faults_.uplink_fails ? uplink_switch_ & ~1u : uplink_switch_;
        case kVersionsSupported: return versions_supported_;
        case kVersionUsed: return version_used_;
        default: return std::nullopt;
    }
}

uint8_t cxp_camera::check_register_write(uint32_t address, uint32_t value) const {
    const auto feature = [this](uint32_t at) { return features_[(at - kWidth) / 4]; };
    const auto verdict = [](bool ok) { return ok ? kAckWrite : kAckBadData; };
    const auto in_range = [value](float low, float high) {
        const float f = std::bit_cast<float>(value);
        return std::isfinite(f) && f >= low && f <= high;
    };
    const uint64_t wide = value;
    switch (address) {
        case kWidth:
            return verdict(value >= kHorizontalStep && value % kHorizontalStep == 0 &&
                           wide + feature(kOffsetX) <= model_->sensor_width);
        case kHeight:
            return verdict(value >= model_->vertical_step && value % model_->vertical_step == 0 &&
                           wide + feature(kOffsetY) <= model_->sensor_height);
        case kOffsetX:
            return verdict(value % kHorizontalStep == 0 && wide + feature(kWidth) <= model_->sensor_width);
        case kOffsetY:
            return verdict(value % model_->vertical_step == 0 && wide + feature(kHeight) <= model_->sensor_height);
        case kPixelFormat:
            return verdict(value != 0 && contains(std::vector<uint32_t>(model_->pixel_formats.begin(),
                                                                        model_->pixel_formats.end()),
                                                  value));
        case kAcquisitionMode: return verdict(value <= 1);
        case kTestPattern: return verdict(value < model_->test_patterns);
        case kAcquisitionFrameRate: return verdict(in_range(kFrameRateMin, model_->frame_rate_max));
        case kExposureTime: return verdict(in_range(kExposureMin, kExposureMax));
        case kTriggerSelector: return verdict(value < kTriggerSelectors);
        case kTriggerMode:
        case kTriggerMode + 4: return verdict(value <= 1);
        case kTriggerSource:
        case kTriggerSource + 4: return verdict(value < kTriggerSources);
        case kXmlManifestSelector: return value == 0 ? kAckWrite : kAckBadData;
        case kStreamPacketSizeMax: return value % 4 == 0 ? kAckWrite : kAckBadData;
        case kConnectionConfig: {
            const uint32_t links = value >> 16;
            const uint32_t rate = value & 0xFFFF;
            return links >= 1 && links <= connection_count() && contains(supported_rates_, rate)
                       ? kAckWrite
                       : kAckBadData;
        }
        case kUplinkSwitch: return (value & 1) == 0 || uplink_offered_ ? kAckWrite : kAckBadData;
        case kVersionUsed: {
            const std::optional<uint32_t> bit = version_bit(value);
            return bit && (versions_supported_ & *bit) != 0 ? kAckWrite : kAckBadData;
        }
        default: return kAckWrite;
    }
}

void cxp_camera::apply_register_write(uint32_t address, uint32_t value) {
    if (is_feature(address)) {
        features_[(address - kWidth) / 4] = value;
        return;
    }
    switch (address) {
        case kConnectionReset:
            if ((value & 1) != 0) reset_connection();
            break;
        case kMasterHostConnectionId:
            if (!faults_.foreign_host) master_host_ = value;
            break;
        case kStreamPacketSizeMax: stream_packet_size_ = value; break;
        case kConnectionConfig:
            discovery_ = false;
            config_links_ = value >> 16;
            config_rate_ = value & 0xFFFF;
            ++epoch_;
            break;
        case kUplinkSwitch: uplink_switch_ = value; break;
        case kVersionUsed: version_used_ = value; break;
        case kAcquisitionStart:
            acquiring_ = true;
            software_triggers_ = 0;
            break;
        case kAcquisitionStop:
            acquiring_ = false;
            software_triggers_ = 0;
            break;
        case kTriggerSoftware: {
            const auto feature = [this](uint32_t at) { return features_[(at - kWidth) / 4]; };
            if (acquiring_ && feature(kTriggerSelector) == 0 && feature(kTriggerMode) == 1 &&
                feature(kTriggerSource) == 0)
                ++software_triggers_;
            break;
        }
        default: break;
    }
}

// --- Memory ------------------------------------------------------------------

uint8_t cxp_camera::access(uint32_t connection, uint32_t address, std::span<uint8_t> read_out,
                           std::span<const uint8_t> write_in, bool write) {
    const uint64_t size = write ? write_in.size() : read_out.size();
    const uint64_t end = uint64_t{address} + size;
    if (end > (uint64_t{1} << 32)) return kAckBadAddress;

    const area byte_areas[] = {
        {kIdentityBase, kDeviceVersion + 32 - kIdentityBase, kRO, identity_.data()},
        {kDeviceSerialNumber, 16, kRO, identity_.data() + (kDeviceSerialNumber - kIdentityBase)},
        {kDeviceUserId, 16, kRW, identity_.data() + (kDeviceUserId - kIdentityBase)},
        {kTestRegisters, kTestRegistersSize, kRW, test_registers_.data()},
        {kUrl, kUrlCapacity, kRO, url_bytes_.data()},
        {kDescription, static_cast<uint32_t>(archive_.size()), kRO, archive_.data()},
    };

    // Split the range into pieces and check every piece before touching any.
    std::vector<area> pieces;
    for (uint64_t at = address; at < end;) {
        area piece;
        bool found = false;
        for (const area &candidate : byte_areas) {
            if (at >= candidate.base && at < uint64_t{candidate.base} + candidate.size) {
                piece = candidate;
                found = true;
                break;
            }
        }
        if (!found) {
            for (const register_entry &entry : kRegisters) {
                if (at < entry.address || at >= uint64_t{entry.address} + 4) continue;
                if ((entry.address == kVersionsSupported || entry.address == kVersionUsed) &&
                    !has_version_registers())
                    break;
                piece = area{entry.address, 4, entry.mode, nullptr};
                found = true;
                break;
            }
        }
        if (!found) return kAckBadAddress;
        if (write && (piece.mode & kWritable) == 0) return kAckReadOnly;
        if (!write && (piece.mode & kReadable) == 0) return kAckWriteOnly;
        const uint64_t piece_end = std::min<uint64_t>(end, uint64_t{piece.base} + piece.size);
        if (piece.bytes == nullptr && write) {
            // Registers are written whole.
            if (at != piece.base || piece_end != uint64_t{piece.base} + 4) return kAckBadData;
            const uint8_t verdict = check_register_write(piece.base, load_be32(&write_in[at - address]));
            if (verdict != kAckWrite) return verdict;
        }
        if (piece.bytes != nullptr) piece.bytes += at - piece.base;
        piece.base = static_cast<uint32_t>(at);
        piece.size = static_cast<uint32_t>(piece_end - at);
        pieces.push_back(piece);
        at = piece_end;
    }

    for (const area &piece : pieces) {
        const size_t offset = piece.base - address;
        if (piece.bytes != nullptr) {
            if (write)
                std::memcpy(piece.bytes, &write_in[offset], piece.size);
            else
                std::memcpy(&read_out[offset], piece.bytes, piece.size);
            continue;
        }
        if (write) {
            apply_register_write(piece.base, load_be32(&write_in[offset]));
            continue;
        }
        // A read may cover part of a register.
        const uint32_t register_base = piece.base & ~3u;
        uint8_t value[4];
        store_be32(value, register_value(connection, register_base).value_or(0));
        std::memcpy(&read_out[offset], value + (piece.base - register_base), piece.size);
    }
    return write ? kAckWrite : kAckRead;
}

control_reply cxp_camera::execute(uint32_t connection, const control_command &command) {
    control_reply reply;
    {
        std::lock_guard lock(mutex_);
        reply = execute_locked(connection, command);
    }
    if (command.op == 1 && (reply.code == kAckWrite || !reply.answered)) notify_write();
    return reply;
}

control_reply cxp_camera::execute_locked(uint32_t connection, const control_command &command) {
    control_reply reply;
    reply.answered = true;
    if (command.malformed) {
        reply.code = kAckMalformed;
        return reply;
    }
    // ConnectionReset is applied before anything else and never answered.
    if (command.op == 1 && command.address == kConnectionReset && command.size == 4 &&
        command.payload.size() == 4 && (load_be32(command.payload.data()) & 1) != 0) {
        reset_connection();
        reply.answered = false;
        return reply;
    }
    if (faults_.lost_replies > 0) {
        --faults_.lost_replies;
        reply.answered = false;
        return reply;
    }

    bool forced = false;
    if (faults_.error_commands > 0) {
        --faults_.error_commands;
        reply.code = faults_.error_code;
        forced = true;
    } else if (command.op > 1) {
        reply.code = kAckBadOperation;
    } else if (command.size > payload_limit(command.tagged)) {
        reply.code = kAckTooLarge;
    } else if (command.op == 1 && command.payload.size() != (uint64_t{command.size} + 3) / 4 * 4) {
        reply.code = kAckSizeMismatch;
    } else if (command.op == 1) {
        reply.code =
            access(connection, command.address, {}, std::span(command.payload).first(command.size), true);
    } else {
        reply.data.assign(command.size, 0);
        reply.code = access(connection, command.address, reply.data, {}, false);
        if (reply.code != kAckRead) reply.data.clear();
    }

    if (faults_.wait_commands > 0) {
        --faults_.wait_commands;
        reply.waits_ms = faults_.wait_acks_ms;
    }
    if (!forced && command.op == 0 && reply.code == kAckRead && faults_.damaged_replies > 0) {
        --faults_.damaged_replies;
        reply.damaged = true;
    }
    if (faults_.garbage_replies > 0) {
        --faults_.garbage_replies;
        reply.garbage_words = faults_.garbage_words;
    }
    return reply;
}

// --- Control side --------------------------------------------------------------

uint8_t cxp_camera::read_memory(uint32_t address, std::span<uint8_t> out) {
    std::lock_guard lock(mutex_);
    return access(0, address, out, {}, false);
}

uint8_t cxp_camera::write_memory(uint32_t address, std::span<const uint8_t> bytes) {
    uint8_t code = 0;
    {
        std::lock_guard lock(mutex_);
        code = access(0, address, {}, bytes, true);
    }
    if (code == kAckWrite) notify_write();
    return code;
}

void cxp_camera::notify_write() {
    std::lock_guard lock(listener_mutex_);
    if (write_listener_) write_listener_();
}

void cxp_camera::set_write_listener(std::function<void()> listener) {
    std::lock_guard lock(listener_mutex_);
    write_listener_ = std::move(listener);
}

std::optional<uint32_t> cxp_camera::read_register(uint32_t address) {
    uint8_t bytes[4];
    if (read_memory(address, bytes) != kAckRead) return std::nullopt;
    return load_be32(bytes);
}

bool cxp_camera::in_discovery() const {
    std::lock_guard lock(mutex_);
    return discovery_;
}

uint32_t cxp_camera::connection_config() const {
    std::lock_guard lock(mutex_);
    return register_value(0, kConnectionConfig).value_or(0);
}

uint32_t cxp_camera::master_host_id() const {
    std::lock_guard lock(mutex_);
    return master_host_;
}

uint32_t cxp_camera::version_used() const {
    std::lock_guard lock(mutex_);
    return version_used_;
}

bool cxp_camera::acquiring() const {
    std::lock_guard lock(mutex_);
    return acquiring_;
}

cxp_camera::image_settings cxp_camera::image() const {
    std::lock_guard lock(mutex_);
    const auto feature = [this](uint32_t at) { return features_[(at - kWidth) / 4]; };
    image_settings settings;
    settings.width = feature(kWidth);
    settings.height = feature(kHeight);
    settings.offset_x = feature(kOffsetX);
    settings.offset_y = feature(kOffsetY);
    settings.pixel_format = feature(kPixelFormat);
    settings.test_pattern = feature(kTestPattern);
    settings.sensor_width = feature(kSensorWidth);
    settings.frame_rate_hz = std::bit_cast<float>(feature(kAcquisitionFrameRate));
    settings.exposure_us = std::bit_cast<float>(feature(kExposureTime));
    settings.connection_config = register_value(0, kConnectionConfig).value_or(0);
    return settings;
}

cxp_camera::acquisition_state cxp_camera::acquisition() const {
    std::lock_guard lock(mutex_);
    const auto feature = [this](uint32_t at) { return features_[(at - kWidth) / 4]; };
    acquisition_state state;
    if (!acquiring_) return state;
    if (feature(kTriggerMode) != 1) {
        state.trigger = frame_trigger::free_run;
    } else if (feature(kTriggerSource) == 0) {
        state.trigger = frame_trigger::software;
        state.pending = software_triggers_;
    } else {
        state.trigger = frame_trigger::line;
    }
    return state;
}

bool cxp_camera::take_frame() {
    std::lock_guard lock(mutex_);
    const auto feature = [this](uint32_t at) { return features_[(at - kWidth) / 4]; };
    if (!acquiring_) return false;
    // A stream spread over several links breaks when any of them goes.
    for (uint32_t connection = 0; connection < std::max<uint32_t>(config_links_, 1) && connection < profile_.links.size();
         ++connection)
        if (unplugged(connection)) return false;
    if (feature(kTriggerMode) == 1 && feature(kTriggerSource) == 0) {
        if (software_triggers_ == 0) return false;
        --software_triggers_;
    }
    if (feature(kAcquisitionMode) == 1) {
        acquiring_ = false;
        software_triggers_ = 0;
    }
    return true;
}

std::vector<uint8_t> cxp_camera::description_archive() const { return archive_; }

std::string cxp_camera::description_url() const { return url_; }

camera_faults cxp_camera::faults() const {
    std::lock_guard lock(mutex_);
    return faults_;
}

void cxp_camera::set_faults(const camera_faults &faults) {
    std::lock_guard lock(mutex_);
    faults_ = faults;
}

void cxp_camera::clear_faults() { set_faults(camera_faults{}); }

void cxp_camera::damage_replies(uint32_t count) {
    std::lock_guard lock(mutex_);
    faults_.damaged_replies = count;
}

void cxp_camera::wait_before_replies(std::vector<uint32_t> waits_ms, uint32_t commands) {
    std::lock_guard lock(mutex_);
    faults_.wait_acks_ms = std::move(waits_ms);
    faults_.wait_commands = faults_.wait_acks_ms.empty() ? 0 : commands;
}

void cxp_camera::fail_commands(uint8_t code, uint32_t count) {
    std::lock_guard lock(mutex_);
    faults_.error_code = code;
    faults_.error_commands = code == kAckWait ? 0 : count;
}

void cxp_camera::lose_replies(uint32_t count) {
    std::lock_guard lock(mutex_);
    faults_.lost_replies = count;
}

void cxp_camera::garbage_before_replies(uint32_t words, uint32_t replies) {
    std::lock_guard lock(mutex_);
    faults_.garbage_words = words;
    faults_.garbage_replies = words == 0 ? 0 : replies;
}

void cxp_camera::set_foreign_host(std::optional<uint32_t> host_id) {
    std::lock_guard lock(mutex_);
    faults_.foreign_host = host_id;
}

bool cxp_camera::unplug_link(uint32_t link, bool unplugged_now) {
    if (!connection_on_link(link)) return false;
    std::lock_guard lock(mutex_);
    std::vector<uint32_t> &list = faults_.unplugged_links;
    list.erase(std::remove(list.begin(), list.end(), link), list.end());
    if (unplugged_now) list.push_back(link);
    return true;
}

void cxp_camera::set_uplink_fails(bool fails) {
    std::lock_guard lock(mutex_);
    faults_.uplink_fails = fails;
}

void cxp_camera::set_versions(uint32_t revision, uint32_t versions_supported) {
    std::lock_guard lock(mutex_);
    revision_ = revision;
    versions_supported_ = versions_supported;
    version_used_ = revision;
}

void cxp_camera::set_control_packet_size_max(uint32_t size) {
    std::lock_guard lock(mutex_);
    packet_size_max_ = size;
}

void cxp_camera::set_rates(std::vector<uint32_t> discovery_rates, std::vector<uint32_t> supported_rates) {
    std::lock_guard lock(mutex_);
    discovery_rates_ = std::move(discovery_rates);
    supported_rates_ = std::move(supported_rates);
}

void cxp_camera::set_uplink_offered(bool offered) {
    std::lock_guard lock(mutex_);
    uplink_offered_ = offered;
}

}  // namespace pelorin::emu
