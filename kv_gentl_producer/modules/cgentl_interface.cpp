#include "modules/cgentl_interface.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "card/card_identity.h"
#include "card/interface_description.h"
#include "diag/log.h"
#include "gentl_base/copy_info.h"
#include "link/connection_flow.h"
#include "modules/cgentl_device.h"
#include "modules/ctl_system.h"
#include "modules/device_record.h"
#include "modules/interface_settings.h"
#include "modules/port_answers.h"
#include "nodemap/ckv_iport.h"
#include "nodemap/module_files.h"
#include "nodemap/node_map.h"
#include "nodemap/node_map_loader.h"
#include "pelorin/kv_api.h"

using pelorin::diag::kDebug;
using pelorin::diag::kError;

namespace {

constexpr uint32_t kDeviceIdCapacity = kMaxDeviceSlots;
constexpr uint32_t kUpdateRingCapacity = 8;
constexpr uint64_t kOpenDeviceUpdateTimeout = 5000;
constexpr size_t kIdBufferSize = 1024;

}  // namespace

CGentlInterface::CGentlInterface(CTLSystem *system) : system_(system) {}

CGentlInterface::~CGentlInterface() { Close(); }

bool CGentlInterface::Open(const char *id, interface_description *description) {
    CGenTLAutoLock guard(critical_);
    if (is_open()) return true;
    if (id == nullptr || description == nullptr) return false;
    deviceIds.reset(new (std::nothrow) CRingAutoMem(kDeviceIdCapacity));
    if (!deviceIds || !deviceIds->Init_Ring()) {
        deviceIds.reset();
        return false;
    }
    id_ = id;
    description_ = description;
    ringCapacity = kUpdateRingCapacity;
    familyCode = card_family(description->product_id);
    family = familyCode & 0xFF;
    if (family != 1) cxpMode = 0;

    if (ReadInterfaceSettings(cardContext, description->card_index, family, cxpMode, linkConfig) !=
        0) {
        pcie_close(cardContext.pcie_device);
        deviceIds.reset();
        id_.clear();
        description_ = nullptr;
        ringCapacity = 0;
        return false;
    }
    userSet = user_set_state{};
    userSet.flag = 1;
    userSet.set1_available = 1;

    if (CreateInterfaceNodeMap() != 0) {
        LOG_ANY(kError, "if%d xml map error!\n", static_cast<int>(description->card_index));
        return true;
    }
    ArrangeDeviceSlots();
    if (system_ == nullptr) system_ = description->system;
    return true;
}

int CGentlInterface::CreateInterfaceNodeMap() {
    try {
        port = std::make_shared<CKvIport>(this, 1);
        const pelorin::nodemap::module_port_ops ops = pelorin::nodemap::port_ops_of(*this);
        nodeMap = pelorin::nodemap::LoadNodeMapFromPort(ops, port.get(), &xmlFileName, false);
    } catch (const std::exception &error) {
        LOG_ANY(kError, "interface node map: %s\n", error.what());
        nodeMap.reset();
        return KV_ERR_EXCEPTION;
    }
    return nodeMap ? 0 : GC_ERR_ERROR;
}

GC_ERROR CGentlInterface::Close() {
    CTLSystem *detach_from = nullptr;
    uint32_t card_index = 0;
    {
        CGenTLAutoLock guard(critical_);
        for (DeviceEntry &entry : deviceList) {
            if (entry.device == nullptr) continue;
            entry.device->Close();
            delete entry.device;
            entry.device = nullptr;
        }
        deviceList.clear();
        if (!deviceIds) return GC_ERR_SUCCESS;
        deviceIds->Clear();
        deviceIds.reset();
        id_.clear();
        ringCapacity = 0;
        openDevices = 0;
        nodeMap.reset();
        port.reset();
        // The card handle was opened for this interface alone.
        pcie_close(cardContext.pcie_device);
        if (description_ != nullptr) {
            detach_from = description_->system;
            card_index = description_->card_index;
        }
    }
    // Outside the interface's lock: the system takes its own lock, and its
    // opens take the two the other way round.
    if (detach_from != nullptr) detach_from->DetachInterface(card_index);
    return GC_ERR_SUCCESS;
}

uint32_t CGentlInterface::ArrangeDeviceSlots() {
    const uint32_t device_slots = description_ != nullptr ? description_->device_slots : 1;
    activeMode = device_slots > 1 ? cxpMode : 0;
    arrangement = arrange_device_slots(cxpMode, device_slots, linkConfig);
    for (uint32_t i = 0; i < kMaxDeviceSlots; ++i) {
        slots[i].name = slot_name(i);
        slots[i].index = i;
        slots[i].iface = this;
        slots[i].card_family = familyCode;
    }
    return arrangement.count;
}

void CGentlInterface::SlotParameters(uint32_t slot, link_config &config,
                                     conn_settings &settings) const {
    config.slot_index = slot;
    config.link_count = cardLinks;
    config.link_mask = arrangement.link_mask[slot];
    config.family = family;
    config.fiber_option_a = fiberOptionA;
    config.fiber_option_b = fiberOptionB;
    settings.speed_mode = arrangement.link_speed[slot];
    settings.link_count = arrangement.link_count[slot];
}

GC_ERROR CGentlInterface::IFGetParentTL(TL_HANDLE *phSystem) {
    if (phSystem == nullptr) return GC_ERR_INVALID_PARAMETER;
    *phSystem = system_;
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlInterface::IFGetInfo(INTERFACE_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                                    void *pBuffer, size_t *piSize) {
    CGenTLAutoLock guard(critical_);
    if (!is_open()) return GC_ERR_NOT_INITIALIZED;
    if (piType == nullptr || piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    switch (iInfoCmd) {
    case INTERFACE_INFO_ID: return pelorin::CopyInfoString(id_.c_str(), piType, pBuffer, piSize);
    case INTERFACE_INFO_DISPLAYNAME: {
        const uint32_t shown = description_->device_slots < 2 ? 1 : description_->device_slots;
        const std::string name =
            id_ + "[" + std::to_string(shown) + "d" + std::to_string(shown) + "s]";
        return pelorin::CopyInfoString(name.c_str(), piType, pBuffer, piSize);
    }
    case INTERFACE_INFO_TLTYPE: return pelorin::CopyInfoString("CXP", piType, pBuffer, piSize);
    default: return GC_ERR_NOT_IMPLEMENTED;
    }
}

GC_ERROR CGentlInterface::IFGetNumDevices(uint32_t *piNumDevices) {
    CGenTLAutoLock guard(critical_);
    if (!is_open()) return GC_ERR_NOT_INITIALIZED;
    if (piNumDevices == nullptr) return GC_ERR_INVALID_PARAMETER;
    *piNumDevices = deviceIds->Count();
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlInterface::IFGetDeviceID(uint32_t iIndex, char *sIDeviceID, size_t *piSize) {
    CGenTLAutoLock guard(critical_);
    if (!is_open()) return GC_ERR_NOT_INITIALIZED;
    return deviceIds->Get(iIndex, sIDeviceID, piSize);
}

GC_ERROR CGentlInterface::IFUpdateDeviceList(bool8_t *pbChanged, uint64_t iTimeout) {
    CGenTLAutoLock guard(critical_);
    if (!is_open()) return GC_ERR_NOT_INITIALIZED;
    const uint32_t count = ArrangeDeviceSlots();
    bool changed = false;
    if (iTimeout != 0) {
        CRingAutoMem found(ringCapacity);
        if (!found.Init_Ring()) return GC_ERR_INVALID_BUFFER;
        for (uint32_t i = 0; i < count; ++i) found.Put(slots[i].name.c_str(), slots[i].name.size() + 1);
        changed = deviceIds->ReplaceIfDifferent(found);
    }
    if (pbChanged != nullptr) *pbChanged = changed ? 1 : 0;
    if (changed) RebuildDeviceList();
    return GC_ERR_SUCCESS;
}

void CGentlInterface::RebuildDeviceList() {
    std::vector<DeviceEntry> rebuilt;
    const uint32_t count = deviceIds->Count();
    for (uint32_t n = 0; n < count; ++n) {
        char id[kIdBufferSize] = {};
        size_t size = sizeof id;
        if (deviceIds->Get(n, id, &size) != GC_ERR_SUCCESS) continue;
        id[sizeof id - 1] = 0;
        DeviceEntry *kept = FindEntry(id);
        if (kept != nullptr) {
            DeviceEntry moved = std::move(*kept);
            kept->device = nullptr;
            kept->id.clear();  // taken over: not released below
            moved.listed = true;
            rebuilt.push_back(std::move(moved));
            continue;
        }
        rebuilt.push_back(DeviceEntry{id, n, nullptr, true});
        link_config config;
        conn_settings settings;
        SlotParameters(n, config, settings);
        probe_device(description_->card_index, config, settings);
    }
    // Entries left behind: an open device stays reachable until it is closed;
    // the rest is released with the old list.
    for (DeviceEntry &left : deviceList) {
        if (left.device == nullptr) continue;
        LOG_ANY(kDebug, "%s: %s left the device list while open; kept until closed\n", id_.c_str(),
                left.id.c_str());
        left.listed = false;
        rebuilt.push_back(std::move(left));
    }
    deviceList = std::move(rebuilt);
}

CGentlInterface::DeviceEntry *CGentlInterface::FindEntry(const char *id) {
    if (id == nullptr) return nullptr;
    for (DeviceEntry &entry : deviceList)
        if (!entry.id.empty() && entry.id == id) return &entry;
    return nullptr;
}

GC_ERROR CGentlInterface::IFGetDeviceInfo(const char *sDeviceID, DEVICE_INFO_CMD iInfoCmd,
                                          INFO_DATATYPE *piType, void *pBuffer, size_t *piSize) {
    CGenTLAutoLock guard(critical_);
    if (!is_open() || deviceList.empty()) return GC_ERR_NOT_INITIALIZED;
    if (piType == nullptr || piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    DeviceEntry *entry = FindEntry(sDeviceID);
    if (entry == nullptr) return GC_ERR_INVALID_ID;
    if (entry->device != nullptr) return entry->device->DevGetInfo(iInfoCmd, piType, pBuffer, piSize);
    CGenTLAutoLock device_guard(DeviceLock());
    device_record empty;
    device_record *record = detected_camera(description_->card_index, entry->slot);
    if (record == nullptr) record = &empty;
    set_record_id(*record, sDeviceID);
    record->access_status = DEVICE_ACCESS_STATUS_READWRITE;
    return AnswerDeviceInfo(*record, iInfoCmd, piType, pBuffer, piSize);
}

GC_ERROR CGentlInterface::IFOpenDevice(const char *sDeviceID, DEVICE_ACCESS_FLAGS,
                                       DEV_HANDLE *phDevice) {
    CGenTLAutoLock guard(critical_);
    if (!is_open() || description_ == nullptr) return GC_ERR_NOT_INITIALIZED;
    if (sDeviceID == nullptr || phDevice == nullptr) return GC_ERR_INVALID_PARAMETER;
    if (!deviceList.empty())
        ArrangeDeviceSlots();
    else
        IFUpdateDeviceList(nullptr, kOpenDeviceUpdateTimeout);
    DeviceEntry *entry = FindEntry(sDeviceID);
    if (entry == nullptr) return GC_ERR_INVALID_ID;
    if (entry->device != nullptr) return GC_ERR_RESOURCE_IN_USE;

    const uint32_t n = entry->slot;
    link_config config;
    conn_settings settings;
    SlotParameters(n, config, settings);

    CGentlDevice *device = new (std::nothrow) CGentlDevice(this);
    if (device == nullptr) return GC_ERR_INVALID_ID;
    if (!device->Open(sDeviceID, &slots[n], description_->card_index, config, settings)) {
        delete device;
        return GC_ERR_INVALID_ID;
    }
    entry->device = device;
    *phDevice = device;
    ++openDevices;
    // A set that does not apply is logged by the device; the device stays open.
    device->LoadUserSet(true, false);
    return GC_ERR_SUCCESS;
}

void CGentlInterface::DeviceClosed(CGentlDevice *device) {
    CGenTLAutoLock guard(critical_);
    for (auto it = deviceList.begin(); it != deviceList.end(); ++it) {
        if (it->device != device) continue;
        it->device = nullptr;
        if (openDevices > 0) --openDevices;
        if (!it->listed) deviceList.erase(it);
        return;
    }
}

// --- Port information and URL -------------------------------------------------

GC_ERROR CGentlInterface::GetNumPortURLs(uint32_t *piNumURLs) {
    CGenTLAutoLock guard(critical_);
    if (!is_open()) return GC_ERR_NOT_INITIALIZED;
    if (piNumURLs == nullptr) return GC_ERR_INVALID_PARAMETER;
    *piNumURLs = 1;
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlInterface::GetPortURLInfo(uint32_t, URL_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                                         void *pBuffer, size_t *piSize) {
    CGenTLAutoLock guard(critical_);
    if (!is_open()) return GC_ERR_NOT_INITIALIZED;
    if (piType == nullptr || piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    return pelorin::AnswerLocalUrlInfo(pelorin::nodemap::kInterfaceXmlFile, "2e0000ffff0001",
                                       iInfoCmd, piType, pBuffer, piSize);
}

GC_ERROR CGentlInterface::GetPortInfo(PORT_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                                      size_t *piSize) {
    CGenTLAutoLock guard(critical_);
    if (description_ == nullptr || !deviceIds) return GC_ERR_NOT_INITIALIZED;
    // A command the port does not know is answered as the other ports do.
    if (iInfoCmd > PORT_INFO_PORTNAME) return GC_ERR_NOT_IMPLEMENTED;
    if (piType == nullptr || piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    if (iInfoCmd == PORT_INFO_ID && id_.empty()) return GC_ERR_ERROR;
    const pelorin::port_identity identity{id_.c_str(), description_->vendor.c_str(),
                                          description_->model.c_str(), "CXP", "TLInterface",
                                          "InterfacePort"};
    return pelorin::AnswerPortInfo(identity, iInfoCmd, piType, pBuffer, piSize);
}
