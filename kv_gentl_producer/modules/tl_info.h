// The producer's static transport-layer information record, answered by
// GCGetInfo and TLGetInfo.
#pragma once

#include <cstdint>

#include "gentl_base/producer_version.h"
#include "pelorin/gentl.h"

namespace pelorin {

struct TlInfo {
    char id[128];
    char vendor[128];
    char model[128];
    char version[128];
    char tlType[128];
    char name[128];
    char path[4096];
    char displayName[128];
    int32_t charEncoding;
    uint32_t gentlMajor;
    uint32_t gentlMinor;
};

inline constexpr const char *kLibraryFileName = "pelorin_cxp.cti";
// kProducerVersion comes from gentl_base/producer_version.h.

// The process-wide record (static data, never cleared).
TlInfo &tl_info();

// Library directory (with its trailing separator) found when the system opens;
// empty before that, so the path is the bare file name.
const char *library_directory();
void set_library_directory(const char *directory);

// Fills the record; 0, or GC_ERR_NOT_AVAILABLE when directory + file name do
// not fit the path field.
GC_ERROR static_read_tl_info();

// Answers one TL info item from the record with the copy-out rule:
// null piType/piSize → GC_ERR_INVALID_PARAMETER; command above
// TL_INFO_GENTL_VER_MINOR → GC_ERR_NOT_AVAILABLE.
GC_ERROR AnswerTlInfo(TL_INFO_CMD command, INFO_DATATYPE *piType, void *pBuffer, size_t *piSize);

}  // namespace pelorin
