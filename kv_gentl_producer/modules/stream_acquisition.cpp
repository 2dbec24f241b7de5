// Acquisition of a data stream: the image geometry and payload, the start
// and stop of the card's stream engine, and the delivery thread that hands
// the filled buffers to the consumer.
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstring>
#include <exception>
#include <string>

#include "card/card_context.h"
#include "diag/log.h"
#include "link/cxp_device.h"
#include "modules/cgentl_data_stream.h"
#include "modules/cgentl_device.h"
#include "nodemap/node_map.h"
#include "pixelformat/pixel_formats.h"

using pelorin::diag::kDebug;
using pelorin::diag::kError;
using pelorin::diag::kInfo;
using pelorin::diag::kWarn;

namespace {

constexpr uint32_t kUnpackedRegister = 0x2012;
constexpr uint32_t kPackingClearRegister = 0x2013;
constexpr uint32_t kLineScanRegister = 0x2016;
constexpr uint32_t kHardwareFrameRegister = 0x2020;
constexpr uint32_t kBufferLinesRegister = 0x2060;
// 1: the card turns Bayer images into colour on the way to the buffers.
constexpr uint32_t kColourConversionRegister = 0x2018;
constexpr uint32_t kBusBytes = 4;
constexpr uint64_t kBgr8 = 0x02180015;
constexpr uint64_t kBgr16 = 0x0230004B;
constexpr uint32_t kTapDefault = 0;
constexpr uint32_t kTap1X1Y2 = 4;
constexpr uint32_t kTap1X2YE = 65;
constexpr uint32_t kIspOn = 2;
// While no frame comes, the delivery thread looks at the camera's links this
// often, so that a camera that left is reported rather than waited for.
constexpr uint32_t kLinkWatchMs = 1000;

// Feature access that answers whether it succeeded; a missing node map or
// node is a failure, never an exception.
bool read_integer(const std::shared_ptr<CNodeMapRef> &map, const char *name, int64_t &value) {
    return map && map->read_integer(name, value);
}

bool read_text(const std::shared_ptr<CNodeMapRef> &map, const char *name, std::string &value) {
    if (!map) return false;
    try {
        value = map->kind(name) == pelorin::nodemap::node_kind::enumeration ? map->get_enum(name)
                                                                           : map->get_string(name);
        return true;
    } catch (const std::exception &) {
        return false;
    }
}

void write_integer(const std::shared_ptr<CNodeMapRef> &map, const char *name, int64_t value) {
    if (!map) return;
    try {
        map->set_integer(name, value);
    } catch (const std::exception &) {
    }
}

uint64_t now_us() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

}  // namespace

bool CGentlDataStream::ComputeGeometry() {
    CGentlDevice *device = parent_device_;
    if (context_ == nullptr || slot_ == nullptr || device == nullptr) return false;
    const std::shared_ptr<CNodeMapRef> camera = device->node_map(3);
    const std::shared_ptr<CNodeMapRef> own = device->node_map(2);
    int64_t width = 0, height = 0, value = 0, format = 0;
    bool ok = read_integer(camera, "Width", width);
    LOG_ANY(kInfo, "Get Width(%" PRId64 "): %d\n", width, ok ? 0 : -1);
    ok = ok && read_integer(camera, "Height", height);
    LOG_ANY(kInfo, "Get Height(%" PRId64 "): %d\n", height, ok ? 0 : -1);
    if (ok) {
        if (read_integer(camera, "OffsetX", value)) offset_x_ = static_cast<uint64_t>(value);
        if (read_integer(camera, "OffsetY", value)) offset_y_ = static_cast<uint64_t>(value);
    }
    std::string format_name;
    ok = ok && read_integer(camera, "PixelFormat", format);
    if (ok) read_text(camera, "PixelFormat", format_name);
    int64_t isp_switch = 0;
    const bool isp_read = read_integer(own, "IspSwitch", isp_switch);
    const bool isp_on = isp_read && isp_switch == kIspOn;
    if (!ok) {
        LOG_ANY(kError, "clac Geometry error\n");
        return false;
    }
    std::string tap;
    const bool tap_read = read_text(camera, "DeviceTapGeometry", tap);
    if (tap_read && tap == "Geometry_1X_1Y") {
        tap_format_ = kTapDefault;
    } else if (tap_read && (tap == "Geometry_1X_1Y2" || tap == "Geometry_1X_2YE")) {
        tap_format_ = tap == "Geometry_1X_1Y2" ? kTap1X1Y2 : kTap1X2YE;
        if (isp_on) return false;
    } else {
        LOG_ANY(kWarn, "Read DeviceTapGeometry Error(%d), set default E_TapFormat_1X_1Y\n",
                tap_read ? 0 : -1);
        tap_format_ = kTapDefault;
    }
    isp_mode_ = isp_read ? static_cast<uint32_t>(isp_switch) : 0;
    int64_t out_width = 0, out_height = 0;
    if (isp_mode_ == kIspOn && read_integer(own, "IspOutWidth", out_width) &&
        read_integer(own, "IspOutHeight", out_height)) {
        isp_out_width_ = static_cast<uint32_t>(out_width);
        isp_out_height_ = static_cast<uint32_t>(out_height);
    }
    width_ = static_cast<uint64_t>(width);
    height_ = static_cast<uint64_t>(height);
    pixel_format_ = pelorin::pixel::ResolvePixelFormat(static_cast<uint64_t>(format), format_name.c_str());
    device->send_pixel_format_to_card();
    uint32_t unpacked = 0;
    uint64_t size = sizeof unpacked;
    if (card_read_reg(context_, kUnpackedRegister, &unpacked, size) != 0) return false;
    if (unpacked <= 1) unpacked_ = unpacked;
    const uint32_t zero = 0;
    if (card_write_reg(context_, kPackingClearRegister, &zero, sizeof zero) != 0) return false;
    ComputeBufferHeight();
    return ComputePayload() != 0;
}

void CGentlDataStream::ComputeBufferHeight() {
    line_scan_ = 0;
    frame_lines_ = buffer_lines_ = static_cast<uint32_t>(height_);
    const device_record &record = parent_device_->record();
    line_scan_ = record.isp_shadow_copy == 1 ? 1 : 0;
    if (line_scan_ == 1) {
        LOG_ANY(kInfo, "LineMode: height=%d\n", static_cast<int>(record.scan_lines));
        buffer_lines_ = record.scan_lines;
    } else if (record.multiplier < 2) {
        LOG_ANY(kInfo, "AreaMode: height=%d\n", static_cast<int>(height_));
    } else {
        int64_t lines = static_cast<int64_t>(height_);
        if (read_integer(parent_device_->node_map(2), "AreaScanBufferHeight", lines) &&
            lines < static_cast<int64_t>(height_)) {
            LOG_ANY(kWarn, "AreaScanBufferHeight(%" PRId64 ") is smaller than height(%" PRIu64 ")\n",
                    lines, height_);
            lines = static_cast<int64_t>(height_);
        }
        buffer_lines_ = static_cast<uint32_t>(lines);
        parent_device_->set_frame_height(buffer_lines_);
        LOG_ANY(kInfo, "MultiFrameMode: height=%d\n", static_cast<int>(buffer_lines_));
    }
    card_write_reg(context_, kLineScanRegister, &line_scan_, sizeof line_scan_);
    frame_lines_ = line_scan_ == 1 ? 1 : static_cast<uint32_t>(height_);
    card_write_reg(context_, kBufferLinesRegister, &buffer_lines_, sizeof buffer_lines_);
}

uint64_t CGentlDataStream::ComputePayload() {
    uint32_t bits = pelorin::pixel::BitsPerPixel(pixel_format_);
    if (unpacked_ == 1 && bits % 8 != 0) bits = (bits + 7) / 8 * 8;
    const uint32_t line_pixels = isp_mode_ == kIspOn ? isp_out_width_ : static_cast<uint32_t>(width_);
    const uint64_t line_bits = uint64_t{line_pixels} * bits;
    const uint64_t rounded = (line_bits + kBusBytes * 8 - 1) / (kBusBytes * 8) * (kBusBytes * 8);
    stride_bytes_ = static_cast<uint32_t>(rounded / 8);
    int64_t bayer = -1;
    if (read_integer(parent_device_->node_map(2), "IspBayerEnable", bayer)) {
        if (bayer == 1 && (bits == 8 || (bits > 8 && bits <= 16))) {
            output_pixel_format_ = bits == 8 ? kBgr8 : kBgr16;
            stride_bytes_ *= 3;
        } else {
            output_pixel_format_ = pixel_format_;
        }
    } else {
        // A device without the feature has no colour processing: the buffers
        // hold what the camera sends. Keeping an earlier value here would
        // label Mono12 buffers Mono8 after a PixelFormat change, and switch
        // the card's colour conversion on for them.
        output_pixel_format_ = pixel_format_;
    }
    engine_stride_ = stride_bytes_;
    const uint64_t lines = isp_mode_ == kIspOn && line_scan_ != 1 ? isp_out_height_ : buffer_lines_;
    payload_size_ = uint64_t{stride_bytes_} * lines;
    LOG_ANY(kInfo,
            "PayloadSize=%" PRIu64 ", IspBayerEnable=%" PRId64 ", isp_mode=%d, StrideByte=%d, "
            "output_height=%" PRIu64 ", m_width=%" PRIu64 ", m_height=%" PRIu64 "\n",
            payload_size_, bayer, static_cast<int>(isp_mode_), static_cast<int>(stride_bytes_), lines,
            width_, height_);
    return payload_size_;
}

void CGentlDataStream::ReadStreamIds(uint32_t &first, uint32_t &second) {
    first = 0;
    second = kUnusedStreamId;
    const std::shared_ptr<CNodeMapRef> camera = parent_device_->node_map(3);
    int64_t value = 0;
    for (const auto &[name1, name2] : {std::pair{"Image1StreamID", "Image2StreamID"},
                                       std::pair{"Img1StreamId", "Img2StreamId"}}) {
        if (!read_integer(camera, name1, value)) continue;
        first = static_cast<uint32_t>(value);
        LOG_ANY(kInfo, "Set %s By GenApi: 0x%04X\n", name1, first);
        if (tap_format_ != 0 && read_integer(camera, name2, value)) {
            second = static_cast<uint32_t>(value);
            LOG_ANY(kInfo, "Set %s By GenApi: 0x%04X\n", name2, second);
        }
        return;
    }
    LOG_ANY(kInfo, "Get Image1StreamID Failed, Set 0\n");
    if (context_->link_device != nullptr) {
        first = context_->link_device->get_param().stream_id1;
        second = context_->link_device->get_param().stream_id2;
    }
}

void CGentlDataStream::LockTransportParameters(int64_t locked) {
    write_integer(parent_device_->node_map(3), "TLParamsLocked", locked);
    write_integer(parent_device_->node_map(2), "TLParamsLocked", locked);
}

GC_ERROR CGentlDataStream::DSStartAcquisition(ACQ_START_FLAGS, uint64_t) {
    CGenTLAutoLock guard(api_lock_);
    if (acquiring_) return GC_ERR_BUSY;
    if (!announced_ || announced_->empty()) return GC_ERR_BUFFER_TOO_SMALL;
    if (context_ == nullptr || !context_->pcie_device.is_open() || slot_ == nullptr ||
        parent_device_ == nullptr)
        return GC_ERR_NOT_INITIALIZED;
    if (const GC_ERROR lost = parent_device_->RefuseWhenCameraLost("DSStartAcquisition"); lost != GC_ERR_SUCCESS)
        return lost;
    uint32_t first_id = 0, second_id = kUnusedStreamId;
    ReadStreamIds(first_id, second_id);
    if (!ComputeGeometry()) return GC_ERR_NOT_AVAILABLE;
    context_write_reg(context_, kColourConversionRegister, output_pixel_format_ != pixel_format_ ? 1 : 0);
    LOG_ANY(kDebug, "stream1_id = %u, stream2_id = %u\n", first_id, second_id);
    dma_param_block block{};
    block[kParamStreamId1] = first_id;
    block[kParamStreamId2] = second_id;
    block[kParamWidth] = static_cast<uint32_t>(width_);
    block[kParamLinesPerFrame] = frame_lines_;
    block[kParamStride] = engine_stride_;
    block[kParamStrideCopy] = engine_stride_;
    block[kParamTapGeometry] = tap_format_;
    GC_ERROR result = dma_set_param(context_, block);
    if (result != 0) LOG_ANY(kError, "dma_set_param: %d\n", result);
    dma_addresses_.assign(announced_->size(), 0);
    for (size_t i = 0; i < announced_->size(); ++i) {
        BufferRecord *record = (*announced_)[i];
        dma_addresses_[i] = reinterpret_cast<uint64_t>(record->base);
        record->index = i;
        if (payload_size_ > record->size)
            LOG_ANY(kError, "DMA add buf handle error: %#" PRIxPTR ", %" PRIu64 " < %" PRIu64 "(payloadSize)\n",
                    reinterpret_cast<uintptr_t>(record), record->size, payload_size_);
    }
    LockTransportParameters(1);
    if (result == 0) {
        result = dma_start(context_, dma_addresses_.data(), static_cast<uint32_t>(dma_addresses_.size()),
                           static_cast<uint32_t>(payload_size_));
        if (result != 0) LOG_ANY(kError, "dma_start: %d\n", result);
    }
    if (result == 0) {
        CGenTLAutoLock acquisition(acq_lock_);
        acquiring_ = true;
    }
    if (result == 0) result = StartDeliveryThread();
    if (result == 0) result = HandQueuedBuffersToEngine();
    if (result != 0) {
        // A start that fails after the engine ran leaves nothing running.
        if (acquiring_) StopEngineAndThread();
        LockTransportParameters(0);
        dma_addresses_.clear();
    }
    LOG_PAIR(kInfo,
             tap_format_ == kTap1X1Y2   ? "设置 Geometry_1X_1Y2\n"
             : tap_format_ == kTap1X2YE ? "设置 Geometry_1X_2YE\n"
                                        : "设置 Geometry_1X_1Y\n",
             tap_format_ == kTap1X1Y2   ? "Set Geometry_1X_1Y2\n"
             : tap_format_ == kTap1X2YE ? "Set Geometry_1X_2YE\n"
                                        : "Set Geometry_1X_1Y\n");
    return result;
}

GC_ERROR CGentlDataStream::StartDeliveryThread() {
    delivery_running_ = true;
    try {
        delivery_thread_ = std::thread([this] { DeliveryLoop(); });
    } catch (const std::exception &) {
        delivery_running_ = false;
        return GC_ERR_ERROR;
    }
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlDataStream::HandQueuedBuffersToEngine() {
    for (size_t i = 0;; ++i) {
        BufferRecord *record = queues_->InputAt(i);
        if (record == nullptr) return GC_ERR_SUCCESS;
        if (const int handed = dma_queue_buffer(context_, static_cast<uint32_t>(record->index)); handed != 0) {
            LOG_ANY(kError, "DSStartAcquisition: the DMA engine refused buffer %" PRIu64 " (%d)\n", record->index,
                    handed);
            return GC_ERR_NOT_INITIALIZED;
        }
    }
}

GC_ERROR CGentlDataStream::DSStopAcquisition(ACQ_STOP_FLAGS) {
    {
        CGenTLAutoLock guard(api_lock_);
        if (!acquiring_) return GC_ERR_BUSY;
        if (!queues_) return GC_ERR_NOT_IMPLEMENTED;
    }
    StopEngineAndThread();
    {
        CGenTLAutoLock guard(api_lock_);
        dma_addresses_.clear();
    }
    if (slot_ != nullptr && parent_device_ != nullptr) {
        LockTransportParameters(0);
        const std::shared_ptr<CNodeMapRef> own = parent_device_->node_map(2);
        try {
            if (own) own->execute("DevicePulseClear");
        } catch (const std::exception &) {
        }
    }
    return GC_ERR_SUCCESS;
}

void CGentlDataStream::StopEngineAndThread() {
    LOG_ANY(kDebug, "begin dma_stop\n");
    {
        CGenTLAutoLock guard(acq_lock_);
        const int stopped = dma_stop(context_);
        if (stopped != 0) LOG_ANY(kError, "dma stop error:%d\n", stopped);
        acquiring_ = false;
    }
    // Wake a delivery thread that waits for a queued buffer or for a frame.
    queues_->Flush(255);
    context_->pcie_device.frame_event.set();
    LOG_ANY(kDebug, "begin close DS_THREAD_PLAY\n");
    delivery_running_ = false;
    if (delivery_thread_.joinable()) delivery_thread_.join();
}

bool CGentlDataStream::StillAcquiring() {
    CGenTLAutoLock guard(acq_lock_);
    return opened_ && delivery_running_ && acquiring_;
}

void CGentlDataStream::DeliveryLoop() {
    pthread_setname_np(pthread_self(), "pelorin-deliver");
    LOG_ANY(kDebug, "in play dma threader\n");
    // The thread takes no stream lock: a failed start joins it while holding
    // the API lock, and the queues and the card stay while it runs.
    if (!queues_ || context_ == nullptr || !context_->pcie_device.is_open()) return;
    delivery_run run;
    while (StillAcquiring()) {
        uint32_t index = 0, pending = 0;
        const int fetched = dma_get_frame(context_, &index, &pending);
        if (fetched != 0 && !run.fetch_failure_logged) {
            // Once per run: a card that keeps refusing would fill the log.
            LOG_ANY(kError, "PLAYER: the card's completed buffers cannot be read (%d)\n", fetched);
            run.fetch_failure_logged = true;
        }
        if (fetched == 0 && pending > 0) {
            // A lost frame found here does not end the thread either: the
            // buffer is back in the engine and the next frame may fit.
            Deliver(index, run);
            continue;
        }
        const os_event::wait_result woken = context_->pcie_device.frame_event.wait(kLinkWatchMs);
        if (woken == os_event::wait_result::timed_out && !camera_links_up(context_)) {
            ReportCameraLost();
            break;
        }
        if (woken != os_event::wait_result::signalled) continue;
        while (acquiring_) {
            if (dma_get_frame(context_, &index, &pending) != 0 || pending == 0) break;
            if (!Deliver(index, run) || pending <= 1) break;
        }
    }
    LOG_ANY(kInfo, "PLAYER: out dma thread\n");
}

void CGentlDataStream::ReportCameraLost() {
    // What the card delivered before stays in the output queue for the
    // consumer; a consumer waiting for more is told instead of waiting on.
    if (parent_device_ != nullptr) parent_device_->MarkCameraLost();
    notifier_.NotifyCameraLost();
}

bool CGentlDataStream::Deliver(uint32_t index, delivery_run &run) {
    if (index >= announced_->size()) {
        LOG_ANY(kError, "PLAYER: buffer index %u beyond the %zu announced\n", index, announced_->size());
        return false;
    }
    BufferRecord *record = (*announced_)[index];
    const uint64_t now = now_us();
    if (run.first_frame_us == 0) run.first_frame_us = now;
    record->timestamp.store(now - run.first_frame_us, std::memory_order_relaxed);
    uint32_t hardware = 0;
    uint64_t size = sizeof hardware;
    if (card_read_reg(context_, kHardwareFrameRegister, &hardware, size) == 0)
        run.hardware_frame = hardware & 0xFFFFFF;
    ++run.frame_counter;
    record->frame_id.store(run.frame_counter + run.hardware_frame, std::memory_order_relaxed);
    const int moved = queues_->MoveToOutput(record, GENTL_INFINITE);
    if (moved == GC_ERR_SUCCESS) {
        notifier_.Notify(queues_.get(), false);
        return true;
    }
    ++run.lost_frames;
    ++lost_frames_;
    LOG_ANY(kError, "PLAYER: Find the same index_frame!!!(res:%d), lost %u frame\n", moved, run.lost_frames);
    dma_queue_buffer(context_, index);
    return false;
}
