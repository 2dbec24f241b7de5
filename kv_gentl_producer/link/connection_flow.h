// The connection flow around the link device: opening the card for a camera
// slot, connecting with up to three attempts (demoting in Auto Mode), the
// connection report in the log, reconnection at an assigned configuration,
// disconnection, and the probe that looks for a camera in a listed slot.
#pragma once

#include <cstdint>

struct card_context;

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

// Version of the link layer, printed as major.minor.build (1.2.14).
inline constexpr uint32_t kLinkLayerVersion = 0x0102000E;

// Opens card `card_index` into `context` and connects the camera of the
// slot. With `banner` (a probe) only discovery runs and the report is short.
// 0; -1 card index of 8 or more, or the card does not open; otherwise the
// link device's result (the card is closed again and the context holds no
// link device).
int link_connect(card_context *context, uint32_t card_index, link_config &config,
                 conn_settings &settings, bool banner);
// One connection attempt: -1 without context or link device; 0 at once for a
// fibre device already connected.
int link_try_connect(card_context *context, bool allow_demote);
// Reconnects the camera at `config` ((links << 16) | rate); the device's result.
int link_reconnect(card_context *context, uint32_t config);
// link_reconnect, and when it fails one link at CXP-3; the first result.
int link_reconnect_with_fallback(card_context *context, uint32_t config);
// Stops DMA, destroys the link device and closes the card: 0; -1 without
// context or open handle.
int link_disconnect(card_context *context);

// Looks for a camera in the slot and records its identity in the table of
// detected cameras (modules/device_record.h). Reports nothing: a slot with
// no camera gets an empty record.
void probe_device(uint32_t card_index, const link_config &config, conn_settings &settings);
