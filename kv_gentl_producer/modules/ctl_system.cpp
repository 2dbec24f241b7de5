#include "modules/ctl_system.h"

#include "gentl_base/error_codes.h"
#include "modules/cgentl_interface.h"
#include "modules/tl_info.h"

using pelorin::NotImplementedYet;

CTLSystem::CTLSystem() = default;

CTLSystem::~CTLSystem() { Close(); }

bool CTLSystem::Init(uint32_t interface_capacity) {
    CGenTLAutoLock guard(critical_);
    if (interface_capacity == 0) return false;
    if (pelorin::static_read_tl_info() != GC_ERR_SUCCESS) return false;
    interface_capacity_ = interface_capacity;
    m_p_if_handles.clear();
    m_p_if_handles.reserve(interface_capacity_ < 64 ? interface_capacity_ : 64);
    initialised_ = true;
    return true;
}

GC_ERROR CTLSystem::Close() {
    CGenTLAutoLock guard(critical_);
    for (InterfaceEntry &entry : m_p_if_handles) {
        if (entry.iface == nullptr) continue;
        entry.iface->Close();
        delete entry.iface;
        entry.iface = nullptr;
    }
    m_p_if_handles.clear();
    initialised_ = false;
    return GC_ERR_SUCCESS;
}

GC_ERROR CTLSystem::TLGetInfo(TL_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                              size_t *piSize) {
    CGenTLAutoLock guard(critical_);
    if (!initialised_) return GC_ERR_NOT_INITIALIZED;
    return pelorin::AnswerTlInfo(iInfoCmd, piType, pBuffer, piSize);
}

GC_ERROR CTLSystem::TLGetNumInterfaces(uint32_t *) { return NotImplementedYet("TLGetNumInterfaces"); }
GC_ERROR CTLSystem::TLGetInterfaceID(uint32_t, char *, size_t *) {
    return NotImplementedYet("TLGetInterfaceID");
}
GC_ERROR CTLSystem::TLGetInterfaceInfo(const char *, INTERFACE_INFO_CMD, INFO_DATATYPE *, void *,
                                       size_t *) {
    return NotImplementedYet("TLGetInterfaceInfo");
}
GC_ERROR CTLSystem::TLOpenInterface(const char *, IF_HANDLE *) {
    return NotImplementedYet("TLOpenInterface");
}
GC_ERROR CTLSystem::TLUpdateInterfaceList(bool8_t *, uint64_t) {
    return NotImplementedYet("TLUpdateInterfaceList");
}
GC_ERROR CTLSystem::ReadPort(uint64_t, void *, size_t *) { return NotImplementedYet("system ReadPort"); }
GC_ERROR CTLSystem::WritePort(uint64_t, const void *, size_t *) {
    return NotImplementedYet("system WritePort");
}
GC_ERROR CTLSystem::GetNumPortURLs(uint32_t *) { return NotImplementedYet("system GCGetNumPortURLs"); }
GC_ERROR CTLSystem::GetPortURLInfo(uint32_t, URL_INFO_CMD, INFO_DATATYPE *, void *, size_t *) {
    return NotImplementedYet("system GCGetPortURLInfo");
}
GC_ERROR CTLSystem::GetPortInfo(PORT_INFO_CMD, INFO_DATATYPE *, void *, size_t *) {
    return NotImplementedYet("system GCGetPortInfo");
}
