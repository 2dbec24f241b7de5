// The System module: the one transport-layer object of the library. It owns
// the interface list, and through it every interface, device and stream.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "card/interface_description.h"
#include "gentl_base/gentl_critical.h"
#include "modules/cring_auto_mem.h"
#include "pelorin/gentl.h"

class CGentlInterface;
class CKvIport;
class CNodeMapRef;

class CTLSystem {
public:
    // One entry of the interface list; `iface` is null until the interface
    // with this position is opened.
    struct InterfaceEntry {
        std::string id;
        uint32_t card_index = 0;
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

    // Clears the open interface of entry `card_index` (the interface closed).
    void DetachInterface(uint32_t card_index);

    CGentlCritical &critical() { return critical_; }
    bool initialised() const { return SysRing != nullptr; }
    uint32_t interface_selector() const { return interfaceSelector; }
    const std::shared_ptr<CNodeMapRef> &node_map() const { return nodeMap; }
    const std::string &xml_file_name() const { return xmlFileName; }

    // Simulator handles registered by the simulator hooks, each mapped to
    // its module handle (features/simulator_hooks). Guarded by
    // OpenCloseLock; emptied when the system closes.
    std::map<uint64_t, uint64_t> &simulator_handles() { return simHandles; }

private:
    // Loads the system's node map over its own port: 0, GC_ERR_ERROR when
    // it cannot be built, or the producer's exception code.
    int CreateSystemNodeMap();
    // The register value at `address` for a read; GC_ERR_INVALID_ADDRESS for
    // an address the system does not serve.
    GC_ERROR ReadRegister(uint64_t address, void *pBuffer, size_t *piSize);
    GC_ERROR SelectedInterfaceId(char (&id)[128]);
    // The first entry of the interface list with `id`, or end().
    std::vector<InterfaceEntry>::iterator FindInterface(const char *id);

    CGentlCritical critical_;
    std::vector<InterfaceEntry> m_p_if_handles;
    uint32_t interfaceSelector = 0;
    std::unique_ptr<CRingAutoMem> SysRing;
    uint32_t ringCapacity = 0;
    std::vector<interface_description> descriptions;
    uint32_t cardCount = 0;
    std::shared_ptr<CKvIport> port;
    std::shared_ptr<CNodeMapRef> nodeMap;
    std::string xmlFileName;
    std::map<uint64_t, uint64_t> simHandles;
};
