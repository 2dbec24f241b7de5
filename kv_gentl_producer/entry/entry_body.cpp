#include "entry/entry_body.h"

namespace pelorin::entry {

void ForgetClosedStreamEvents() {
    std::erase_if(library().EventRegistry, [](const auto &entry) {
        void *owner = nullptr;
        return ResolveHandle(entry.second, &owner) != kLevelDataStream;
    });
}

GC_ERROR resolve_feature_handle(void *handle, int *level, void **owner) {
    if (!library_initialised() || library().TheSystem == nullptr || handle == nullptr)
        return GC_ERR_NOT_INITIALIZED;
    *level = ResolveHandle(handle, owner);
    return *level == kLevelNone ? GC_ERR_NOT_AVAILABLE : GC_ERR_SUCCESS;
}

}  // namespace pelorin::entry
