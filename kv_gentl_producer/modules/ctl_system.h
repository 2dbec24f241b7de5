// The System module: the one transport-layer object of the library. It owns
// the interface list, and through it every interface, device and stream.
#pragma once

#include <cstdint>
#include <vector>

#include "gentl_base/gentl_critical.h"
#include "pelorin/gentl.h"

class CGentlInterface;

class CTLSystem {
public:
    // One entry of the interface list; `iface` is null until the interface
    // with this position is opened.
    struct InterfaceEntry {
        CGentlInterface *iface = nullptr;
    };

    CTLSystem();
    virtual ~CTLSystem();

    CTLSystem(const CTLSystem &) = delete;
    CTLSystem &operator=(const CTLSystem &) = delete;

    // System initialisation on TLOpen; false when it cannot be set up.
    bool Init(uint32_t interface_capacity);
    // Closes and deletes every interface still open (and with them their
    // devices and streams).
    GC_ERROR Close();

    GC_ERROR TLGetInfo(TL_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer, size_t *piSize);
    GC_ERROR TLGetNumInterfaces(uint32_t *piNumIfaces);
    GC_ERROR TLGetInterfaceID(uint32_t iIndex, char *sID, size_t *piSize);
    GC_ERROR TLGetInterfaceInfo(const char *sIfaceID, INTERFACE_INFO_CMD iInfoCmd,
                                INFO_DATATYPE *piType, void *pBuffer, size_t *piSize);
    GC_ERROR TLOpenInterface(const char *sIfaceID, IF_HANDLE *phIface);
    GC_ERROR TLUpdateInterfaceList(bool8_t *pbChanged, uint64_t iTimeout);

    // Port side of the system's register space.
    GC_ERROR ReadPort(uint64_t iAddress, void *pBuffer, size_t *piSize);
    GC_ERROR WritePort(uint64_t iAddress, const void *pBuffer, size_t *piSize);
    GC_ERROR GetNumPortURLs(uint32_t *piNumURLs);
    GC_ERROR GetPortURLInfo(uint32_t iURLIndex, URL_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                            void *pBuffer, size_t *piSize);
    GC_ERROR GetPortInfo(PORT_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                         size_t *piSize);

    // The interface list (m_p_if_handles), read by handle resolution under the
    // library locks.
    std::vector<InterfaceEntry> &interface_list() { return m_p_if_handles; }
    const std::vector<InterfaceEntry> &interface_list() const { return m_p_if_handles; }

    CGentlCritical &critical() { return critical_; }
    bool initialised() const { return initialised_; }

private:
    CGentlCritical critical_;
    std::vector<InterfaceEntry> m_p_if_handles;
    uint32_t interface_capacity_ = 0;
    bool initialised_ = false;
};
