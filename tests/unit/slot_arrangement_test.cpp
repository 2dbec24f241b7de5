// Device slots of an interface for every CoaXPress mode and link
// configuration.
#include <gtest/gtest.h>

#include <array>

#include "modules/slot_arrangement.h"

namespace {

using masks = std::array<uint32_t, kMaxDeviceSlots>;
constexpr std::array<uint32_t, kMaxDeviceSlots> kDefaults{};

TEST(SlotArrangement, EachModeGroupsTheLinks) {
    const struct {
        uint32_t mode;
        uint32_t count;
        masks link_masks;
    } cases[] = {
        {0, 1, {0xF, 0, 0, 0}},     {1, 2, {0x3, 0xC, 0, 0}}, {2, 3, {0x3, 0x4, 0x8, 0}},
        {3, 4, {0x1, 0x2, 0x4, 0x8}}, {4, 1, {0xF, 0, 0, 0}},   {0xFFFFFFFF, 1, {0xF, 0, 0, 0}},
    };
    for (const auto &c : cases) {
        const slot_arrangement slots = arrange_device_slots(c.mode, 4, kDefaults);
        EXPECT_EQ(slots.count, c.count) << "mode " << c.mode;
        EXPECT_EQ(slots.link_mask, c.link_masks) << "mode " << c.mode;
    }
    // A card serving one camera ignores the mode.
    for (uint32_t mode : {1u, 2u, 3u}) {
        const slot_arrangement single = arrange_device_slots(mode, 1, kDefaults);
        EXPECT_EQ(single.count, 1u);
        EXPECT_EQ(single.link_mask[0], 0xFu);
    }
    EXPECT_EQ(slot_name(0), "device0");
    EXPECT_EQ(slot_name(3), "device3");
}

TEST(SlotArrangement, EachSlotTakesTheConfigurationOfItsLetter) {
    // A: CXP12 x4, B: CXP6 x2, C: Auto, D: the camera's default.
    const slot_arrangement slots =
        arrange_device_slots(3, 4, {0x40058, 0x20048, 1, 0});
    EXPECT_EQ(slots.link_count, (masks{4, 2, 0, 0}));
    EXPECT_EQ(slots.link_speed, (masks{0x58, 0x48, 1, 0}));

    // Slots beyond the arrangement keep nothing; a negative code is kept whole.
    const slot_arrangement two = arrange_device_slots(1, 4, {0x80000058, 0x10028, 0x40058, 0x40058});
    EXPECT_EQ(two.link_count, (masks{0, 1, 0, 0}));
    EXPECT_EQ(two.link_speed, (masks{0x80000058, 0x28, 0, 0}));
}

}  // namespace
