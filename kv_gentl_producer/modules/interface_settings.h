// The link settings of an interface, read from the settings file beside the
// library when the interface opens.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "card/card_context.h"
#include "modules/slot_arrangement.h"

// Opens card `card_index` into `context` (the handle stays open for the
// interface) and reads the settings: the card register 0x300 preset
// ("TivraDefault"), `cxp_mode` ("CXP_Mode" for family 1, else
// "CXP_Mode_Enhanced"), `link_config` ("CxpLinkConfiguration_A" ... "_D")
// and whether user sets are on ("OpenUserSet", with the user-set directory
// and the settings path stored in the context). A missing settings file
// leaves every output as it was. 0, or GC_ERR_INVALID_INDEX when the card
// does not open.
int ReadInterfaceSettings(card_context &context, uint32_t card_index, uint32_t family,
                          uint32_t &cxp_mode, std::array<uint32_t, kMaxDeviceSlots> &link_config);

// "open_userset_if_<card_index>": the "SystemInfo" key that says whether the
// interface of that card loads its user set at open.
std::string InterfaceUserSetKey(uint32_t card_index);
