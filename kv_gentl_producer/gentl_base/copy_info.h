// The one copy-out rule of every info query of the library.
#pragma once

#include <cstddef>

#include "pelorin/gentl.h"

namespace pelorin {

// Size in bytes that a value of `type` occupies in an info answer, or 0 for the
// types the library does not hand out. For strings it is length + 1.
size_t InfoValueSize(INFO_DATATYPE type, const void *source);

// Copies one info value into caller memory:
//  - unsupported type: GC_ERR_NOT_IMPLEMENTED, nothing written;
//  - null pBuffer: size query, *piSize = size, piType untouched, 0;
//  - capacity below the size: *piSize = size, GC_ERR_BUFFER_TOO_SMALL;
//  - otherwise the value (a string with its NUL), its size and its type.
// piSize must not be null (callers check it first); piType may be null only
// for callers that discard the type.
GC_ERROR CopyInfoValue(INFO_DATATYPE type, INFO_DATATYPE *piType, const void *source,
                       void *pBuffer, size_t *piSize);

// Typed conveniences over CopyInfoValue.
GC_ERROR CopyInfoString(const char *text, INFO_DATATYPE *piType, void *pBuffer, size_t *piSize);

template <typename T>
GC_ERROR CopyInfoNumber(INFO_DATATYPE type, T value, INFO_DATATYPE *piType, void *pBuffer,
                        size_t *piSize) {
    static_assert(sizeof(T) == 1 || sizeof(T) == 2 || sizeof(T) == 4 || sizeof(T) == 8);
    return CopyInfoValue(type, piType, &value, pBuffer, piSize);
}

}  // namespace pelorin
