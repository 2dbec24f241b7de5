// The producer's kv_ exports: log control, feature access, settings files,
// event callbacks and simulator hooks.
#include "diag/log.h"
#include "diag/log_writer.h"
#include "entry/entry_body.h"

using namespace pelorin;
using namespace pelorin::entry;

namespace {

// Feature-access body: API lock, library/system/handle checks, then the
// operation on the handle's module; the result is recorded.
template <typename Call>
GC_ERROR feature_call(const char *name, void *handle, Call &&call) noexcept {
    return guarded(name, [&]() -> GC_ERROR {
        LockScope scope(kApi);
        int level = kLevelNone;
        void *owner = nullptr;
        const GC_ERROR checked = resolve_feature_handle(handle, &level, &owner);
        if (checked != GC_ERR_SUCCESS) return RecordLastError(checked);
        return RecordLastError(call(level, owner));
    });
}

// Simulator-hook body: OpenCloseLock, library and system checks; nothing is
// recorded.
template <typename Call>
GC_ERROR simulator_call(const char *name, Call &&call) noexcept {
    return guarded(name, [&]() -> GC_ERROR {
        LockScope scope(kOpenClose);
        if (!library_initialised() || library().TheSystem == nullptr) return GC_ERR_NOT_INITIALIZED;
        return call();
    });
}

GC_ERROR not_yet(const char *name) { return NotImplementedYet(name); }

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

#define PELORIN_FEATURE_EXPORT(name, ...)                                                   \
    KV_API name(void *handle, __VA_ARGS__) {                                               \
        return feature_call(#name, handle, [](int, void *) { return not_yet(#name); }); \
    }

PELORIN_FEATURE_EXPORT(kv_genapi_call_command, const char *)
PELORIN_FEATURE_EXPORT(kv_genapi_set_string, const char *, const char *)
PELORIN_FEATURE_EXPORT(kv_genapi_get_string, const char *, char *, uint64_t *)
PELORIN_FEATURE_EXPORT(kv_genapi_set_integer, const char *, int64_t)
PELORIN_FEATURE_EXPORT(kv_genapi_get_integer, const char *, int64_t *)
PELORIN_FEATURE_EXPORT(kv_genapi_set_float, const char *, double)
PELORIN_FEATURE_EXPORT(kv_genapi_get_float, const char *, double *)
PELORIN_FEATURE_EXPORT(kv_genapi_set_register, const char *, const void *, uint64_t)
PELORIN_FEATURE_EXPORT(kv_genapi_get_register, const char *, void *, uint64_t *)
PELORIN_FEATURE_EXPORT(kv_get_access, const char *, uint32_t *)
PELORIN_FEATURE_EXPORT(kv_get_integer_info, const char *, int64_t *, int64_t *, int64_t *, int64_t *)
PELORIN_FEATURE_EXPORT(kv_get_float_info, const char *, double *, double *, double *, double *)
PELORIN_FEATURE_EXPORT(kv_get_enum_info, const char *, std::string *, std::vector<std::string> *)
PELORIN_FEATURE_EXPORT(kv_get_features, kv_feature_entry **, uint64_t *)
PELORIN_FEATURE_EXPORT(kv_get_xml_info, kv_xml_info *)
PELORIN_FEATURE_EXPORT(kv_get_xml, uint32_t, void *, uint64_t *)
PELORIN_FEATURE_EXPORT(kv_node_register, const char *, kv_node_callback, void **)
PELORIN_FEATURE_EXPORT(kv_get_nodes, const char *, kv_node_entry **, uint64_t *)
PELORIN_FEATURE_EXPORT(kv_get_node_info, const char *, kv_node_info *)
PELORIN_FEATURE_EXPORT(kv_get_enum_array, const char *, kv_enum_entry *, kv_enum_entry **, uint32_t *)
PELORIN_FEATURE_EXPORT(kv_get_node_state, const char *, uint8_t *)
PELORIN_FEATURE_EXPORT(kv_genapi_save_ini, const wchar_t *)
PELORIN_FEATURE_EXPORT(kv_genapi_load_ini, const wchar_t *, kv_settings_record **, uint32_t *)

#undef PELORIN_FEATURE_EXPORT

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
    return simulator_call("kv_sim_register_handle", [&]() -> GC_ERROR {
        if (handle == nullptr || sim_handle == nullptr) return GC_ERR_INVALID_HANDLE;
        *sim_handle = 0;
        void *owner = nullptr;
        const int level = ResolveHandle(handle, &owner);
        if (level != kLevelDevice && level != kLevelDataStream) return GC_ERR_INVALID_HANDLE;
        return not_yet("kv_sim_register_handle");
    });
}

KV_API kv_sim_unregister_handle(uint64_t sim_handle) {
    return simulator_call("kv_sim_unregister_handle", [&]() -> GC_ERROR {
        if (sim_handle == 0) return GC_ERR_INVALID_HANDLE;
        return not_yet("kv_sim_unregister_handle");
    });
}

KV_API kv_sim_get_xml(uint64_t sim_handle, uint32_t, void *, uint64_t *size) {
    return simulator_call("kv_sim_get_xml", [&]() -> GC_ERROR {
        if (sim_handle == 0 || size == nullptr) return GC_ERR_INVALID_HANDLE;
        return not_yet("kv_sim_get_xml");
    });
}

KV_API kv_sim_find(uint64_t sim_handle, const char *name, uint64_t *module_handle) {
    return simulator_call("kv_sim_find", [&]() -> GC_ERROR {
        if (sim_handle == 0 || name == nullptr || module_handle == nullptr)
            return GC_ERR_INVALID_HANDLE;
        return not_yet("kv_sim_find");
    });
}
