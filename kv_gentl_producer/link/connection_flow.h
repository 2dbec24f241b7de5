// The connection flow around the link device: the parameters an interface
// hands over for one camera slot, and the probe that looks for a camera in a
// newly listed slot.
#pragma once

#include <cstdint>

// The slot parameters of one camera, as the interface passes them.
struct link_config {
    uint32_t slot_index = 0;  // becomes the handle's group and DMA channel
    uint32_t link_count = 0;  // links of the card (filled in by the flow)
    uint32_t link_mask = 0;   // card links of the slot (bit i = link i)
    uint32_t family = 0;      // low byte of the card family; 3 = fibre card
    uint8_t fiber_option_a = 0;
    uint8_t fiber_option_b = 1;
};

// What the connection asks for and what it achieved.
struct conn_settings {
    // 0 the camera's default speed, 1 found automatically (Auto Mode), any
    // other value an assigned bit-rate code.
    uint32_t speed_mode = 0;
    // Links asked for; 0 = the camera's default.
    uint32_t link_count = 0;
    // On return: (links connected << 16) | bit-rate code.
    uint32_t result = 0;
};

// Looks for a camera in the slot and records its identity in the table of
// detected cameras (modules/device_record.h). Reports nothing: a slot with
// no camera keeps an empty record.
void probe_device(uint32_t card_index, const link_config &config, conn_settings &settings);
