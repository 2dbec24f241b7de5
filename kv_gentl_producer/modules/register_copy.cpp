#include "modules/register_copy.h"

#include <cstring>

namespace pelorin {

GC_ERROR CopyRegisterValue(const void *source, size_t length, void *pBuffer, size_t *piSize) {
    if (*piSize < length) {
        *piSize = length;
        return GC_ERR_BUFFER_TOO_SMALL;
    }
    *piSize = length;
    std::memcpy(pBuffer, source, length);
    return GC_ERR_SUCCESS;
}

uint32_t WrittenWord(const void *buffer, size_t size) {
    uint8_t bytes[4] = {};
    std::memcpy(bytes, buffer, size < sizeof bytes ? size : sizeof bytes);
    return uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 |
           uint32_t{bytes[3]} << 24;
}

GC_ERROR CopyRegisterText(const char *text, void *pBuffer, size_t *piSize) {
    return CopyRegisterValue(text, std::strlen(text) + 1, pBuffer, piSize);
}

GC_ERROR CopyRegisterLength(const char *text, void *pBuffer, size_t *piSize) {
    const uint32_t length = static_cast<uint32_t>(std::strlen(text) + 1);
    return CopyRegisterValue(&length, sizeof length, pBuffer, piSize);
}

}  // namespace pelorin
