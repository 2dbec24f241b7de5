// The link device: one camera reached over the CoaXPress links of one card.
// The card context (card/card_context.h) holds one while a camera is
// connected and reaches camera memory only through the operations below.
//
// Results are 0 or small negative integers; callers turn them into GenTL
// codes.
#pragma once

#include <cstdint>

struct card_context;

class cxp_device {
public:
    virtual ~cxp_device() = default;

    // Discovery and link configuration up to `stage`.
    virtual int connect(uint32_t stage) = 0;
    // Reapplies the connection parameters to a camera already found.
    virtual int reconnect() = 0;
    // Reads (is_read) or writes `size` bytes of camera memory at `address`.
    // `swap` converts every 32-bit word between host and wire byte order
    // (register values); without it bytes move in wire order (strings and
    // the description file). A read that the camera answers with an
    // unknown-address error gives -3.
    virtual int mem_access(uint32_t address, void *buffer, uint32_t size, bool swap,
                           bool is_read) = 0;
    // True while the camera is reachable.
    virtual bool is_online() = 0;
};
