// Maps a GenTL handle to its module level and owner.
#pragma once

#include "pelorin/gentl.h"

namespace pelorin {

enum HandleLevel : int {
    kLevelNone = -1,
    kLevelSystem = 0,
    kLevelInterface = 1,
    kLevelDevice = 2,
    kLevelRemoteDevice = 3,
    kLevelDataStream = 4,
};

// Level of `handle` (-1 when it names no open module). `owner` receives the
// system (level 0), the interface (1) or the owning device (2, 3, 4); it is
// left untouched when the library is not initialised or has no system.
// Compares values only: the handle is never dereferenced. The caller holds
// ApiLock or OpenCloseLock, which every open and close holds too.
int ResolveHandle(const void *handle, void **owner);

}  // namespace pelorin
