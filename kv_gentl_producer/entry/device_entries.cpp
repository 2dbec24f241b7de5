// Device-module exports.
#include <algorithm>

#include "entry/entry_body.h"

using namespace pelorin;
using namespace pelorin::entry;

namespace {

void forget_device(CGentlDevice *device) {
    CGentlInterface *parent = device->parent();
    if (parent != nullptr) parent->DeviceClosed(device);
}

}  // namespace

GC_API DevClose(DEV_HANDLE hDevice) {
    // EventLock too: the streams still open close with the device, and
    // their event registrations go with them.
    return device_call("DevClose", kTeardownStream, hDevice, [&](CGentlDevice &device) {
        const GC_ERROR result = device.Close();
        forget_device(&device);
        delete &device;
        ForgetClosedStreamEvents();
        return result;
    });
}

GC_API DevOpenDataStream(DEV_HANDLE hDevice, const char *sDataStreamID, DS_HANDLE *phDataStream) {
    return device_call("DevOpenDataStream", kOpenOrClose, hDevice, [&](CGentlDevice &device) {
        return device.DevOpenDataStream(sDataStreamID, phDataStream);
    });
}

// DevGetPort builds and reads the camera's node map, whose register accesses
// come back through the port calls: like every node-map user it holds the
// port lock before the device lock.
GC_API DevGetPort(DEV_HANDLE hDevice, PORT_HANDLE *phRemoteDevice) {
    return device_call("DevGetPort", kOpenOrClose, hDevice,
                       [&](CGentlDevice &device) { return device.DevGetPort(phRemoteDevice); });
}

GC_API DevGetNumDataStreams(DEV_HANDLE hDevice, uint32_t *piNumDataStreams) {
    return device_call("DevGetNumDataStreams", kApi, hDevice, [&](CGentlDevice &device) {
        return device.DevGetNumDataStreams(piNumDataStreams);
    });
}

GC_API DevGetDataStreamID(DEV_HANDLE hDevice, uint32_t iIndex, char *sDataStreamID,
                          size_t *piSize) {
    return device_call("DevGetDataStreamID", kApi, hDevice, [&](CGentlDevice &device) {
        return device.DevGetDataStreamID(iIndex, sDataStreamID, piSize);
    });
}

GC_API DevGetInfo(DEV_HANDLE hDevice, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                  void *pBuffer, size_t *piSize) {
    return device_call("DevGetInfo", kApi, hDevice, [&](CGentlDevice &device) {
        return device.DevGetInfo(iInfoCmd, piType, pBuffer, piSize);
    });
}

GC_API DevGetParentIF(DEV_HANDLE hDevice, IF_HANDLE *phIface) {
    return device_call("DevGetParentIF", kOpenClose, hDevice,
                       [&](CGentlDevice &device) { return device.DevGetParentIF(phIface); });
}
