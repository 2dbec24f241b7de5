// The producer's kv_ exports: log control, feature access, settings files,
// event callbacks and simulator hooks.
#include "diag/log.h"
#include "diag/log_writer.h"
#include "entry/entry_body.h"
#include "features/feature_access.h"
#include "features/simulator_hooks.h"
#include "nodemap/node_map.h"

using namespace pelorin;
using namespace pelorin::entry;

namespace {

// The port of a module handle: the port exports on the handle itself, as a
// consumer would call them.
class handle_port final : public features::module_port {
public:
    explicit handle_port(void *handle) : handle_(handle) {}
    GC_ERROR read(uint64_t address, void *buffer, size_t *size) override {
        return GCReadPort(handle_, address, buffer, size);
    }
    GC_ERROR write(uint64_t address, const void *buffer, size_t *size) override {
        return GCWritePort(handle_, address, buffer, size);
    }
    GC_ERROR url(uint32_t index, char *buffer, size_t *size) override {
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        return GCGetPortURLInfo(handle_, index, URL_INFO_URL, &type, buffer, size);
    }

private:
    void *const handle_;
};

// The node map that a handle of `level` selects; null when the module has
// none loaded. The device, remote-device and stream node maps are not kept
// by the device yet: those levels answer "no node map".
std::shared_ptr<CNodeMapRef> node_map_of(int level, void *owner) {
    switch (level) {
        case kLevelSystem:
            return static_cast<CTLSystem *>(owner)->node_map();
        case kLevelInterface:
            return static_cast<CGentlInterface *>(owner)->node_map();
        case kLevelDevice:
        case kLevelRemoteDevice:
        case kLevelDataStream:
            return static_cast<CGentlDevice *>(owner)->node_map(level);
        default:
            return nullptr;
    }
}

features::feature_target target_of(int level, void *owner, handle_port &port) {
    features::feature_target target;
    target.map = node_map_of(level, owner);
    target.port = &port;
    if (level == kLevelSystem) {
        CTLSystem *system = static_cast<CTLSystem *>(owner);
        target.file_name = [system] { return system->xml_file_name(); };
    } else if (level == kLevelInterface) {
        target.file_name = [&port] { return features::description_file_name(port); };
    } else if (level == kLevelRemoteDevice || level == kLevelDataStream) {
        // The device port names no file; the camera and stream ports name
        // the camera's description file.
        CGentlDevice *device = static_cast<CGentlDevice *>(owner);
        target.file_name = [device] { return device->xml_file_name(kLevelRemoteDevice); };
    }
    return target;
}

// Feature-access body: ApiLock, then OpenCloseLock before any node map is
// touched (a node map's lock is otherwise taken in both orders with the port
// lock); library/system/handle checks; then the by-name operation on the
// node map the handle's level selects. The result is recorded.
template <typename Call>
GC_ERROR feature_call(const char *name, void *handle, Call &&call) noexcept {
    return guarded(name, [&]() -> GC_ERROR {
        LockScope scope(kApi | kOpenClose);
        int level = kLevelNone;
        void *owner = nullptr;
        const GC_ERROR checked = resolve_feature_handle(handle, &level, &owner);
        if (checked != GC_ERR_SUCCESS) return RecordLastError(checked);
        handle_port port(handle);
        features::feature_calls calls(target_of(level, owner, port));
        return RecordLastError(call(calls));
    });
}

// Simulator-hook body: OpenCloseLock (the registrations and the node maps
// are used under it), library and system checks, then the hook on the open
// system. Nothing is recorded, not even a failure that escapes as an
// exception.
template <typename Call>
GC_ERROR simulator_call(const char *name, Call &&call) noexcept {
    try {
        LockScope scope(kOpenClose);
        if (!library_initialised() || library().TheSystem == nullptr)
            return GC_ERR_NOT_INITIALIZED;
        return call(*library().TheSystem);
    } catch (const std::bad_alloc &) {
        LOG_ANY(diag::kError, "%s: out of memory\n", name);
        return GC_ERR_OUT_OF_MEMORY;
    } catch (const std::exception &error) {
        LOG_ANY(diag::kError, "%s: unexpected error: %s\n", name, error.what());
        return GC_ERR_ERROR;
    } catch (...) {
        LOG_ANY(diag::kError, "%s: unexpected error\n", name);
        return GC_ERR_ERROR;
    }
}

}  // namespace

// ---- log control ------------------------------------------------------------

KV_API kv_init_log(const char *path, uint32_t level) {
    int result = 0;
    const bool file_mode = path != nullptr;
    diag::set_debugger_mode(!file_mode);
    if (file_mode) result = log_init(path, static_cast<EnumLogLevel>(level), false);
    diag::set_log_level(level);
    LOG_ANY(diag::kInfo, "Start log(%s):%d\n", file_mode ? "file mode" : "windbg mode", result);
    return GC_ERR_SUCCESS;
}

KV_API kv_uninit_log(void) {
    LOG_ANY(diag::kInfo, "Stop log\n");
    if (!diag::debugger_mode()) log_relase();
    diag::set_debugger_mode(false);
    return GC_ERR_SUCCESS;
}

KV_API kv_set_language(uint32_t language) {
    diag::set_log_language(language);
    return GC_ERR_SUCCESS;
}

// ---- feature access ---------------------------------------------------------

#define PELORIN_FEATURE_EXPORT(name, params, operation, ...)                 \
    KV_API name(void *handle, PELORIN_UNPAREN params) {                        \
        return feature_call(#name, handle, [&](features::feature_calls &calls) { \
            return calls.operation(__VA_ARGS__);                               \
        });                                                                    \
    }
#define PELORIN_UNPAREN(...) __VA_ARGS__

PELORIN_FEATURE_EXPORT(kv_genapi_call_command, (const char *name), call_command, name)
PELORIN_FEATURE_EXPORT(kv_genapi_set_string, (const char *name, const char *text), set_string,
                       name, text)
PELORIN_FEATURE_EXPORT(kv_genapi_get_string, (const char *name, char *buffer, uint64_t *size),
                       get_string, name, buffer, size)
PELORIN_FEATURE_EXPORT(kv_genapi_set_integer, (const char *name, int64_t value), set_integer,
                       name, value)
PELORIN_FEATURE_EXPORT(kv_genapi_get_integer, (const char *name, int64_t *value), get_integer,
                       name, value)
PELORIN_FEATURE_EXPORT(kv_genapi_set_float, (const char *name, double value), set_float, name,
                       value)
PELORIN_FEATURE_EXPORT(kv_genapi_get_float, (const char *name, double *value), get_float, name,
                       value)
PELORIN_FEATURE_EXPORT(kv_genapi_set_register,
                       (const char *name, const void *buffer, uint64_t size), set_register,
                       name, buffer, size)
PELORIN_FEATURE_EXPORT(kv_genapi_get_register, (const char *name, void *buffer, uint64_t *size),
                       get_register, name, buffer, size)
PELORIN_FEATURE_EXPORT(kv_get_access, (const char *name, uint32_t *access), get_access, name,
                       access)
PELORIN_FEATURE_EXPORT(kv_get_integer_info,
                       (const char *name, int64_t *value, int64_t *minimum, int64_t *maximum,
                        int64_t *increment),
                       get_integer_info, name, value, minimum, maximum, increment)
PELORIN_FEATURE_EXPORT(kv_get_float_info,
                       (const char *name, double *value, double *minimum, double *maximum,
                        double *increment),
                       get_float_info, name, value, minimum, maximum, increment)
PELORIN_FEATURE_EXPORT(kv_get_enum_info,
                       (const char *name, std::string *current, std::vector<std::string> *entries),
                       get_enum_info, name, current, entries)
PELORIN_FEATURE_EXPORT(kv_get_features, (kv_feature_entry **entries, uint64_t *count),
                       get_features, entries, count)
PELORIN_FEATURE_EXPORT(kv_get_xml_info, (kv_xml_info *info), get_xml_info, info)
PELORIN_FEATURE_EXPORT(kv_get_xml, (uint32_t url_index, void *buffer, uint64_t *size), get_xml,
                       url_index, buffer, size)
PELORIN_FEATURE_EXPORT(kv_node_register,
                       (const char *name, kv_node_callback callback, void **node), node_register,
                       name, callback, node)
PELORIN_FEATURE_EXPORT(kv_get_nodes,
                       (const char *category, kv_node_entry **entries, uint64_t *count),
                       get_nodes, category, entries, count)
PELORIN_FEATURE_EXPORT(kv_get_node_info, (const char *name, kv_node_info *info), get_node_info,
                       name, info)
PELORIN_FEATURE_EXPORT(kv_get_enum_array,
                       (const char *name, kv_enum_entry *current, kv_enum_entry **entries,
                        uint32_t *count),
                       get_enum_array, name, current, entries, count)
PELORIN_FEATURE_EXPORT(kv_get_node_state, (const char *name, uint8_t state[2]), get_node_state,
                       name, state)

#undef PELORIN_UNPAREN
#undef PELORIN_FEATURE_EXPORT

// ---- settings files ---------------------------------------------------------

KV_API kv_genapi_save_ini(void *handle, const wchar_t *path) {
    return feature_call("kv_genapi_save_ini", handle, [&](features::feature_calls &calls) {
        return features::save_settings_file(calls, path);
    });
}

KV_API kv_genapi_load_ini(void *handle, const wchar_t *path, kv_settings_record **records,
                          uint32_t *count) {
    return feature_call("kv_genapi_load_ini", handle, [&](features::feature_calls &calls) {
        return features::load_settings_file(calls, handle, path, records, count);
    });
}

// ---- event callbacks --------------------------------------------------------

KV_API kv_register_event_cb(void *handle, int32_t, kv_event_callback, void *) {
    // Callbacks are not supported: a consumer uses GCRegisterEvent and
    // EventGetData. The callback is never stored or called; nothing recorded.
    return guarded("kv_register_event_cb", [&]() -> GC_ERROR {
        LockScope scope(kApi);
        int level = kLevelNone;
        void *owner = nullptr;
        const GC_ERROR checked = resolve_feature_handle(handle, &level, &owner);
        return checked != GC_ERR_SUCCESS ? checked : GC_ERR_NOT_IMPLEMENTED;
    });
}

// ---- simulator hooks --------------------------------------------------------

KV_API kv_sim_register_handle(void *handle, uint64_t *sim_handle) {
    return simulator_call("kv_sim_register_handle", [&](CTLSystem &system) {
        return features::register_simulator_handle(system, handle, sim_handle);
    });
}

KV_API kv_sim_unregister_handle(uint64_t sim_handle) {
    return simulator_call("kv_sim_unregister_handle", [&](CTLSystem &system) {
        return features::unregister_simulator_handle(system, sim_handle);
    });
}

KV_API kv_sim_get_xml(uint64_t sim_handle, uint32_t which, void *buffer, uint64_t *size) {
    return simulator_call("kv_sim_get_xml", [&](CTLSystem &system) {
        return features::simulator_xml(system, sim_handle, which, buffer, size);
    });
}

KV_API kv_sim_find(uint64_t sim_handle, const char *name, uint64_t *module_handle) {
    return simulator_call("kv_sim_find", [&](CTLSystem &system) {
        return features::simulator_find(system, sim_handle, name, module_handle);
    });
}
