// The card's register space: 32-bit registers at 32-bit addresses, read back
// as written and 0 until written, with ranges that windows answer instead.
//
// Storage is sparse. At most kMaxStoredRegisters distinct addresses hold a
// non-zero value; writes of a non-zero value to further addresses are
// dropped, as unimplemented registers of a real card drop them.
//
// Thread safety: every call may come from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "emulator/register_window.h"

namespace pelorin::emu {

class register_file {
public:
    static constexpr size_t kMaxStoredRegisters = size_t{1} << 20;

    uint32_t read(uint32_t address) const;
    void write(uint32_t address, uint32_t value);

    // Answers [base, base + size) through `window`. -EINVAL for size 0, a
    // range past the 32-bit address space or no window; -EBUSY when the range
    // overlaps a window already mapped.
    int map(uint32_t base, uint64_t size, std::shared_ptr<register_window> window);
    // Removes the window mapped at `base`; -EINVAL when there is none.
    int unmap(uint32_t base);
    // True when a window answers `address`.
    bool mapped(uint32_t address) const;

private:
    struct mapping {
        uint64_t end = 0;  // one past the last address
        std::shared_ptr<register_window> window;
    };
    // The window answering `address` and the offset in it, or null.
    std::shared_ptr<register_window> window_at(uint32_t address, uint32_t &offset) const;

    mutable std::mutex mutex_;
    std::unordered_map<uint32_t, uint32_t> values_;  // non-zero values only
    std::map<uint32_t, mapping> windows_;            // by base
};

}  // namespace pelorin::emu
