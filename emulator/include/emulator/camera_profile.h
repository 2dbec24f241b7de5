// What one emulated CoaXPress camera is: the card links its connections
// arrive on, the line rates it discovers and runs at, its bootstrap values,
// identity strings, description file, and the faults it starts with. A card
// profile lists its cameras; cxp_camera is built from one of these.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pelorin::emu {

// Line rate codes of the ConnectionConfig register (low 16 bits).
inline constexpr uint32_t kRateCxp1 = 0x28;   // 1.25 Gbit/s
inline constexpr uint32_t kRateCxp2 = 0x30;   // 2.5 Gbit/s
inline constexpr uint32_t kRateCxp3 = 0x38;   // 3.125 Gbit/s
inline constexpr uint32_t kRateCxp5 = 0x40;   // 5 Gbit/s
inline constexpr uint32_t kRateCxp6 = 0x48;   // 6.25 Gbit/s
inline constexpr uint32_t kRateCxp10 = 0x50;  // 10 Gbit/s
inline constexpr uint32_t kRateCxp12 = 0x58;  // 12.5 Gbit/s

// True for the seven codes above.
bool is_line_rate(uint32_t code);
// "CXP-12" for 0x58 and so on; empty for any other code.
std::string_view line_rate_name(uint32_t code);
// The code of "CXP-1" .. "CXP-12"; nullopt for any other text.
std::optional<uint32_t> line_rate_from_name(std::string_view name);

// Most connections of one camera (the card's link blocks 0..7).
inline constexpr uint32_t kMaxCameraConnections = 8;

// Faults a camera starts with. cxp_camera's control calls set the same at
// run time; counts go down as commands use them up.
struct camera_faults {
    // The next N read replies carry a non-zero check word (the fibre
    // interface: the CRC error flag); their data is intact.
    uint32_t damaged_replies = 0;
    // Each of the next `wait_commands` commands is answered first by wait
    // acknowledgements of these lengths (ms), one after the other, and the
    // final acknowledgement when the last wait has run out.
    std::vector<uint32_t> wait_acks_ms;
    uint32_t wait_commands = 0;
    // The next `error_commands` commands are answered with `error_code`
    // instead of being executed (any code but 4; 0 and 1 are sent as the
    // read or write acknowledgement whatever the command was, a code-0
    // reply with no data).
    uint8_t error_code = 0x40;
    uint32_t error_commands = 0;
    // The next N commands get no reply at all and are not executed.
    uint32_t lost_replies = 0;
    // `garbage_words` words that are neither marker go into the receive
    // side ahead of each of the next `garbage_replies` replies.
    uint32_t garbage_words = 0;
    uint32_t garbage_replies = 0;
    // MasterHostConnectionID held by another host: reads give this value,
    // and writes are acknowledged but change nothing.
    std::optional<uint32_t> foreign_host;
    // Card links of the camera that carry no connection (cable unplugged),
    // and card links whose error counter (link register 33) reads 5000.
    std::vector<uint32_t> unplugged_links;
    std::vector<uint32_t> broken_links;
    // The uplink switch (0x4040 := 1) is acknowledged but the register
    // reads back 0.
    bool uplink_fails = false;
};

struct camera_profile {
    // Card link of each connection, in connection order: links[0] carries
    // connection 0 (the master). 1 to 8 distinct links, each below 8.
    std::vector<uint32_t> links;
    // Rates at which the connections run after power-up and ConnectionReset
    // (discovery), and the rates ConnectionConfig accepts.
    std::vector<uint32_t> discovery_rates = {kRateCxp3};
    std::vector<uint32_t> supported_rates = {kRateCxp1, kRateCxp2,  kRateCxp3, kRateCxp5,
                                             kRateCxp6, kRateCxp10, kRateCxp12};
    uint32_t default_config = 0x20058;  // ConnectionConfigDefault: (links << 16) | rate
    uint32_t revision = 0x00020001;     // Revision: CoaXPress 2.1
    uint32_t versions_supported = 0xE;  // VersionsSupported: 1.1, 2.0, 2.1
    uint32_t control_packet_size_max = 1024;
    uint32_t stream_packet_size_max = 8192;  // value after power-up
    // Identity strings (stored NUL-padded; longer text is cut so a NUL fits).
    // The model name also chooses the camera model (cxp_camera.h): one
    // starting with "Lyra 12C" is the Bayer colour camera, any other the
    // monochrome Lyra 25M.
    std::string vendor = "Orvane";
    std::string model = "Lyra 25M CXP-12";
    std::string manufacturer_info = "Emulated camera";
    std::string version = "1.4.2";
    std::string serial = "LY25-0000-1";
    std::string user_id;
    // 0x403C bit 0: the camera offers the fibre uplink.
    bool uplink = false;
    // The description file: its name (the archive is "<name>.zip", the entry
    // "<name>.xml") and its XML text. Empty text: the built-in description
    // of the camera model, under that model's name.
    std::string description_name = "Orvane_Lyra25M";
    std::string description_xml;
    // A camera that holds no description file: its URL reads empty and no
    // file lies at the description address.
    bool no_description = false;
    camera_faults faults;

    // The standard cameras of a card: one per pair of card links (0-1, 2-3,
    // ...), a last odd link alone, links 0..7 only; each a Lyra 25M whose
    // default configuration is all its links at the card's rate code (CXP-12
    // when that is no line rate or above CXP-12) and whose serial number
    // carries the end of `card_identifier` and its position.
    static std::vector<camera_profile> standard_cameras(uint32_t card_links, uint32_t card_rate,
                                                        std::string_view card_identifier);
    // The serial number standard_cameras gives camera `index` of a card.
    static std::string standard_serial(std::string_view card_identifier, uint32_t index);
};

}  // namespace pelorin::emu
