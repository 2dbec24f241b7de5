#include "card/card_context.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <thread>

#include "card/byte_order.h"
#include "card/cxp_data_stream.h"
#include "diag/log.h"
#include "diag/messages_gbk.h"
#include "link/cxp_device.h"
#include "pelorin/gentl.h"

using pelorin::diag::kError;
using pelorin::diag::kInfo;

namespace {

// Stream block registers (relocated per channel).
constexpr uint32_t kStreamGroup = 0x2008;
constexpr uint32_t kStreamId1 = 0x2010;
constexpr uint32_t kStreamId2 = 0x2014;
constexpr uint32_t kStreamLines = 0x2015;
constexpr uint32_t kStreamLineBytes = 0x2050;

// Group block registers (relocated per group): the card's trigger generator.
constexpr uint32_t kTriggerMode = 0x2800;
constexpr uint32_t kTriggerPulse = 0x2802;
constexpr uint32_t kTriggerPeriod = 0x2803;
constexpr uint32_t kTriggerExternal = 0x2804;
constexpr uint32_t kTriggerStart = 0x2805;
constexpr uint32_t kTriggerModeInternal = 1;
constexpr uint32_t kDefaultPulse = 125000;
constexpr uint32_t kDefaultFrameRate = 60;

// Camera reads go through a scratch buffer of this size.
constexpr size_t kStringScratchSize = 16 * 1024;
constexpr uint32_t kShortUrlWords = 32;
constexpr uint32_t kLongUrlWords = 1024;
constexpr uint64_t kShortUrlLimit = 128;
// The end of the closing tag of a GenICam description file.
constexpr char kClosingTagEnd[] = "ion>";
constexpr int kUnknownAddress = -3;

bool has_open_handle(const card_context *context) {
    return context != nullptr && context->pcie_device.is_open();
}

// Offset of the end-of-description marker in the first `length` bytes, or
// -1. The marker counts only where four more bytes would still fit.
long find_closing_tag(const uint8_t *bytes, size_t length) {
    for (size_t offset = 0; offset + 4 < length; ++offset)
        if (std::memcmp(bytes + offset, kClosingTagEnd, 4) == 0) return static_cast<long>(offset);
    return -1;
}

// Reads `length` bytes (rounded up to whole words) at `address` one raw word
// at a time. 0 or the first failing read's result.
int read_words(cxp_device &link, uint32_t address, uint8_t *scratch, size_t length) {
    for (size_t offset = 0; offset < length; offset += 4) {
        const int result = link.mem_access(address + static_cast<uint32_t>(offset),
                                           scratch + offset, 4, false, true);
        if (result != 0) return result;
    }
    return 0;
}

int read_url_string(cxp_device &link, uint32_t address, uint8_t *data, uint64_t *size) {
    LOG_ANY(kInfo, "Start read device url(addr:0x16%x, size:%" PRId64 ")\n", address,
            static_cast<int64_t>(*size));
    const uint32_t words = *size <= kShortUrlLimit ? kShortUrlWords : kLongUrlWords;
    auto scratch = std::make_unique<uint8_t[]>(kStringScratchSize);
    std::memset(scratch.get(), 0, kStringScratchSize);

    size_t read = 0;
    const uint8_t *terminator = nullptr;
    for (uint32_t i = 0; i < words && terminator == nullptr; ++i) {
        uint8_t *word = scratch.get() + 4 * i;
        if (link.mem_access(address + 4 * i, word, 4, false, true) != 0) return -2;
        read += 4;
        terminator = static_cast<const uint8_t *>(std::memchr(word, 0, 4));
    }
    // Without a terminator the text is what was read; either way the copy
    // never exceeds the caller's buffer.
    const size_t length = terminator != nullptr ? static_cast<size_t>(terminator - scratch.get()) : read;
    const size_t copied = std::min<uint64_t>(length, *size);
    std::memcpy(data, scratch.get(), copied);
    *size = copied;
    return 0;
}

int read_small(cxp_device &link, uint32_t address, uint8_t *data, uint64_t size, bool raw) {
    if (size >= 4) {
        const int result =
            link.mem_access(address, data, static_cast<uint32_t>(size), !raw, true);
        if (result != 0) {
            LOG_ANY(kError, "read %" PRId64 ", iAddress(0x%X): res=%d\n",
                    static_cast<int64_t>(size), address, result);
            uint32_t first_word = 0;
            std::memcpy(&first_word, data, 4);
            std::printf("read addr(0x%X) error(%d):0x%X\n", address, result, first_word);
            std::fflush(stdout);
            return -1;
        }
        return 0;
    }
    uint8_t word[4] = {};
    if (link.mem_access(address, word, 4, !raw, true) != 0) return -1;
    std::memcpy(data, word, size);
    return 0;
}

// A chunk of the description file could not be read in one piece: read it
// word by word and, when it holds the end of the file, take it up to there.
// 0 with *size set, or `first_error`.
int recover_tail(cxp_device &link, uint32_t address, uint8_t *scratch, size_t length,
                 uint8_t *destination, size_t room, uint64_t offset, uint64_t *size,
                 int first_error) {
    if (read_words(link, address, scratch, length) != 0) return first_error;
    const long found = find_closing_tag(scratch, (length + 3) / 4 * 4);
    if (found < 0) return first_error;
    const size_t taken = static_cast<size_t>(found) + 4;
    std::memcpy(destination, scratch, std::min(taken, room));
    *size = offset + taken;
    return 0;
}

int read_strided(cxp_device &link, uint32_t address, uint8_t *data, uint64_t *size,
                 uint32_t stride) {
    uint8_t scratch[kCameraStrideLimit + 4];
    const uint64_t total = *size;
    const uint64_t chunks = total / stride;
    const uint32_t remainder = static_cast<uint32_t>(total % stride);

    for (uint64_t i = 0; i < chunks; ++i) {
        const uint32_t chunk_address = address + static_cast<uint32_t>(i * stride);
        uint8_t *destination = data + i * stride;
        const int result = link.mem_access(chunk_address, scratch, stride, false, true);
        if (result == 0) {
            std::memcpy(destination, scratch, stride);
            continue;
        }
        LOG_ANY(kError, "read index:(%d:%d), stride:%d, res=%d\n", static_cast<int>(chunks),
                static_cast<int>(i), static_cast<int>(stride), result);
        if (result == kUnknownAddress) return kUnknownAddress;
        return recover_tail(link, chunk_address, scratch, stride, destination, stride,
                            i * stride, size, result);
    }
    if (remainder == 0) return 0;

    const uint32_t tail_address = address + static_cast<uint32_t>(chunks * stride);
    uint8_t *destination = data + chunks * stride;
    int result = link.mem_access(tail_address, scratch, remainder, false, true);
    if (result != 0 && remainder % 4 != 0)
        result = link.mem_access(tail_address, scratch, remainder - remainder % 4 + 4, false, true);
    if (result == 0) {
        std::memcpy(destination, scratch, remainder);
        return 0;
    }
    if (result == kUnknownAddress) return kUnknownAddress;
    return recover_tail(link, tail_address, scratch, remainder, destination, remainder,
                        chunks * stride, size, result);
}

}  // namespace

card_context::card_context() {
    for (size_t i = 0; i < if_user_set_names.size(); ++i)
        if_user_set_names[i] = "userset_if_" + std::to_string(i);
    for (size_t i = 0; i < dev_user_set_names.size(); ++i)
        dev_user_set_names[i] = "userset_dev_" + std::to_string(i);
}

uint32_t relocate_register(uint32_t address, uint32_t channel_index, uint32_t group_index) {
    if (address >= 0x2000 && address <= 0x20FF) return address + channel_index * 0x100;
    if (address >= 0x2800 && address <= 0x28FF) return address + group_index * 0x100;
    if (address >= 0x0020 && address <= 0x002F) return address + channel_index * 0x10;
    return address;
}

void context_write_reg(card_context *context, uint32_t address, uint32_t value) {
    if (!has_open_handle(context)) return;
    ::pcie_device &device = context->pcie_device;
    pcie_write_reg(device, relocate_register(address, device.channel_index, device.group_index),
                   value);
}

uint32_t context_read_reg(card_context *context, uint32_t address) {
    if (!has_open_handle(context)) return 0;
    ::pcie_device &device = context->pcie_device;
    return pcie_read_reg(device,
                         relocate_register(address, device.channel_index, device.group_index));
}

int card_write_reg(card_context *context, uint32_t address, const void *data, uint32_t size) {
    if (!has_open_handle(context) || data == nullptr || size == 0) return -1;
    if (size > 4) return -2;
    uint8_t bytes[4] = {};
    std::memcpy(bytes, data, size);
    const uint32_t word = pelorin::card::load_le32(bytes, 0);
    CGenTLAutoLock lock(context->card_lock);
    context_write_reg(context, address, word);
    return 0;
}

int card_read_reg(card_context *context, uint32_t address, void *data, uint64_t size) {
    if (!has_open_handle(context) || data == nullptr || size == 0) return -1;
    CGenTLAutoLock lock(context->card_lock);
    try {
        const uint32_t word = context_read_reg(context, address);
        if (size <= 4) {
            uint8_t bytes[4];
            pelorin::card::store_le32(bytes, 0, word);
            std::memcpy(data, bytes, size);
        }
    } catch (const std::exception &error) {
        LOG_ANY(kError, "card_read_reg(0x%X): %s\n", address, error.what());
        return GC_ERR_INVALID_ADDRESS;
    }
    return 0;
}

int camera_write(card_context *context, uint32_t address, const void *data, uint32_t size,
                 bool raw, uint32_t chunk_size) {
    if (!has_open_handle(context)) return GC_ERR_INVALID_HANDLE;
    if (context->link_device == nullptr) return GC_ERR_IO;
    if (data == nullptr || size == 0) return GC_ERR_INVALID_PARAMETER;
    const uint32_t chunk = chunk_size != 0 ? chunk_size : kCameraChunkSize;
    // A write only reads from the buffer.
    auto *bytes = static_cast<uint8_t *>(const_cast<void *>(data));
    cxp_device &link = *context->link_device;

    CGenTLAutoLock lock(context->camera_lock);
    if (size < chunk) return link.mem_access(address, bytes, size, !raw, false);
    const uint32_t whole = size / chunk;
    for (uint32_t i = 0; i < whole; ++i) {
        const int result = link.mem_access(address + i * chunk, bytes + i * chunk, chunk, !raw, false);
        if (result != 0) return result;
    }
    const uint32_t rest = size % chunk;
    if (rest == 0) return 0;
    return link.mem_access(address + whole * chunk, bytes + whole * chunk, rest, !raw, false);
}

int camera_read(card_context *context, uint32_t address, void *data, uint64_t *size,
                uint32_t mode, bool raw, uint32_t stride) {
    if (!has_open_handle(context) || context->link_device == nullptr || data == nullptr ||
        size == nullptr || *size == 0)
        return -1;
    cxp_device &link = *context->link_device;
    auto *bytes = static_cast<uint8_t *>(data);

    CGenTLAutoLock lock(context->camera_lock);
    if (mode == kCameraReadString) return read_url_string(link, address, bytes, size);
    if (*size <= kCameraChunkSize) return read_small(link, address, bytes, *size, raw);
    if (stride == 0) {
        LOG_ANY(kError, "camera_read(0x%X): a stride of 0 bytes\n", address);
        return -1;
    }
    return read_strided(link, address, bytes, size, std::min(stride, kCameraStrideLimit));
}

bool camera_is_online(card_context *context) {
    const bool online =
        context != nullptr && context->link_device != nullptr && context->link_device->is_online();
    if (!online) LOG_ANY(kError, "camera is not online\n");
    return online;
}

bool camera_links_up(card_context *context) {
    if (context == nullptr) return false;
    CGenTLAutoLock guard(context->camera_lock);
    return context->link_device != nullptr && context->link_device->links_up();
}

int dma_set_param(card_context *context, const dma_param_block &block) {
    if (!has_open_handle(context)) return -1;
    std::unique_ptr<cxp_data_stream> stream(new (std::nothrow) cxp_data_stream(context));
    if (!stream) return -11;
    stream->words = block;
    std::array<uint32_t, 8> &w = stream->words;
    if (w[kParamTapGeometry] != kDualStreamTapGeometry) w[kParamStreamId2] = kUnusedStreamId;

    context_write_reg(context, kStreamGroup, context->pcie_device.group_index);
    context_write_reg(context, kStreamLineBytes, w[kParamLineFactor] * w[kParamLinesPerFrame]);
    context_write_reg(context, kStreamLines, w[kParamLinesPerFrame]);
    context_write_reg(context, kStreamId1, w[kParamStreamId1]);
    context_write_reg(context, kStreamId2, w[kParamStreamId2]);
    const bool accepted = pcie_set_stream_param(
        context->pcie_device, {w[kParamWidth], w[kParamLinesPerFrame], w[kParamStride],
                               w[kParamStrideCopy], w[kParamTapGeometry]});
    return accepted ? 0 : -1;
}

int dma_start(card_context *context, const uint64_t *addresses, uint32_t count,
              uint32_t payload_size) {
    if (!has_open_handle(context) || addresses == nullptr || count == 0 || payload_size == 0)
        return -1;
    if (!pcie_dma_start(context->pcie_device, std::span(addresses, count), payload_size, 0)) {
        LOG_PAIR(kError, pelorin::msg_zh::kDmaStartFailed, "Can't start PCIe DMA!\n");
        pcie_dma_stop(context->pcie_device);
        return -4;
    }
    if (context->frame_rate == 0) context->frame_rate = kDefaultFrameRate;

    // Start the group's trigger generator when it is in internal mode and
    // not driven from outside; registers already programmed are kept.
    if (context_read_reg(context, kTriggerMode) != kTriggerModeInternal) return 0;
    if (context_read_reg(context, kTriggerPeriod) == 0)
        context_write_reg(context, kTriggerPeriod, 1000000 / context->frame_rate);
    if (context_read_reg(context, kTriggerPulse) == 0)
        context_write_reg(context, kTriggerPulse, kDefaultPulse);
    if (context_read_reg(context, kTriggerExternal) != 0) return 0;
    context_write_reg(context, kTriggerStart, 1);
    return 0;
}

int dma_stop(card_context *context) {
    if (!has_open_handle(context)) return -1;
    context->frame_rate = 0;
    return pcie_dma_stop(context->pcie_device) ? 0 : -1;
}

int dma_queue_buffer(card_context *context, uint32_t index) {
    if (context == nullptr) return -1;
    if (!context->pcie_device.is_open()) return -2;
    return pcie_queue_buffer(context->pcie_device, index) ? 0 : -3;
}

int dma_get_frame(card_context *context, uint32_t *index, uint32_t *pending) {
    if (!has_open_handle(context) || index == nullptr || pending == nullptr) return -1;
    return pcie_get_frame(context->pcie_device, *index, *pending) ? 0 : -1;
}

void sleep_ms(uint32_t milliseconds) {
    // Linux timers are fine-grained already; there is no resolution to raise.
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}
