// Interface-module exports.
#include "diag/messages_gbk.h"
#include "entry/entry_body.h"

using namespace pelorin;
using namespace pelorin::entry;

namespace {

// Which system-list entry holds `iface`, so that closing it clears the entry.
void forget_interface(CGentlInterface *iface) {
    CTLSystem *system = library().TheSystem;
    if (system == nullptr) return;
    for (CTLSystem::InterfaceEntry &entry : system->interface_list())
        if (entry.iface == iface) entry.iface = nullptr;
}

}  // namespace

GC_API IFClose(IF_HANDLE hIface) {
    // EventLock too: the devices and streams still open close with it.
    return interface_call("IFClose", kTeardownStream, hIface, [&](CGentlInterface &iface) {
        const GC_ERROR result = iface.Close();
        forget_interface(&iface);
        delete &iface;
        ForgetClosedStreamEvents();
        return result;
    });
}

GC_API IFGetInfo(IF_HANDLE hIface, INTERFACE_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                 void *pBuffer, size_t *piSize) {
    return interface_call("IFGetInfo", kApi, hIface, [&](CGentlInterface &iface) {
        return iface.IFGetInfo(iInfoCmd, piType, pBuffer, piSize);
    });
}

GC_API IFGetNumDevices(IF_HANDLE hIface, uint32_t *piNumDevices) {
    return interface_call("IFGetNumDevices", kApi, hIface, [&](CGentlInterface &iface) {
        return iface.IFGetNumDevices(piNumDevices);
    });
}

GC_API IFGetDeviceID(IF_HANDLE hIface, uint32_t iIndex, char *sIDeviceID, size_t *piSize) {
    return interface_call("IFGetDeviceID", kApi, hIface, [&](CGentlInterface &iface) {
        return iface.IFGetDeviceID(iIndex, sIDeviceID, piSize);
    });
}

GC_API IFUpdateDeviceList(IF_HANDLE hIface, bool8_t *pbChanged, uint64_t iTimeout) {
    // It may rebuild the device list, which ResolveHandle reads under either
    // library lock: like an open, it holds both.
    return interface_call("IFUpdateDeviceList", kOpenOrClose, hIface, [&](CGentlInterface &iface) {
        return iface.IFUpdateDeviceList(pbChanged, iTimeout);
    });
}

GC_API IFGetDeviceInfo(IF_HANDLE hIface, const char *sDeviceID, DEVICE_INFO_CMD iInfoCmd,
                       INFO_DATATYPE *piType, void *pBuffer, size_t *piSize) {
    return interface_call("IFGetDeviceInfo", kApi, hIface, [&](CGentlInterface &iface) {
        return iface.IFGetDeviceInfo(sDeviceID, iInfoCmd, piType, pBuffer, piSize);
    });
}

GC_API IFOpenDevice(IF_HANDLE hIface, const char *sDeviceID, DEVICE_ACCESS_FLAGS iOpenFlag,
                    DEV_HANDLE *phDevice) {
    const GC_ERROR result =
        interface_call("IFOpenDevice", kOpenOrClose, hIface, [&](CGentlInterface &iface) {
            return iface.IFOpenDevice(sDeviceID, iOpenFlag, phDevice);
        });
    const char *id = sDeviceID ? sDeviceID : "(null)";
    if (result == GC_ERR_SUCCESS) {
        LOG_PAIR(diag::kInfo, msg_zh::kOpenDeviceSuccess, "Open %s success!\n", id);
    } else {
        LOG_PAIR(diag::kError, msg_zh::kOpenDeviceError, "Open %s error(%d)!\n", id, result);
    }
    LOG_PAIR(diag::kInfo, "\n", "\n");
    return result;
}

GC_API IFGetParentTL(IF_HANDLE hIface, TL_HANDLE *phSystem) {
    return interface_call("IFGetParentTL", kApi, hIface,
                          [&](CGentlInterface &iface) { return iface.IFGetParentTL(phSystem); });
}
