// Card identity: the process-wide card tables filled by the start-up
// enumeration, the firmware checks, and the interface description of each
// card.
//
// The tables are written only by card_enumerate (library initialisation,
// before any module exists) and are read-only afterwards, so readers take no
// lock.
#pragma once

#include <cstdint>
#include <vector>

#include "card/boot_record.h"
#include "card/card_info_record.h"
#include "card/description_block.h"
#include "card/interface_description.h"
#include "gentl_base/producer_version.h"

// Cards the tables hold records for; further cards are counted only.
inline constexpr uint32_t kCardTableSize = 8;
// Card numbers probed by the enumeration.
inline constexpr uint32_t kCardProbeLimit = 128;
// Vendor of a card without a valid description block.
inline constexpr const char *kDefaultCardVendor = "Orvane";

// Opens every card the driver offers (up to kCardProbeLimit), reads its card
// information, boot and description records into the tables and checks the
// firmware. False (after an error message) when no card opens, or when a
// card's boot firmware is older than V1 or its second-stage firmware did not
// load. The tables are cleared first, so the card count is 0 after a failure.
bool card_enumerate();

// Writes one interface description per card with records into `list`
// (entries 0 ... n - 1, the list resized to n; `system` and `userSetKey` of
// entries already present are kept) and returns n: the card count, at most
// kCardTableSize.
uint32_t card_describe(std::vector<interface_description> &list);

// Family code of a product identifier: 0x301 standard CoaXPress (and unknown
// products), 0x302 enhanced, 0x303 CoaXPress over fibre, 0x304 base, 0x310
// Camera Link.
uint32_t card_family(uint32_t product_id);

// Model name of a product identifier, "" for an unknown one.
const char *card_product_model(uint32_t product_id);

// Number of cards found by the last successful enumeration (it may exceed
// kCardTableSize).
uint32_t card_count();
// Number of cards that have records: min(card_count(), kCardTableSize).
uint32_t card_record_count();

// The records of card `index`; nullptr beyond card_record_count().
const card_info_record *card_info(uint32_t index);
const boot_record *card_boot_record(uint32_t index);
// All zero unless the card's description block was valid.
const description_block *card_description(uint32_t index);
// The card name, cut at its first blank; "" beyond card_record_count().
const char *card_name(uint32_t index);
