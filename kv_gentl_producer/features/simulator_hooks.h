// Simulator hooks: the operations behind the kv_sim_ exports. A camera
// simulator that plays the camera behind an open device (or the device of an
// open data stream) registers that module and gets a simulator handle for
// it; with the handle it reads its own description file or the camera's, and
// asks which module's node map knows a feature.
//
// The system keeps the registrations (CTLSystem::simulator_handles()): one
// simulator handle per module handle, the module handle plus
// kSimulatorHandleOffset (64-bit, wrapping). They last until they are
// unregistered or the system closes.
//
// A module that closes keeps its registration: the simulator handle then
// answers GC_ERR_NOT_IMPLEMENTED (the module no longer resolves) until it is
// unregistered. A registered module handle is used only after ResolveHandle
// has found it open, so a closed module is never touched. Should the producer
// open a new module at the same address, the old simulator handle reaches
// that module (a live one) and registering it answers the existing handle.
//
// Every operation answers 0 or a code, records no last error, and expects its
// caller to hold OpenCloseLock (the registrations and the node maps are used
// under it) with the library initialised and `system` open.
#pragma once

#include <cstdint>

#include "pelorin/gentl.h"

class CTLSystem;

namespace pelorin::features {

inline constexpr uint64_t kSimulatorHandleOffset = 0x001A0000FFFF0000ULL;

// Which description file kv_sim_get_xml answers.
enum simulator_file : uint32_t {
    kSimulatorOwnFile = 0,  // the simulator's (Lumora_Cxplinkl_TLSim_1_1_0.zip)
    kSimulatorCameraFile = 1,  // the camera's, as its port's first URL names it
};

// `handle` must be an open device or data stream (else GC_ERR_INVALID_HANDLE,
// as for a null handle or output); `*sim_handle` is set to 0 first. A module
// registered already: its simulator handle in `*sim_handle` and
// GC_ERR_INVALID_ADDRESS. A failure while recording: KV_ERR_EXCEPTION.
GC_ERROR register_simulator_handle(CTLSystem &system, void *handle, uint64_t *sim_handle);

// 0, or GC_ERR_INVALID_HANDLE for a handle that is not registered (0
// included).
GC_ERROR unregister_simulator_handle(CTLSystem &system, uint64_t sim_handle);

// One of the description files, zipped, as every file read of the library:
// a null `buffer` asks for the size; a smaller buffer answers
// GC_ERR_BUFFER_TOO_SMALL with the size needed. A handle of 0 or a null
// `size` GC_ERR_INVALID_HANDLE; a handle not registered
// GC_ERR_INVALID_ADDRESS; its module closed or another `which`
// GC_ERR_NOT_IMPLEMENTED. A file that cannot be read GC_ERR_NOT_AVAILABLE,
// as is the camera's before DevGetPort published the camera's port.
GC_ERROR simulator_xml(CTLSystem &system, uint64_t sim_handle, uint32_t which, void *buffer,
                       uint64_t *size);

// The module whose node map knows `name`, asked in this order: the device's
// own (answers the device), the camera's (the remote-device port), the
// device's interface's, the system's, the data stream's (the registered
// module). `*module_handle` is set to 0 first. 0 when one knows it, else
// KV_ERR_FEATURE_NOT_FOUND; a node map that is not built is passed over.
// Handle checks as simulator_xml (a null name or output
// GC_ERR_INVALID_HANDLE); a node-map failure KV_ERR_EXCEPTION.
GC_ERROR simulator_find(CTLSystem &system, uint64_t sim_handle, const char *name,
                        uint64_t *module_handle);

}  // namespace pelorin::features
