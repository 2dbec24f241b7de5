#include "modules/slot_arrangement.h"

namespace {

struct mode_layout {
    uint32_t count;
    std::array<uint32_t, kMaxDeviceSlots> masks;
};

constexpr mode_layout kLayouts[] = {
    {1, {0xF, 0, 0, 0}},
    {2, {0x3, 0xC, 0, 0}},
    {3, {0x3, 0x4, 0x8, 0}},
    {4, {0x1, 0x2, 0x4, 0x8}},
};

}  // namespace

slot_arrangement arrange_device_slots(uint32_t cxp_mode, uint32_t device_slots,
                                      const std::array<uint32_t, kMaxDeviceSlots> &link_config) {
    const uint32_t active_mode = device_slots > 1 ? cxp_mode : 0;
    const mode_layout &layout = active_mode < std::size(kLayouts) ? kLayouts[active_mode] : kLayouts[0];
    slot_arrangement slots;
    slots.count = layout.count;
    slots.link_mask = layout.masks;
    for (uint32_t i = 0; i < slots.count; ++i) {
        const uint32_t config = link_config[i];
        if (static_cast<int32_t>(config) > 0) {
            slots.link_count[i] = config >> 16;
            slots.link_speed[i] = config & 0xFFFF;
        } else {
            slots.link_count[i] = 0;
            slots.link_speed[i] = config;
        }
    }
    return slots;
}

std::string slot_name(uint32_t index) { return "device" + std::to_string(index); }
