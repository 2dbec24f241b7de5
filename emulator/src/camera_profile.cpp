#include "emulator/camera_profile.h"

#include <algorithm>
#include <array>

namespace pelorin::emu {

namespace {
struct named_rate {
    uint32_t code;
    std::string_view name;
};
constexpr std::array<named_rate, 7> kRates = {{{kRateCxp1, "CXP-1"},
                                               {kRateCxp2, "CXP-2"},
                                               {kRateCxp3, "CXP-3"},
                                               {kRateCxp5, "CXP-5"},
                                               {kRateCxp6, "CXP-6"},
                                               {kRateCxp10, "CXP-10"},
                                               {kRateCxp12, "CXP-12"}}};
}  // namespace

bool is_line_rate(uint32_t code) { return !line_rate_name(code).empty(); }

std::string_view line_rate_name(uint32_t code) {
    for (const named_rate &rate : kRates)
        if (rate.code == code) return rate.name;
    return {};
}

std::optional<uint32_t> line_rate_from_name(std::string_view name) {
    for (const named_rate &rate : kRates)
        if (rate.name == name) return rate.code;
    return std::nullopt;
}

std::string camera_profile::standard_serial(std::string_view card_identifier, uint32_t index) {
    const std::string_view tail =
        card_identifier.size() > 4 ? card_identifier.substr(card_identifier.size() - 4) : card_identifier;
    return "LY25-" + std::string(tail) + "-" + std::to_string(index + 1);
}

std::vector<camera_profile> camera_profile::standard_cameras(uint32_t card_links, uint32_t card_rate,
                                                             std::string_view card_identifier) {
    const uint32_t rate = is_line_rate(card_rate) ? card_rate : kRateCxp12;
    const uint32_t links = std::min(card_links, kMaxCameraConnections);
    std::vector<camera_profile> cameras;
    for (uint32_t first = 0; first < links; first += 2) {
        camera_profile camera;
        camera.links.push_back(first);
        if (first + 1 < links) camera.links.push_back(first + 1);
        camera.default_config = static_cast<uint32_t>(camera.links.size()) << 16 | rate;
        camera.serial = standard_serial(card_identifier, static_cast<uint32_t>(cameras.size()));
        cameras.push_back(std::move(camera));
    }
    return cameras;
}

}  // namespace pelorin::emu
