// The device port's acquisition settings, trigger block and user-set
// registers, and the camera geometry they depend on.
#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "diag/log.h"
#include "link/connection_flow.h"
#include "modules/cgentl_device.h"
#include "modules/register_copy.h"
#include "nodemap/node_map.h"
#include "pixelformat/pixel_formats.h"

using pelorin::CopyRegisterNumber;
using pelorin::CopyRegisterValue;
using pelorin::diag::kError;
using pelorin::diag::kInfo;

namespace {

constexpr uint64_t setting(uint32_t item) { return 0x003E0000FFFD0000ULL | item; }
constexpr uint64_t user_set(uint32_t item) { return 0x003D0000FFFE0000ULL | item; }

constexpr uint64_t kAcqMode = setting(0x0010);
constexpr uint64_t kScanLinesSetting = setting(0x0020);
constexpr uint64_t kMultiplier = setting(0x0011);
constexpr uint64_t kFrameHeight = setting(0x0012);
constexpr uint64_t kReadStride = setting(0x0040);
constexpr uint64_t kExtraSetting = setting(0x0100);
constexpr uint64_t kIspShadow = 0x20000004;
constexpr uint64_t kScanLines = 0x20000005;
constexpr uint64_t kFrameCount = 0x20000010;
constexpr uint64_t kLineWidth = 0x20000011;
constexpr uint64_t kLineCount = 0x20000012;
constexpr uint64_t kPulseClear = 0xA30;

constexpr uint32_t kLineScanRegister = 0x2016;
constexpr uint32_t kMinScanLines = 2;
constexpr uint32_t kMaxScanLines = 2000000000;
constexpr uint32_t kEmptyScanLines = 128;
constexpr uint32_t kTicksPerMicrosecond = 125;
constexpr uint32_t kTriggerInput = 0x2810;
constexpr uint32_t kTriggerDelay = 0x2840;
constexpr uint32_t kTriggerDelayCount = 16;
constexpr uint32_t kPackingFlagRegister = 0x2012;
constexpr uint32_t kPackingApplyRegister = 0x2011;

float written_float(const void *buffer, size_t size) {
    float value = 0;
    if (size >= sizeof value) std::memcpy(&value, buffer, sizeof value);
    return value;
}

bool is_time_register(uint64_t address) {
    return address == 0x2802 || address == 0x2803 || address == kTriggerDelay ||
           (address >= 0x2850 && address <= 0x2852);
}

// lim(a, b, c) = min(a x b, 0x7FFFFFFF / c), c = 0 counting as 1.
uint32_t limited(uint64_t a, uint64_t b, uint64_t c) {
    return static_cast<uint32_t>(std::min<uint64_t>(a * b, 0x7FFFFFFFull / (c == 0 ? 1 : c)));
}

}  // namespace

bool CGentlDevice::read_camera_integer(const char *name, int64_t &value) {
    return remote_map_ && remote_map_->read_integer(name, value);
}

void CGentlDevice::PixelFormatToCard() {
    int64_t format = 0;
    if (!read_camera_integer("PixelFormat", format)) return;
    const uint64_t pfnc = pelorin::pixel::CxpToPfnc(static_cast<uint64_t>(format));
    const uint32_t flag = pelorin::pixel::CardTakesPacking(pfnc) ? 1 : 0;
    const int result = card_write_reg(&context_, kPackingFlagRegister, &flag, sizeof flag);
    if (result == 0) context_write_reg(&context_, kPackingApplyRegister, 1);
}

bool CGentlDevice::RefreshFrameHeight() {
    int64_t height = 0;
    if (!read_camera_integer("Height", height)) return false;
    record_.frame_height = static_cast<uint32_t>(height) * record_.multiplier;
    if (slot_ != nullptr) slot_->frame_height = record_.frame_height;
    return true;
}

void CGentlDevice::RefreshGeometry() {
    int64_t width = 0, height = 0;
    if (!read_camera_integer("Width", width)) {
        record_.last_width = 0;
        return;
    }
    record_.last_width = static_cast<uint32_t>(width);
    if (!read_camera_integer("Height", height)) {
        record_.last_height = 0;
        return;
    }
    record_.last_height = static_cast<uint32_t>(height);
    int64_t mode = 0;
    try {
        if (device_map_) mode = device_map_->get_integer("IspZKFuncMode");
    } catch (const std::exception &) {
        mode = 0;
    }
    const uint32_t frames = std::max<uint32_t>(record_.frame_count, 1);
    switch (mode) {
    case 0:
        record_.dma_line_width = record_.last_width;
        record_.dma_line_count = limited(record_.last_height, frames, record_.last_width);
        break;
    case 1:
        record_.dma_line_width = record_.last_height * 8;
        record_.dma_line_count = limited(1, frames, record_.dma_line_width);
        break;
    case 2:
        record_.dma_line_width = record_.last_width * 8;
        record_.dma_line_count = limited(1, frames, record_.dma_line_width);
        break;
    default: break;
    }
}

bool CGentlDevice::ReadSettingRegister(uint64_t address, void *buffer, size_t *size,
                                       GC_ERROR &result) {
    auto answer = [&](uint32_t value) {
        result = CopyRegisterNumber(value, buffer, size);
        return true;
    };
    switch (address) {
    case kAcqMode: return answer(record_.acq_mode);
    case kScanLinesSetting:
        if (record_.scan_lines_setting == 0) record_.scan_lines_setting = kEmptyScanLines;
        return answer(record_.scan_lines_setting);
    case kIspShadow: return answer(record_.isp_shadow);
    case kScanLines:
        if (record_.scan_lines == 0) record_.scan_lines = kEmptyScanLines;
        return answer(record_.scan_lines);
    case kMultiplier: return answer(record_.multiplier);
    case kFrameHeight:
        RefreshFrameHeight();
        if (record_.frame_height == 0) {
            result = GC_ERR_NOT_AVAILABLE;
            return true;
        }
        return answer(record_.frame_height);
    case kReadStride: return answer(record_.read_stride);
    case kExtraSetting: result = CopyRegisterNumber(record_.extra_setting, buffer, size); return true;
    case kFrameCount: return answer(std::max<uint32_t>(record_.frame_count, 1));
    case kLineWidth: RefreshGeometry(); return answer(record_.dma_line_width);
    case kLineCount: RefreshGeometry(); return answer(record_.dma_line_count);
    case user_set(0x0000): return answer(userset_selector_);
    case user_set(0x0004):
    case user_set(0x0008): return answer(1);
    case user_set(0x000C): return answer(userset_default_);
    case user_set(0x0010): return answer(userset_flag_b_);
    case user_set(0x0014): return answer(userset_flag_c_);
    case user_set(0x0020): return answer(userset_flag_a_);
    case user_set(0xFFFF): return answer(settings_context().open_user_set);
    default: break;
    }
    if ((slot_ == nullptr || (slot_->card_family & 0xFF) != 1) || address > 0x2852) return false;
    // Trigger block of the standard cards: times in microseconds as floats.
    const uint32_t card_address = static_cast<uint32_t>(address);
    if (is_time_register(address)) {
        const float value = static_cast<float>(context_read_reg(&context_, card_address)) /
                            static_cast<float>(kTicksPerMicrosecond);
        result = CopyRegisterValue(&value, sizeof value, buffer, size);
        return true;
    }
    if (address == kTriggerInput) {
        const uint32_t raw = context_read_reg(&context_, card_address);
        if (raw == 0) return answer(0xFF);
        if (raw >= 0x10000) return answer(raw);
        for (uint32_t bit = 0; bit < 12; ++bit)
            if (raw & (1u << bit)) return answer(bit);
        result = GC_ERR_NOT_AVAILABLE;  // no input bit set: nothing to deliver
        return true;
    }
    if (address == 0x2800 || address == 0x2820) return answer(context_read_reg(&context_, card_address));
    return false;
}

bool CGentlDevice::WriteSettingRegister(uint64_t address, const void *buffer, size_t size,
                                        GC_ERROR &result) {
    const uint32_t value = pelorin::WrittenWord(buffer, size);
    result = GC_ERR_SUCCESS;
    switch (address) {
    case kAcqMode:
        record_.acq_mode = value;
        if (slot_ != nullptr) slot_->acq_mode = value;
        context_write_reg(&context_, kLineScanRegister, value == 2 ? 1 : 0);
        record_.isp_shadow = record_.isp_shadow_copy = value == 2 ? 1 : 0;
        if (value == 2) record_.scan_lines = record_.scan_lines_setting;
        return true;
    case kScanLinesSetting:
        record_.scan_lines_setting = std::clamp(value, kMinScanLines, kMaxScanLines);
        record_.scan_lines = record_.scan_lines_setting;
        if (slot_ != nullptr) slot_->scan_lines_setting = record_.scan_lines_setting;
        return true;
    case kIspShadow:
        // The node map's mode goes back to 0 first; its register is not this
        // one, so the write cannot come back here.
        try {
            if (device_map_ && device_map_->has_node("IspZKFuncMode"))
                device_map_->set_integer("IspZKFuncMode", 0);
        } catch (const std::exception &) {
        }
        record_.isp_shadow = record_.isp_shadow_copy = value;
        return true;
    case kScanLines: record_.scan_lines = std::clamp(value, kMinScanLines, kMaxScanLines); return true;
    case kMultiplier:
        record_.multiplier = value;
        if (slot_ != nullptr) slot_->multiplier = value;
        return true;
    case kReadStride:
        record_.read_stride = std::min(value, kCameraStrideLimit);
        if (slot_ != nullptr) slot_->read_stride = record_.read_stride;
        return true;
    case kExtraSetting: {
        uint64_t wide = 0;
        std::memcpy(&wide, buffer, std::min<size_t>(size, sizeof wide));
        record_.extra_setting = wide;
        if (slot_ != nullptr) slot_->extra_setting = wide;
        RefreshFrameHeight();
        return true;
    }
    case kFrameCount: record_.frame_count = std::clamp(value, 1u, kMaxScanLines); return true;
    case kPulseClear: context_write_reg(&context_, 0xA30 + context_.pcie_device.group_index, 1); return true;
    case user_set(0x0000): {
        const uint32_t largest = (userset_flag_b_ == 1 ? 1u : 0u) + (userset_flag_c_ == 1 ? 1u : 0u);
        if (value > largest) {
            result = GC_ERR_INVALID_PARAMETER;
            return true;
        }
        userset_selector_ = value;
        return true;
    }
    case user_set(0x000C):
        userset_default_ = value;
        result = SaveUserSet(true, value != 0, false);
        return true;
    case user_set(0x0004): result = LoadUserSet(false, userset_selector_ != 0); return true;
    case user_set(0x0008): result = SaveUserSet(false, userset_selector_ != 0, true); return true;
    default: break;
    }
    if ((slot_ == nullptr || (slot_->card_family & 0xFF) != 1) || address > 0x2852) return false;
    const uint32_t card_address = static_cast<uint32_t>(address);
    if (is_time_register(address)) {
        // A time the card's 32-bit tick count cannot hold (negative, too
        // long, not a number) is refused; nothing is written.
        const float scaled = written_float(buffer, size) * static_cast<float>(kTicksPerMicrosecond);
        if (!(scaled >= 0.0f && scaled < 4294967296.0f)) {
            result = GC_ERR_INVALID_PARAMETER;
            return true;
        }
        const uint32_t ticks = static_cast<uint32_t>(scaled);
        const uint32_t count = address == kTriggerDelay ? kTriggerDelayCount : 1;
        for (uint32_t i = 0; i < count; ++i) context_write_reg(&context_, card_address + i, ticks);
        return true;
    }
    if (address == kTriggerInput) {
        context_write_reg(&context_, card_address,
                          value == 0xFF ? 0 : value < 100 ? (value < 32 ? 1u << value : 0) : value);
        return true;
    }
    return false;
}

namespace {
constexpr uint64_t kConnectionConfigAddress = 0x4014;
}  // namespace

GC_ERROR CGentlDevice::WriteCameraMemory(uint64_t address, const void *buffer, size_t size) {
    if (address > 0xFFFFFFFFull || size > 0xFFFFFFFFu) return GC_ERR_INVALID_ADDRESS;
    if (address != kConnectionConfigAddress && address < kConnectionConfigAddress + 4 &&
        address + size > kConnectionConfigAddress) {
        // Written as part of a larger or shifted write, ConnectionConfig
        // would change the camera's links without the reconnection below.
        LOG_ANY(kError, "GCWritePort: 0x%" PRIx64 "+%zu covers part of ConnectionConfig (0x4014), which is written alone\n",
                address, size);
        return GC_ERR_INVALID_ADDRESS;
    }
    if (address == kConnectionConfigAddress && size >= 4) {
        // ConnectionConfig: the camera is reconnected at the new configuration.
        const auto *bytes = static_cast<const uint8_t *>(buffer);
        const uint32_t config = uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 |
                                uint32_t{bytes[2]} << 8 | bytes[3];
        if (config == connection_config_) return GC_ERR_SUCCESS;
        const int result = link_reconnect_with_fallback(&context_, config);
        if (result == 0) connection_config_ = config;
        return result;
    }
    const uint32_t stride = record_.read_stride > 63 ? record_.read_stride : 0;
    const int result = camera_write(&context_, static_cast<uint32_t>(address), buffer,
                                    static_cast<uint32_t>(size), true, stride);
    uint32_t first = 0;
    std::memcpy(&first, buffer, std::min<size_t>(size, sizeof first));
    if (address == 0x6208) LOG_ANY(kInfo, "Write AcquisitionStop:%d, buf:0x%x\n", result, first);
    if (address == 0x6204) LOG_ANY(kInfo, "Write AcquisitionStart:%d, buf:0x%x\n", result, first);
    return result;
}
