#include "modules/ctl_system.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "card/card_identity.h"
#include "diag/log.h"
#include "gentl_base/copy_info.h"
#include "gentl_base/error_codes.h"
#include "modules/cgentl_interface.h"
#include "modules/port_answers.h"
#include "modules/register_copy.h"
#include "modules/tl_info.h"
#include "nodemap/ckv_iport.h"
#include "nodemap/module_files.h"
#include "nodemap/node_map_loader.h"
#include "pelorin/kv_api.h"

using pelorin::diag::kDebug;
using pelorin::diag::kError;
using pelorin::CopyRegisterLength;
using pelorin::CopyRegisterText;
using pelorin::CopyRegisterValue;

namespace {

constexpr uint64_t kInterfaceListTimeout = 5000;
constexpr uint64_t kRegisterUpdateTimeout = 2000;
constexpr size_t kIdBufferSize = 1024;
constexpr uint32_t kMaxCountedInterfaces = 1024;

// Register addresses of the system space: tag 0x1E, register number, 0xFFFF,
// sub-code (0x0001 the value, 0x0201 its length).
constexpr uint64_t system_register(uint32_t number, uint32_t sub_code = 0x0001) {
    return 0x001E000000000000ULL | uint64_t{number} << 32 | 0xFFFF0000ULL | sub_code;
}
constexpr uint32_t kLengthItem = 0x0201;
constexpr uint32_t kSelectorStride = 0x1000;

enum system_register_number : uint32_t {
    kRegXmlFile = 0,
    kRegGenTLMajor = 1,
    kRegGenTLMinor = 2,
    kRegPath = 3,
    kRegUpdateList = 4,
    kRegInterfaceCount = 5,
    kRegInterfaceId = 6,
    kRegInterfaceSelector = 7,
    kRegVersion = 8,
    kRegVendor = 9,
    kRegModel = 10,
    kRegId = 11,
};

}  // namespace

CTLSystem::CTLSystem() = default;

CTLSystem::~CTLSystem() {
    Close();
    nodeMap.reset();
    port.reset();
}

bool CTLSystem::Init(uint32_t capacity) {
    {
        CGenTLAutoLock guard(critical_);
        if (capacity == 0) return false;
        if (pelorin::nodemap::FindCtiDirectory() != 0) {
            LOG_ANY(kError, "TLOpen: %s not found in the GenTL path\n", pelorin::kLibraryFileName);
            return false;
        }
        if (pelorin::static_read_tl_info() != GC_ERR_SUCCESS) return false;
        m_p_if_handles.clear();
        SysRing.reset(new (std::nothrow) CRingAutoMem(capacity));
        if (!SysRing || !SysRing->Init_Ring()) {
            SysRing.reset();
            return false;
        }
        cardCount = card_describe(descriptions);
        ringCapacity = capacity;
    }
    // Outside the system's lock, like every other user of the node map.
    if (CreateSystemNodeMap() != 0) LOG_ANY(kError, "system xml map error!\n");
    return true;
}

int CTLSystem::CreateSystemNodeMap() {
    // The map is built without the system's lock held: building it takes the
    // map's lock and reads the system registers through ReadPort, which takes
    // the system's lock; a feature read takes the two in that order too.
    {
        CGenTLAutoLock guard(critical_);
        if (nodeMap) return 0;
    }
    std::shared_ptr<CKvIport> new_port;
    std::shared_ptr<CNodeMapRef> map;
    std::string file_name;
    try {
        new_port = std::make_shared<CKvIport>(this, 0);
        const pelorin::nodemap::module_port_ops ops = pelorin::nodemap::port_ops_of(*this);
        map = pelorin::nodemap::LoadNodeMapFromPort(ops, new_port.get(), &file_name, false);
    } catch (const std::exception &error) {
        LOG_ANY(kError, "system node map: %s\n", error.what());
        return KV_ERR_EXCEPTION;
    }
    CGenTLAutoLock guard(critical_);
    port = std::move(new_port);
    nodeMap = std::move(map);
    xmlFileName = std::move(file_name);
    return nodeMap ? 0 : GC_ERR_ERROR;
}

GC_ERROR CTLSystem::Close() {
    CGenTLAutoLock guard(critical_);
    if (!SysRing) return GC_ERR_SUCCESS;
    SysRing->Clear();
    SysRing.reset();
    ringCapacity = 0;
    for (InterfaceEntry &entry : m_p_if_handles) {
        // Taken out of the entry first: closing detaches it from the list.
        CGentlInterface *iface = std::exchange(entry.iface, nullptr);
        if (iface == nullptr) continue;
        iface->Close();
        delete iface;
    }
    m_p_if_handles.clear();
    simHandles.clear();
    return GC_ERR_SUCCESS;
}

void CTLSystem::DetachInterface(uint32_t card_index) {
    CGenTLAutoLock guard(critical_);
    for (InterfaceEntry &entry : m_p_if_handles)
        if (entry.card_index == card_index) entry.iface = nullptr;
}

GC_ERROR CTLSystem::TLGetInfo(TL_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                              size_t *piSize) {
    CGenTLAutoLock guard(critical_);
    if (!SysRing) return GC_ERR_NOT_INITIALIZED;
    return pelorin::AnswerTlInfo(iInfoCmd, piType, pBuffer, piSize);
}

GC_ERROR CTLSystem::TLUpdateInterfaceList(bool8_t *pbChanged, uint64_t iTimeout) {
    CGenTLAutoLock guard(critical_);
    if (!SysRing) return GC_ERR_NOT_INITIALIZED;
    bool changed = false;
    if (iTimeout != 0) {
        CRingAutoMem found(ringCapacity);
        if (!found.Init_Ring()) return GC_ERR_INVALID_BUFFER;
        for (uint32_t i = 0; i < cardCount; ++i) {
            const interface_description &d = descriptions[i];
            const uint64_t size = d.id.size() + 1;
            found.Put(d.id.c_str(), size);
            LOG_ANY(kDebug, "if_name_%d(%s), size(%" PRId64 ")\n", static_cast<int>(d.card_index),
                    d.id.c_str(), static_cast<int64_t>(size));
        }
        changed = SysRing->ReplaceIfDifferent(found);
    }
    if (pbChanged != nullptr) *pbChanged = changed ? 1 : 0;
    if (!changed) return GC_ERR_SUCCESS;

    // Rebuild the list in ring order; open interfaces keep their entries, and
    // an open interface whose card left the ring stays reachable at the end.
    std::vector<InterfaceEntry> rebuilt;
    const uint32_t count = SysRing->Count();
    for (uint32_t k = 0; k < count; ++k) {
        char id[kIdBufferSize];
        size_t size = sizeof id;
        const GC_ERROR result = SysRing->Get(k, id, &size);
        if (result != GC_ERR_SUCCESS) return result;
        id[sizeof id - 1] = 0;
        const auto kept = FindInterface(id);
        if (kept != m_p_if_handles.end()) {
            rebuilt.push_back(std::move(*kept));
            m_p_if_handles.erase(kept);
        } else {
            rebuilt.push_back(InterfaceEntry{id, k, nullptr});
        }
    }
    for (InterfaceEntry &left : m_p_if_handles) rebuilt.push_back(std::move(left));
    m_p_if_handles = std::move(rebuilt);
    return GC_ERR_SUCCESS;
}

GC_ERROR CTLSystem::TLGetNumInterfaces(uint32_t *piNumIfaces) {
    CGenTLAutoLock guard(critical_);
    if (!SysRing) return GC_ERR_NOT_INITIALIZED;
    if (piNumIfaces == nullptr) return GC_ERR_INVALID_PARAMETER;
    *piNumIfaces = SysRing->Count();
    return GC_ERR_SUCCESS;
}

GC_ERROR CTLSystem::TLGetInterfaceID(uint32_t iIndex, char *sID, size_t *piSize) {
    CGenTLAutoLock guard(critical_);
    if (m_p_if_handles.empty()) TLUpdateInterfaceList(nullptr, kInterfaceListTimeout);
    if (!SysRing) return GC_ERR_NOT_INITIALIZED;
    const GC_ERROR result = SysRing->Get(iIndex, sID, piSize);
    if (result != GC_ERR_SUCCESS) {
        LOG_ANY(kError, "TLGetInterfaceID, index(%d), ID(0x%X), piSize(0x%X), res(%d)\n",
                static_cast<int>(iIndex), static_cast<unsigned>(reinterpret_cast<uintptr_t>(sID)),
                static_cast<unsigned>(reinterpret_cast<uintptr_t>(piSize)), result);
    }
    return result;
}

GC_ERROR CTLSystem::TLGetInterfaceInfo(const char *sIfaceID, INTERFACE_INFO_CMD iInfoCmd,
                                       INFO_DATATYPE *piType, void *pBuffer, size_t *piSize) {
    CGenTLAutoLock guard(critical_);
    if (!SysRing || m_p_if_handles.empty()) return GC_ERR_NOT_INITIALIZED;
    if (piType == nullptr || piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    const auto found = FindInterface(sIfaceID);
    if (found == m_p_if_handles.end()) return GC_ERR_INVALID_ID;
    switch (iInfoCmd) {
    case INTERFACE_INFO_ID:
        return pelorin::CopyInfoString(sIfaceID, piType, pBuffer, piSize);
    case INTERFACE_INFO_DISPLAYNAME: {
        const size_t k = static_cast<size_t>(found - m_p_if_handles.begin());
        const uint32_t slots = k < descriptions.size() ? descriptions[k].device_slots : 1;
        const uint32_t shown = slots > 1 ? slots : 1;
        const std::string name = std::string(sIfaceID) + "[" + std::to_string(shown) + "d" +
                                 std::to_string(shown) + "s]";
        return pelorin::CopyInfoString(name.c_str(), piType, pBuffer, piSize);
    }
    case INTERFACE_INFO_TLTYPE:
        return pelorin::CopyInfoString("CXP", piType, pBuffer, piSize);
    default:
        return GC_ERR_NOT_IMPLEMENTED;
    }
}

GC_ERROR CTLSystem::TLOpenInterface(const char *sIfaceID, IF_HANDLE *phIface) {
    CGenTLAutoLock guard(critical_);
    if (!SysRing) return GC_ERR_NOT_INITIALIZED;
    if (phIface == nullptr) return GC_ERR_INVALID_PARAMETER;
    if (m_p_if_handles.empty()) TLUpdateInterfaceList(nullptr, kInterfaceListTimeout);
    const auto found = FindInterface(sIfaceID);
    if (found == m_p_if_handles.end()) return GC_ERR_INVALID_ID;
    if (found->iface != nullptr) return GC_ERR_RESOURCE_IN_USE;
    if (found->card_index >= descriptions.size()) return GC_ERR_INVALID_ID;

    CGentlInterface *iface = new (std::nothrow) CGentlInterface(this);
    if (iface == nullptr) return GC_ERR_NOT_INITIALIZED;
    interface_description &description = descriptions[found->card_index];
    description.system = this;
    if (!iface->Open(sIfaceID, &description)) {
        delete iface;
        return GC_ERR_INVALID_ID;
    }
    found->iface = iface;
    *phIface = iface;
    // Now that the interface is listed its node map reaches it through the
    // port calls, and its start-up settings can be applied.
    iface->LoadUserSet(true, false);
    return GC_ERR_SUCCESS;
}

std::vector<CTLSystem::InterfaceEntry>::iterator CTLSystem::FindInterface(const char *id) {
    if (id == nullptr) return m_p_if_handles.end();
    return std::find_if(m_p_if_handles.begin(), m_p_if_handles.end(),
                        [&](const InterfaceEntry &e) { return e.id == id; });
}

// --- Port side ----------------------------------------------------------------

GC_ERROR CTLSystem::SelectedInterfaceId(char (&id)[128]) {
    size_t size = sizeof id;
    return TLGetInterfaceID(interfaceSelector, id, &size);
}

GC_ERROR CTLSystem::ReadRegister(uint64_t address, void *pBuffer, size_t *piSize) {
    const pelorin::TlInfo &info = pelorin::tl_info();
    const uint32_t selected = interfaceSelector * kSelectorStride;
    if (address == system_register(kRegXmlFile))
        return pelorin::ReadDescriptionRegister(pelorin::nodemap::kSystemXmlFile, "system", pBuffer,
                                                piSize);
    if (address == system_register(kRegGenTLMajor) || address == system_register(kRegGenTLMinor)) {
        const uint16_t value = static_cast<uint16_t>(
            address == system_register(kRegGenTLMajor) ? info.gentlMajor : info.gentlMinor);
        return CopyRegisterValue(&value, sizeof value, pBuffer, piSize);
    }
    if (address == system_register(kRegPath)) return CopyRegisterText(info.path, pBuffer, piSize);
    if (address == system_register(kRegPath, kLengthItem))
        return CopyRegisterLength(info.path, pBuffer, piSize);
    if (address == system_register(kRegUpdateList)) return GC_ERR_NOT_AVAILABLE;
    if (address == system_register(kRegInterfaceCount)) {
        const uint16_t count = static_cast<uint16_t>(cardCount <= kMaxCountedInterfaces ? cardCount : 1);
        return CopyRegisterValue(&count, sizeof count, pBuffer, piSize);
    }
    if (address == system_register(kRegInterfaceId, 0x0001 + selected) ||
        address == system_register(kRegInterfaceId, kLengthItem + selected)) {
        char id[128] = {};
        const GC_ERROR result = SelectedInterfaceId(id);
        if (result != GC_ERR_SUCCESS) return result;
        return address == system_register(kRegInterfaceId, 0x0001 + selected)
                   ? CopyRegisterText(id, pBuffer, piSize)
                   : CopyRegisterLength(id, pBuffer, piSize);
    }
    if (address == system_register(kRegInterfaceSelector))
        return CopyRegisterValue(&interfaceSelector, sizeof interfaceSelector, pBuffer, piSize);
    const struct {
        uint32_t number;
        const char *text;
    } texts[] = {{kRegVersion, pelorin::kProducerVersion},
                 {kRegVendor, info.vendor},
                 {kRegModel, info.model},
                 {kRegId, info.id}};
    for (const auto &text : texts) {
        if (address == system_register(text.number)) return CopyRegisterText(text.text, pBuffer, piSize);
        if (address == system_register(text.number, kLengthItem))
            return CopyRegisterLength(text.text, pBuffer, piSize);
    }
    return GC_ERR_INVALID_ADDRESS;
}

GC_ERROR CTLSystem::ReadPort(uint64_t iAddress, void *pBuffer, size_t *piSize) {
    CGenTLAutoLock guard(critical_);
    if (!SysRing) return GC_ERR_NOT_INITIALIZED;
    if (pBuffer == nullptr || piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    return ReadRegister(iAddress, pBuffer, piSize);
}

GC_ERROR CTLSystem::WritePort(uint64_t iAddress, const void *pBuffer, size_t *piSize) {
    CGenTLAutoLock guard(critical_);
    if (!SysRing) return GC_ERR_NOT_INITIALIZED;
    if (pBuffer == nullptr || piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    if (iAddress == system_register(kRegUpdateList)) {
        TLUpdateInterfaceList(nullptr, kRegisterUpdateTimeout);
        return GC_ERR_SUCCESS;
    }
    if (iAddress == system_register(kRegInterfaceSelector)) {
        if (*piSize < sizeof(int32_t)) return GC_ERR_BUFFER_TOO_SMALL;
        int32_t value = 0;
        std::memcpy(&value, pBuffer, sizeof value);
        if (value < 0 || static_cast<uint32_t>(value) >= cardCount) return GC_ERR_INVALID_PARAMETER;
        interfaceSelector = static_cast<uint32_t>(value);
        return GC_ERR_SUCCESS;
    }
    return GC_ERR_INVALID_ADDRESS;
}

GC_ERROR CTLSystem::GetNumPortURLs(uint32_t *piNumURLs) {
    CGenTLAutoLock guard(critical_);
    if (!SysRing) return GC_ERR_NOT_INITIALIZED;
    if (piNumURLs == nullptr) return GC_ERR_INVALID_PARAMETER;
    *piNumURLs = 1;
    return GC_ERR_SUCCESS;
}

GC_ERROR CTLSystem::GetPortURLInfo(uint32_t, URL_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                                   void *pBuffer, size_t *piSize) {
    CGenTLAutoLock guard(critical_);
    if (!SysRing) return GC_ERR_NOT_INITIALIZED;
    if (piType == nullptr || piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    return pelorin::AnswerLocalUrlInfo(pelorin::nodemap::kSystemXmlFile, "1e0000ffff0001", iInfoCmd,
                                       piType, pBuffer, piSize);
}

GC_ERROR CTLSystem::GetPortInfo(PORT_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                                size_t *piSize) {
    CGenTLAutoLock guard(critical_);
    if (!SysRing) return GC_ERR_NOT_INITIALIZED;
    if (piType == nullptr || piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    const pelorin::TlInfo &info = pelorin::tl_info();
    const pelorin::port_identity identity{info.id,     info.vendor, info.model,
                                          info.tlType, "TLSystem",  "TLPort"};
    return pelorin::AnswerPortInfo(identity, iInfoCmd, piType, pBuffer, piSize);
}
