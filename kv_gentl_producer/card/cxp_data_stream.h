// The stream-parameter object: the parameter block of one dma_set_param
// call, bound to its context. Every live object is on a process-wide list,
// so that a leaked one can be found.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

struct card_context;

class cxp_data_stream {
public:
    explicit cxp_data_stream(card_context *context);
    virtual ~cxp_data_stream();

    cxp_data_stream(const cxp_data_stream &) = delete;
    cxp_data_stream &operator=(const cxp_data_stream &) = delete;

    // Number of objects alive in the process.
    static size_t live_count();

    card_context *context;
    // Stream IDs, width, lines, line factor, stride (twice), tap geometry.
    std::array<uint32_t, 8> words;
};
