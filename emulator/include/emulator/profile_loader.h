// Emulation profiles: JSON texts that say which cards the emulated bus
// holds and which cameras sit behind their links.
// docs/emulator.md describes the format.
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
// Largest camera description file, and the longest name one may have (the
// file name up to its first '.').
inline constexpr size_t kMaxDescriptionFileSize = 8 << 20;
inline constexpr size_t kMaxDescriptionNameLength = 64;

// Parses a profile text; `source` names it in the error text. On success
// `cards` holds the cards in bus order. A camera's relative
// "description_file" is looked for in `base_dir` (empty: the current
// directory).
bool parse_profile(std::string_view text, std::string_view source, std::vector<card_profile> &cards,
                   std::string &error, std::string_view base_dir = {});

// Reads and parses the profile file at `path`; relative description files
// are looked for beside it.
bool load_profile_file(const std::string &path, std::vector<card_profile> &cards,
                       std::string &error);

}  // namespace pelorin::emu
