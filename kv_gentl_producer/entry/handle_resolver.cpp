#include "entry/handle_resolver.h"

#include "entry/library_state.h"
#include "modules/cgentl_data_stream.h"
#include "modules/cgentl_device.h"
#include "modules/cgentl_interface.h"
#include "modules/ctl_system.h"

namespace pelorin {
namespace {

int resolve_within_device(const void *handle, CGentlDevice *device) {
    if (handle == device) return kLevelDevice;
    const uintptr_t token = device->remote_port_token();
    if (token != 0 && reinterpret_cast<uintptr_t>(handle) == token) return kLevelRemoteDevice;
    for (const CGentlDataStream *stream : device->stream_list())
        if (handle == stream) return kLevelDataStream;
    return kLevelNone;
}

}  // namespace

int ResolveHandle(const void *handle, void **owner) {
    LibraryState &lib = library();
    if (!library_initialised() || lib.TheSystem == nullptr) return kLevelNone;
    if (owner) *owner = nullptr;
    if (handle == lib.TheSystem) {
        if (owner) *owner = lib.TheSystem;
        return kLevelSystem;
    }
    for (const CTLSystem::InterfaceEntry &entry : lib.TheSystem->interface_list()) {
        CGentlInterface *iface = entry.iface;
        if (iface == nullptr) continue;
        if (handle == iface) {
            if (owner) *owner = iface;
            return kLevelInterface;
        }
        for (const CGentlInterface::DeviceEntry &device_entry : iface->device_list()) {
            CGentlDevice *device = device_entry.device;
            if (device == nullptr) continue;
            const int level = resolve_within_device(handle, device);
            if (level != kLevelNone) {
                if (owner) *owner = device;
                return level;
            }
        }
    }
    return kLevelNone;
}

}  // namespace pelorin
