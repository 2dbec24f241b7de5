// GC_ERROR codes, their fixed texts and the process-wide last error.
#pragma once

#include "pelorin/gentl.h"
#include "pelorin/kv_api.h"

namespace pelorin {

// Stores a non-zero code as the process-wide last error; returns code unchanged.
GC_ERROR RecordLastError(GC_ERROR code);

// The last error as the next GCGetLastError would report it.
GC_ERROR LastError();

// Constant text of a code ("Unknown status code" for codes without one).
const char *ErrorText(GC_ERROR code);

// Result of module calls whose implementation has not landed yet: logs which
// call it was, once per call name, and answers GC_ERR_NOT_IMPLEMENTED.
GC_ERROR NotImplementedYet(const char *call);

}  // namespace pelorin
