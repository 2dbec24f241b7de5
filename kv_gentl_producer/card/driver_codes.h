// The card driver's I/O control codes and the fixed sizes of its records.
// A code is built like a Windows CTL_CODE: device type in bits 16-31,
// required access in bits 14-15, function in bits 2-13 and transfer type in
// bits 0-1; every code uses transfer type 2 (direct output buffer).
#pragma once

#include <cstddef>
#include <cstdint>

namespace pelorin::card {

constexpr uint32_t driver_code(uint32_t device_type, uint32_t function, uint32_t access) {
    constexpr uint32_t kDirectOutput = 2;
    return (device_type << 16) | (access << 14) | (function << 2) | kDirectOutput;
}

inline constexpr uint32_t kDeviceType = 0x22;
inline constexpr uint32_t kFlashDeviceType = 0x8022;
inline constexpr uint32_t kAnyAccess = 0;
inline constexpr uint32_t kReadAccess = 1;

inline constexpr uint32_t kCodeGetBootInfo = driver_code(kDeviceType, 0x800, kAnyAccess);
inline constexpr uint32_t kCodeGetCardInfo = driver_code(kDeviceType, 0x801, kAnyAccess);
inline constexpr uint32_t kCodeDmaStart = driver_code(kDeviceType, 0x900, kAnyAccess);
inline constexpr uint32_t kCodeDmaStop = driver_code(kDeviceType, 0x901, kAnyAccess);
inline constexpr uint32_t kCodeWriteReg = driver_code(kDeviceType, 0x903, kAnyAccess);
inline constexpr uint32_t kCodeReadReg = driver_code(kDeviceType, 0x904, kAnyAccess);
inline constexpr uint32_t kCodeQueueBuffer = driver_code(kDeviceType, 0x905, kAnyAccess);
inline constexpr uint32_t kCodeGetFrame = driver_code(kDeviceType, 0x906, kAnyAccess);
inline constexpr uint32_t kCodeSetStreamParam = driver_code(kDeviceType, 0x907, kAnyAccess);
inline constexpr uint32_t kCodeWriteFifo = driver_code(kDeviceType, 0x910, kAnyAccess);
inline constexpr uint32_t kCodeRegisterEvent = driver_code(kDeviceType, 0x100, kReadAccess);
inline constexpr uint32_t kCodeUnregisterEvent = driver_code(kDeviceType, 0x101, kReadAccess);
inline constexpr uint32_t kCodeLinkAttach = driver_code(kDeviceType, 0x200, kReadAccess);
inline constexpr uint32_t kCodeLinkDetach = driver_code(kDeviceType, 0x201, kReadAccess);
inline constexpr uint32_t kCodeReadFlash = driver_code(kFlashDeviceType, 0x001, kAnyAccess);

static_assert(kCodeGetBootInfo == 0x00222002);
static_assert(kCodeGetCardInfo == 0x00222006);
static_assert(kCodeDmaStart == 0x00222402);
static_assert(kCodeDmaStop == 0x00222406);
static_assert(kCodeWriteReg == 0x0022240E);
static_assert(kCodeReadReg == 0x00222412);
static_assert(kCodeQueueBuffer == 0x00222416);
static_assert(kCodeGetFrame == 0x0022241A);
static_assert(kCodeSetStreamParam == 0x0022241E);
static_assert(kCodeWriteFifo == 0x00222442);
static_assert(kCodeRegisterEvent == 0x00224402);
static_assert(kCodeUnregisterEvent == 0x00224406);
static_assert(kCodeLinkAttach == 0x00224802);
static_assert(kCodeLinkDetach == 0x00224806);
static_assert(kCodeReadFlash == 0x80220006);

// Record sizes.
inline constexpr size_t kBootRecordSize = 32;
inline constexpr size_t kCardInfoSize = 228;
inline constexpr size_t kDescriptionBlockSize = 216;
// Input of a description-storage read: offset and length words.
inline constexpr size_t kReadFlashRequestSize = 8;

// Message sizes of the register, DMA, event and link messages.
inline constexpr size_t kRegisterRequestSize = 8;       // address, value (or 0)
inline constexpr size_t kRegisterReplySize = 4;         // value read
inline constexpr size_t kChannelRequestSize = 4;        // channel
inline constexpr size_t kQueueBufferRequestSize = 8;    // channel, buffer index
inline constexpr size_t kQueueBufferReplySize = 12;     // not interpreted
inline constexpr size_t kGetFrameReplySize = 12;        // index, reserved, pending
inline constexpr size_t kStreamParamRequestSize = 24;   // channel, five words
inline constexpr size_t kDmaStartHeaderSize = 24;       // then one u64 per buffer
inline constexpr size_t kFifoHeaderSize = 16;           // then one u32 per word
inline constexpr size_t kRegisterEventRequestSize = 16; // source, 0, u64 event
inline constexpr size_t kSourceRequestSize = 4;         // source
inline constexpr size_t kLinkAttachRequestSize = 8;     // group, link mask

// Interrupt sources the driver can signal.
inline constexpr uint32_t kInterruptSourceCount = 32;

// Versions reported in the start-up log.
inline constexpr uint32_t kDmaInterfaceVersion = 0x01010003;
inline constexpr uint32_t kLinkDriverVersion = 0x0102000E;

}  // namespace pelorin::card
