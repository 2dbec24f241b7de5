// libFuzzer target for emulation profiles: each input is a profile text given
// to parse_profile, with camera description files looked for in a directory
// of this run that holds one usable file (camera.xml) and one that is no
// register description (notes.txt).
//   - A refused profile leaves the card list as it was and gives an error
//     text "<source>: <problem>".
//   - An accepted one is JSON, and the cards follow it: as many as the card
//     objects ask for with their repeats, the built-in card's identity where
//     none is given and the "-<copy>" marks of repeated cards where one is,
//     the link count given, the standard cameras when "cameras" is missing
//     and otherwise one camera per object, each with the defaults that
//     depend on its card.
//   - Every card and camera value lies in the range docs/emulator.md gives:
//     links 0..32, at most 8 cameras on distinct links the card has, line
//     rates that are line rates, a ConnectionConfigDefault with 1 .. the
//     camera's links at a supported rate, identity strings that fit their
//     registers, faults on the camera's own links.
// Any broken rule aborts with a message; the sanitizers catch the rest.
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/card_profile.h"
#include "emulator/emulated_card.h"
#include "emulator/profile_loader.h"

#include "fuzz_rules.h"

namespace {

using json = nlohmann::json;
using namespace pelorin::emu;

constexpr std::string_view kSource = "fuzz-input";

using pelorin::fuzz::fail;
using pelorin::fuzz::require;

// The directory relative description files are taken from; removed when the
// process ends.
std::string g_base_dir;

void make_base_dir() {
    char pattern[] = "/tmp/pelorin-profile-fuzz-XXXXXX";
    if (mkdtemp(pattern) == nullptr) fail("mkdtemp failed");
    g_base_dir = pattern;
    std::ofstream(g_base_dir + "/camera.xml")
        << "<?xml version=\"1.0\"?>\n<RegisterDescription ModelName=\"Fuzz\" VendorName=\"Pelorin\">"
           "<Port Name=\"Device\"/></RegisterDescription>\n";
    std::ofstream(g_base_dir + "/notes.txt") << "not a description\n";
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(g_base_dir, ignored);
    });
}

// ---------------------------------------------------------------------------
// Ranges every accepted card and camera keeps

bool contains(const std::vector<uint32_t> &list, uint32_t value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

void check_rates(const std::vector<uint32_t> &rates, const std::string &where) {
    require(!rates.empty() && rates.size() <= 16, where + ": rate list of a wrong length");
    for (uint32_t rate : rates) require(is_line_rate(rate), where + ": a rate that is no line rate");
}

void check_camera(const camera_profile &camera, const card_profile &card, const std::string &where) {
    const uint32_t card_links = std::min(card.link_count, kMaxCameraConnections);
    require(!camera.links.empty() && camera.links.size() <= kMaxCameraConnections,
            where + ": link list of a wrong length");
    for (size_t i = 0; i < camera.links.size(); ++i) {
        require(camera.links[i] < card_links, where + ": a link the card does not have");
        require(std::count(camera.links.begin(), camera.links.end(), camera.links[i]) == 1,
                where + ": a link given twice");
    }
    check_rates(camera.discovery_rates, where + " discovery_rates");
    check_rates(camera.supported_rates, where + " supported_rates");
    const uint32_t default_links = camera.default_config >> 16;
    require(default_links >= 1 && default_links <= camera.links.size(),
            where + ": default_config with a link count out of range");
    require(contains(camera.supported_rates, camera.default_config & 0xFFFF),
            where + ": default_config at a rate the camera does not support");
    require(camera.control_packet_size_max >= 32 && camera.control_packet_size_max <= 0x100000,
            where + ": control_packet_size_max out of range");
    require(camera.stream_packet_size_max <= 0x100000, where + ": stream_packet_size_max out of range");
    require(camera.vendor.size() <= 31 && camera.model.size() <= 31 && camera.version.size() <= 31 &&
                camera.manufacturer_info.size() <= 47 && camera.serial.size() <= 15 &&
                camera.user_id.size() <= 15,
            where + ": an identity string longer than its register");
    const camera_faults &faults = camera.faults;
    require(faults.wait_acks_ms.size() <= 16, where + ": more than 16 wait acknowledgements");
    for (uint32_t wait : faults.wait_acks_ms) require(wait <= 60000, where + ": a wait above 60000 ms");
    require(faults.error_code != 4, where + ": error code 4");
    require(faults.garbage_words <= 256, where + ": more than 256 garbage words");
    for (uint32_t link : faults.unplugged_links)
        require(contains(camera.links, link), where + ": an unplugged link of another camera");
    for (uint32_t link : faults.broken_links)
        require(contains(camera.links, link), where + ": a broken link of another camera");
    if (!camera.description_xml.empty()) {
        require(camera.description_xml.find("<RegisterDescription") != std::string::npos,
                where + ": a description file that is no register description");
        const std::string &name = camera.description_name;
        require(!name.empty() && name.size() <= kMaxDescriptionNameLength,
                where + ": a description name of a wrong length");
        for (char c : name)
            require((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                        c == '_' || c == '-',
                    where + ": a description name with a character it may not hold");
    }
}

void check_card(const card_profile &card, const std::string &where) {
    require(card.link_count <= 32, where + ": more than 32 links");
    require(card.description == description_storage::valid ||
                card.description == description_storage::damaged ||
                card.description == description_storage::absent,
            where + ": an unknown description storage");
    if (!card.cameras) return;
    require(card.cameras->size() <= kMaxCameraConnections, where + ": more than 8 cameras");
    std::vector<uint32_t> taken;
    for (size_t i = 0; i < card.cameras->size(); ++i) {
        const camera_profile &camera = (*card.cameras)[i];
        const std::string place = where + ".cameras[" + std::to_string(i) + "]";
        check_camera(camera, card, place);
        for (uint32_t link : camera.links) {
            require(!contains(taken, link), place + ": a link an earlier camera uses");
            taken.push_back(link);
        }
    }
}

// ---------------------------------------------------------------------------
// The cards against the JSON they came from

// What a card object's "repeat" asks for (1 when missing).
uint64_t repeat_of(const json &object) {
    const auto it = object.find("repeat");
    return it == object.end() ? 1 : it->get<uint64_t>();
}

// The name of copy `copy`: the given name's first word, perhaps cut, then
// "-<copy>" and the rest of the name.
void check_repeated_name(const std::string &given, const std::string &name, uint64_t copy,
                         const std::string &where) {
    const std::string suffix = "-" + std::to_string(copy);
    const size_t blank = std::min(given.find(' '), given.size());
    const std::string tail = suffix + given.substr(blank);
    require(name.size() >= tail.size() && name.compare(name.size() - tail.size(), tail.size(), tail) == 0,
            where + ": a repeated name without its copy number after the first word");
    const std::string first = name.substr(0, name.size() - tail.size());
    require(given.compare(0, first.size(), first) == 0 && first.size() <= blank,
            where + ": a repeated name whose first word is not the given one's");
    require(first.size() == std::min(blank, emulated_card::kNameCapacity - 1 - suffix.size()),
            where + ": a repeated name's first word cut to another length");
}

// A camera's integer: a JSON number or a "0x..." string.
uint64_t camera_integer(const json &value) {
    if (!value.is_string()) return value.get<uint64_t>();
    return std::stoull(value.get<std::string>().substr(2), nullptr, 16);
}

void check_camera_defaults(const json &object, const camera_profile &camera, const card_profile &card,
                           size_t index, const std::string &where) {
    std::vector<uint32_t> links;
    for (const json &link : object.at("links")) links.push_back(static_cast<uint32_t>(camera_integer(link)));
    require(camera.links == links, where + ": links differ from the profile's");
    if (!object.contains("serial"))
        require(camera.serial ==
                    camera_profile::standard_serial(card.identifier, static_cast<uint32_t>(index)),
                where + ": a serial number other than the standard one");
    if (!object.contains("default_config")) {
        const uint32_t rate = is_line_rate(card.link_rate_code) ? card.link_rate_code : kRateCxp12;
        require(camera.default_config == (static_cast<uint32_t>(links.size()) << 16 | rate),
                where + ": a default configuration other than all links at the card's rate");
    }
}

void check_against_document(const json &document, const std::vector<card_profile> &cards) {
    require(document.is_object() && document.contains("cards") && document.at("cards").is_array(),
            "accepted a profile without a \"cards\" array");
    size_t position = 0;
    const json &list = document.at("cards");
    for (size_t entry = 0; entry < list.size(); ++entry) {
        const json &object = list[entry];
        require(object.is_object(), "accepted a card that is no object");
        const uint64_t repeat = repeat_of(object);
        require(repeat >= 1 && repeat <= kMaxProfileCards, "accepted a repeat out of range");
        for (uint64_t copy = 0; copy < repeat; ++copy, ++position) {
            const std::string where = "cards[" + std::to_string(entry) + "] copy " + std::to_string(copy);
            require(position < cards.size(), "fewer cards than the profile asks for");
            const card_profile &card = cards[position];
            const card_profile builtin = card_profile::halden_q12(static_cast<uint32_t>(position));
            if (const auto it = object.find("identifier"); it == object.end())
                require(card.identifier == builtin.identifier, where + ": not the built-in identifier");
            else if (repeat == 1)
                require(card.identifier == it->get<std::string>(), where + ": not the given identifier");
            else
                require(card.identifier == it->get<std::string>() + "-" + std::to_string(copy),
                        where + ": a repeated identifier without its copy number");
            if (const auto it = object.find("name"); it == object.end())
                require(card.name == builtin.name, where + ": not the built-in name");
            else if (repeat == 1)
                require(card.name == it->get<std::string>(), where + ": not the given name");
            else
                check_repeated_name(it->get<std::string>(), card.name, copy, where);
            if (const auto it = object.find("links"); it != object.end())
                require(card.link_count == it->get<uint32_t>(), where + ": not the given link count");
            else
                require(card.link_count == builtin.link_count, where + ": not the built-in link count");
            const auto cameras = object.find("cameras");
            if (cameras == object.end()) {
                require(!card.cameras.has_value(), where + ": cameras without a \"cameras\" key");
                continue;
            }
            require(card.cameras.has_value() && card.cameras->size() == cameras->size(),
                    where + ": not one camera per camera object");
            for (size_t i = 0; i < cameras->size(); ++i)
                check_camera_defaults((*cameras)[i], (*card.cameras)[i], card, i,
                                      where + ".cameras[" + std::to_string(i) + "]");
        }
    }
    require(position == cards.size(), "more cards than the profile asks for");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    make_base_dir();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view text(reinterpret_cast<const char *>(data), size);

    // A list that a refused profile must leave as it is.
    card_profile marker = card_profile::halden_q12(77);
    marker.identifier = "untouched";
    std::vector<card_profile> cards{marker};
    std::string error;
    const bool accepted = parse_profile(text, kSource, cards, error, g_base_dir);

    if (!accepted) {
        require(cards.size() == 1 && cards[0].identifier == "untouched",
                "a refused profile changed the card list");
        const std::string prefix = std::string(kSource) + ": ";
        require(error.size() > prefix.size() && error.compare(0, prefix.size(), prefix) == 0,
                "a refused profile without an error text naming its source: " + error);
        return 0;
    }

    require(cards.size() <= kMaxProfileCards, "more than 128 cards");
    for (size_t i = 0; i < cards.size(); ++i) check_card(cards[i], "cards[" + std::to_string(i) + "]");

    json document;
    try {
        document = json::parse(text);
    } catch (const json::exception &e) {
        fail(std::string("accepted a text that is not JSON: ") + e.what());
    }
    try {
        check_against_document(document, cards);
    } catch (const json::exception &e) {
        // A value the loader took that is not of the type the format names.
        fail(std::string("accepted a value of the wrong type: ") + e.what());
    }
    return 0;
}
