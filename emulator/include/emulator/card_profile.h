// What one emulated card is: its identity, firmware state, the content of
// its description storage and the cameras behind its links. The bus builds
// an emulated_card from each profile.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "emulator/camera_profile.h"

namespace pelorin::emu {

// Content of the card's description storage (a 1 MiB flash).
enum class description_storage {
    valid,    // a correct description block at offset 0
    damaged,  // the same block with its checksum off by one
    absent,   // erased flash: every byte 0xFF
};

struct card_profile {
    uint16_t product_id = 0x181;
    uint32_t boot_generation = 2;  // boot firmware generation 0, 1 or 2
    bool stage2_loaded = true;     // second-stage firmware came up
    uint32_t link_count = 4;
    uint32_t device_slots = 4;
    uint32_t link_rate_code = 0x58;  // 0x48 CXP-6, 0x58 CXP-12
    uint16_t firmware_major = 1;
    uint16_t firmware_minor = 2;
    uint8_t attribute = 0;
    std::string identifier = "OV181-2311-0457";
    std::string name = "HQ12-0 4xCXP12";  // at most 15 characters are stored
    description_storage description = description_storage::valid;
    std::string vendor = "Orvane";
    std::string model = "Halden Q12 CXP-12 x4";
    // The cameras behind the links. Unset: the card's standard cameras
    // (camera_profile::standard_cameras for its link count, rate code and
    // identifier); an empty list: no camera. A connection on a link the card
    // does not have, or on a link an earlier camera of the list already
    // uses, is left unplugged (the profile loader refuses both).
    std::optional<std::vector<camera_profile>> cameras;
    // The cameras' frames come as fast as buffers are queued, whatever their
    // exposure, frame rate and links allow (benchmarks).
    bool unlimited_frame_rate = false;
    // Each completed buffer ends with the steady-clock time of its completion
    // in nanoseconds (8 bytes, little-endian, over the image's last bytes),
    // so that a consumer in the same process can measure the delivery
    // latency (benchmarks).
    bool completion_stamp = false;

    // The built-in card: a 4-link Halden Q12 whose identifier and name carry
    // `index` so that several default cards can be told apart, with its
    // standard cameras (two, on links 0-1 and 2-3).
    static card_profile halden_q12(uint32_t index = 0);
};

}  // namespace pelorin::emu
