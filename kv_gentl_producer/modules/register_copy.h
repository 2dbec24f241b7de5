// The copy step of every module register read: the whole value or nothing.
// A buffer smaller than the value gets GC_ERR_BUFFER_TOO_SMALL and the
// value's size; a larger one gets the value and the value's size.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pelorin/gentl.h"

namespace pelorin {

GC_ERROR CopyRegisterValue(const void *source, size_t length, void *pBuffer, size_t *piSize);
// A string register: the text with its NUL.
GC_ERROR CopyRegisterText(const char *text, void *pBuffer, size_t *piSize);
// The length item of a string register: the text's size with its NUL, u32.
GC_ERROR CopyRegisterLength(const char *text, void *pBuffer, size_t *piSize);

// The value of a register write: the little-endian word in the first bytes
// written (at most 4; fewer are zero-extended).
uint32_t WrittenWord(const void *buffer, size_t size);

template <typename T>
GC_ERROR CopyRegisterNumber(T value, void *pBuffer, size_t *piSize) {
    return CopyRegisterValue(&value, sizeof value, pBuffer, piSize);
}

}  // namespace pelorin
