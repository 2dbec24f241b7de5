#include "features/simulator_hooks.h"

#include <cinttypes>
#include <exception>
#include <memory>

#include "diag/log.h"
#include "entry/handle_resolver.h"
#include "features/feature_access.h"
#include "modules/cgentl_data_stream.h"
#include "modules/cgentl_device.h"
#include "modules/cgentl_interface.h"
#include "modules/ctl_system.h"
#include "nodemap/module_files.h"
#include "nodemap/node_map.h"
#include "pelorin/kv_api.h"

using pelorin::diag::kDebug;
using pelorin::diag::kError;
using pelorin::diag::kWarn;

namespace pelorin::features {
namespace {

uint64_t handle_value(const void *handle) { return reinterpret_cast<uintptr_t>(handle); }

// The open module a simulator handle stands for.
struct simulated_module {
    uint64_t handle = 0;             // the registered module handle
    CGentlDevice *device = nullptr;  // the device, or the data stream's device
};

// Looks `sim_handle` up and resolves its module: GC_ERR_INVALID_ADDRESS when
// it is not registered, GC_ERR_NOT_IMPLEMENTED when its module is not an open
// device or data stream (any more). The module handle is followed only once
// ResolveHandle has found it open.
GC_ERROR resolve_simulator_handle(CTLSystem &system, uint64_t sim_handle, simulated_module &out) {
    const auto &handles = system.simulator_handles();
    const auto found = handles.find(sim_handle);
    if (found == handles.end()) return GC_ERR_INVALID_ADDRESS;
    void *const handle = reinterpret_cast<void *>(static_cast<uintptr_t>(found->second));
    void *owner = nullptr;
    switch (ResolveHandle(handle, &owner)) {
    case kLevelDevice:
        out.device = static_cast<CGentlDevice *>(handle);
        break;
    case kLevelDataStream:
        out.device = static_cast<CGentlDataStream *>(handle)->parent_device();
        break;
    default:
        LOG_ANY(kDebug, "simulator handle 0x%" PRIx64 ": module 0x%" PRIx64 " is not open\n",
                sim_handle, found->second);
        return GC_ERR_NOT_IMPLEMENTED;
    }
    if (out.device == nullptr) return GC_ERR_NOT_IMPLEMENTED;
    out.handle = found->second;
    return GC_ERR_SUCCESS;
}

// The camera's port as the device serves it behind the remote-device port
// handle, without the port exports (they would record a last error).
class camera_port final : public module_port {
public:
    explicit camera_port(CGentlDevice &device) : device_(device) {}
    GC_ERROR read(uint64_t address, void *buffer, size_t *size) override {
        return device_.ReadPort(kLevelRemoteDevice, address, buffer, size);
    }
    GC_ERROR write(uint64_t address, const void *buffer, size_t *size) override {
        return device_.WritePort(kLevelRemoteDevice, address, buffer, size);
    }
    GC_ERROR url(uint32_t index, char *buffer, size_t *size) override {
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        return device_.GetPortURLInfo(kLevelRemoteDevice, index, URL_INFO_URL, &type, buffer,
                                      size);
    }

private:
    CGentlDevice &device_;
};

GC_ERROR simulator_file_read(void *buffer, uint64_t *size) {
    size_t length = static_cast<size_t>(*size);
    const int result = nodemap::ReadModuleXmlFile(nodemap::kSimulatorXmlFile, buffer, &length);
    if (result == -1) {
        LOG_ANY(kError, "simulator description file %s cannot be read\n",
                nodemap::module_xml_path(nodemap::kSimulatorXmlFile).c_str());
        return GC_ERR_NOT_AVAILABLE;
    }
    if (result == GC_ERR_SUCCESS || result == GC_ERR_BUFFER_TOO_SMALL) *size = length;
    return result;
}

GC_ERROR camera_file_read(CGentlDevice &device, void *buffer, uint64_t *size) {
    // The camera's port, and with it its description, is published by
    // DevGetPort; before, the simulator is told so rather than handed a
    // file through a port the consumer cannot see yet.
    if (device.remote_port_token() == 0) {
        LOG_ANY(kWarn, "kv_sim_get_xml: the camera's port is not open yet (DevGetPort first)\n");
        return GC_ERR_NOT_AVAILABLE;
    }
    camera_port port(device);
    feature_target target;
    target.port = &port;
    return feature_calls(std::move(target)).get_xml(0, buffer, size);
}

}  // namespace

GC_ERROR register_simulator_handle(CTLSystem &system, void *handle, uint64_t *sim_handle) {
    if (handle == nullptr || sim_handle == nullptr) return GC_ERR_INVALID_HANDLE;
    *sim_handle = 0;
    void *owner = nullptr;
    const int level = ResolveHandle(handle, &owner);
    if (level != kLevelDevice && level != kLevelDataStream) return GC_ERR_INVALID_HANDLE;
    const uint64_t module = handle_value(handle);
    const uint64_t simulator = module + kSimulatorHandleOffset;  // wraps
    auto &handles = system.simulator_handles();
    // The simulator handle follows from the module handle, so a module's
    // registration is found under it.
    if (handles.find(simulator) != handles.end()) {
        *sim_handle = simulator;
        return GC_ERR_INVALID_ADDRESS;
    }
    try {
        handles.emplace(simulator, module);
    } catch (const std::exception &error) {
        LOG_ANY(kError, "kv_sim_register_handle: %s\n", error.what());
        return KV_ERR_EXCEPTION;
    }
    *sim_handle = simulator;
    LOG_ANY(kDebug, "simulator handle 0x%" PRIx64 " for module 0x%" PRIx64 " (level %d)\n",
            simulator, module, level);
    return GC_ERR_SUCCESS;
}

GC_ERROR unregister_simulator_handle(CTLSystem &system, uint64_t sim_handle) {
    return system.simulator_handles().erase(sim_handle) == 1 ? GC_ERR_SUCCESS
                                                             : GC_ERR_INVALID_HANDLE;
}

GC_ERROR simulator_xml(CTLSystem &system, uint64_t sim_handle, uint32_t which, void *buffer,
                       uint64_t *size) {
    if (sim_handle == 0 || size == nullptr) return GC_ERR_INVALID_HANDLE;
    simulated_module module;
    const GC_ERROR resolved = resolve_simulator_handle(system, sim_handle, module);
    if (resolved != GC_ERR_SUCCESS) return resolved;
    switch (which) {
    case kSimulatorOwnFile: return simulator_file_read(buffer, size);
    case kSimulatorCameraFile: return camera_file_read(*module.device, buffer, size);
    default: return GC_ERR_NOT_IMPLEMENTED;
    }
}

GC_ERROR simulator_find(CTLSystem &system, uint64_t sim_handle, const char *name,
                        uint64_t *module_handle) {
    if (sim_handle == 0 || name == nullptr || module_handle == nullptr)
        return GC_ERR_INVALID_HANDLE;
    *module_handle = 0;
    simulated_module module;
    const GC_ERROR resolved = resolve_simulator_handle(system, sim_handle, module);
    if (resolved != GC_ERR_SUCCESS) return resolved;
    CGentlDevice &device = *module.device;
    CGentlInterface *const iface = device.parent();
    const struct {
        std::shared_ptr<CNodeMapRef> map;
        uint64_t handle;
    } order[] = {
        {device.node_map(kLevelDevice), handle_value(&device)},
        {device.remote_port_token() != 0 ? device.node_map(kLevelRemoteDevice) : nullptr,
         device.remote_port_token()},
        {iface != nullptr ? iface->node_map() : nullptr, handle_value(iface)},
        {system.node_map(), handle_value(&system)},
        {device.node_map(kLevelDataStream), module.handle},
    };
    try {
        for (const auto &candidate : order) {
            if (!candidate.map || !candidate.map->loaded()) continue;
            if (!candidate.map->has_node(name)) continue;
            *module_handle = candidate.handle;
            return GC_ERR_SUCCESS;
        }
    } catch (const std::exception &error) {
        LOG_ANY(kWarn, "kv_sim_find '%s': %s\n", name, error.what());
        return KV_ERR_EXCEPTION;
    }
    return KV_ERR_FEATURE_NOT_FOUND;
}

}  // namespace pelorin::features
