// Record buffers that the settings loader hands to callers, one per module
// handle, owned by the library until it is closed.
#pragma once

#include <cstddef>

#include "pelorin/kv_api.h"

namespace pelorin::features {

inline constexpr size_t kSettingsRecordsPerLoad = 1024;
static_assert(sizeof(kv_settings_record) == 520, "settings record layout");

// The buffer kept for `handle`, created (zeroed, kSettingsRecordsPerLoad
// records) on first use; null when memory runs out.
kv_settings_record *SettingsBufferFor(const void *handle);

// Frees the buffer kept for `handle`, if any.
void ReleaseSettingsBuffer(const void *handle);

// Frees every buffer and empties the table (library close).
void ReleaseSettingsBuffers();

// Number of buffers currently kept.
size_t SettingsBufferCount();

}  // namespace pelorin::features
