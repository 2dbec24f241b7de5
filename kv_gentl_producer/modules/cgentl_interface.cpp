#include "modules/cgentl_interface.h"

#include "gentl_base/error_codes.h"
#include "modules/cgentl_device.h"

using pelorin::NotImplementedYet;

CGentlInterface::CGentlInterface(CTLSystem *system) : system_(system) {}

CGentlInterface::~CGentlInterface() { Close(); }

GC_ERROR CGentlInterface::Open(const char *id, interface_description *description) {
    CGenTLAutoLock guard(critical_);
    if (id == nullptr || description == nullptr) return GC_ERR_INVALID_PARAMETER;
    id_ = id;
    description_ = description;
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlInterface::Close() {
    CGenTLAutoLock guard(critical_);
    for (DeviceEntry &entry : devices_) {
        if (entry.device == nullptr) continue;
        entry.device->Close();
        delete entry.device;
        entry.device = nullptr;
    }
    devices_.clear();
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlInterface::IFGetParentTL(TL_HANDLE *phSystem) {
    if (phSystem == nullptr) return GC_ERR_INVALID_PARAMETER;
    *phSystem = system_;
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlInterface::IFGetInfo(INTERFACE_INFO_CMD, INFO_DATATYPE *, void *, size_t *) {
    return NotImplementedYet("IFGetInfo");
}
GC_ERROR CGentlInterface::IFGetNumDevices(uint32_t *) { return NotImplementedYet("IFGetNumDevices"); }
GC_ERROR CGentlInterface::IFGetDeviceID(uint32_t, char *, size_t *) {
    return NotImplementedYet("IFGetDeviceID");
}
GC_ERROR CGentlInterface::IFUpdateDeviceList(bool8_t *, uint64_t) {
    return NotImplementedYet("IFUpdateDeviceList");
}
GC_ERROR CGentlInterface::IFGetDeviceInfo(const char *, DEVICE_INFO_CMD, INFO_DATATYPE *, void *,
                                          size_t *) {
    return NotImplementedYet("IFGetDeviceInfo");
}
GC_ERROR CGentlInterface::IFOpenDevice(const char *, DEVICE_ACCESS_FLAGS, DEV_HANDLE *) {
    return NotImplementedYet("IFOpenDevice");
}
GC_ERROR CGentlInterface::ReadPort(uint64_t, void *, size_t *) {
    return NotImplementedYet("interface ReadPort");
}
GC_ERROR CGentlInterface::WritePort(uint64_t, const void *, size_t *) {
    return NotImplementedYet("interface WritePort");
}
GC_ERROR CGentlInterface::GetNumPortURLs(uint32_t *) {
    return NotImplementedYet("interface GCGetNumPortURLs");
}
GC_ERROR CGentlInterface::GetPortURLInfo(uint32_t, URL_INFO_CMD, INFO_DATATYPE *, void *, size_t *) {
    return NotImplementedYet("interface GCGetPortURLInfo");
}
GC_ERROR CGentlInterface::GetPortInfo(PORT_INFO_CMD, INFO_DATATYPE *, void *, size_t *) {
    return NotImplementedYet("interface GCGetPortInfo");
}
