#include "emulator/register_file.h"

#include <cerrno>
#include <iterator>
#include <utility>

namespace pelorin::emu {

namespace {
constexpr uint64_t kAddressSpace = uint64_t{1} << 32;
}

std::shared_ptr<register_window> register_file::window_at(uint32_t address, uint32_t &offset) const {
    // The window with the highest base at or below the address, if it reaches it.
    auto found = windows_.upper_bound(address);
    if (found == windows_.begin()) return nullptr;
    --found;
    if (address >= found->second.end) return nullptr;
    offset = address - found->first;
    return found->second.window;
}

uint32_t register_file::read(uint32_t address) const {
    std::shared_ptr<register_window> window;
    uint32_t offset = 0;
    {
        std::lock_guard lock(mutex_);
        window = window_at(address, offset);
        if (!window) {
            const auto found = values_.find(address);
            return found == values_.end() ? 0 : found->second;
        }
    }
    return window->read(offset);
}

void register_file::write(uint32_t address, uint32_t value) {
    std::shared_ptr<register_window> window;
    uint32_t offset = 0;
    {
        std::lock_guard lock(mutex_);
        window = window_at(address, offset);
        if (!window) {
            if (value == 0)
                values_.erase(address);
            else if (values_.size() < kMaxStoredRegisters || values_.contains(address))
                values_[address] = value;
            return;
        }
    }
    window->write(offset, value);
}

int register_file::map(uint32_t base, uint64_t size, std::shared_ptr<register_window> window) {
    if (size == 0 || !window || size > kAddressSpace - base) return -EINVAL;
    const uint64_t end = base + size;
    std::lock_guard lock(mutex_);
    // The first window starting at or after the base must start at or past
    // the end, and the one before the base must end at or before it.
    const auto next = windows_.lower_bound(base);
    if (next != windows_.end() && next->first < end) return -EBUSY;
    if (next != windows_.begin() && std::prev(next)->second.end > base) return -EBUSY;
    windows_.emplace(base, mapping{end, std::move(window)});
    return 0;
}

bool register_file::mapped(uint32_t address) const {
    uint32_t offset = 0;
    std::lock_guard lock(mutex_);
    return window_at(address, offset) != nullptr;
}

int register_file::unmap(uint32_t base) {
    std::lock_guard lock(mutex_);
    return windows_.erase(base) == 1 ? 0 : -EINVAL;
}

}  // namespace pelorin::emu
