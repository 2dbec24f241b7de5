// System-module exports: TLOpen, TLClose and the calls on the system handle.
#include <new>

#include "entry/entry_body.h"

using namespace pelorin;
using namespace pelorin::entry;

namespace {
constexpr uint32_t kInterfaceRingCapacity = 1024;
}

GC_API TLOpen(TL_HANDLE *phTL) {
    return guarded("TLOpen", [&]() -> GC_ERROR {
        LockScope scope(kOpenOrClose);
        LibraryState &lib = library();
        // The three early refusals are not recorded.
        if (!library_initialised()) return GC_ERR_NOT_INITIALIZED;
        if (phTL == nullptr) return GC_ERR_INVALID_PARAMETER;
        if (lib.TheSystem != nullptr) return GC_ERR_RESOURCE_IN_USE;

        CTLSystem *system = new (std::nothrow) CTLSystem;
        if (system == nullptr) return RecordLastError(GC_ERR_ACCESS_DENIED);
        lib.TheSystem = system;
        if (!system->Init(kInterfaceRingCapacity)) {
            lib.TheSystem = nullptr;
            delete system;
            LOG_ANY(diag::kError, "TLOpen: the system module could not be initialised\n");
            return RecordLastError(GC_ERR_ACCESS_DENIED);
        }
        *phTL = system;
        return RecordLastError(GC_ERR_SUCCESS);
    });
}

GC_API TLClose(TL_HANDLE hTL) {
    return guarded("TLClose", [&]() -> GC_ERROR {
        // EventLock too: every module below the system closes with it.
        LockScope scope(kTeardownStream);
        LibraryState &lib = library();
        if (!library_initialised()) return RecordLastError(GC_ERR_NOT_INITIALIZED);
        if (hTL == nullptr || lib.TheSystem == nullptr || hTL != lib.TheSystem)
            return RecordLastError(GC_ERR_INVALID_HANDLE);
        CTLSystem *system = lib.TheSystem;
        const GC_ERROR result = system->Close();
        delete system;
        lib.TheSystem = nullptr;
        ForgetClosedStreamEvents();
        return RecordLastError(result);
    });
}

GC_API TLGetInfo(TL_HANDLE hTL, TL_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                 size_t *piSize) {
    return system_call("TLGetInfo", kApi, hTL, [&](CTLSystem &system) {
        return system.TLGetInfo(iInfoCmd, piType, pBuffer, piSize);
    });
}

GC_API TLGetNumInterfaces(TL_HANDLE hTL, uint32_t *piNumIfaces) {
    return system_call("TLGetNumInterfaces", kApi, hTL,
                       [&](CTLSystem &system) { return system.TLGetNumInterfaces(piNumIfaces); });
}

// The two calls below may rebuild the interface list, which ResolveHandle
// reads under either library lock: like an open, they hold both.
GC_API TLGetInterfaceID(TL_HANDLE hTL, uint32_t iIndex, char *sID, size_t *piSize) {
    return system_call("TLGetInterfaceID", kOpenOrClose, hTL, [&](CTLSystem &system) {
        return system.TLGetInterfaceID(iIndex, sID, piSize);
    });
}

GC_API TLGetInterfaceInfo(TL_HANDLE hTL, const char *sIfaceID, INTERFACE_INFO_CMD iInfoCmd,
                          INFO_DATATYPE *piType, void *pBuffer, size_t *piSize) {
    return system_call("TLGetInterfaceInfo", kApi, hTL, [&](CTLSystem &system) {
        return system.TLGetInterfaceInfo(sIfaceID, iInfoCmd, piType, pBuffer, piSize);
    });
}

GC_API TLOpenInterface(TL_HANDLE hTL, const char *sIfaceID, IF_HANDLE *phIface) {
    return system_call("TLOpenInterface", kOpenOrClose, hTL, [&](CTLSystem &system) {
        return system.TLOpenInterface(sIfaceID, phIface);
    });
}

GC_API TLUpdateInterfaceList(TL_HANDLE hTL, bool8_t *pbChanged, uint64_t iTimeout) {
    return system_call("TLUpdateInterfaceList", kOpenOrClose, hTL, [&](CTLSystem &system) {
        return system.TLUpdateInterfaceList(pbChanged, iTimeout);
    });
}
