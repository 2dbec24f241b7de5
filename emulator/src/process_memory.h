// Whether addresses that a host hands to the DMA engine are memory the
// engine may write: the emulated card writes frames straight into the
// buffers of its own process, so a wrong address must be refused up front
// instead of faulting on the engine's thread.
#pragma once

#include <cstdint>
#include <span>

namespace pelorin::emu::process_memory {

// True when [buffer, buffer + size) of every buffer lies in writable mappings
// of this process (as /proc/self/maps lists them).
bool writable(std::span<uint8_t *const> buffers, uint64_t size);

}  // namespace pelorin::emu::process_memory
