// Pixel formats: the CoaXPress pixel format codes a camera may report mapped
// to their PFNC codes, the formats the producer delivers, and how many bits
// one pixel occupies on the card's output (before rounding to bytes).
#pragma once

#include <cstdint>
#include <string>

namespace pelorin::pixel {

// The PFNC code of a CoaXPress pixel format code; any other value (a PFNC
// code already) unchanged.
uint64_t CxpToPfnc(uint64_t code);

// Bits per pixel on the card's output; 0 for a format the producer does not
// deliver. Unpacked 10/12/14-bit mono and Bayer count their significant bits;
// 3-component formats of 10 to 16 bits count 48.
int32_t BitsPerPixel(uint64_t pfnc);

bool IsSupported(uint64_t pfnc);

// True for the formats whose pixel packing the card is told to take as the
// camera delivers it (the card's flag register 0x2012).
bool CardTakesPacking(uint64_t pfnc);

// The format of a camera reporting `value` for PixelFormat (CoaXPress or
// PFNC code) with current entry `entry_name`: the mapped code when supported,
// else the PFNC code of the entry name ("Mono8" ... "Mono16"), else 0 with
// the error line "Unsupport format:0x%08X".
uint64_t ResolvePixelFormat(uint64_t value, const std::string &entry_name);

}  // namespace pelorin::pixel
