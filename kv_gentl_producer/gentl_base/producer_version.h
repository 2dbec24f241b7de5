// The producer's version text, reported as the TL version and in the card
// start-up messages.
#pragma once

namespace pelorin {

inline constexpr const char *kProducerVersion = "1.1.4.11";

}  // namespace pelorin
