// The description of one card as an interface of the System module: built
// by card_describe from the card tables, owned by the System module's
// interface list.
#pragma once

#include <cstdint>
#include <string>

class CTLSystem;

struct interface_description {
    std::string id;            // identifier text "(" card name ")"
    std::string vendor;        // description block vendor, else "Orvane"
    std::string model;         // description block model, else the product table's
    std::string identifier;    // identifier text of the card
    uint32_t card_index = 0;   // position of the card in the enumeration
    std::string product_text;  // product identifier in decimal
    std::string name;          // card name (cut at its first blank)
    std::string version;       // firmware version "major.minor"
    uint32_t product_id = 0;
    uint8_t attribute = 0;      // card attribute byte
    uint32_t device_slots = 1;  // cameras the card serves at once (at least 1)
    CTLSystem *system = nullptr;  // the owning system; set by the System module
    std::string userSetKey;       // "open_userset_if_" N when the interface user set is used
};
