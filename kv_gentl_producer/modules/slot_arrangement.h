// How an interface groups its card's links into device (camera) slots: the
// CoaXPress mode from the settings picks the arrangement, and each slot takes
// the link configuration of its letter (A for device0, B for device1, ...).
#pragma once

#include <array>
#include <cstdint>
#include <string>

inline constexpr uint32_t kMaxDeviceSlots = 4;

struct slot_arrangement {
    // Slots in use, 1 to 4.
    uint32_t count = 1;
    // Card links of each slot (bit i = link i).
    std::array<uint32_t, kMaxDeviceSlots> link_mask{};
    // Links and bit-rate code of each slot's configuration; a configuration
    // of 0 (the camera's default) or 1 (found automatically) has no link
    // count and keeps its value as the speed.
    std::array<uint32_t, kMaxDeviceSlots> link_count{};
    std::array<uint32_t, kMaxDeviceSlots> link_speed{};
};

// The arrangement for `cxp_mode` on a card serving `device_slots` cameras:
// mode 0 (and any mode on a single-camera card, and unknown modes) one slot
// on links 0-3; mode 1 two slots on links 0-1 and 2-3; mode 2 three slots on
// links 0-1, 2 and 3; mode 3 four slots of one link each.
slot_arrangement arrange_device_slots(uint32_t cxp_mode, uint32_t device_slots,
                                      const std::array<uint32_t, kMaxDeviceSlots> &link_config);

// "device0", "device1", ...: the device ID of slot `index`.
std::string slot_name(uint32_t index);
