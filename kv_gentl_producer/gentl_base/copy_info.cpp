#include "gentl_base/copy_info.h"

#include <cstring>

namespace pelorin {

size_t InfoValueSize(INFO_DATATYPE type, const void *source) {
    switch (type) {
    case INFO_DATATYPE_STRING:
        return source ? std::strlen(static_cast<const char *>(source)) + 1 : 1;
    case INFO_DATATYPE_INT16:
    case INFO_DATATYPE_UINT16:
        return 2;
    case INFO_DATATYPE_INT32:
    case INFO_DATATYPE_UINT32:
        return 4;
    case INFO_DATATYPE_INT64:
    case INFO_DATATYPE_UINT64:
    case INFO_DATATYPE_FLOAT64:
    case INFO_DATATYPE_PTR:
    case INFO_DATATYPE_SIZET:
        return 8;
    case INFO_DATATYPE_BOOL8:
        return 1;
    default:
        return 0;
    }
}

GC_ERROR CopyInfoValue(INFO_DATATYPE type, INFO_DATATYPE *piType, const void *source,
                       void *pBuffer, size_t *piSize) {
    const size_t size = InfoValueSize(type, source);
    if (size == 0) return GC_ERR_NOT_IMPLEMENTED;
    if (piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    if (pBuffer == nullptr) {
        *piSize = size;
        return GC_ERR_SUCCESS;
    }
    if (*piSize < size) {
        *piSize = size;
        return GC_ERR_BUFFER_TOO_SMALL;
    }
    *piSize = size;
    if (type == INFO_DATATYPE_STRING && source == nullptr)
        static_cast<char *>(pBuffer)[0] = '\0';
    else
        std::memcpy(pBuffer, source, size);
    if (piType) *piType = type;
    return GC_ERR_SUCCESS;
}

GC_ERROR CopyInfoString(const char *text, INFO_DATATYPE *piType, void *pBuffer, size_t *piSize) {
    return CopyInfoValue(INFO_DATATYPE_STRING, piType, text ? text : "", pBuffer, piSize);
}

}  // namespace pelorin
