#include "emulator/card_profile.h"

#include <cstdio>

namespace pelorin::emu {

card_profile card_profile::halden_q12(uint32_t index) {
    card_profile profile;
    char text[32];
    // Serial numbers of one production lot, counted from the first card.
    std::snprintf(text, sizeof text, "OV181-2311-%04u", 457u + index);
    profile.identifier = text;
    std::snprintf(text, sizeof text, "HQ12-%u 4xCXP12", index);
    profile.name = text;
    return profile;
}

}  // namespace pelorin::emu
