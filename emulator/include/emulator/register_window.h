// A range of card registers answered by a model instead of plain storage:
// the CoaXPress camera models answer the per-link control blocks
// (0x1000 + 0x100 x link) through windows mapped with
// emulated_card::map_registers.
//
// `offset` is the register address minus the window's base. The card calls
// a window from the thread that sent the message, without any card lock
// held, so a window may raise interrupts or read other registers; a window
// guards its own state against concurrent callers.
#pragma once

#include <cstdint>

namespace pelorin::emu {

class register_window {
public:
    virtual ~register_window() = default;
    virtual uint32_t read(uint32_t offset) = 0;
    virtual void write(uint32_t offset, uint32_t value) = 0;
};

}  // namespace pelorin::emu
