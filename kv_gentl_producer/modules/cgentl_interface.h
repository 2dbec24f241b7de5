// The Interface module: one per card, owning the devices opened on it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "gentl_base/gentl_critical.h"
#include "pelorin/gentl.h"

class CTLSystem;
class CGentlDevice;
struct interface_description;

class CGentlInterface {
public:
    // One entry of the device list; `device` is null until it is opened.
    struct DeviceEntry {
        CGentlDevice *device = nullptr;
    };

    explicit CGentlInterface(CTLSystem *system);
    virtual ~CGentlInterface();

    CGentlInterface(const CGentlInterface &) = delete;
    CGentlInterface &operator=(const CGentlInterface &) = delete;

    // Opens the interface with `id` on the card that `description` describes.
    GC_ERROR Open(const char *id, interface_description *description);
    // Closes and deletes every device still open.
    GC_ERROR Close();

    GC_ERROR IFGetInfo(INTERFACE_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                       size_t *piSize);
    GC_ERROR IFGetNumDevices(uint32_t *piNumDevices);
    GC_ERROR IFGetDeviceID(uint32_t iIndex, char *sIDeviceID, size_t *piSize);
    GC_ERROR IFUpdateDeviceList(bool8_t *pbChanged, uint64_t iTimeout);
    GC_ERROR IFGetDeviceInfo(const char *sDeviceID, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                             void *pBuffer, size_t *piSize);
    GC_ERROR IFOpenDevice(const char *sDeviceID, DEVICE_ACCESS_FLAGS iOpenFlag, DEV_HANDLE *phDevice);
    GC_ERROR IFGetParentTL(TL_HANDLE *phSystem);

    GC_ERROR ReadPort(uint64_t iAddress, void *pBuffer, size_t *piSize);
    GC_ERROR WritePort(uint64_t iAddress, const void *pBuffer, size_t *piSize);
    GC_ERROR GetNumPortURLs(uint32_t *piNumURLs);
    GC_ERROR GetPortURLInfo(uint32_t iURLIndex, URL_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                            void *pBuffer, size_t *piSize);
    GC_ERROR GetPortInfo(PORT_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                         size_t *piSize);

    std::vector<DeviceEntry> &device_list() { return devices_; }
    const std::vector<DeviceEntry> &device_list() const { return devices_; }
    CTLSystem *system() const { return system_; }
    const std::string &id() const { return id_; }
    interface_description *description() const { return description_; }

private:
    CGentlCritical critical_;
    CTLSystem *system_;
    std::string id_;
    interface_description *description_ = nullptr;
    std::vector<DeviceEntry> devices_;
};
