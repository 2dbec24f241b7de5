// Port exports: reach the register space, URLs and port information of the
// module that the port handle belongs to.
#include "entry/entry_body.h"

using namespace pelorin;
using namespace pelorin::entry;

namespace {

CTLSystem &as_system(void *owner) { return *static_cast<CTLSystem *>(owner); }
CGentlInterface &as_interface(void *owner) { return *static_cast<CGentlInterface *>(owner); }
CGentlDevice &as_device(void *owner) { return *static_cast<CGentlDevice *>(owner); }

// The locks of a write through `hPort`. The system's and the interfaces'
// registers include the list updates, which rebuild the module lists that
// every handle lookup walks, so a consumer's write there also takes
// ApiLock, as TLUpdateInterfaceList and IFUpdateDeviceList do. Device and
// camera writes keep to OpenCloseLock: a slow camera must not hold up the
// queue calls of an acquiring consumer. A write made inside a call that
// holds OpenCloseLock already (a node map used while a module opens) keeps
// its caller's locks, since ApiLock is never taken after OpenCloseLock.
unsigned write_locks(PORT_HANDLE hPort) noexcept {
    LibraryState &lib = library();
    if (hPort == nullptr || lib.OpenCloseLock.held_by_this_thread()) return kOpenClose;
    try {
        LockScope peek(kOpenClose);
        if (!library_initialised() || lib.TheSystem == nullptr) return kOpenClose;
        const int level = ResolveHandle(hPort, nullptr);
        return level == kLevelSystem || level == kLevelInterface ? kOpenOrClose : kOpenClose;
    } catch (...) {
        return kOpenClose;  // the write's own locking reports what failed
    }
}

}  // namespace

GC_API GCReadPort(PORT_HANDLE hPort, uint64_t iAddress, void *pBuffer, size_t *piSize) {
    return port_call("GCReadPort", hPort, [&](int level, void *owner) -> GC_ERROR {
        switch (level) {
        case kLevelSystem: return as_system(owner).ReadPort(iAddress, pBuffer, piSize);
        case kLevelInterface: return as_interface(owner).ReadPort(iAddress, pBuffer, piSize);
        default: return as_device(owner).ReadPort(level, iAddress, pBuffer, piSize);
        }
    });
}

GC_API GCWritePort(PORT_HANDLE hPort, uint64_t iAddress, const void *pBuffer, size_t *piSize) {
    return port_call("GCWritePort", hPort, [&](int level, void *owner) -> GC_ERROR {
        switch (level) {
        case kLevelSystem: return as_system(owner).WritePort(iAddress, pBuffer, piSize);
        case kLevelInterface: return as_interface(owner).WritePort(iAddress, pBuffer, piSize);
        case kLevelDataStream: return GC_ERR_NOT_AVAILABLE;  // the stream space is read-only
        default: return as_device(owner).WritePort(level, iAddress, pBuffer, piSize);
        }
    }, write_locks(hPort));
}

GC_API GCGetNumPortURLs(PORT_HANDLE hPort, uint32_t *piNumURLs) {
    return port_call("GCGetNumPortURLs", hPort, [&](int level, void *owner) -> GC_ERROR {
        switch (level) {
        case kLevelSystem: return as_system(owner).GetNumPortURLs(piNumURLs);
        case kLevelInterface: return as_interface(owner).GetNumPortURLs(piNumURLs);
        default: return as_device(owner).GetNumPortURLs(level, piNumURLs);
        }
    });
}

GC_API GCGetPortURLInfo(PORT_HANDLE hPort, uint32_t iURLIndex, URL_INFO_CMD iInfoCmd,
                        INFO_DATATYPE *piType, void *pBuffer, size_t *piSize) {
    return port_call("GCGetPortURLInfo", hPort, [&](int level, void *owner) -> GC_ERROR {
        switch (level) {
        case kLevelSystem:
            return as_system(owner).GetPortURLInfo(iURLIndex, iInfoCmd, piType, pBuffer, piSize);
        case kLevelInterface:
            return as_interface(owner).GetPortURLInfo(iURLIndex, iInfoCmd, piType, pBuffer, piSize);
        default:
            return as_device(owner).GetPortURLInfo(level, iURLIndex, iInfoCmd, piType, pBuffer,
                                                   piSize);
        }
    });
}

GC_API GCGetPortURL(PORT_HANDLE hPort, char *sURL, size_t *piSize) {
    // URL index 0, URL_INFO_URL; the type is discarded.
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    return GCGetPortURLInfo(hPort, 0, URL_INFO_URL, &type, sURL, piSize);
}

GC_API GCGetPortInfo(PORT_HANDLE hPort, PORT_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                     void *pBuffer, size_t *piSize) {
    return port_call("GCGetPortInfo", hPort, [&](int level, void *owner) -> GC_ERROR {
        switch (level) {
        case kLevelSystem: return as_system(owner).GetPortInfo(iInfoCmd, piType, pBuffer, piSize);
        case kLevelInterface:
            return as_interface(owner).GetPortInfo(iInfoCmd, piType, pBuffer, piSize);
        default: return as_device(owner).GetPortInfo(level, iInfoCmd, piType, pBuffer, piSize);
        }
    });
}
