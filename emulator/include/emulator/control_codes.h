// I/O control codes of the card driver, as the emulated driver decodes them.
// Every code is built like a Windows CTL_CODE: device type in bits 16-31,
// required access in bits 14-15, function in bits 2-13, transfer type in
// bits 0-1 (2: direct output buffer).
#pragma once

#include <cstdint>

namespace pelorin::emu {

constexpr uint32_t control_code(uint32_t device_type, uint32_t function, uint32_t access,
                                uint32_t method = 2) {
    return (device_type << 16) | (access << 14) | (function << 2) | method;
}

inline constexpr uint32_t kAccessAny = 0;
inline constexpr uint32_t kAccessRead = 1;

// Card identity and description storage.
inline constexpr uint32_t kCodeGetBootInfo = control_code(0x22, 0x800, kAccessAny);
inline constexpr uint32_t kCodeGetCardInfo = control_code(0x22, 0x801, kAccessAny);
inline constexpr uint32_t kCodeReadFlash = control_code(0x8022, 0x001, kAccessAny);

// DMA engine and card registers.
inline constexpr uint32_t kCodeDmaStart = control_code(0x22, 0x900, kAccessAny);
inline constexpr uint32_t kCodeDmaStop = control_code(0x22, 0x901, kAccessAny);
inline constexpr uint32_t kCodeWriteReg = control_code(0x22, 0x903, kAccessAny);
inline constexpr uint32_t kCodeReadReg = control_code(0x22, 0x904, kAccessAny);
inline constexpr uint32_t kCodeQueueBuffer = control_code(0x22, 0x905, kAccessAny);
inline constexpr uint32_t kCodeGetFrame = control_code(0x22, 0x906, kAccessAny);
inline constexpr uint32_t kCodeSetStreamParam = control_code(0x22, 0x907, kAccessAny);
inline constexpr uint32_t kCodeWriteFifo = control_code(0x22, 0x910, kAccessAny);

// Interrupt sources and link binding.
inline constexpr uint32_t kCodeRegisterEvent = control_code(0x22, 0x100, kAccessRead);
inline constexpr uint32_t kCodeUnregisterEvent = control_code(0x22, 0x101, kAccessRead);
inline constexpr uint32_t kCodeLinkAttach = control_code(0x22, 0x200, kAccessRead);
inline constexpr uint32_t kCodeLinkDetach = control_code(0x22, 0x201, kAccessRead);

static_assert(kCodeGetBootInfo == 0x00222002);
static_assert(kCodeGetCardInfo == 0x00222006);
static_assert(kCodeReadFlash == 0x80220006);
static_assert(kCodeDmaStart == 0x00222402);
static_assert(kCodeWriteFifo == 0x00222442);
static_assert(kCodeRegisterEvent == 0x00224402);
static_assert(kCodeLinkDetach == 0x00224806);

}  // namespace pelorin::emu
