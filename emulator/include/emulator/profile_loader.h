// Emulation profiles: JSON texts that say which cards the emulated bus
// holds. emulator/profiles/README.md describes the format.
//
// Failures never throw: they return false with an error text
// "<source>: <problem>", where the problem names the key and card
// ("cards[1].product_id: expected an integer 0..65535") or, for a text that
// is not JSON, the parser's position.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "emulator/card_profile.h"

namespace pelorin::emu {

// Most cards a profile may describe (repeats included), and the largest
// profile file read.
inline constexpr size_t kMaxProfileCards = 128;
inline constexpr size_t kMaxProfileFileSize = 1 << 20;

// Parses a profile text; `source` names it in the error text. On success
// `cards` holds the cards in bus order.
bool parse_profile(std::string_view text, std::string_view source, std::vector<card_profile> &cards,
                   std::string &error);

// Reads and parses the profile file at `path`.
bool load_profile_file(const std::string &path, std::vector<card_profile> &cards,
                       std::string &error);

}  // namespace pelorin::emu
