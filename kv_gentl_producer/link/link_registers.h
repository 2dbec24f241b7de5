// Card registers of the CoaXPress links, shared by the copper and fibre link
// devices.
#pragma once

#include <cstdint>

namespace pelorin::link_registers {

// Per-link control block: 0x1000 + 0x100 x link + register (link blocks 8..15
// are the fibre uplink channels).
inline constexpr uint32_t kLinkBlockBase = 0x1000;
inline constexpr uint32_t kLinkBlockStride = 0x100;

enum link_register : uint32_t {
    kLinkConnectionId = 0,
    kLinkHighRate = 4,
    kLinkTiming6 = 6,
    kLinkTiming7 = 7,
    kLinkTimingUnit = 8,
    kRxWordCount = 16,
    kRxWord = 17,
    kRxReset = 18,
    kTxBegin = 21,
    kTxType = 22,
    kTxTag = 23,
    kTxWord = 24,
    kTxSend = 25,
    kLinkStatus = 32,
    kLinkErrors = 33,
    kAcksWaiting = 52,
    // Fibre receive interface.
    kFiberStatus = 112,
    kFiberStart = 113,
    kFiberWord = 115,
    kFiberDone = 127,
};

inline constexpr uint32_t link_address(uint32_t link, uint32_t reg) {
    return kLinkBlockBase + kLinkBlockStride * link + reg;
}

// Card registers of a link group (relocated by the context where they lie in
// the stream and group blocks).
inline constexpr uint32_t kLinkGroup = 0x0A10;  // + link: the group the link belongs to
inline constexpr uint32_t kGroupLinks = 0x0A20;  // + group: links in use
inline constexpr uint32_t kGroupConfigured = 0x0A30;  // + group
inline constexpr uint32_t kStreamId1 = 0x2010;
inline constexpr uint32_t kStreamId2 = 0x2014;
inline constexpr uint32_t kGroupRunning = 0x280A;

inline constexpr uint32_t kEndOfPacket = 0xFDFDFDFD;
inline constexpr uint32_t kDiscoveryPasses = 3;

}  // namespace pelorin::link_registers
